// Creating, renaming and deleting departments, and renaming plugins, on a real site: each ends
// complete, or a failure at a late step leaves every file of the site as it
// was, byte for byte.
#include "kym/Configuration.h"
#include "kym/ConfigurationManager.h"
#include "kym/ConfigurationSettings.h"
#include "kym/PluginsManager.h"
#include "kym/SystemInfo.h"

#include "base/FileLock.h"
#include "base/SettingsFile.h"
#include "base/SystemCalls.h"
#include "base/SystemError.h"

#include "support/Site.h"

#include <gtest/gtest.h>

#include <boost/algorithm/string/predicate.hpp>
#include <cerrno>
#include <chrono>
#include <map>

#ifndef _WIN32
#include <pwd.h>
#include <unistd.h>
#endif

using namespace KymTest;
using Kym::Configuration;
using Kym::ConfigurationManager;

namespace {

using Names = std::vector<std::string>;
// Every entry below a folder by relative path: a directory ends in '/', a file maps to its content.
using Listing = std::map<std::string, std::string>;

Listing listing(const fs::path& root) {
    Listing entries;
    for (fs::recursive_directory_iterator entry(root), end; entry != end; ++entry) {
        const std::string relative = entry->path().lexically_relative(root).generic_string();
        if (fs::is_directory(entry->symlink_status()))
            entries[relative + "/"] = "";
        else
            entries[relative] = readFile(entry->path());
    }
    return entries;
}

Names rows(const ConfigurationManager& manager) { return columnTexts(manager, "Name"); }

// The entries of a directory that are work directories of an operation.
Names workDirectories(const fs::path& departments) {
    Names names;
    for (fs::directory_iterator entry(departments), end; entry != end; ++entry)
        if (ConfigurationManager::isWorkDirectoryName(entry->path().filename().string()))
            names.push_back(entry->path().filename().string());
    return names;
}

// Makes the hooked call fail with EIO for the paths the test picks, until it goes.
class Fault {
public:
    Fault(void (*set)(Base::SystemCalls::FaultHook), std::function<bool(const fs::path&)> picks) : mSet(set) {
        set([picks](const std::string& what) { return picks(fs::path(what)) ? EIO : 0; });
    }
    ~Fault() { mSet(nullptr); }
    Fault(const Fault&) = delete;
    Fault& operator=(const Fault&) = delete;

private:
    void (*mSet)(Base::SystemCalls::FaultHook);
};

// A rename of the directory that takes that name, wherever it goes.
std::function<bool(const fs::path&)> directoryNamed(const std::string& name) {
    return [name](const fs::path& target) { return target.filename() == name; };
}

// A write of that file of that department.
std::function<bool(const fs::path&)> fileOf(const std::string& department, const std::string& leaf) {
    return [department, leaf](const fs::path& target) {
        return target.filename() == leaf && target.parent_path().filename() == department;
    };
}

int indexOf(const ConfigurationManager& manager, const std::string& name) {
    const Names names = rows(manager);
    const auto found = std::find(names.begin(), names.end(), name);
    if (found == names.end()) throw std::runtime_error("no department " + name);
    return static_cast<int>(found - names.begin());
}

// A site naming its releases nx4 and nx3, with version files to unpack.
struct Operations : ::testing::Test {
    Operations() {
        site.writeReleaseNames();
        site.writeVersionFiles({{"lib/readme.txt", "r"}});
        Kym::SystemInformation().localDepartmentsPath();
        Kym::PluginsManagement();
    }
    fs::path department(const std::string& name) const { return site.departmentsPath() / name; }

    // shared (Common), design and paint that name it, and other that names none.
    void addSharedWithDependents() {
        site.addUpdatedDepartment("shared", DepartmentProperties{"Shared", "Common", "", true, 2});
        DepartmentSettings settings;
        settings.workDirectories.emplace_back();
        settings.workDirectories.back().name = "projects";
        settings.workDirectories.back().path = "/data/projects";
        site.addUpdatedDepartment("design", DepartmentProperties{"Design", "Production", "shared", false, 7}, settings);
        site.addUpdatedDepartment("paint", DepartmentProperties{"Paint", "Production", "shared", true, 2});
        site.addUpdatedDepartment("other", DepartmentProperties{"Other", "Test", "", true, 2});
    }

    // shared becomes common.
    static std::vector<std::string> renameShared(ConfigurationManager& manager) {
        return manager.renameConfigurationWithDependents(indexOf(manager, "shared"), "common");
    }

    Site site;
};

// Creation

TEST_F(Operations, ACreatedDepartmentAppearsOnlyWhenItIsComplete) {
    site.addDepartment("body");
    ConfigurationManager manager;
    bool prepared = false;
    const fs::path final = department("design");
    Configuration& created = manager.createConfiguration("design", [&](Configuration& department) {
        // Nobody sees it yet: not by its name, not in a scan.
        EXPECT_FALSE(fs::exists(final));
        EXPECT_EQ(rows(ConfigurationManager()), Names{"body"});
        EXPECT_EQ(department.name(), "design");
        EXPECT_TRUE(department.isUpdated());
        department.description = "Design office";
        department.type = "Development";
        department.commonDepartment = "body";
        department.setNeedsSaving(true);
        Kym::WorkDirectoryListSource* directories = department.settings()->workDirectories();
        directories->insertRow(-1);
        directories->setValueForListColumnRow("Name", 0, std::string("projects"));
        directories->setValueForListColumnRow("Path", 0, std::string("/data/projects"));
        prepared = true;
    });
    ASSERT_TRUE(prepared);

    EXPECT_EQ(created.path(), department("design"));
    EXPECT_EQ(rows(manager), (Names{"body", "design"}));
    EXPECT_EQ(workDirectories(site.departmentsPath()), Names{});
    Configuration reread(department("design"), true);
    EXPECT_EQ(reread.description, "Design office");
    EXPECT_EQ(reread.type, "Development");
    EXPECT_EQ(reread.commonDepartment, "body");
    ASSERT_EQ(reread.settings()->workDirectoryList().size(), 1u);
    EXPECT_EQ(reread.settings()->workDirectoryList()[0].name, "projects");
    EXPECT_EQ(readFile(department("design") / "nx4" / "lib" / "readme.txt"), "r");
    EXPECT_EQ(ConfigurationManager().numberOfConfigurations(), 2);

    // What the store knows of its files followed the move: a later save is no conflict.
    created.description = "Design";
    created.setNeedsSaving(true);
    created.save();
    EXPECT_EQ(Configuration(department("design"), true).description, "Design");
}

TEST_F(Operations, AFailedCreationLeavesTheSiteAsItWas) {
    site.addUpdatedDepartment("body");
    ConfigurationManager manager;
    const Listing before = listing(site.root());
    auto editSettings = [](Configuration& department) {
        department.settings()->workDirectories()->insertRow(-1);
    };

    {
        SCOPED_TRACE("moving it into place");
        const Fault fault(&Base::SystemCalls::setRenameFault, directoryNamed("design"));
        const std::string message = thrownMessage([&] { manager.createConfiguration("design", editSettings); });
        EXPECT_TRUE(boost::starts_with(message, "Cannot rename directory ")) << message;
        EXPECT_TRUE(boost::ends_with(message, "design to " + department("design").string() +
                                                  ": " + Base::errnoText(EIO)))
            << message;
    }
    EXPECT_EQ(listing(site.root()), before);
    {
        SCOPED_TRACE("writing its settings");
        const Fault fault(&Base::SystemCalls::setWriteFault, [](const fs::path& file) {
            return file.filename() == "configSettings.dat";
        });
        const std::string message = thrownMessage([&] { manager.createConfiguration("design", editSettings); });
        EXPECT_TRUE(boost::starts_with(message, "Cannot write settings file ")) << message;
    }
    EXPECT_EQ(listing(site.root()), before);
    {
        SCOPED_TRACE("preparing it");
        EXPECT_EQ(thrownMessage([&] {
                      manager.createConfiguration("design", [](Configuration&) {
                          throw std::runtime_error("Unknown department type 'Other'.");
                      });
                  }),
                  "Unknown department type 'Other'.");
    }
    EXPECT_EQ(listing(site.root()), before);
    {
        SCOPED_TRACE("unpacking the version files");
        fs::remove(site.versionFilesArchive());
        const Listing withoutArchive = listing(site.root());
        EXPECT_EQ(thrownMessage([&] { manager.createConfiguration("design"); }),
                  "Data file " + site.versionFilesArchive().string() + " was not found.");
        EXPECT_EQ(listing(site.root()), withoutArchive);
    }
    EXPECT_EQ(rows(manager), Names{"body"});
}

TEST_F(Operations, ARenameTakesEveryDepartmentThatNamesItAlong) {
    addSharedWithDependents();
    const std::string otherProperties = readFile(department("other") / Configuration::PropertyFileName);
    const std::string designSettings = readFile(department("design") / "nx4" / "config" / "configSettings.dat");
    ConfigurationManager manager;

    EXPECT_EQ(renameShared(manager),
              (Names{"design", "paint"}));

    EXPECT_FALSE(fs::exists(department("shared")));
    EXPECT_EQ(Configuration(department("common"), true).type, "Common");
    const Configuration design(department("design"), true);
    EXPECT_EQ(design.commonDepartment, "common");
    EXPECT_FALSE(design.doFileCleanup);
    EXPECT_EQ(design.cleanupDays, 7u);
    EXPECT_EQ(Configuration(department("paint"), true).commonDepartment, "common");
    EXPECT_EQ(readFile(department("other") / Configuration::PropertyFileName), otherProperties);
    EXPECT_EQ(readFile(department("design") / "nx4" / "config" / "configSettings.dat"), designSettings);
    EXPECT_EQ(rows(manager), (Names{"design", "other", "paint", "common"}));
    EXPECT_EQ(manager.configurationByName("common")->path(), department("common"));
    EXPECT_FALSE(manager.anyNeedsSaving());
    for (const auto& [path, content] : listing(site.root()))
        EXPECT_FALSE(boost::ends_with(path, ".lock")) << path << " is left behind";
}

TEST_F(Operations, ARenameThatCannotCompleteLeavesTheSiteAndTheManagerAsTheyWere) {
    addSharedWithDependents();
    Base::FileLock::setWaitLimit(std::chrono::milliseconds(50));
    const fs::path paintProperties = department("paint") / Configuration::PropertyFileName;
    {
        SCOPED_TRACE("another writer changed it");
        ConfigurationManager manager;
        site.addDepartment("paint", DepartmentProperties{"Paint shop", "Production", "shared", true, 2});
        const Listing before = listing(site.root());
        EXPECT_EQ(thrownMessage<Base::SettingsFileChanged>([&] { renameShared(manager); }),
                  "Settings file " + paintProperties.string() +
                      " was changed by another writer since it was read; nothing was written. Read it again and "
                      "repeat the change, or overwrite it deliberately.");
        EXPECT_EQ(listing(site.root()), before);
    }
    {
        SCOPED_TRACE("another writer holds it");
        ConfigurationManager manager;
        writeFile(Base::FileLock::lockFileOf(paintProperties), "pid 1 on elsewhere, user ann, since now\n");
        const Listing before = listing(site.root());
        const std::string message = thrownMessage([&] { renameShared(manager); });
        EXPECT_TRUE(boost::starts_with(message, "Settings file " + paintProperties.string() +
                                                    " is locked by pid 1 on elsewhere, user ann, since now;"))
            << message;
        EXPECT_EQ(listing(site.root()), before);
        fs::remove(Base::FileLock::lockFileOf(paintProperties));
    }
    {
        SCOPED_TRACE("the directory cannot be renamed");
        ConfigurationManager manager;
        const Listing before = listing(site.root());
        const Fault fault(&Base::SystemCalls::setRenameFault, directoryNamed("common"));
        EXPECT_EQ(thrownMessage([&] { renameShared(manager); }),
                  "Cannot rename directory " + department("shared").string() + " to " + department("common").string() +
                      ": " + Base::errnoText(EIO));
        EXPECT_EQ(listing(site.root()), before);
        EXPECT_EQ(manager.configurationByName("shared")->path(), department("shared"));
    }
    SCOPED_TRACE("the second dependent fails to save");
    // design is saved first and written; paint, the second, fails.
    ConfigurationManager manager;
    const Listing before = listing(site.root());
    {
        const Fault fault(&Base::SystemCalls::setWriteFault, fileOf("paint", Configuration::PropertyFileName));
        EXPECT_EQ(thrownMessage([&] { renameShared(manager); }),
                  "Cannot write settings file " + paintProperties.string() + ": " + Base::errnoText(EIO));
    }
    EXPECT_EQ(listing(site.root()), before);
    EXPECT_EQ(rows(manager), (Names{"design", "other", "paint", "shared"}));
    EXPECT_EQ(manager.configurationByName("shared")->path(), department("shared"));
    EXPECT_EQ(manager.configurationByName("design")->commonDepartment, "shared");
    EXPECT_FALSE(manager.anyNeedsSaving());

    // The manager knows the files as they are again: the same rename now goes through.
    EXPECT_EQ(renameShared(manager), (Names{"design", "paint"}));
    EXPECT_EQ(Configuration(department("paint"), true).commonDepartment, "common");
}

TEST_F(Operations, CreationAndRenameRefuseTakenNamesAndNamesNoDepartmentCanHave) {
    addSharedWithDependents();
    ConfigurationManager manager;
    const Listing before = listing(site.root());
    const auto rename = [&manager](const std::string& name) {
        return thrownMessage([&] { manager.renameConfigurationWithDependents(indexOf(manager, "shared"), name); });
    };
    const std::string taken = "Directory " + department("other").string() + " already exists.";
    EXPECT_EQ(thrownMessage([&] { manager.createConfiguration("other"); }), taken);
    EXPECT_EQ(rename("other"), taken);
    for (const std::string name : {"", ".", "..", "a b", "a/b", "a\\b", ".kym creating x 1"}) {
        SCOPED_TRACE(name);
        const std::string invalid = "Invalid department name '" + name +
                                    "': a department is a directory of the departments directory, named without "
                                    "blanks and without '/' or '\\'.";
        EXPECT_EQ(thrownMessage([&] { manager.createConfiguration(name); }), invalid);
        EXPECT_EQ(rename(name), invalid);
    }
    EXPECT_EQ(listing(site.root()), before);
}

// Plugins

struct PluginRename : Operations {
    // cam and tools; design disables cam, paint overlays cam's application, other names none of it.
    PluginRename() {
        Kym::PluginsManagement().addPlugin(site.addInternalPlugin("cam", "Production"));
        Kym::PluginsManagement().addPlugin(site.addInternalPlugin("tools"));
        DepartmentSettings design;
        design.disabledPlugins = {"tools", "cam"};
        site.addUpdatedDepartment("design", DepartmentProperties{"Design", "Production", "", true, 2}, design);
        DepartmentSettings paint;
        paint.overlays.emplace_back();
        paint.overlays.back().configurationName = "cam Plugin";
        paint.overlays.back().appId = "cam";
        paint.overlays.back().category = "Shop";
        site.addUpdatedDepartment("paint", DepartmentProperties{"Paint", "Production", "", true, 2}, paint);
        DepartmentSettings other;
        other.disabledPlugins = {"tools"};
        site.addUpdatedDepartment("other", DepartmentProperties{"Other", "Test", "", true, 2}, other);
    }
    fs::path settingsOf(const std::string& name) const { return department(name) / "nx4" / "config" / "configSettings.dat"; }
    static Kym::ConfigurationSettings reread(const fs::path& file) {
        Kym::ConfigurationSettings settings;
        settings.setDataFile(file);
        settings.load();
        return settings;
    }
};

TEST_F(PluginRename, ARenamedPluginKeepsItsPlaceInEveryDepartmentThatNamesIt) {
    const std::string otherSettings = readFile(settingsOf("other"));
    ConfigurationManager manager;

    EXPECT_EQ(manager.renamePluginWithDependents("cam", "milling"), (Names{"design", "paint"}));

    EXPECT_FALSE(fs::exists(site.pluginsPath() / "cam"));
    Kym::PluginsManager& plugins = Kym::PluginsManagement();
    ASSERT_GE(plugins.indexOfPlugin("milling"), 0);
    EXPECT_EQ(plugins.plugin(plugins.indexOfPlugin("milling"), false)->dataFile(),
              site.pluginsPath() / "milling" / "settings.dat");
    EXPECT_EQ(Kym::PluginSettings(site.pluginsPath() / "milling").pluginType(), "Production");
    EXPECT_EQ(reread(settingsOf("design")).disabledPluginList(), (Names{"tools", "milling"}));
    const std::vector<Kym::ApplicationOverlay> overlays = reread(settingsOf("paint")).overlays();
    ASSERT_EQ(overlays.size(), 1u);
    EXPECT_EQ(overlays[0].configurationName, "milling Plugin");
    EXPECT_EQ(overlays[0].category, "Shop");
    EXPECT_EQ(readFile(settingsOf("other")), otherSettings);
    EXPECT_FALSE(manager.anyNeedsSaving());
    for (const auto& [path, content] : listing(site.root()))
        EXPECT_FALSE(boost::ends_with(path, ".lock")) << path << " is left behind";
}

TEST_F(PluginRename, ARenameThatCannotBeCompletedLeavesTheSiteAsItWas) {
    ConfigurationManager manager;
    const Listing before = listing(site.root());
    const fs::path cam = site.pluginsPath() / "cam";
    {
        SCOPED_TRACE("the second department that names it fails to save");
        const Fault fault(&Base::SystemCalls::setWriteFault, [](const fs::path& file) {
            return file.filename() == "configSettings.dat" &&
                   file.parent_path().parent_path().parent_path().filename() == "paint";
        });
        EXPECT_EQ(thrownMessage([&] { manager.renamePluginWithDependents("cam", "milling"); }),
                  "Cannot write settings file " + settingsOf("paint").string() + ": " + Base::errnoText(EIO));
        EXPECT_EQ(listing(site.root()), before);
        EXPECT_EQ(Kym::PluginsManagement().plugin(Kym::PluginsManagement().indexOfPlugin("cam"), false)->path(), cam);
        EXPECT_EQ(manager.configurationByName("design")->settings()->disabledPluginList(), (Names{"tools", "cam"}));
    }
    {
        SCOPED_TRACE("a department that may name it does not read");
        writeFile(settingsOf("other"), "not an archive");
        const Listing damaged = listing(site.root());
        ConfigurationManager reading;
        const std::string message =
            thrownMessage<Base::SettingsFileDamaged>([&] { reading.renamePluginWithDependents("cam", "milling"); });
        EXPECT_TRUE(boost::starts_with(message, "Plugin 'cam' is not renamed, as department 'other' may name it: "
                                                "Settings file " + settingsOf("other").string() + " is not saved over"))
            << message;
        EXPECT_EQ(listing(site.root()), damaged);
        writeFile(settingsOf("other"), before.at(settingsOf("other").lexically_relative(site.root()).generic_string()));
    }
    EXPECT_EQ(thrownMessage([&] { manager.renamePluginWithDependents("cam", "tools"); }),
              "A plugin named 'tools' already exists: " + (site.pluginsPath() / "tools").string() + ".");
    EXPECT_TRUE(boost::starts_with(thrownMessage([&] { manager.renamePluginWithDependents("cam", "a b"); }),
                                   "Invalid plugin name 'a b'"));
    EXPECT_EQ(thrownMessage([&] { manager.renamePluginWithDependents("none", "other"); }), "No plugin named 'none'.");
    EXPECT_EQ(listing(site.root()), before);

    // The manager knows the files as they are again: the same rename now goes through.
    EXPECT_EQ(manager.renamePluginWithDependents("cam", "milling"), (Names{"design", "paint"}));
}

// Deletion

TEST_F(Operations, ADeletionThatCannotHideTheDepartmentOrFindsAWriterTouchesNothingAndOneThatCanLeavesNothing) {
    addSharedWithDependents();
    Base::FileLock::setWaitLimit(std::chrono::milliseconds(50));
    ConfigurationManager manager;
    const Listing before = listing(site.root());
    const auto deletePaint = [&manager] { return manager.deleteConfiguration(indexOf(manager, "paint")); };
    {
        SCOPED_TRACE("the directory cannot be renamed");
        const Fault fault(&Base::SystemCalls::setRenameFault, directoryNamed("paint"));
        const std::string message = thrownMessage(deletePaint);
        EXPECT_TRUE(boost::starts_with(message, "Cannot rename directory " + department("paint").string() + " to "))
            << message;
        EXPECT_EQ(listing(site.root()), before);
    }
    {
        SCOPED_TRACE("another writer holds it");
        const fs::path lock = Base::FileLock::lockFileOf(department("paint") / Configuration::PropertyFileName);
        writeFile(lock, "pid 1 on elsewhere, user ann, since now\n");
        const Listing locked = listing(site.root());
        EXPECT_TRUE(boost::contains(thrownMessage(deletePaint), " is locked by pid 1 on elsewhere"));
        EXPECT_EQ(listing(site.root()), locked);
        fs::remove(lock);
    }
    EXPECT_EQ(rows(manager), (Names{"design", "other", "paint", "shared"}));

    EXPECT_EQ(deletePaint(), fs::path());
    const std::string gone = department("paint").lexically_relative(site.root()).generic_string() + "/";
    Listing expected;
    for (const auto& [path, content] : before)
        if (!boost::starts_with(path, gone)) expected.emplace(path, content);
    EXPECT_EQ(listing(site.root()), expected);
    EXPECT_EQ(rows(manager), (Names{"design", "other", "shared"}));
}

#ifndef _WIN32
// Only root can make a directory its own user cannot empty: one that belongs to root inside the department.
TEST_F(Operations, ARemovalThatFailsLeavesOnlyAHiddenDirectoryNoScanLists) {
    KYM_SKIP_UNLESS_ROOT();
    site.addDepartment("keep");
    const fs::path old = site.addUpdatedDepartment("old");
    const struct passwd* nobody = ::getpwnam("nobody");
    ASSERT_NE(nobody, nullptr);
    for (fs::recursive_directory_iterator entry(old), end; entry != end; ++entry)
        ASSERT_EQ(::lchown(entry->path().c_str(), nobody->pw_uid, static_cast<gid_t>(-1)), 0);
    ASSERT_EQ(::lchown(old.c_str(), nobody->pw_uid, static_cast<gid_t>(-1)), 0);
    writeFile(old / "nx4" / "kept" / "file", "x");
    fs::permissions(site.departmentsPath(), fs::perms(0777));

    EXPECT_EQ(runAsNobody([] {
                  LogRecorder log({"kym.info"});
                  ConfigurationManager manager;
                  const fs::path left = manager.deleteConfiguration(indexOf(manager, "old"));
                  const Names lines = log.lines("kym.info");
                  const bool logged = std::any_of(lines.begin(), lines.end(), [](const std::string& line) {
                      return boost::starts_with(line, "Could not remove the work directory ");
                  });
                  return !left.empty() && logged && rows(manager) == Names{"keep"} ? 0 : 1;
              }),
              0);

    EXPECT_FALSE(fs::exists(old));
    const Names left = workDirectories(site.departmentsPath());
    ASSERT_EQ(left.size(), 1u);
    EXPECT_TRUE(boost::starts_with(left[0], ".kym deleting old ")) << left[0];
    EXPECT_EQ(readFile(site.departmentsPath() / left[0] / "old" / "nx4" / "kept" / "file"), "x");
    EXPECT_EQ(rows(ConfigurationManager()), Names{"keep"});
}
#endif

} // namespace
