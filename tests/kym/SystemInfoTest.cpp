#include "kym/SystemInfo.h"

#include "support/Site.h"
#include "support/TestSupport.h"

#include "base/BaseException.h"
#include "base/Platform.h"
#include "base/SystemCalls.h"
#include "base/Archiver.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

using namespace KymTest;
using Kym::SystemInfo;
using Kym::SystemInformation;

namespace {

std::string native(const fs::path& p) {
    return Base::Platform::current().nativePath(p);
}

const std::vector<std::string> persistedOrder = {
    "KymVersionString", "CadVersionDirectory", "PreviousCadVersionDirectory", "KymConfigPathEnvVarName",
    "KymConfigFallbackDirectoryName", "KymApplicationDataDirectoryName", "BroadcastDirectoryName",
    "BroadcastStartMessage", "SiteSettingsSuffix", "CadWindowsRegistryPath", "CadProductName",
    "CadSupportedVersionString", "CadInstallPathVariable", "CadWebBrowserVariable", "tcEngInstallPathVariable",
    "tcEngDatabaseVariable", "CadVersionDataFilename"};

std::vector<std::string> allMembers(const SystemInfo& info) {
    return {info.KymVersionString, info.CadVersionDirectory, info.PreviousCadVersionDirectory,
            info.KymConfigPathEnvVarName, info.KymConfigFallbackDirectoryName, info.KymApplicationDataDirectoryName,
            info.BroadcastDirectoryName, info.BroadcastStartMessage, info.SiteSettingsSuffix,
            info.CadWindowsRegistryPath, info.CadProductName, info.CadSupportedVersionString,
            info.CadInstallPathVariable, info.CadWebBrowserVariable, info.tcEngInstallPathVariable,
            info.tcEngDatabaseVariable, info.CadVersionDataFilename};
}

const std::vector<std::string> defaults = {
    "No Version Specified", "Need to Specify", "Need to Specify", "KYM_UGSITE_DIR", "fb_ugsite", "nxkym",
    "broadcast", "startup", "Nx4", "SOFTWARE\\Unigraphics Solutions\\NX\\4.0", "NX", "4.0.x.x", "UGII_BASE_DIR",
    "UGII_HTML_BROWSER", "TC_ROOT", "TC_DATA", "versionFiles.tar.gz"};

} // namespace

TEST(SystemInformation, UnsetBaseDirMakesInstallPathAndTheStoreThrow) {
    ScopedEnv unset("KYM_BASE_DIR", std::nullopt);
    EXPECT_EQ(thrownMessage([] { SystemInfo::installPath(); }), "KYM_BASE_DIR is not set.");
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

TEST(SystemInformation, WithoutDataFileEveryMemberHasItsDefault) {
    Site site;
    Base::Platform::setCurrent(Base::Platform::Windows);
    LogRecorder log;
    const SystemInfo& info = SystemInformation();
    EXPECT_EQ(allMembers(info), defaults);
    EXPECT_FALSE(info.needsSaving());
    EXPECT_EQ(log.lines("kym.info"),
              (std::vector<std::string>{"Loading system information: " + native(site.systemInfoFile()),
                                        "  Data file was not found or not readable. Using default settings."}));
}

TEST(SystemInformation, DamagedDataFileIsLoggedAndKeepsTheMembersReadBeforeTheFault) {
    Site site;
    Base::Archiver archive(site.systemInfoFile());
    archive.encode("KymVersionString", "7.1");
    archive.encode("SiteSettingsSuffix", true);
    archive.encode("CadProductName", "CAD");
    archive.finishEncoding();
    LogRecorder log({"kym.info"});
    std::vector<std::string> expected = defaults;
    expected[0] = "7.1";
    EXPECT_EQ(allMembers(SystemInformation()), expected);
    EXPECT_EQ(log.lines("kym.info").back(), "  Could not read data file for some reason. Using default settings.");
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

TEST(SystemInformation, SaveWritesOnlyAfterAChangeAndInLoadOrder) {
    Site site;
    SystemInfo& info = SystemInformation();
    info.save();
    EXPECT_FALSE(fs::exists(site.systemInfoFile()));

    LogRecorder log;
    info.SiteSettingsSuffix = "Nx5";
    info.settingsChanged();
    info.save();
    EXPECT_FALSE(info.needsSaving());
    EXPECT_EQ(archiveTopLevelKeys(site.systemInfoFile()), persistedOrder);
    EXPECT_EQ(log.lines("kym.info").front(), "saving system information: " + native(site.systemInfoFile()));
    EXPECT_EQ(SystemInfo().SiteSettingsSuffix, "Nx5");
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
    LogRecorder log;
    EXPECT_EQ(SystemInformation().localDepartmentsPath(), site.departmentsPath());
    EXPECT_EQ(log.lines(), (std::vector<std::string>{
                               "kym.info: Loading system information: " + native(site.systemInfoFile()),
                               "kym.info:   Data file was not found or not readable. Using default settings.",
                               "kym.info: Checking if variable${SITE_ROOT}/local/departments can is a valid ugsite",
                               "kym.verbose: Using " + native(site.departmentsPath()) + " as ugsite"}));
}

TEST(LocalDepartments, VariableNamingAFileFallsThroughToTheSibling) {
    Site site;
    writeFile(site.root() / "afile", "");
    ScopedEnv variable("KYM_UGSITE_DIR", (site.root() / "afile").string());
    SystemInformation();
    LogRecorder log;
    EXPECT_EQ(SystemInformation().localDepartmentsPath(), site.root() / "ugsite");
    EXPECT_EQ(log.lines(), (std::vector<std::string>{
                               "kym.info: Checking if variable" + (site.root() / "afile").string() +
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
    EXPECT_EQ(static_cast<unsigned>(fs::status(directory).permissions()), 0775u);
}

TEST(ApplicationData, UnknownFolderThrowsOnceThenGivesTheEmptyPath) {
    Site site;
    ScopedEnv configHome("XDG_CONFIG_HOME", std::nullopt);
    ScopedEnv home("HOME", std::nullopt);
    EXPECT_EQ(thrownMessage([] { SystemInformation().applicationDataPath(); }),
              "ERROR: Problem getting user's application data folder.");
    EXPECT_EQ(SystemInformation().applicationDataPath(), fs::path());
}
