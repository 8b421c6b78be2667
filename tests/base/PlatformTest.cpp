#include "base/BaseException.h"
#include "base/Platform.h"
#include "base/Registry.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

using Base::Platform;

namespace {

// current() is chosen once per process; each test starts from scratch.
class PlatformChoice : public ::testing::Test {
protected:
    void SetUp() override { Platform::resetCurrent(); }
    void TearDown() override { Platform::resetCurrent(); }
};

} // namespace

TEST(Platform, NativePathTurnsEverySeparatorTheWayOfItsSet) {
    const Platform& windows = Platform::get(Platform::Windows);
    const Platform& posix = Platform::get(Platform::Posix);
    EXPECT_EQ("C:\\cad\\ugii\\\\x\\", windows.nativePath(std::string("C:/cad\\ugii//x/")));
    EXPECT_EQ("\\opt\\kym\\site.dat", windows.nativePath(boost::filesystem::path("/opt/kym") / "site.dat"));
    EXPECT_EQ("C:/cad/ugii//x/", posix.nativePath(std::string("C:/cad\\ugii\\/x\\")));
}

TEST_F(PlatformChoice, EmptyKymPlatformMeansTheBuildHostAndKymPlatformIsReadOnceAtFirstUse) {
    {
        KymTest::ScopedEnv empty("KYM_PLATFORM", std::string(""));
        EXPECT_EQ(Platform::Posix, Platform::current().kind());
    }
    Platform::resetCurrent();
    KymTest::ScopedEnv windows("KYM_PLATFORM", std::string("windows"));
    EXPECT_EQ(Platform::Windows, Platform::current().kind());
    KymTest::ScopedEnv posix("KYM_PLATFORM", std::string("posix"));
    EXPECT_EQ(Platform::Windows, Platform::current().kind());
    Platform::setCurrent(Platform::Posix);
    EXPECT_EQ(&Platform::get(Platform::Posix), &Platform::current());
}

TEST_F(PlatformChoice, InvalidKymPlatformThrowsAtEveryUse) {
    KymTest::ScopedEnv invalid("KYM_PLATFORM", std::string("Windows"));
    for (int attempt = 0; attempt < 2; ++attempt) {
        try {
            Platform::current();
            FAIL() << "no failure";
        } catch (const Base::BaseException& error) {
            EXPECT_STREQ("KYM_PLATFORM must be windows or posix, not 'Windows'", error.what());
        }
    }
}

TEST(Registry, PosixHostFindsNothingAndTestsSubstituteIt) {
    EXPECT_EQ("", Base::Registry::readLocalMachineValue("SOFTWARE\\Cad\\Install", "Path"));
    Base::Registry::setReader([](const std::string& key, const std::string& value) { return key + "|" + value; });
    EXPECT_EQ("SOFTWARE\\Cad\\Install|Path", Base::Registry::readLocalMachineValue("SOFTWARE\\Cad\\Install", "Path"));
    Base::Registry::setReader(nullptr);
}
