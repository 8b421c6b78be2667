#include "kym/Configuration.h"
#include "kym/SystemInfo.h"

#include "support/Site.h"
#include "support/TestSupport.h"

#include "base/FileManager.h"
#include "base/Platform.h"
#include "base/PropertyList.h"

#include <gtest/gtest.h>
#include <cstdlib>

using namespace KymTest;
using Kym::Configuration;
using Kym::InvalidConfiguration;

namespace {

using Names = std::vector<std::string>;

std::string native(const fs::path& p) {
    return Base::Platform::current().nativePath(p);
}

std::string properties(const Configuration& config) {
    return config.name() + "|" + config.description + "|" + config.type + "|" + config.commonDepartment + "|" +
           std::to_string(config.doFileCleanup) + "|" + std::to_string(config.cleanupDays);
}

// A site that names its releases nx4 (current) and nx3 (previous).
struct Department : ::testing::Test {
    Department() { site.writeReleaseNames(); }
    fs::path department(const std::string& name) const { return site.departmentsPath() / name; }
    // .dirinfo.plist holding exactly these values.
    fs::path writeProperties(const std::string& name, const Base::PropertyList::Dictionary& values) const {
        fs::create_directories(department(name));
        Base::PropertyList(department(name) / Configuration::PropertyFileName, values).saveList();
        return department(name);
    }
    Site site;
};

} // namespace

using ConfigurationProperties = Department;
using ConfigurationVersionDirectory = Department;

TEST_F(ConfigurationProperties, LoadKeepsTheDefaultsOfMissingKeysAndSaveDropsACommonNameWithABlank) {
    const fs::path dir = writeProperties("dept", {{"Description", std::string("Design")},
                                                  {"Do File Cleanup Key", false},
                                                  {"Common Department", std::string("Shared")}});
    Configuration config(dir, true);
    EXPECT_EQ(properties(config), "dept|Design|Production|Shared|0|2");
    EXPECT_FALSE(config.needsSaving());

    Configuration created(department("new"), false);
    EXPECT_TRUE(created.needsSaving());
    fs::create_directories(created.path());
    created.description = "Body design";
    created.type = "Development";
    created.commonDepartment = "My Common";
    created.cleanupDays = 14;
    created.settings()->setNeedsSaving(true);
    created.save();
    EXPECT_EQ(properties(Configuration(created.path(), true)), "new|Body design|Development||1|14");
    // Not updated for this release: its settings are not written and stay dirty.
    EXPECT_FALSE(fs::exists(created.versionPath()));
    EXPECT_TRUE(created.needsSaving());
}

TEST_F(ConfigurationProperties, AValueOfAnotherTypeOrNoDescriptionFailsWithABadCast) {
    const std::vector<Base::PropertyList::Dictionary> damaged{
        {{"Type", std::string("Production")}},
        {{"Description", std::string("d")}, {"Type", true}},
        {{"Description", std::string("d")}, {"Cleanup Days Key", std::int64_t(4294967296)}},
    };
    for (const auto& values : damaged) {
        writeProperties("dept", values);
        EXPECT_THROW(Configuration(department("dept"), true), boost::bad_any_cast)
            << Base::PropertyList::serialize(values);
    }
    writeProperties("dept", {{"Description", std::string("d")}, {"Cleanup Days Key", std::int64_t(4294967295)}});
    EXPECT_EQ(Configuration(department("dept"), true).cleanupDays, 4294967295u);
}

TEST_F(ConfigurationProperties, ADirectoryWithoutAReadablePropertyFileIsNoDepartment) {
    const auto invalid = [this] {
        try {
            Configuration config(department("plain"), true);
        } catch (const InvalidConfiguration& failure) {
            return failure.what() == "Directory " + native(department("plain")) + " is not valid department.";
        }
        return false;
    };
    fs::create_directories(department("plain"));
    EXPECT_TRUE(invalid());

    writeProperties("plain", {{"Description", std::string("d")}});
    fs::permissions(department("plain") / Configuration::PropertyFileName, fs::perms(0600));
    Kym::SystemInformation();
    EXPECT_EQ(runAsNobody([&] { return invalid() ? 0 : 1; }), 0);
}

TEST_F(ConfigurationProperties, CommonDepartmentPathIsTheOwnOneUnlessAUsableNameIsGiven) {
    Configuration config(department("dept"), false);
    EXPECT_EQ(config.commonConfigPath(), department("dept"));
    config.commonDepartment = "My Common";
    EXPECT_EQ(config.commonConfigPath(), department("dept"));
    config.commonDepartment = "Shared";
    EXPECT_EQ(config.commonConfigVersionPath(), department("Shared") / "nx4");
}

TEST_F(ConfigurationProperties, AnUpdatedDepartmentLoadsItsSettingsAndWritesThemOnlyWhenEdited) {
    DepartmentSettings content;
    content.layer.windowsVariables = {{"WIN", "2"}};
    content.layer.applications = {makeApplication("nx", "ugraf")};
    const fs::path dir = site.addUpdatedDepartment("dept", {}, content);
    Configuration config(dir, true);
    EXPECT_EQ(config.applicationList().at(0).configurationName(), "dept");

    const fs::path settingsFile = dir / "nx4" / "config" / "configSettings.dat";
    setAge(settingsFile, 3600);
    const auto untouched = fs::last_write_time(settingsFile);
    config.save();
    EXPECT_EQ(fs::last_write_time(settingsFile), untouched);

    config.settings()->winVariables()->deleteRows({0});
    config.save();
    EXPECT_FALSE(config.needsSaving());
    EXPECT_EQ(variableTexts(Configuration(dir, true).settings()->winVariableList()), Names{});
}

TEST_F(ConfigurationProperties, ACopyMovedInAVectorEditsItsOwnLists) {
    std::vector<Configuration> configurations;
    configurations.push_back(Configuration(department("first"), false));
    configurations[0].settings()->workDirectories()->insertRow(-1);
    configurations[0].settings()->applications();
    const std::size_t capacity = configurations.capacity();
    while (configurations.capacity() == capacity) configurations.push_back(Configuration(department("more"), false));
    const Configuration copy = configurations[0];

    configurations[0].settings()->workDirectories()->insertRow(-1);
    configurations[0].settings()->applications()->insertRow(-1);
    EXPECT_EQ(configurations[0].applicationList().size(), 1u);
    EXPECT_EQ(configurations[0].settings()->workDirectoryList().size(), 2u);
    EXPECT_EQ(copy.settings()->workDirectoryList().size(), 1u);
}

TEST_F(ConfigurationVersionDirectory, UnpacksTheVersionFilesAndCarriesThePreviousSettingsForward) {
    site.writeVersionFiles({{"lib/readme.txt", "r"}, {"config/default.txt", "d"}});
    const fs::path dir = site.addDepartment("dept");
    DepartmentSettings previous;
    previous.disabledPlugins = {"cam"};
    const fs::path previousFile = site.writeDepartmentSettings(dir, previous, "nx3");
    Configuration config(dir, true);
    const fs::path workDirectory = Base::FileManager::workDirectory();

    config.createNXVersionDirectory();
    EXPECT_EQ(Base::FileManager::workDirectory(), workDirectory);
    EXPECT_TRUE(config.isUpdated());
    EXPECT_EQ(readFile(dir / "nx4" / "lib" / "readme.txt") + readFile(dir / "nx4" / "config" / "default.txt"), "rd");
    EXPECT_EQ(readFile(dir / "nx4" / "config" / "configSettings.dat"), readFile(previousFile));
    EXPECT_TRUE(config.isPluginDisabled("cam"));
    EXPECT_FALSE(config.needsSaving());

    writeFile(dir / "nx4" / "lib" / "readme.txt", "kept");
    EXPECT_EQ(thrownMessage([&] { config.createNXVersionDirectory(); }),
              "Directory " + native(dir / "nx4") + " already exists.");
    EXPECT_EQ(readFile(dir / "nx4" / "lib" / "readme.txt"), "kept");
}

TEST_F(ConfigurationVersionDirectory, NothingIsLeftWhenTheArchiveIsMissingOrFailsHalfWay) {
    const fs::path dir = site.addDepartment("dept");
    Configuration config(dir, true);
    const fs::path workDirectory = Base::FileManager::workDirectory();
    EXPECT_EQ(thrownMessage([&] { config.createNXVersionDirectory(); }),
              "Data file " + native(site.versionFilesArchive()) + " was not found.");
    EXPECT_FALSE(fs::exists(dir / "nx4"));

    // The directory "lib" with a file, then a plain file "lib" that cannot replace it.
    writeFile(site.root() / "first" / "lib" / "x", "x");
    writeFile(site.root() / "second" / "lib", "plain");
    const std::string command = "tar -czf '" + site.versionFilesArchive().string() + "' -C '" +
                                (site.root() / "first").string() + "' lib -C '" + (site.root() / "second").string() +
                                "' lib";
    ASSERT_EQ(std::system(command.c_str()), 0);
    EXPECT_EQ(thrownMessage([&] { config.createNXVersionDirectory(); }),
              "Can't replace existing directory with non-directory");
    EXPECT_FALSE(fs::exists(dir / "nx4"));
    EXPECT_EQ(Base::FileManager::workDirectory(), workDirectory);
    EXPECT_FALSE(config.isUpdated());
}

TEST_F(ConfigurationVersionDirectory, The64BitLayoutIsMadeInsideTheUnpackedFilesWithMode775) {
    const fs::path dir = site.addDepartment("dept");
    Configuration config(dir, true);
    fs::create_directories(dir / "nx4" / "lib");
    config.createWin64VersionDirectory();
    EXPECT_TRUE(config.isWin64Updated());
    for (const char* name : {"lib/win64", "win64", "win64/application", "win64/startup", "win64/udo"})
        EXPECT_EQ(fs::status(dir / "nx4" / name).permissions(), fs::perms(0775)) << name;
}
