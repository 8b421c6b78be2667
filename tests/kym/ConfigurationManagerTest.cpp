#include "kym/ConfigurationManager.h"
#include "kym/PluginsManager.h"
#include "kym/SystemInfo.h"

#include "support/Site.h"

#include <gtest/gtest.h>
#include <array>

using namespace KymTest;
using Kym::Configuration;
using Kym::ConfigurationManager;

namespace {

using Names = std::vector<std::string>;

Names rows(const ConfigurationManager& manager) { return columnTexts(manager, "Name"); }

template <class Range>
Names names(const Range& configurations) {
    Names result;
    for (const Configuration& config : configurations) result.push_back(config.name());
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

TEST_F(Manager, SkipsEntriesThatAreNoDepartmentsAndFailsWithoutADepartmentsDirectory) {
    writeFile(department("notes.txt"), "not a department");
    writeFile(department("other") / "settings.txt", "");
    for (const char* name : {"body", "paint"}) site.addDepartment(name);
    LogRecorder log({"kym.info"});
    EXPECT_EQ(rows(ConfigurationManager()), (Names{"body", "paint"}));
    EXPECT_TRUE(log.contains("Found 2 configurations."));

    fs::remove_all(site.departmentsPath());
    EXPECT_EQ(thrownMessage([] { ConfigurationManager manager; }), "KYM_UGSITE_DIR is invalid.");
}

#ifndef _WIN32
TEST_F(Manager, SkipsDirectoriesTheUserCannotListOrEnter) {
    KYM_SKIP_UNLESS_ROOT();
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
#endif

TEST_F(Manager, ListsUpdatedDepartmentsOfAFullyMatchingTypeByDescription) {
    for (const auto& [name, description, type] : std::vector<std::array<std::string, 3>>{
             {"a", "Gamma", "Production"}, {"b", "Alpha", "Production"}, {"c", "Beta", "Development"},
             {"common", "Beta", "Common"}})
        site.addUpdatedDepartment(name, DepartmentProperties{description, type, "", true, 2});
    site.addDepartment("n", DepartmentProperties{"Aardvark", "Production", "", true, 2});
    ConfigurationManager manager;

    EXPECT_EQ(rows(manager), (Names{"a", "b", "c", "common", "n"}));
    // By description alone; equal descriptions keep the list order.
    EXPECT_EQ(names(manager.configurationList(".*")), (Names{"b", "c", "common", "a"}));
    EXPECT_EQ(names(manager.configurationList("Production")), (Names{"b", "a"}));
    EXPECT_EQ(names(manager.configurationList("Prod")), Names{});

    manager.configurationByName("b")->type = "Common ";
    EXPECT_EQ(names(manager.commonConfigurations()), Names{"common"});
}

TEST_F(Manager, CreatesChangeMeWithItsVersionFilesAndRefusesASecondOne) {
    site.addDepartment("design");
    ConfigurationManager manager;
    LogRecorder log({"kym.info"});
    manager.createConfiguration();

    const fs::path created = department("change_me");
    EXPECT_EQ(rows(manager), (Names{"design", "change_me"}));
    EXPECT_EQ(readFile(created / "nx4" / "lib" / "readme.txt"), "r");

    const std::string message = "Directory " + created.string() + " already exists.";
    EXPECT_EQ(thrownMessage([&] { manager.createConfiguration(); }), message);
    EXPECT_TRUE(log.contains("Error: " + message));
    EXPECT_EQ(rows(manager), (Names{"design", "change_me"}));
}

TEST_F(Manager, RenamingThroughTheTableRefusesBlanksAndTakenNames) {
    site.addUpdatedDepartment("change_me");
    site.addDepartment("design");
    ConfigurationManager manager;
    LogRecorder log({"kym.info"});

    EXPECT_FALSE(manager.setValueForListColumnRow("Name", 0, std::string("body\tdesign")));
    EXPECT_FALSE(manager.setValueForListColumnRow("Name", 0, std::string("design")));
    EXPECT_EQ(log.lines("kym.info"), (Names{"ERROR: configuration names must not contain spaces.",
                                            "ERROR: Directory " + department("design").string() + " already exists."}));
    EXPECT_TRUE(manager.setValueForListColumnRow("Name", 0, std::string("body")));
    EXPECT_EQ(rows(manager), (Names{"body", "design"}));
}
