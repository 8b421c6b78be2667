#include "base/BaseException.h"
#include "base/Platform.h"
#include "base/Registry.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

using Base::Platform;

namespace {

// Every convention of a set, in one comparable text.
std::string conventions(const Platform& platform) {
    std::string text = platform.name();
    text += std::string(" windows=") + (platform.isWindows() ? "yes" : "no");
    text += std::string(" sep=") + platform.pathSeparator() + " list=" + platform.listSeparator();
    text += " os=" + platform.osDirectoryName() + " osa=" + platform.osaDirectoryName();
    text += " script=" + platform.scriptExtension() + " cleanup=" + platform.cleanupDirectories();
    text += std::string(" ownOnly=") + (platform.cleanupOwnFilesOnly() ? "yes" : "no");
    text += " work=" + platform.defaultWorkDirectory();
    text += std::string(" upper=") + (platform.upperCaseProcessNames() ? "yes" : "no");
    return text;
}

// current() is chosen once per process; each test starts from scratch.
class PlatformChoice : public ::testing::Test {
protected:
    void SetUp() override { Platform::resetCurrent(); }
    void TearDown() override { Platform::resetCurrent(); }
};

} // namespace

TEST(Platform, EachSetHasItsConventionsAndTurnsEverySeparatorItsWay) {
    const Platform& windows = Platform::get(Platform::Windows);
    const Platform& posix = Platform::get(Platform::Posix);
    EXPECT_EQ(Platform::Windows, windows.kind());
    EXPECT_EQ(Platform::Posix, posix.kind());
    EXPECT_EQ("windows windows=yes sep=\\ list=; os=win64 osa=win64 script=bat cleanup=c:\\temp;$TEMP ownOnly=no "
              "work=${USERPROFILE} upper=yes",
              conventions(windows));
    EXPECT_EQ("posix windows=no sep=/ list=: os=lnx64 osa=lnx64 script=sh cleanup=/tmp;$TMPDIR ownOnly=yes "
              "work=${HOME} upper=no",
              conventions(posix));
    EXPECT_EQ("C:\\cad\\ugii\\\\x\\", windows.nativePath(std::string("C:/cad\\ugii//x/")));
    EXPECT_EQ("\\opt\\kym\\site.dat", windows.nativePath(boost::filesystem::path("/opt/kym") / "site.dat"));
    EXPECT_EQ("C:/cad/ugii//x/", posix.nativePath(std::string("C:/cad\\ugii\\/x\\")));
    EXPECT_EQ("/opt/kym/site.dat", posix.nativePath(boost::filesystem::path("/opt/kym") / "site.dat"));
}

TEST_F(PlatformChoice, UnsetOrEmptyKymPlatformMeansTheBuildHost) {
    KymTest::ScopedEnv unset("KYM_PLATFORM", std::nullopt);
    EXPECT_EQ(Platform::Posix, Platform::current().kind());
    Platform::resetCurrent();
    KymTest::ScopedEnv empty("KYM_PLATFORM", std::string(""));
    EXPECT_EQ(Platform::Posix, Platform::current().kind());
}

TEST_F(PlatformChoice, KymPlatformIsReadOnceAtFirstUse) {
    KymTest::ScopedEnv windows("KYM_PLATFORM", std::string("windows"));
    EXPECT_EQ(Platform::Windows, Platform::current().kind());
    KymTest::ScopedEnv posix("KYM_PLATFORM", std::string("posix"));
    EXPECT_EQ(Platform::Windows, Platform::current().kind());
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

TEST_F(PlatformChoice, SetCurrentOverridesKymPlatform) {
    KymTest::ScopedEnv windows("KYM_PLATFORM", std::string("windows"));
    Platform::setCurrent(Platform::Posix);
    EXPECT_EQ(Platform::Posix, Platform::current().kind());
    Platform::setCurrent(Platform::Windows);
    EXPECT_EQ(&Platform::get(Platform::Windows), &Platform::current());
}

TEST(Registry, PosixHostFindsNothingAndTestsSubstituteIt) {
    EXPECT_EQ("", Base::Registry::readLocalMachineValue("SOFTWARE\\Cad\\Install", "Path"));
    Base::Registry::setReader([](const std::string& key, const std::string& value) { return key + "|" + value; });
    EXPECT_EQ("SOFTWARE\\Cad\\Install|Path", Base::Registry::readLocalMachineValue("SOFTWARE\\Cad\\Install", "Path"));
    Base::Registry::setReader(nullptr);
    EXPECT_EQ("", Base::Registry::readLocalMachineValue("SOFTWARE\\Cad\\Install", "Path"));
}
