// Several kym processes and library users writing one site at once, and
// damaged settings files: nothing is lost, and nothing is written over
// what could not be read.
#include "kym/BaseSettings.h"
#include "kym/Configuration.h"
#include "kym/ConfigurationSettings.h"

#include "support/Processes.h"
#include "support/Site.h"

#include "base/Platform.h"

#include <gtest/gtest.h>

#include <boost/algorithm/string/predicate.hpp>
#include <future>
#include <set>

namespace {

using namespace KymTest;

const bool orphansReaped = KymTest::reapOrphansOfTheTests();

Outcome kym(const std::vector<std::string>& arguments) { return runProgram(KYM_COMMAND, arguments); }

std::string native(const fs::path& path) { return Base::Platform::current().nativePath(path); }

class KymSafety : public ::testing::Test {
protected:
    KymSafety() {
#ifdef _WIN32
        Base::Platform::setCurrent(Base::Platform::Windows);
#else
        Base::Platform::setCurrent(Base::Platform::Posix);
#endif
        site.writeReleaseNames();
        fs::create_directories(home);
    }

    std::set<std::string> baseVariables() const {
        Kym::BaseSettings base = Kym::BaseInformation();
        base.load();
        const std::vector<std::string> texts = variableTexts(base.commonVariableList());
        return {texts.begin(), texts.end()};
    }

    Site site;
    fs::path home = site.root() / "home";
    ScopedEnv homeVariable{"HOME", home.string()};
    ScopedEnv noCache{"KYM_CACHE", std::string("off")};
};

TEST_F(KymSafety, TwentyWritersOfOneLayerAtOnceLoseNoEdit) {
    std::vector<std::future<Outcome>> writers;
    for (int index = 0; index < 20; ++index)
        writers.push_back(std::async(std::launch::async, [index] {
            const std::string number = std::to_string(index);
            return kym({"var", "set", "base", "CONC_" + number, "v" + number});
        }));
    // Each waits for the one before it: all twenty edits are there.
    std::set<std::string> expected;
    for (std::size_t index = 0; index < writers.size(); ++index) {
        const Outcome outcome = writers[index].get();
        EXPECT_EQ(outcome.status, 0) << outcome.err;
        expected.insert("CONC_" + std::to_string(index) + "=v" + std::to_string(index));
    }
    EXPECT_EQ(baseVariables(), expected);
    EXPECT_FALSE(fs::exists(site.baseSettingsFile().string() + ".lock"));
}

TEST_F(KymSafety, EveryLayerWithAFileThatDoesNotReadIsRefusedThenSetAsideOrRewrittenByRepair) {
    site.writeBaseSettings({});
    site.writeSiteSettings({});
    const fs::path plugin = site.addInternalPlugin("cam");
    site.writeVersionFiles({{"config/readme", "release files\n"}});
    ASSERT_EQ(kym({"dept", "create", "design"}).status, 0);
    ASSERT_EQ(kym({"var", "set", "dept:design", "KEEP", "1"}).status, 0);
    const fs::path department = Kym::Configuration(site.departmentsPath() / "design", true).settings()->dataFile();
    struct Case {
        std::string layer;
        fs::path file;
        std::vector<std::string> edit;
    };
    const Case cases[] = {
        {"base", site.baseSettingsFile(), {"var", "set", "base", "NEW", "1"}},
        {"site", site.siteSettingsFile(), {"var", "set", "site", "NEW", "1"}},
        {"plugin:cam", plugin / "settings.dat", {"var", "set", "plugin:cam", "NEW", "1"}},
        {"sysinfo", site.systemInfoFile(), {"sysinfo", "set", "PreviousCadVersionDirectory", "nx2"}},
        {"dept:design", department, {"var", "set", "dept:design", "NEW", "1"}},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(test.layer);
        writeFile(test.file, "<?xml version=\"1.0\"?><plist><dict><key>cut");
        const Outcome refused = kym(test.edit);
        EXPECT_EQ(refused.status, 1) << refused.out;
        // The stores that keep what they could read refuse to save over it, and say how to replace it.
        if (test.layer == "sysinfo" || test.layer == "dept:design") {
            EXPECT_TRUE(boost::algorithm::contains(refused.err, native(test.file) + " is not saved over")) << refused.err;
            EXPECT_TRUE(boost::algorithm::contains(refused.err, "'kym repair LAYER'")) << refused.err;
        }
        EXPECT_EQ(readFile(test.file), "<?xml version=\"1.0\"?><plist><dict><key>cut");

        const Outcome repaired = kym({"repair", test.layer});
        ASSERT_EQ(repaired.status, 0) << repaired.err;
        std::vector<fs::path> copies;
        for (const fs::directory_entry& entry : fs::directory_iterator(test.file.parent_path()))
            if (boost::algorithm::starts_with(entry.path().filename().string(), test.file.filename().string() + ".replaced-"))
                copies.push_back(entry.path());
        ASSERT_EQ(copies.size(), 1u);
        EXPECT_EQ(readFile(copies[0]), "<?xml version=\"1.0\"?><plist><dict><key>cut");
        EXPECT_TRUE(boost::algorithm::contains(repaired.out, native(copies[0]))) << repaired.out;
        // System information keeps what it could read (nothing): the release names come back with the edit.
        if (test.layer == "sysinfo") site.writeReleaseNames();
        const Outcome edited = kym(test.edit);
        EXPECT_EQ(edited.status, 0) << edited.err;
        EXPECT_EQ(kym({"repair", test.layer}).out, printedText("The settings files of " + test.layer +
                                                               " read whole; nothing was changed.\n"));
    }
    // A file cut off does not parse at all: the department started again from nothing.
    const Kym::Configuration design(site.departmentsPath() / "design", true);
    EXPECT_EQ(variableTexts(design.settings()->commonVariableList()), (std::vector<std::string>{"NEW=1"}));
}

} // namespace
