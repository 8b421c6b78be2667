#include "kym/ConfigurationSettings.h"
#include "kym/PluginsManager.h"

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

std::string cell(const Base::DataSourceInterface& source, const std::string& column, int row) {
    return boost::any_cast<std::string>(source.valueForListColumnRow(column, row));
}

ApplicationOverlay overlay(const std::string& configurationName, const std::string& appId,
                           const std::string& description = "") {
    ApplicationOverlay result;
    result.configurationName = configurationName;
    result.appId = appId;
    result.description = description;
    return result;
}

Names overlayTexts(const std::vector<ApplicationOverlay>& overlays) {
    Names texts;
    for (const auto& item : overlays) texts.push_back(item.configurationName + "/" + item.appId + ":" + item.description);
    return texts;
}

Names applicationTexts(const std::vector<Kym::ConfigApplication>& applications) {
    Names texts;
    for (const auto& application : applications) texts.push_back(application.configurationName() + "/" + application.appId);
    return texts;
}

Names workDirectoryTexts(const std::vector<Kym::WorkDirectory>& directories) {
    Names texts;
    for (const auto& directory : directories) texts.push_back(directory.name + "=" + directory.path);
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
    EXPECT_EQ(workDirectoryTexts(reread.workDirectoryList()), Names{"home=/home/cad"});
    EXPECT_EQ(variableTexts(reread.commonVariableList()), Names{"COMMON=1"});
    EXPECT_EQ(variableTexts(reread.unixVariableList()), Names{"UNIX=2"});
    EXPECT_EQ(variableTexts(reread.winVariableList()), Names{"WIN=3"});
    EXPECT_EQ(reread.disabledPluginList(), Names{"cam"});
    EXPECT_EQ(applicationTexts(reread.applicationList("dept")), Names{"dept/cad"});
    EXPECT_EQ(overlayTexts(reread.overlays()), Names{"Common/viewer:Viewer"});
    EXPECT_FALSE(reread.needsSaving());
}

TEST(ConfigurationSettings, EveryKindOfEditNeedsSavingUntilAWriteSucceeds) {
    Site site;
    site.addInternalPlugin("cam");
    const fs::path file = writeFullSettings(site);
    const std::vector<std::pair<std::string, std::function<void(ConfigurationSettings&)>>> edits{
        {"work directory", [](ConfigurationSettings& s) { s.workDirectories()->insertRow(-1); }},
        {"unix variable", [](ConfigurationSettings& s) { s.unixVariables()->deleteRows({0}); }},
        {"disabled plugin", [](ConfigurationSettings& s) { s.disablePlugins()->setValueForListColumnRow("", 0, std::string("false")); }},
        {"application", [](ConfigurationSettings& s) { s.applications()->setValueForListColumnRow("AppID", 0, std::string("x")); }},
        {"application variable", [](ConfigurationSettings& s) { s.applications()->winVariables(0)->insertRow(-1); }},
        {"overlay removed", [](ConfigurationSettings& s) { s.removeOverlay("Common", "viewer"); }},
    };
    for (const auto& edit : edits) {
        SCOPED_TRACE(edit.first);
        writeFullSettings(site);
        ConfigurationSettings settings = loaded(file);
        ASSERT_FALSE(settings.needsSaving());
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
    EXPECT_EQ(workDirectoryTexts(settings.workDirectoryList()), Names{});
    EXPECT_EQ(variableTexts(settings.commonVariableList()), Names{"NEW=9"});
    EXPECT_EQ(variableTexts(settings.winVariableList()), Names{});
    EXPECT_EQ(settings.disabledPluginList(), Names{"cam"});
    EXPECT_EQ(applicationTexts(settings.applicationList("dept")), Names{"dept/nx"});
    EXPECT_EQ(overlayTexts(settings.overlays()), Names{"Common/viewer:Viewer"});
    EXPECT_FALSE(settings.needsSaving());

    ConfigurationSettings missing = loaded(site.root() / "nowhere" / "configSettings.dat");
    EXPECT_TRUE(missing.workDirectoryList().empty() && missing.overlays().empty() && !missing.needsSaving());
}

TEST(ConfigurationOverlays, OneOverlayPerKeyKeptInPlaceAndALookupStoresNothing) {
    Site site;
    ConfigurationSettings settings;
    LogRecorder log({"kym.verbose"});
    settings.setOverlay(overlay("Common", "nx", "first"));
    settings.setOverlay(overlay("cam Plugin", "nx", "plugin"));
    settings.setOverlay(overlay("Common", "nx", "second"));
    EXPECT_EQ(overlayTexts(settings.overlays()), (Names{"Common/nx:second", "cam Plugin/nx:plugin"}));
    EXPECT_EQ(log.lines("kym.verbose"),
              (Names{"adding overlay for app nx", "adding overlay for app nx", "editing overlay for app nx"}));
    EXPECT_TRUE(settings.needsSaving());

    EXPECT_FALSE(settings.hasOverlay("common", "nx"));
    EXPECT_EQ(overlayTexts({settings.getOverlay("Common", "nx"), settings.getOverlay("Test", "viewer")}),
              (Names{"Common/nx:second", "Test/viewer:"}));
    EXPECT_EQ(settings.overlays().size(), 2u);

    settings.setOverlay(overlay("Test", "viewer"));
    settings.removeOverlay("cam Plugin", "nx");
    settings.removeOverlay("cam Plugin", "nx");
    EXPECT_EQ(overlayTexts(settings.overlays()), (Names{"Common/nx:second", "Test/viewer:"}));
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
    EXPECT_EQ(write({"a", "c"}, 1, "no"), (Names{"a", "c"}));
    EXPECT_TRUE(source.isEdited());

    list = {"c", "B"};
    EXPECT_EQ(source.numberOfRowsInList(), 4);
    EXPECT_EQ(cell(source, "Name", 1) + cell(source, "Name", 3), "bd");
    EXPECT_EQ(cell(source, "Disabled", 1) + " " + cell(source, "Disabled", 2), "False True");
}

TEST(DisablePluginSource, RowsAreThePluginsKnownWhenItWasMadeAndNeverChangeThroughTheTable) {
    Site site;
    site.addInternalPlugin("cam");
    DisablePluginSource unbound;
    Kym::PluginsManagement().addPlugin(site.writePlugin(site.root() / "external" / "pdm", "Site-wide"));
    Names list{"cam"};
    DisablePluginSource source(&list);

    EXPECT_EQ(unbound.numberOfRowsInList(), 1);
    EXPECT_FALSE(unbound.setValueForListColumnRow("Name", 0, std::string("true")));

    EXPECT_EQ(source.numberOfRowsInList(), 2);
    EXPECT_EQ(cell(source, "Name", 1), "pdm");
    source.insertRow(-1);
    source.deleteRows({0});
    EXPECT_THROW(source.setValueForListColumnRow("Name", 1, true), boost::bad_any_cast);
    EXPECT_EQ(list, Names{"cam"});
    EXPECT_EQ(source.numberOfRowsInList(), 2);
    EXPECT_FALSE(source.isEdited());
}
