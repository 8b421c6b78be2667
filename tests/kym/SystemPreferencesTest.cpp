#include "kym/SystemPreferences.h"

#include "kym/SystemInfo.h"

#include "base/FileManager.h"
#include "base/PropertyList.h"
#include "base/SystemCalls.h"
#include "base/log/Logger.h"
#include "support/Site.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <optional>

namespace {

namespace fs = boost::filesystem;
using Kym::SystemPreferences;
using KymTest::ScopedEnv;
using KymTest::readFile;
using KymTest::writeFile;

const std::string plistHead =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" \"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
    "<plist version=\"1.0\">\n";

std::string plist(const std::string& root) {
    return plistHead + root + "\n</plist>\n";
}

// A dictionary of string values, written as a preference file.
void writePreferences(const fs::path& file, const std::vector<std::pair<std::string, std::string>>& values) {
    std::string body = "<dict>";
    for (const auto& [key, value] : values) body += "<key>" + key + "</key><string>" + value + "</string>";
    writeFile(file, plist(body + "</dict>"));
}

// The string found for a key, or "(none)".
std::string found(SystemPreferences& preferences, const std::string& key) {
    boost::shared_ptr<boost::any> value = preferences.GetPreference(key);
    if (!value) return "(none)";
    const auto* text = boost::any_cast<std::string>(value.get());
    return text ? *text : "(not a string)";
}

// A site with a department (KYM_DEPT_DIR), a common department and the release "nx4".
class Preferences : public testing::Test {
protected:
    Preferences() {
        // Brought into existence before any test records log lines.
        Kym::SystemInformation().applicationDataPath();
    }

    fs::path userDirectory() const { return site.applicationDataFolder() / "nxkym" / "preferences"; }
    fs::path departmentDirectory() const { return site.root() / "dept" / "nx4" / "preferences"; }

    KymTest::Site site;
    ScopedEnv department{"KYM_DEPT_DIR", (site.root() / "dept").string()};
    ScopedEnv common{"KYM_COMMONDEPT_DIR", (site.root() / "common").string()};
    ScopedEnv version{"UG_VER", "nx4"};
};

struct WorkDirectoryGuard {
    fs::path previous = Base::FileManager::workDirectory();
    ~WorkDirectoryGuard() { Base::FileManager::changeWorkDirectory(previous); }
};

// What a flush writes on standard error, which must hold the report alone.
std::string flushReport(SystemPreferences& preferences, const std::optional<std::string>& directory = {}) {
    Base::log::info().setEnabled(false);
    Base::log::verbose().setEnabled(false);
    testing::internal::CaptureStderr();
    directory ? preferences.Flush(*directory) : preferences.Flush();
    return testing::internal::GetCapturedStderr();
}

TEST_F(Preferences, ConstructorsLogTheirDirectoriesAndReadTheEightDomainsInOrder) {
    KymTest::LogRecorder log({"kym.info"});
    SystemPreferences preferences("launcher");

    const std::string data = (site.applicationDataFolder() / "nxkym").string();
    const std::string user = data + "/preferences/";
    const std::string dept = (site.root() / "dept").string() + "/nx4/preferences/";
    const std::string common = "${KYM_COMMONDEPT_DIR}/$UG_VER/preferences/";
    const std::string install = "${KYM_BASE_DIR}/preferences/";
    std::vector<std::string> expected{"(1) SystemPreferences KYM_DEPT_DIR 1 param launcher",
                                      "(1) Current 1app plist = launcher.plist",
                                      "(1) after Base::Path path() path = " + data,
                                      "(1) Current user pref dir = " + user,
                                      "(1) after expandEnvVariables " + dept,
                                      "(1) Global pref dir = " + dept};
    int n = 0;
    for (const std::string& directory : {user, dept, common, install})
        for (const char* file : {"launcher.plist", "global.plist"})
            expected.insert(expected.end(), {"ReadInPlist: " + std::to_string(++n) + " " + directory,
                                             "Reading in preference file " + directory + file});
    EXPECT_EQ(log.lines("kym.info"), expected);

    KymTest::LogRecorder departmentLog({"kym.info"});
    SystemPreferences department("/sites/plant", "configure");
    std::vector<std::string> lines = departmentLog.lines("kym.info");
    lines.resize(4);
    EXPECT_EQ(lines, (std::vector<std::string>{"(2) SystemPreferences DEPT 2 param /sites/plant",
                                               "Current 2app plist = configure.plist",
                                               "Current user pref dir = " + user,
                                               "Global pref dir = /sites/plant/nx4/preferences/"}));
}

TEST_F(Preferences, EachKeyComesFromTheFirstDomainThatHoldsIt) {
    // File n holds the keys row1 to row<n>, so row<n> is first found in file n.
    const std::vector<fs::path> files = {userDirectory() / "launcher.plist", userDirectory() / "global.plist",
                                         departmentDirectory() / "launcher.plist",
                                         departmentDirectory() / "global.plist"};
    for (std::size_t n = 1; n <= files.size(); ++n) {
        std::vector<std::pair<std::string, std::string>> values;
        for (std::size_t key = 1; key <= n; ++key) values.emplace_back("row" + std::to_string(key), "file " + std::to_string(n));
        writePreferences(files[n - 1], values);
    }
    SystemPreferences preferences("launcher");
    for (std::size_t n = 1; n <= files.size(); ++n) EXPECT_EQ(found(preferences, "row" + std::to_string(n)), "file " + std::to_string(n));
    EXPECT_EQ(found(preferences, "row5"), "(none)");
    EXPECT_EQ(found(preferences, "row1/deeper"), "(none)");
}

TEST_F(Preferences, CommonDepartmentAndInstallationDirectoriesAreNotExpanded) {
    writePreferences(site.root() / "common" / "nx4" / "preferences" / "launcher.plist", {{"common", "expanded"}});
    writePreferences(site.installPath() / "preferences" / "launcher.plist", {{"install", "expanded"}});
    // The directories are taken as they stand, relative to the working directory.
    KymTest::TempDir work;
    writePreferences(work / "${KYM_COMMONDEPT_DIR}" / "$UG_VER" / "preferences" / "global.plist",
                     {{"common", "literal"}});
    writePreferences(work / "${KYM_BASE_DIR}" / "preferences" / "launcher.plist", {{"install", "literal"}});

    SystemPreferences elsewhere("launcher");
    EXPECT_EQ(found(elsewhere, "common"), "(none)");
    EXPECT_EQ(found(elsewhere, "install"), "(none)");

    WorkDirectoryGuard guard;
    Base::FileManager::changeWorkDirectory(work.path());
    SystemPreferences inWork("launcher");
    EXPECT_EQ(found(inWork, "common"), "literal");
    EXPECT_EQ(found(inWork, "install"), "literal");
}

TEST_F(Preferences, AddPathAtTheFrontPutsTheGlobalFileAheadOfTheApplicationFile) {
    writePreferences(userDirectory() / "launcher.plist", {{"shared", "user"}});
    const fs::path extra = site.root() / "extra";
    writePreferences(extra / "launcher.plist", {{"shared", "extra application"}, {"own", "extra application"}});
    writePreferences(extra / "global.plist", {{"shared", "extra global"}, {"own", "extra global"}});

    SystemPreferences atEnd("launcher");
    atEnd.addPath(extra.string(), false);
    EXPECT_EQ(found(atEnd, "shared"), "user");
    EXPECT_EQ(found(atEnd, "own"), "extra application");

    SystemPreferences atFront("launcher");
    atFront.addPath(extra.string(), true);
    EXPECT_EQ(found(atFront, "shared"), "extra global");
    EXPECT_EQ(found(atFront, "own"), "extra global");

    KymTest::LogRecorder log({"kym.info"});
    atFront.addPath((site.root() / "missing").string(), true);
    EXPECT_EQ(log.lines("kym.info"), std::vector<std::string>{"in addPath()"});
    EXPECT_EQ(found(atFront, "shared"), "extra global");
}

TEST_F(Preferences, NestedKeysAreFlushedAsNestedDictionariesReplacingAPlainValueOnTheWay) {
    SystemPreferences preferences("launcher");
    preferences.SetPreference("a", std::string("plain"));
    preferences.SetPreference("a/b/c", std::string("deep"));
    preferences.SetPreference("a/shown", true);
    EXPECT_EQ(found(preferences, "a/b/c"), "deep");

    preferences.Flush();
    EXPECT_EQ(readFile(userDirectory() / "launcher.plist"),
              plist("\t<dict>\n"
                    "\t\t<key>a</key>\n"
                    "\t\t<dict>\n"
                    "\t\t\t<key>b</key>\n"
                    "\t\t\t<dict>\n"
                    "\t\t\t\t<key>c</key>\n"
                    "\t\t\t\t<string>deep</string>\n"
                    "\t\t\t</dict>\n"
                    "\t\t\t<key>shown</key>\n"
                    "\t\t\t<true />\n"
                    "\t\t</dict>\n"
                    "\t</dict>"));
    // Only the domain that was set in is written; the new directory gets the library's permissions.
    EXPECT_FALSE(fs::exists(userDirectory() / "global.plist"));
    EXPECT_EQ(fs::status(userDirectory()).permissions(), fs::perms(0775));
}

TEST_F(Preferences, RemovalTakesTheWholeKeyAndReachesDiskOnlyWithASet) {
    const fs::path file = userDirectory() / "launcher.plist";
    writeFile(file, plist("<dict><key>a</key><dict><key>b</key><string>nested</string></dict>"
                          "<key>top</key><string>t</string></dict>"));
    const std::string original = readFile(file);
    SystemPreferences preferences("launcher");

    preferences.RemovePreference("a/b");
    EXPECT_EQ(found(preferences, "a/b"), "nested");
    preferences.RemovePreference("top");
    EXPECT_EQ(found(preferences, "top"), "(none)");
    preferences.Flush();
    EXPECT_EQ(readFile(file), original);

    preferences.SetPreference("added", std::string("n"));
    preferences.Flush();
    SystemPreferences reread("launcher");
    EXPECT_EQ(found(reread, "a/b"), "nested");
    EXPECT_EQ(found(reread, "top"), "(none)");
    EXPECT_EQ(found(reread, "added"), "n");
}

TEST_F(Preferences, UnusableFilesAreSkippedAndTheOtherDomainsStillServe) {
    const fs::path arrayRoot = userDirectory() / "launcher.plist";
    const fs::path damaged = userDirectory() / "global.plist";
    writeFile(arrayRoot, plist("<array><string>k</string></array>"));
    writeFile(damaged, plistHead + "<dict><key>k</key>");
    writePreferences(departmentDirectory() / "launcher.plist", {{"k", "department"}});
    const std::string damagedMessage = KymTest::thrownMessage([&] { Base::PropertyList list(damaged); });

    KymTest::LogRecorder log({"kym.info"});
    SystemPreferences preferences("launcher");
    EXPECT_EQ(found(preferences, "k"), "department");
    EXPECT_TRUE(log.contains("Invalid preference file: " + arrayRoot.string() + "  Root object was not dictionary"));
    EXPECT_TRUE(log.contains(damagedMessage));
}

TEST_F(Preferences, FlushOntoAFileReportsOnStandardErrorAndReturns) {
    const fs::path file = site.root() / "plain";
    writeFile(file, "text");
    SystemPreferences preferences("launcher");
    preferences.SetPreference("k", std::string("v"), "launcher.plist", file.string());
    EXPECT_EQ(flushReport(preferences, file.string()),
              "Unable to save preferences\nThe path " + file.string() + " is not a directory.\n\n");
    EXPECT_EQ(readFile(file), "text");
}

TEST_F(Preferences, FailedWriteLeavesTheOldFileIntact) {
    const fs::path file = userDirectory() / "launcher.plist";
    writePreferences(file, {{"k", "old"}});
    const std::string original = readFile(file);
    for (auto setFault : {&Base::SystemCalls::setWriteFault, &Base::SystemCalls::setRenameFault}) {
        SCOPED_TRACE(setFault == &Base::SystemCalls::setWriteFault ? "write" : "rename");
        setFault([](const std::string&) { return EIO; });
        SystemPreferences preferences("launcher");
        preferences.SetPreference("k", std::string("new"));
        EXPECT_EQ(flushReport(preferences),
                  "Unable to save preferences\nCannot write settings file " + file.string() + ": Input/output error\n");
        EXPECT_EQ(readFile(file), original);
        EXPECT_EQ(std::distance(fs::directory_iterator(userDirectory()), fs::directory_iterator()), 1);
        setFault(nullptr);
    }
}

} // namespace
