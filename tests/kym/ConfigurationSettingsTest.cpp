#include "kym/ConfigurationSettings.h"

#include "support/Site.h"
#include "support/TestSupport.h"

#include "base/Archiver.h"
#include "base/BaseException.h"
#include "base/SystemCalls.h"

#include <gtest/gtest.h>
#include <cerrno>
#include <functional>

using namespace KymTest;
using Kym::ApplicationOverlay;
using Kym::ConfigurationSettings;
using Kym::DisablePluginSource;

namespace {

using Names = std::vector<std::string>;

ApplicationOverlay overlay(const std::string& configurationName, const std::string& appId,
                           const std::string& description = "") {
    ApplicationOverlay result;
    result.configurationName = configurationName;
    result.appId = appId;
    result.description = description;
    return result;
}

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
    settings.workDirectories = {Kym::WorkDirectory{}};
    settings.workDirectories[0].name = "home";
    settings.workDirectories[0].path = "/home/cad";
    settings.layer.commonVariables = {{"COMMON", "1"}};
    settings.layer.unixVariables = {{"UNIX", "2"}};
    settings.layer.windowsVariables = {{"WIN", "3"}};
    settings.layer.applications = {makeApplication("nx", "ugraf")};
    settings.disabledPlugins = {"cam"};
    settings.overlays = {overlay("Common", "viewer", "Viewer")};
    return site.writeDepartmentSettings(site.departmentsPath() / "dept", settings);
}

ConfigurationSettings loaded(const fs::path& file) {
    ConfigurationSettings settings;
    settings.setDataFile(file);
    settings.load();
    return settings;
}

} // namespace

TEST(ConfigurationSettings, SavesTheSevenKeysInOrderAndReadsEveryListBack) {
    Site site;
    const fs::path file = writeFullSettings(site);
    ConfigurationSettings settings = loaded(file);
    settings.applications()->setValueForListColumnRow("AppID", 0, std::string("cad"));
    settings.save();
    EXPECT_EQ(archiveTopLevelKeys(file),
              (Names{"Work Directory List", "Common Variables", "Unix Variables", "Windows Variables", "Disabled Plugins",
                     "Application List", "Application Overlay List"}));

    ConfigurationSettings reread = loaded(file);
    EXPECT_EQ(contents(reread), (Names{"dir home=/home/cad", "var COMMON=1", "var UNIX=2", "var WIN=3", "disabled cam",
                                       "app dept/cad", "overlay Common/viewer:Viewer"}));
    EXPECT_FALSE(reread.needsSaving());
}

TEST(ConfigurationSettings, EveryKindOfEditNeedsSavingUntilAWriteSucceeds) {
    Site site;
    site.addInternalPlugin("cam");
    const fs::path file = writeFullSettings(site);
    const std::vector<std::pair<std::string, std::function<void(ConfigurationSettings&)>>> edits{
        {"disabled plugin", [](ConfigurationSettings& s) { s.disablePlugins()->setValueForListColumnRow("", 0, std::string("false")); }},
        {"application variable", [](ConfigurationSettings& s) { s.applications()->winVariables(0)->insertRow(-1); }},
        {"overlay removed", [](ConfigurationSettings& s) { s.removeOverlay("Common", "viewer"); }},
    };
    for (const auto& edit : edits) {
        SCOPED_TRACE(edit.first);
        writeFullSettings(site);
        ConfigurationSettings settings = loaded(file);
        edit.second(settings);
        EXPECT_TRUE(settings.needsSaving());

        const std::string before = readFile(file);
        Base::SystemCalls::setWriteFault([](const std::string&) { return EDQUOT; });
        EXPECT_THROW(settings.save(), Base::BaseException);
        Base::SystemCalls::setWriteFault(nullptr);
        EXPECT_EQ(readFile(file), before);
        EXPECT_TRUE(settings.needsSaving());
        settings.save();
        EXPECT_FALSE(settings.needsSaving());
    }
}

TEST(ConfigurationSettings, AFileDamagedHalfWayLoadsTheKeysBeforeTheFaultAndSaysNothing) {
    Site site;
    const fs::path file = writeFullSettings(site);
    ConfigurationSettings settings = loaded(file);

    // Key five holds a number where a list of names belongs.
    Base::Archiver archive(file);
    archive.encodeObject(ConfigurationSettings::WorkDirectoryListKey, std::vector<Kym::WorkDirectory>{});
    archive.encodeObject(ConfigurationSettings::CommonVariablesKey, std::vector<Kym::EnvironmentVariable>{{"NEW", "9"}});
    archive.encodeObject(ConfigurationSettings::UnixVariablesKey, std::vector<Kym::EnvironmentVariable>{});
    archive.encodeObject(ConfigurationSettings::WindowsVariablesKey, std::vector<Kym::EnvironmentVariable>{});
    archive.encode(ConfigurationSettings::DisabledPluginsKey, 5);
    archive.encodeObject(ConfigurationSettings::ApplicationListKey, std::vector<Kym::ConfigApplication>{});
    archive.finishEncoding();
    LogRecorder log;
    settings.load();

    EXPECT_EQ(log.lines(), Names{});
    EXPECT_EQ(contents(settings), (Names{"var NEW=9", "disabled cam", "app dept/nx", "overlay Common/viewer:Viewer"}));
    EXPECT_FALSE(settings.needsSaving());

    ConfigurationSettings missing = loaded(site.root() / "nowhere" / "configSettings.dat");
    EXPECT_EQ(contents(missing), Names{});
    EXPECT_FALSE(missing.needsSaving());
}

TEST(ConfigurationOverlays, OneOverlayPerKeyKeptInPlaceAndALookupStoresNothing) {
    Site site;
    ConfigurationSettings settings;
    settings.setOverlay(overlay("Common", "nx", "first"));
    settings.setOverlay(overlay("cam Plugin", "nx", "plugin"));
    settings.setOverlay(overlay("Common", "nx", "second"));
    EXPECT_TRUE(settings.needsSaving());
    EXPECT_FALSE(settings.hasOverlay("common", "nx"));
    EXPECT_EQ(settings.getOverlay("Test", "viewer").appId, "viewer");
    EXPECT_EQ(contents(settings), (Names{"overlay Common/nx:second", "overlay cam Plugin/nx:plugin"}));
    settings.removeOverlay("cam Plugin", "nx");
    settings.removeOverlay("cam Plugin", "nx");
    EXPECT_EQ(contents(settings), Names{"overlay Common/nx:second"});
}

TEST(DisablePluginSource, WritingTruncatesTheListAtTheNameItClears) {
    Site site;
    for (const char* name : {"a", "b", "c", "d"}) site.addInternalPlugin(name);
    Names list;
    DisablePluginSource source(&list);
    auto write = [&](Names start, int row, const std::string& value) {
        list = std::move(start);
        EXPECT_TRUE(source.setValueForListColumnRow("Disabled", row, value));
        return list;
    };
    EXPECT_EQ(write({"a", "b", "c"}, 1, "False"), Names{"a"});
    EXPECT_EQ(write({"a", "b", "c"}, 2, "true"), (Names{"a", "b"}));
    EXPECT_EQ(write({"a", "b", "c"}, 3, "true"), (Names{"a", "b", "c", "d"}));
    EXPECT_EQ(write({"b"}, 0, "TRUE"), (Names{"b", "a"}));
    EXPECT_EQ(write({"a", "b", "c"}, 0, "yes"), Names{});
    EXPECT_TRUE(source.isEdited());
}
