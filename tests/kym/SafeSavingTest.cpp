// Saving never loses another writer's edit and never writes over a file that
// could not be read: every store, against real files changed or damaged
// behind its back.
#include "kym/BaseSettings.h"
#include "kym/Configuration.h"
#include "kym/ConfigurationSettings.h"
#include "kym/PluginSettings.h"
#include "kym/SiteSettings.h"
#include "kym/SystemInfo.h"
#include "kym/SystemPreferences.h"

#include "support/Site.h"

#include "base/FileLock.h"
#include "base/Platform.h"
#include "base/SettingsFile.h"
#include "base/SystemCalls.h"

#include <cerrno>

#include <gtest/gtest.h>

#include <functional>

using namespace KymTest;

namespace {

std::string native(const fs::path& path) {
    return Base::Platform::current().nativePath(path);
}

Layer oneVariable(const std::string& name) {
    Layer layer;
    layer.commonVariables = {{name, "v"}};
    return layer;
}

// A file cut off in its middle, as a full disk or a lost connection leaves it.
void damage(const fs::path& file) {
    const std::string content = readFile(file);
    writeFile(file, content.substr(0, content.size() / 2));
}

// One store, made to have read its file, and what it takes to edit and save it.
struct Store {
    std::string name;
    fs::path file;
    // Reads the file (again); a damaged file may throw, as the store reads it.
    std::function<void()> read;
    std::function<void()> edit;
    std::function<void()> save;
    std::function<bool()> needsSaving;
};

class SafeSaving : public ::testing::Test {
protected:
    SafeSaving() {
        site.writeReleaseNames();
        site.writeBaseSettings(oneVariable("BASE_VAR"));
        site.writeSiteSettings({});
        pluginDirectory = site.addInternalPlugin("cam", "Site-wide", oneVariable("CAM_VAR"));
        departmentDirectory = site.addUpdatedDepartment("design", {}, {{}, oneVariable("DEPT_VAR"), {}, {}});
    }

    // Every store of the library, each loaded from its sound file.
    std::vector<Store> stores() {
        std::vector<Store> all;
        Kym::BaseSettings& base = Kym::BaseInformation();
        all.push_back({"base settings", site.baseSettingsFile(), [&base] { base.load(); },
                       [&base] { appendVariable(base.commonVariables(), "NEW", "x"); }, [&base] { base.save(); },
                       [&base] { return base.needsSaving(); }});
        Kym::SiteSettings& siteSettings = Kym::SiteInformation();
        all.push_back({"site settings", siteSettings.dataFile(), [&siteSettings] { siteSettings.load(); },
                       [&siteSettings] { appendVariable(siteSettings.commonVariables(), "NEW", "x"); },
                       [&siteSettings] { siteSettings.save(); }, [&siteSettings] { return siteSettings.needsSaving(); }});
        plugin = std::make_shared<Kym::PluginSettings>(pluginDirectory);
        all.push_back({"plugin settings", plugin->dataFile(), [this] { plugin->load(); },
                       [this] { appendVariable(plugin->commonVariables(), "NEW", "x"); }, [this] { plugin->save(); },
                       [this] { return plugin->needsSaving(); }});
        department = std::make_shared<Kym::Configuration>(departmentDirectory, true);
        const auto editDepartment = [this] { appendVariable(department->settings()->commonVariables(), "NEW", "x"); };
        const auto saveDepartment = [this] { department->save(); };
        const auto departmentNeedsSaving = [this] { return department->needsSaving(); };
        all.push_back({"department settings", department->settings()->dataFile(), [this] { department->load(); },
                       editDepartment, saveDepartment, departmentNeedsSaving});
        all.push_back({"department properties", departmentDirectory / Kym::Configuration::PropertyFileName,
                       [this] { department->load(); }, editDepartment, saveDepartment, departmentNeedsSaving});
        Kym::SystemInfo& info = Kym::SystemInformation();
        all.push_back({"system information", info.dataFile(), [&info] { info.load(); },
                       [&info] {
                           info.CadVersionDirectory = "nx5";
                           info.settingsChanged();
                       },
                       [&info] { info.save(); }, [&info] { return info.needsSaving(); }});
        return all;
    }

    Site site;
    fs::path pluginDirectory;
    fs::path departmentDirectory;
    std::shared_ptr<Kym::PluginSettings> plugin;
    std::shared_ptr<Kym::Configuration> department;
};

TEST_F(SafeSaving, NoStoreSavesOverAFileItCouldNotReadUntilItIsOverwrittenDeliberately) {
    for (Store& store : stores()) {
        SCOPED_TRACE(store.name);
        damage(store.file);
        const std::string damaged = readFile(store.file);
        std::string failure;
        try {
            store.read();
        } catch (const std::exception& problem) {
            failure = problem.what();
        }
        store.edit();
        const std::string refusal = thrownMessage<Base::SettingsFileDamaged>(store.save);
        EXPECT_EQ(refusal.rfind("Settings file " + native(store.file) + " is not saved over: reading it failed (", 0), 0)
            << refusal;
        if (!failure.empty()) {
            EXPECT_NE(refusal.find(failure), std::string::npos) << refusal;
        }
        EXPECT_EQ(readFile(store.file), damaged);
        EXPECT_TRUE(store.needsSaving());
    }

    // The user's preferences: a flush reports and leaves the file alone.
    const fs::path preferences = site.userDataDirectory() / "preferences" / "kym.plist";
    writeFile(preferences, "<?xml version=\"1.0\"?><plist><dict><key>a</key>");
    Kym::SystemPreferences user("kym");
    user.SetPreference("last", std::string("design"));
    user.Flush();
    EXPECT_EQ(readFile(preferences), "<?xml version=\"1.0\"?><plist><dict><key>a</key>");
}

TEST_F(SafeSaving, ASaveThatAnotherWriterHoldsOrChangedIsRefusedKeepingTheMarksAndAnOverwriteKeepsTheirFile) {
    Kym::BaseSettings& base = Kym::BaseInformation();
    appendVariable(base.commonVariables(), "MINE", "1");
    const fs::path lock = Base::FileLock::lockFileOf(site.baseSettingsFile());
    writeFile(lock, "pid 4242 on another-workstation, user ann, since 2026-11-25 09:00:00 UTC\n");
    Base::FileLock::setWaitLimit(std::chrono::milliseconds(1000));
    const std::string before = readFile(site.baseSettingsFile());
    EXPECT_EQ(thrownMessage([&] { base.save(); }),
              "Settings file " + native(site.baseSettingsFile()) +
                  " is locked by pid 4242 on another-workstation, user ann, since 2026-11-25 09:00:00 UTC; gave up "
                  "after 1 s. When that process is gone for good, remove " + native(lock) + ".");
    EXPECT_EQ(readFile(site.baseSettingsFile()), before);
    EXPECT_TRUE(base.needsSaving());
    fs::remove(lock);

    site.writeBaseSettings(oneVariable("THEIRS"));
    const std::string theirs = readFile(site.baseSettingsFile());

    EXPECT_EQ(thrownMessage<Base::SettingsFileChanged>([&] { base.save(); }),
              "Settings file " + native(site.baseSettingsFile()) +
                  " was changed by another writer since it was read; nothing was written. Read it again and repeat "
                  "the change, or overwrite it deliberately.");
    EXPECT_EQ(readFile(site.baseSettingsFile()), theirs);
    EXPECT_TRUE(base.needsSaving());

    const fs::path copy = base.overwrite();
    EXPECT_EQ(copy.parent_path(), site.baseSettingsFile().parent_path());
    EXPECT_EQ(copy.filename().string().rfind("baseSettings.dat.replaced-", 0), 0u) << copy;
    EXPECT_EQ(readFile(copy), theirs);
    Kym::BaseSettings reread(base);
    reread.load();
    EXPECT_EQ(variableTexts(reread.commonVariableList()), (std::vector<std::string>{"BASE_VAR=v", "MINE=1"}));

    // Known as written, the file takes the next save.
    appendVariable(base.commonVariables(), "NEXT", "2");
    base.save();
    EXPECT_FALSE(base.needsSaving());
}

TEST_F(SafeSaving, ADepartmentWritesBothFilesOrNeither) {
    Kym::Configuration design(departmentDirectory, true);
    // Both files edited: a new description and a new variable.
    const auto edit = [&design] {
        design.description = "changed";
        design.setNeedsSaving(true);
        appendVariable(design.settings()->commonVariables(), "MINE", "1");
    };
    edit();
    const fs::path properties = departmentDirectory / Kym::Configuration::PropertyFileName;
    const std::string propertiesBefore = readFile(properties);
    // Another writer changes the settings only.
    Kym::Configuration other(departmentDirectory, true);
    appendVariable(other.settings()->commonVariables(), "THEIRS", "1");
    other.save();
    const std::string settingsAfterOther = readFile(design.settings()->dataFile());

    EXPECT_THROW(design.save(), Base::SettingsFileChanged);
    EXPECT_EQ(readFile(properties), propertiesBefore);
    EXPECT_EQ(readFile(design.settings()->dataFile()), settingsAfterOther);

    // The settings cannot be written after the properties were: the properties go back.
    design.load();
    edit();
    Base::SystemCalls::setWriteFault([](const std::string& file) {
        return file.find("configSettings.dat") != std::string::npos ? ENOSPC : 0;
    });
    EXPECT_THROW(design.save(), Base::BaseException);
    Base::SystemCalls::setWriteFault(nullptr);
    EXPECT_EQ(readFile(properties), propertiesBefore);
    EXPECT_EQ(readFile(design.settings()->dataFile()), settingsAfterOther);

    design.load();
    edit();
    design.save();
    Kym::Configuration reread(departmentDirectory, true);
    EXPECT_EQ(reread.description, "changed");
    EXPECT_EQ(variableTexts(reread.settings()->commonVariableList()),
              (std::vector<std::string>{"DEPT_VAR=v", "THEIRS=1", "MINE=1"}));
}

} // namespace
