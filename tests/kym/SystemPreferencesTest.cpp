#include "kym/SystemPreferences.h"

#include "kym/SystemInfo.h"

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

// A site with a department (KYM_DEPT_DIR) and the release "nx4".
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
    ScopedEnv version{"UG_VER", "nx4"};
};

// What a flush writes on standard error, which must hold the report alone.
std::string flushReport(SystemPreferences& preferences, const std::optional<std::string>& directory = {}) {
    Base::log::info().setEnabled(false);
    Base::log::verbose().setEnabled(false);
    testing::internal::CaptureStderr();
    directory ? preferences.Flush(*directory) : preferences.Flush();
    return testing::internal::GetCapturedStderr();
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

    // A department named to the constructor replaces the one of KYM_DEPT_DIR.
    writePreferences(site.root() / "plant" / "nx4" / "preferences" / "configure.plist", {{"row3", "plant"}});
    SystemPreferences plant((site.root() / "plant").string(), "configure");
    EXPECT_EQ(found(plant, "row3"), "plant");
    EXPECT_EQ(found(plant, "row4"), "(none)");
}

TEST_F(Preferences, NestedKeysAreFlushedAsNestedDictionariesReplacingAPlainValueOnTheWay) {
    SystemPreferences preferences("launcher");
    preferences.SetPreference("a", std::string("plain"));
    preferences.SetPreference("a/b/c", std::string("deep"));
    preferences.SetPreference("a/shown", true);
    preferences.Flush();
    EXPECT_EQ(readFile(userDirectory() / "launcher.plist"),
              plist("\t<dict>\n\t\t<key>a</key>\n\t\t<dict>\n"
                    "\t\t\t<key>b</key>\n\t\t\t<dict>\n\t\t\t\t<key>c</key>\n\t\t\t\t<string>deep</string>\n\t\t\t</dict>\n"
                    "\t\t\t<key>shown</key>\n\t\t\t<true />\n\t\t</dict>\n\t</dict>"));
    // Only the domain that was set in is written.
    EXPECT_FALSE(fs::exists(userDirectory() / "global.plist"));
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
    preferences.Flush();
    EXPECT_EQ(readFile(file), original);

    preferences.SetPreference("added", std::string("n"));
    preferences.Flush();
    SystemPreferences reread("launcher");
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
