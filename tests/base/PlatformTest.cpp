#include "base/BaseException.h"
#include "base/Platform.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

using Base::Platform;

TEST(Platform, NativePathTurnsEverySeparatorTheWayOfItsSet) {
    EXPECT_EQ("C:\\cad\\ugii\\\\x\\", Platform::get(Platform::Windows).nativePath(std::string("C:/cad\\ugii//x/")));
    EXPECT_EQ("\\opt\\kym\\site.dat", Platform::get(Platform::Windows).nativePath(boost::filesystem::path("/opt/kym") / "site.dat"));
    EXPECT_EQ("C:/cad/ugii//x/", Platform::get(Platform::Posix).nativePath(std::string("C:/cad\\ugii\\/x\\")));
}

TEST(PlatformChoice, EmptyKymPlatformMeansTheBuildHostKymPlatformIsReadOnceAtFirstUseAndAnInvalidOneThrowsAtEveryUse) {
#ifdef _WIN32
    const Platform::Kind host = Platform::Windows, other = Platform::Posix;
#else
    const Platform::Kind host = Platform::Posix, other = Platform::Windows;
#endif
    // current() is chosen once per process; start from scratch.
    Platform::resetCurrent();
    {
        KymTest::ScopedEnv empty("KYM_PLATFORM", std::string(""));
        EXPECT_EQ(host, Platform::current().kind());
    }
    Platform::resetCurrent();
    KymTest::ScopedEnv chosen("KYM_PLATFORM", Platform::get(other).name());
    EXPECT_EQ(other, Platform::current().kind());
    KymTest::ScopedEnv changed("KYM_PLATFORM", Platform::get(host).name());
    EXPECT_EQ(other, Platform::current().kind());

    Platform::resetCurrent();
    KymTest::ScopedEnv invalid("KYM_PLATFORM", std::string("Windows"));
    for (int attempt = 0; attempt < 2; ++attempt)
        EXPECT_EQ("KYM_PLATFORM must be windows or posix, not 'Windows'",
                  KymTest::thrownMessage<Base::BaseException>([] { Platform::current(); }));
    Platform::resetCurrent();
}
