#include "kym/ConfigurationSettings.h"

#include "support/Site.h"

#include "base/SystemCalls.h"

#include <gtest/gtest.h>
#include <cerrno>
#include <functional>

using namespace KymTest;
using Kym::ConfigurationSettings;

namespace {

using Names = std::vector<std::string>;

// Every list of the settings, one line per entry, so whole contents compare at once.
Names contents(ConfigurationSettings& settings) {
    Names texts;
    for (const auto& item : settings.workDirectoryList()) texts.push_back("dir " + item.name + "=" + item.path);
    for (const auto& list : {settings.commonVariableList(), settings.unixVariableList(), settings.winVariableList()})
        for (const std::string& text : variableTexts(list)) texts.push_back("var " + text);
    for (const auto& name : settings.disabledPluginList()) texts.push_back("disabled " + name);
    for (const auto& item : settings.applicationList("dept"))
        texts.push_back("app " + item.configurationName() + "/" + item.appId);
    for (const auto& item : settings.overlays())
        texts.push_back("overlay " + item.configurationName + "/" + item.appId + ":" + item.description);
    return texts;
}

// A department's settings file of the current release with one of everything.
fs::path writeFullSettings(const Site& site) {
    DepartmentSettings settings;
    settings.workDirectories.resize(1);
    settings.workDirectories[0].name = "home", settings.workDirectories[0].path = "/home/cad";
    settings.layer.commonVariables = {{"COMMON", "1"}};
    settings.layer.unixVariables = {{"UNIX", "2"}};
    settings.layer.windowsVariables = {{"WIN", "3"}};
    settings.layer.applications = {makeApplication("nx", "ugraf")};
    settings.disabledPlugins = {"cam"};
    settings.overlays.resize(1);
    settings.overlays[0].configurationName = "Common", settings.overlays[0].appId = "viewer";
    settings.overlays[0].description = "Viewer";
    return site.writeDepartmentSettings(site.departmentsPath() / "dept", settings);
}

ConfigurationSettings loaded(const fs::path& file) {
    ConfigurationSettings settings;
    settings.setDataFile(file);
    settings.load();
    return settings;
}

} // namespace

TEST(ConfigurationSettings, SavesTheSevenKeysInOrderAndReadsEveryListBackClean) {
    Site site;
    const fs::path file = writeFullSettings(site);
    ConfigurationSettings settings = loaded(file);
    settings.applications()->setValueForListColumnRow("AppID", 0, std::string("cad"));
    settings.save();
    EXPECT_FALSE(settings.needsSaving());
    EXPECT_EQ(archiveTopLevelKeys(file),
              (Names{"Work Directory List", "Common Variables", "Unix Variables", "Windows Variables", "Disabled Plugins",
                     "Application List", "Application Overlay List"}));

    ConfigurationSettings reread = loaded(file);
    EXPECT_EQ(contents(reread), (Names{"dir home=/home/cad", "var COMMON=1", "var UNIX=2", "var WIN=3", "disabled cam",
                                       "app dept/cad", "overlay Common/viewer:Viewer"}));
    EXPECT_FALSE(reread.needsSaving());
}

TEST(ConfigurationSettings, EveryKindOfEditNeedsSavingAndAFailedWriteKeepsFileAndMark) {
    Site site;
    site.addInternalPlugin("cam");
    const fs::path file = writeFullSettings(site);
    const std::string before = readFile(file);
    for (const std::function<void(ConfigurationSettings&)>& edit : std::vector<std::function<void(ConfigurationSettings&)>>{
             [](ConfigurationSettings& s) { s.disablePlugins()->setValueForListColumnRow("", 0, std::string("false")); },
             [](ConfigurationSettings& s) { s.applications()->winVariables(0)->insertRow(-1); },
             [](ConfigurationSettings& s) { s.removeOverlay("Common", "viewer"); }}) {
        ConfigurationSettings settings = loaded(file);
        edit(settings);
        EXPECT_EQ(thrownUnderFault(&Base::SystemCalls::setWriteFault, ENOSPC, [&] { settings.save(); }),
                  "Cannot write settings file " + file.string() + ": No space left on device");
        EXPECT_EQ(readFile(file), before);
        EXPECT_TRUE(settings.needsSaving());
    }
}
