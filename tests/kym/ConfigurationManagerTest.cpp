#include "kym/ConfigurationManager.h"
#include "kym/PluginsManager.h"
#include "kym/SystemInfo.h"

#include "support/Site.h"
#include "support/TestSupport.h"

#include "base/Platform.h"
#include "base/SmartAssert.h"

#include <gtest/gtest.h>
#include <sstream>

using namespace KymTest;
using Kym::Configuration;
using Kym::ConfigurationManager;

namespace {

using Names = std::vector<std::string>;

std::string native(const fs::path& p) {
    return Base::Platform::current().nativePath(p);
}

Names rows(const ConfigurationManager& manager) {
    Names names;
    for (int row = 0; row < manager.numberOfRowsInList(); ++row)
        names.push_back(boost::any_cast<std::string>(manager.valueForListColumnRow("Name", row)));
    return names;
}

template <class Range>
Names names(const Range& configurations) {
    Names result;
    for (const Configuration& config : configurations) result.push_back(config.name());
    return result;
}

DepartmentProperties properties(const std::string& description, const std::string& type) {
    DepartmentProperties result;
    result.description = description;
    result.type = type;
    return result;
}

// A site naming its releases nx4 and nx3, with version files to unpack; the
// stores exist before a test records log lines.
struct Manager : ::testing::Test {
    Manager() {
        site.writeReleaseNames();
        site.writeVersionFiles({{"lib/readme.txt", "r"}});
        Kym::SystemInformation().localDepartmentsPath();
        Kym::PluginsManagement();
    }
    fs::path department(const std::string& name) const { return site.departmentsPath() / name; }
    Site site;
};

} // namespace

TEST_F(Manager, SkipsEntriesThatAreNoDepartmentsAndDirectoriesTheUserCannotListOrEnter) {
    writeFile(department("notes.txt"), "not a department");
    fs::create_directories(department("empty"));
    writeFile(department("other") / "settings.txt", "");
    for (const char* name : {"locked", "closed", "open"}) site.addDepartment(name);
    fs::permissions(department("locked"), fs::perms(0700));
    fs::permissions(department("closed"), fs::perms(0744));
    EXPECT_EQ(rows(ConfigurationManager()), (Names{"closed", "locked", "open"}));

    EXPECT_EQ(runAsNobody([] {
                  LogRecorder log({"kym.info"});
                  ConfigurationManager manager;
                  return rows(manager) == Names{"open"} && log.contains("Found 1 configurations.") ? 0 : 1;
              }),
              0);
}

TEST_F(Manager, AMissingDepartmentsDirectoryFailsTheScan) {
    fs::remove_all(site.departmentsPath());
    EXPECT_EQ(thrownMessage([] { ConfigurationManager manager; }), "KYM_UGSITE_DIR is invalid.");
}

TEST_F(Manager, ListsUpdatedDepartmentsOfAFullyMatchingTypeByDescription) {
    site.addUpdatedDepartment("a", properties("Gamma", "Production"));
    site.addUpdatedDepartment("b", properties("Alpha", "Production"));
    site.addUpdatedDepartment("c", properties("Beta", "Development"));
    site.addUpdatedDepartment("common", properties("Beta", "Common"));
    site.addDepartment("n", properties("Aardvark", "Production"));
    ConfigurationManager manager;

    EXPECT_EQ(rows(manager), (Names{"a", "b", "c", "common", "n"}));
    // By description alone; equal descriptions keep the list order.
    EXPECT_EQ(names(manager.configurationList(".*")), (Names{"b", "c", "common", "a"}));
    EXPECT_EQ(names(manager.configurationList("Production")), (Names{"b", "a"}));
    EXPECT_EQ(names(manager.configurationList("Prod")), Names{});

    const auto common = manager.commonConfigurations();
    EXPECT_EQ(names(common), Names{"common"});
    manager.configurationByName("c")->type = "Common";
    manager.configurationByName("b")->type = "Common ";
    EXPECT_EQ(names(common), (Names{"c", "common"}));
}

TEST_F(Manager, AMisusedIndexOrAnEmptyNameIsReported) {
    site.addDepartment("design");
    ConfigurationManager manager;
    std::ostringstream report;
    std::ostream* previous = Base::setAssertStream(&report);
    EXPECT_EQ(thrownMessage([&] { manager.configuration(1); }), "configuration index 1 is out of range of 1 configurations");
    EXPECT_EQ(manager.configurationByName(""), nullptr);
    Base::setAssertStream(previous);
    EXPECT_EQ(report.str(),
              "Assertion (level 300) failed: index >= 0 && index < mConfigurations.size()\n"
              "  in ConfigurationManager, function configuration\n"
              "  index = 1\n"
              "  configuration index is out of range\n"
              "Assertion (level 300) failed: !name.empty()\n"
              "  in ConfigurationManager, function configurationByName\n"
              "  name = \n"
              "  Configuration name is empty\n");
}

TEST_F(Manager, CreatesChangeMeWithItsVersionFilesAndRefusesASecondOne) {
    site.addDepartment("design");
    ConfigurationManager manager;
    LogRecorder log({"kym.info"});
    manager.createConfiguration();

    const fs::path created = department("change_me");
    EXPECT_EQ(rows(manager), (Names{"design", "change_me"}));
    EXPECT_EQ(readFile(created / "nx4" / "lib" / "readme.txt"), "r");
    EXPECT_EQ(log.lines("kym.info"), (Names{"Creating new configuration", "Creating directory: " + native(created),
                                            "saving configuration settings: " + native(created)}));

    const std::string message = "Directory " + native(created) + " already exists.";
    EXPECT_EQ(thrownMessage([&] { manager.createConfiguration(); }), message);
    EXPECT_TRUE(log.contains("Error: " + message));
    EXPECT_EQ(rows(manager), (Names{"design", "change_me"}));
}

TEST_F(Manager, AFailedCreateLeavesNoDirectoryBehind) {
    ConfigurationManager manager;
    writeFile(site.versionFilesArchive(), "damaged");
    EXPECT_EQ(thrownMessage([&] { manager.createConfiguration(); }), "Unrecognized archive format");
    EXPECT_FALSE(fs::exists(department("change_me")));
    EXPECT_EQ(manager.numberOfRowsInList(), 0);
}

TEST_F(Manager, RenamingThroughTheTableRefusesBlanksAndMovesTheDirectory) {
    site.addUpdatedDepartment("change_me");
    site.addDepartment("design");
    ConfigurationManager manager;
    LogRecorder log({"kym.info"});

    EXPECT_FALSE(manager.setValueForListColumnRow("Name", 0, std::string("body\tdesign")));
    EXPECT_FALSE(manager.setValueForListColumnRow("Name", 0, std::string("design")));
    EXPECT_EQ(log.lines("kym.info"), (Names{"ERROR: configuration names must not contain spaces.",
                                            "ERROR: Directory " + native(department("design")) + " already exists."}));
    EXPECT_EQ(rows(manager), (Names{"change_me", "design"}));

    EXPECT_TRUE(manager.setValueForListColumnRow("Name", 0, std::string("body")));
    EXPECT_EQ(rows(manager), (Names{"body", "design"}));
    EXPECT_FALSE(fs::exists(department("change_me")));
    // The settings file moved with the directory.
    manager.configuration(0)->settings()->commonVariables()->insertRow(-1);
    manager.saveDirty();
    EXPECT_EQ(Configuration(department("body"), true).settings()->commonVariableList().size(), 1u);
}

TEST_F(Manager, DeleteRemovesEveryReleaseOfTheDepartmentAndItsRow) {
    site.addDepartment("a");
    const fs::path doomed = site.addUpdatedDepartment("b");
    site.writeDepartmentSettings(doomed, {}, "nx3");
    site.addDepartment("c");
    ConfigurationManager manager;
    ScopedEnv current("KYM_DEPT_DIR", department("b").string());
    EXPECT_EQ(manager.currentConfiguration(), manager.configuration(1));
    manager.deleteConfiguration(1);
    EXPECT_FALSE(fs::exists(doomed));
    EXPECT_EQ(rows(manager), (Names{"a", "c"}));
    EXPECT_EQ(manager.currentConfiguration(), nullptr);
    EXPECT_FALSE(manager.usingFallbackConfigurations());
}

TEST(ConfigurationFallback, TheInstallationsFallbackDirectoryIsReported) {
    Site site(KymTest::Departments::Fallback);
    EXPECT_TRUE(ConfigurationManager().usingFallbackConfigurations());
}
