#include "kym/PluginSettings.h"
#include "kym/PluginsManager.h"

#include "support/Site.h"

#include "base/SystemCalls.h"

#include <gtest/gtest.h>

#include <cerrno>

using namespace KymTest;
using Kym::PluginSettings;
using Kym::PluginsManagement;
using Kym::PluginsManager;

namespace {

using Names = std::vector<std::string>;

Names tableRows(const PluginsManager& plugins) { return columnTexts(plugins, "Name"); }

} // namespace

TEST(PluginsScan, InternalPluginsComeSortedByNameThenExternalOnesAsAdded) {
    Site site;
    site.addInternalPlugin("zeta");
    site.addInternalPlugin("alpha", "Development");
    fs::create_directory(site.pluginsPath() / "bare");

    PluginsManager& plugins = PluginsManagement();
    const fs::path external = site.writePlugin(site.root() / "external" / "beta", "Production");
    plugins.addPlugin(external);
    EXPECT_EQ(pluginNames(),
              (Names{"alpha Development", "bare Site-wide", "zeta Site-wide", "beta Production"}));
    EXPECT_TRUE(plugins.isInternalPlugin(*plugins.plugin(2, false)) && !plugins.isInternalPlugin(*plugins.plugin(3, false)));

    plugins.removePlugin(site.pluginsPath() / "bare");
    EXPECT_EQ(pluginNames(), (Names{"alpha Development", "zeta Site-wide", "beta Production"}));
    EXPECT_EQ(plugins.internalCount(), 3);
}

TEST(PluginsScan, DamagedPluginLeavesNoRegistryAndTheNextCallRetries) {
    Site site;
    site.addInternalPlugin("cam");
    writeFile(site.pluginsPath() / "pdm" / "settings.dat", "<plist>");
    const std::string message = thrownMessage([] { PluginsManagement(); });
    EXPECT_NE(message.find((site.pluginsPath() / "pdm" / "settings.dat").string()), std::string::npos) << message;
    site.addInternalPlugin("pdm");
    EXPECT_EQ(pluginNames(), (Names{"cam Site-wide", "pdm Site-wide"}));
}

TEST(PluginsTable, ExternalOnlyHidesTheInternalPluginsAndTheIndexIsCheckedBeforeTheOffset) {
    Site site;
    site.addInternalPlugin("pdm");
    site.addInternalPlugin("cam", "Development");
    PluginsManager& plugins = PluginsManagement();
    plugins.addPlugin(site.writePlugin(site.root() / "external" / "extra", "Site-wide"));
    EXPECT_EQ(tableRows(plugins), (Names{"cam", "pdm", "extra"}));
    plugins.editExternalPluginsOnly();
    EXPECT_EQ(tableRows(plugins), Names{"extra"});
    EXPECT_EQ(plugins.plugin(0, true)->name(), "extra");
    EXPECT_EQ(plugins.plugin(0, false)->name(), "cam");

    testing::internal::CaptureStderr();
    EXPECT_EQ(thrownMessage([&] { plugins.plugin(2, true); }), "plugin index 4 is out of range of 3 plugins");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(PluginSettings, AFailedSaveKeepsFileAndMarksAndASaveReadsBackButKeepsTheNeedsSavingMark) {
    Site site;
    Layer layer;
    layer.windowsVariables = {{"CAM_WIN", "w"}};
    layer.applications = {makeApplication("cam", "cam.exe")};
    PluginSettings plugin(site.addInternalPlugin("cam", "Development", layer));
    const std::string before = readFile(plugin.dataFile());
    plugin.setPluginType("Production");
    plugin.applications()->commonVariables(0)->insertRow(-1);
    plugin.commonVariables()->insertRow(-1);
    plugin.commonVariables()->setValueForListColumnRow("Name", 0, std::string("CAM_COMMON"));
    EXPECT_EQ(thrownUnderFault(&Base::SystemCalls::setWriteFault, ENOSPC, [&] { plugin.save(); }),
              "Cannot write settings file " + plugin.dataFile().string() + ": No space left on device");
    EXPECT_EQ(readFile(plugin.dataFile()), before);
    EXPECT_TRUE(plugin.commonVariables()->isEdited() && plugin.applications()->application(0).needsSaving());

    plugin.setNeedsSaving(true);
    plugin.save();
    EXPECT_TRUE(plugin.needsSaving());
    PluginSettings reread(plugin.path());
    EXPECT_EQ(reread.pluginType() + " " + variableTexts(reread.commonVariableList()).at(0) + " " +
                  variableTexts(reread.winVariableList()).at(0) + " " + reread.applicationList().at(0).configurationName(),
              "Production CAM_COMMON= CAM_WIN=w cam Plugin");
}
