#include "kym/SystemInfo.h"

#include "support/Site.h"

#include "base/SystemCalls.h"

#include <gtest/gtest.h>

#include <cerrno>

#ifndef _WIN32
#include <sys/stat.h>
#endif

using namespace KymTest;
using Kym::SystemInfo;
using Kym::SystemInformation;

TEST(SystemInformation, InvalidBaseDirThrowsAndTheNextCallRetries) {
    TempDir temp;
    ScopedEnv invalid("KYM_BASE_DIR", (temp / "kym").string());
    EXPECT_EQ(thrownMessage([] { SystemInformation(); }),
              "KYM_BASE_DIR is set to a invalid directory:\n  " + (temp / "kym").string());
    fs::create_directory(temp / "kym");
    SystemInfo& first = SystemInformation();
    EXPECT_EQ(&SystemInformation(), &first);
    EXPECT_EQ(SystemInfo::installPath(), temp / "kym");
}

#ifndef _WIN32
TEST(SystemInformation, UnreadableDataFileKeepsTheDefaults) {
    KYM_SKIP_UNLESS_ROOT();
    Site site;
    site.writeSystemInfo({{"KymVersionString", "7.1"}});
    ::chmod(site.systemInfoFile().c_str(), 0600);
    EXPECT_EQ(runAsNobody([] {
                  LogRecorder log({"kym.info"});
                  const bool defaulted = SystemInfo().KymVersionString == "No Version Specified";
                  return defaulted && log.contains("  Data file was not found or not readable. Using default settings.")
                             ? 0 : 1;
              }),
              0);
}
#endif

TEST(SystemInformation, FailedSaveKeepsTheFileAndTheChangedMark) {
    Site site;
    site.writeSystemInfo({{"SiteSettingsSuffix", "Nx4"}});
    const std::string before = readFile(site.systemInfoFile());
    SystemInfo& info = SystemInformation();
    info.SiteSettingsSuffix = "Nx5";
    info.settingsChanged();
    EXPECT_EQ(thrownUnderFault(&Base::SystemCalls::setRenameFault, EIO, [&] { info.save(); }),
              "Cannot write settings file " + site.systemInfoFile().string() + ": Input/output error");
    EXPECT_TRUE(info.needsSaving());
    EXPECT_EQ(readFile(site.systemInfoFile()), before);
}

TEST(LocalDepartments, ExpandedVariableWinsOverTheSibling) {
    Site site(Departments::Variable);
    fs::create_directory(site.root() / "ugsite");
    ScopedEnv root("SITE_ROOT", site.root().string());
    ScopedEnv variable("KYM_UGSITE_DIR", "${SITE_ROOT}/local/departments");
    EXPECT_EQ(SystemInformation().localDepartmentsPath(), site.departmentsPath());
}

TEST(LocalDepartments, VariableNamingAFileFallsThroughToTheSibling) {
    Site site;
    writeFile(site.root() / "afile", "");
    ScopedEnv variable("KYM_UGSITE_DIR", (site.root() / "afile").string());
    EXPECT_EQ(SystemInformation().localDepartmentsPath(), site.root() / "ugsite");
}

TEST(LocalDepartments, NothingFoundThrowsOnEveryCallEvenAfterOneAppears) {
    Site site(Departments::None);
    const std::string expected =
        "Problem determining where local department directory is located.\n"
        "Usually defined by KYM_UGSITE_DIR environment variable.";
    EXPECT_EQ(thrownMessage([] { SystemInformation().localDepartmentsPath(); }), expected);
    fs::create_directory(site.root() / "ugsite");
    EXPECT_EQ(thrownMessage([] { SystemInformation().localDepartmentsPath(); }), expected);
}

TEST(ApplicationData, IsTheNamedDirectoryInTheUsersFolderMadeAtFirstUse) {
    Site site;
    ASSERT_FALSE(fs::exists(site.userDataDirectory()));
    EXPECT_EQ(SystemInformation().applicationDataPath(), site.userDataDirectory());
    EXPECT_TRUE(fs::is_directory(site.userDataDirectory()));
#ifndef _WIN32
    EXPECT_EQ(fs::status(site.userDataDirectory()).permissions(), fs::perms(0775));
#endif
}

#ifndef _WIN32
TEST(ApplicationData, UnknownFolderThrowsOnceThenGivesTheEmptyPath) {
    Site site;
    ScopedEnv configHome("XDG_CONFIG_HOME", std::nullopt);
    ScopedEnv home("HOME", std::nullopt);
    EXPECT_EQ(thrownMessage([] { SystemInformation().applicationDataPath(); }),
              "ERROR: Problem getting user's application data folder.");
    EXPECT_EQ(SystemInformation().applicationDataPath(), fs::path());
}
#endif
