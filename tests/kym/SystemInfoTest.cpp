#include "kym/SystemInfo.h"

#include "support/Site.h"
#include "support/TestSupport.h"

#include "base/Archiver.h"
#include "base/Platform.h"
#include "base/SystemCalls.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

using namespace KymTest;
using Kym::SystemInfo;
using Kym::SystemInformation;

namespace {

using Lines = std::vector<std::string>;

std::string native(const fs::path& p) {
    return Base::Platform::current().nativePath(p);
}

} // namespace

TEST(SystemInformation, UnsetBaseDirMakesTheStoreThrow) {
    ScopedEnv unset("KYM_BASE_DIR", std::nullopt);
    EXPECT_EQ(thrownMessage([] { SystemInformation(); }), "KYM_BASE_DIR is not set.");
}

TEST(SystemInformation, FailedConstructionLeavesNoInstanceAndTheNextCallRetries) {
    TempDir temp;
    ScopedEnv base("KYM_BASE_DIR", (temp / "kym").string());
    EXPECT_EQ(thrownMessage([] { SystemInformation(); }),
              "KYM_BASE_DIR is set to a invalid directory:\n  " + native(temp / "kym"));
    fs::create_directory(temp / "kym");
    SystemInfo& first = SystemInformation();
    EXPECT_EQ(&SystemInformation(), &first);
    EXPECT_EQ(SystemInfo::installPath(), temp / "kym");
}

TEST(SystemInformation, DamagedDataFileIsLoggedAndKeepsTheMembersReadBeforeTheFault) {
    Site site;
    Base::Archiver archive(site.systemInfoFile());
    archive.encode("KymVersionString", "7.1");
    archive.encode("SiteSettingsSuffix", true);
    archive.encode("CadProductName", "CAD");
    archive.finishEncoding();
    LogRecorder log({"kym.info"});
    const SystemInfo& info = SystemInformation();
    EXPECT_EQ(info.KymVersionString + " " + info.SiteSettingsSuffix + " " + info.CadProductName, "7.1 Nx4 NX");
    EXPECT_EQ(log.lines("kym.info"),
              (Lines{"Loading system information: " + native(site.systemInfoFile()),
                     "  Could not read data file for some reason. Using default settings."}));
}

TEST(SystemInformation, UnreadableDataFileKeepsTheDefaults) {
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

TEST(SystemInformation, FailedSaveKeepsTheFileAndTheChangedMark) {
    Site site;
    site.writeSystemInfo({{"SiteSettingsSuffix", "Nx4"}});
    const std::string before = readFile(site.systemInfoFile());
    SystemInfo& info = SystemInformation();
    info.SiteSettingsSuffix = "Nx5";
    info.settingsChanged();
    Base::SystemCalls::setRenameFault([](const std::string&) { return EIO; });
    EXPECT_EQ(thrownMessage([&] { info.save(); }),
              "Cannot write settings file " + native(site.systemInfoFile()) + ": Input/output error");
    Base::SystemCalls::setRenameFault(nullptr);
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
    SystemInformation();
    LogRecorder log;
    EXPECT_EQ(SystemInformation().localDepartmentsPath(), site.root() / "ugsite");
    EXPECT_EQ(log.lines(), (Lines{"kym.info: Checking if variable" + (site.root() / "afile").string() +
                                      " can is a valid ugsite",
                                  "kym.info: Checking for ugsite as sibling of " + native(site.installPath()),
                                  "kym.verbose:   does this exist? " + native(site.root() / "ugsite"),
                                  "kym.verbose: Using " + native(site.root() / "ugsite") + " as ugsite"}));
}

TEST(LocalDepartments, TrailingSeparatorOfTheBaseDirStillFindsTheSibling) {
    Site site;
    ScopedEnv base("KYM_BASE_DIR", site.installPath().string() + "/");
    EXPECT_EQ(SystemInformation().localDepartmentsPath(), site.root() / "ugsite");
}

TEST(LocalDepartments, FallbackInsideTheInstallationComesLast) {
    Site site(Departments::Fallback);
    LogRecorder log({"kym.info"});
    EXPECT_EQ(SystemInformation().localDepartmentsPath(), site.installPath() / "fb_ugsite");
    EXPECT_EQ(log.lines("kym.info").back(), "Using fallback ugsite: " + native(site.installPath() / "fb_ugsite"));
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

TEST(ApplicationData, FileInTheWayThrowsAndTheNextCallCreatesTheDirectory) {
    Site site;
    const fs::path directory = site.applicationDataFolder() / "nxkym";
    writeFile(directory, "");
    EXPECT_EQ(thrownMessage([] { SystemInformation().applicationDataPath(); }),
              "The path " + native(directory) + " is not a directory.\n");
    fs::remove(directory);
    EXPECT_EQ(SystemInformation().applicationDataPath(), directory);
    EXPECT_EQ(fs::status(directory).permissions(), fs::perms(0775));
}

TEST(ApplicationData, UnknownFolderThrowsOnceThenGivesTheEmptyPath) {
    Site site;
    ScopedEnv configHome("XDG_CONFIG_HOME", std::nullopt);
    ScopedEnv home("HOME", std::nullopt);
    EXPECT_EQ(thrownMessage([] { SystemInformation().applicationDataPath(); }),
              "ERROR: Problem getting user's application data folder.");
    EXPECT_EQ(SystemInformation().applicationDataPath(), fs::path());
}
