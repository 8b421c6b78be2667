#include "kym/SystemPreferences.h"

#include "kym/SystemInfo.h"

#include "base/SystemCalls.h"
#include "base/log/Logger.h"
#include "support/Site.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <optional>

namespace {

using namespace KymTest;
using Kym::SystemPreferences;

std::string plist(const std::string& root) { return "<plist version=\"1.0\">" + root + "</plist>"; }

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
    // Brought into existence before any test records log lines.
    Preferences() { Kym::SystemInformation().applicationDataPath(); }
    fs::path userDirectory() const { return site.userDataDirectory() / "preferences"; }
    fs::path departmentDirectory() const { return site.root() / "dept" / "nx4" / "preferences"; }
    Site site;
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

TEST_F(Preferences, AFailedFlushReportsOnStandardErrorReturnsAndLeavesTheOldFileIntact) {
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

    const fs::path plain = site.root() / "plain";
    writeFile(plain, "text");
    SystemPreferences preferences("launcher");
    preferences.SetPreference("k", std::string("v"), "launcher.plist", plain.string());
    EXPECT_EQ(flushReport(preferences, plain.string()),
              "Unable to save preferences\nThe path " + plain.string() + " is not a directory.\n\n");
    EXPECT_EQ(readFile(plain), "text");
}

} // namespace
