#include "kym/PluginSettings.h"
#include "kym/PluginsManager.h"

#include "support/Site.h"
#include "support/TestSupport.h"

#include "base/BaseException.h"
#include "base/Platform.h"
#include "base/SmartAssert.h"
#include "base/SystemCalls.h"

#include <gtest/gtest.h>
#include <sstream>

using namespace KymTest;
using Kym::PluginSettings;
using Kym::PluginsManagement;
using Kym::PluginsManager;

namespace {

std::string native(const fs::path& p) {
    return Base::Platform::current().nativePath(p);
}

std::vector<std::string> pluginNames(PluginsManager& plugins) {
    std::vector<std::string> names;
    for (int index = 0; index < plugins.numberOfPlugins(); ++index)
        names.push_back(plugins.plugin(index, false)->name());
    return names;
}

std::vector<std::string> tableRows(const PluginsManager& plugins) {
    std::vector<std::string> rows;
    for (int row = 0; row < plugins.numberOfRowsInList(); ++row)
        rows.push_back(boost::any_cast<std::string>(plugins.valueForListColumnRow("Name", row)));
    return rows;
}

} // namespace

TEST(PluginsScan, InternalPluginsComeSortedByNameThenExternalOnesAsAdded) {
    Site site;
    Layer layer;
    layer.commonVariables = {{"CAM_DIR", "/cam"}};
    site.addInternalPlugin("zeta");
    site.addInternalPlugin("alpha", "Development", layer);
    fs::create_directory(site.pluginsPath() / "bare");
    LogRecorder log({"kym.info"});

    PluginsManager& plugins = PluginsManagement();
    const fs::path external = site.writePlugin(site.root() / "external" / "beta", "Production");
    plugins.addPlugin(external);
    EXPECT_EQ(pluginNames(plugins), (std::vector<std::string>{"alpha", "bare", "zeta", "beta"}));
    EXPECT_EQ(plugins.internalCount(), 3);
    EXPECT_EQ(log.lines("kym.info"), (std::vector<std::string>{
                                         "Adding plugin: " + native(site.pluginsPath() / "alpha"),
                                         "Adding plugin: " + native(site.pluginsPath() / "bare"),
                                         "Adding plugin: " + native(site.pluginsPath() / "zeta"),
                                         "Found 3 plugins.",
                                         "Adding plugin: " + native(external)}));

    PluginSettings& alpha = *plugins.plugin(0, false);
    EXPECT_EQ(alpha.pluginType() + " " + variableTexts(alpha.commonVariableList()).at(0), "Development CAM_DIR=/cam");
    PluginSettings& bare = *plugins.plugin(1, false);
    EXPECT_EQ(bare.pluginType(), "Site-wide");
    EXPECT_TRUE(plugins.isInternalPlugin(bare));
    EXPECT_FALSE(plugins.isInternalPlugin(*plugins.plugin(3, false)));
}

TEST(PluginsScan, MissingPluginsDirectoryLeavesNoInternalPlugins) {
    Site site;
    fs::remove(site.pluginsPath());
    EXPECT_EQ(PluginsManagement().numberOfPlugins(), 0);
    EXPECT_EQ(PluginsManagement().internalCount(), 0);
}

TEST(PluginsScan, DamagedPluginLeavesNoRegistryAndTheNextCallRetries) {
    Site site;
    site.addInternalPlugin("cam");
    writeFile(site.pluginsPath() / "pdm" / "settings.dat", "<plist>");
    const std::string message = thrownMessage([] { PluginsManagement(); });
    EXPECT_NE(message.find((site.pluginsPath() / "pdm" / "settings.dat").string()), std::string::npos) << message;
    site.addInternalPlugin("pdm");
    EXPECT_EQ(pluginNames(PluginsManagement()), (std::vector<std::string>{"cam", "pdm"}));
}

TEST(PluginsTable, ExternalOnlyHidesTheInternalPluginsAndTheIndexIsCheckedBeforeTheOffset) {
    Site site;
    site.addInternalPlugin("pdm");
    site.addInternalPlugin("cam", "Development");
    PluginsManager& plugins = PluginsManagement();
    plugins.addPlugin(site.writePlugin(site.root() / "external" / "extra", "Site-wide"));
    EXPECT_EQ(tableRows(plugins), (std::vector<std::string>{"cam", "pdm", "extra"}));
    plugins.editExternalPluginsOnly();
    EXPECT_EQ(tableRows(plugins), (std::vector<std::string>{"extra"}));
    EXPECT_EQ(plugins.plugin(0, true)->name(), "extra");
    EXPECT_EQ(plugins.plugin(0, false)->name(), "cam");

    std::ostringstream report;
    std::ostream* previous = Base::setAssertStream(&report);

    EXPECT_EQ(thrownMessage([&] { plugins.plugin(2, true); }), "plugin index 4 is out of range of 3 plugins");
    EXPECT_EQ(report.str(), "");
    EXPECT_THROW(plugins.plugin(-1, false), std::out_of_range);
    EXPECT_NE(report.str().find("plugin index is out of range"), std::string::npos) << report.str();
    Base::setAssertStream(previous);
}

TEST(PluginsManager, RemovePluginKeepsTheOrderAndTheInternalCount) {
    Site site;
    for (const char* name : {"a", "b", "c"}) site.addInternalPlugin(name);
    PluginsManager& plugins = PluginsManagement();
    plugins.addPlugin(site.pluginsPath() / "b");
    plugins.removePlugin(site.pluginsPath() / "b");
    EXPECT_EQ(pluginNames(plugins), (std::vector<std::string>{"a", "c"}));
    EXPECT_EQ(plugins.internalCount(), 3);
}

TEST(PluginsManager, SaveSettingsWritesOnlyThePluginsThatNeedIt) {
    Site site;
    site.addInternalPlugin("cam");
    fs::create_directory(site.pluginsPath() / "bare");
    PluginsManager& plugins = PluginsManagement();
    plugins.plugin(1, false)->unixVariables()->insertRow(-1);
    EXPECT_TRUE(plugins.anyNeedsSaving());
    plugins.saveSettings();
    EXPECT_FALSE(plugins.anyNeedsSaving());
    EXPECT_FALSE(fs::exists(site.pluginsPath() / "bare" / "settings.dat"));
    EXPECT_EQ(PluginSettings(site.pluginsPath() / "cam").unixVariableList().size(), 1u);
}

TEST(PluginSettings, SaveWritesTheFiveKeysInOrderAndReadsBack) {
    Site site;
    Layer layer;
    layer.windowsVariables = {{"CAM_WIN", "w"}};
    layer.applications = {makeApplication("cam", "cam.exe")};
    PluginSettings plugin(site.addInternalPlugin("cam", "Development", layer));
    plugin.setPluginType("Production");
    plugin.commonVariables()->insertRow(-1);
    plugin.commonVariables()->setValueForListColumnRow("Name", 0, std::string("CAM_COMMON"));
    plugin.commonVariables()->setValueForListColumnRow("Value", 0, std::string("c"));
    plugin.save();
    EXPECT_FALSE(plugin.needsSaving());
    EXPECT_EQ(archiveTopLevelKeys(plugin.dataFile()),
              (std::vector<std::string>{"Plugin Type", "Common Variables", "Unix Variables", "Windows Variables",
                                        "Application List"}));

    PluginSettings reread(plugin.path());
    EXPECT_EQ(reread.pluginType() + " " + variableTexts(reread.commonVariableList()).at(0) + " " +
                  variableTexts(reread.winVariableList()).at(0) + " " + reread.applicationList().at(0).configurationName(),
              "Production CAM_COMMON=c CAM_WIN=w cam Plugin");
}

TEST(PluginSettings, NeedsSavingMarkSurvivesSave) {
    Site site;
    fs::create_directory(site.pluginsPath() / "cam");
    PluginSettings plugin(site.pluginsPath() / "cam");
    plugin.setNeedsSaving(true);
    plugin.save();
    LogRecorder log({"kym.verbose"});
    EXPECT_TRUE(plugin.needsSaving());
    plugin.setNeedsSaving(false);
    EXPECT_FALSE(plugin.needsSaving());
    EXPECT_EQ(log.lines("kym.verbose"),
              (std::vector<std::string>{"Plugin: cam needsSaving = true", "Plugin: cam needsSaving = false"}));
}

TEST(PluginSettings, FailedSaveKeepsTheOldFileAndTheMarks) {
    Site site;
    Layer layer;
    layer.applications = {makeApplication("cam", "cam.exe")};
    PluginSettings plugin(site.addInternalPlugin("cam", "Development", layer));
    const std::string before = readFile(plugin.dataFile());
    plugin.applications()->commonVariables(0)->insertRow(-1);
    plugin.winVariables()->insertRow(-1);
    Base::SystemCalls::setWriteFault([](const std::string&) { return EDQUOT; });
    EXPECT_THROW(plugin.save(), Base::BaseException);
    Base::SystemCalls::setWriteFault(nullptr);
    EXPECT_EQ(readFile(plugin.dataFile()), before);
    EXPECT_TRUE(plugin.winVariables()->isEdited());
    EXPECT_TRUE(plugin.applications()->application(0).needsSaving());
}
