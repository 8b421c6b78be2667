#include "kym/SiteSettings.h"

#include "kym/PluginsManager.h"

#include "support/Site.h"
#include "support/TestSupport.h"

#include "base/BaseException.h"
#include "base/Platform.h"
#include "base/Registry.h"
#include "base/SystemCalls.h"

#include <gtest/gtest.h>

using namespace KymTest;
using Kym::EnvironmentVariable;
using Kym::PluginsManagement;
using Kym::SiteInformation;
using Kym::SiteSettings;

namespace {

std::vector<std::string> merged(std::vector<EnvironmentVariable> vars = {}) {
    SiteInformation().mergeEnvVariables(vars);
    return variableTexts(vars);
}

std::vector<std::string> pluginNames() {
    std::vector<std::string> names;
    for (int index = 0; index < PluginsManagement().numberOfPlugins(); ++index)
        names.push_back(PluginsManagement().plugin(index, false)->name());
    return names;
}

// A site with every Unix and Windows member set and one variable in each list.
SiteFile fullSite() {
    SiteFile site;
    site.unixNXInstallPath.value = "/opt/nx";
    site.winNXInstallPath.value = "C:\\nx";
    site.unixTcEngInstallPath.value = "/opt/tc";
    site.winTcEngInstallPath.value = "C:\\tc";
    site.unixPortalInstallPath.value = "/opt/portal";
    site.winPortalInstallPath.value = "C:\\portal";
    site.unixPlotConfBase.value = "/opt/plot";
    site.winPlotConfBase.value = "P:\\plot";
    site.browser.value = "${BROWSER_HOME}/firefox";
    site.useWindowsRegistry = false;
    site.commonVariables = {{"SITE_COMMON", "c"}};
    site.unixVariables = {{"SITE_UNIX", "u"}};
    site.windowsVariables = {{"SITE_WIN", "w"}, {"UGII_ROOT_DIR", "${UGII_ROOT_DIR};extra"}};
    return site;
}

// Answers every registry read with the value and records the reads.
struct RegistryReader {
    explicit RegistryReader(const std::string& value) {
        Base::Registry::setReader([this, value](const std::string& key, const std::string& name) {
            asked.push_back(key + "|" + name);
            return value;
        });
    }
    ~RegistryReader() { Base::Registry::setReader(nullptr); }
    std::vector<std::string> asked;
};

// A site file naming both external plugin locations, with these plugins in
// the Unix one and the plugin "w" in the Windows one.
void writeExternalLocations(const Site& site, const std::vector<std::string>& unixPlugins) {
    SiteFile file;
    file.unixExternalPluginsLocation = (site.root() / "unix-plugins").string();
    file.winExternalPluginsLocation = (site.root() / "win-plugins").string();
    for (const std::string& name : unixPlugins) site.writePlugin(site.root() / "unix-plugins" / name, "Site-wide");
    site.writePlugin(site.root() / "win-plugins" / "w", "Site-wide");
    site.writeSiteSettings(file);
}

class SiteMerge : public ::testing::Test {
protected:
    SiteMerge() { Base::Platform::setCurrent(Base::Platform::Windows); }
    Site site;
    ScopedEnv programFiles{"PROGRAMFILES", std::string("C:\\Program Files")};
};

} // namespace

TEST_F(SiteMerge, EachConventionsTakeTheirMembersAndOnlyWindowsReadsTheRegistryLosingOneTrailingBackslash) {
    RegistryReader registry("D:\\nx\\\\");
    SiteFile file = fullSite();
    file.useWindowsRegistry = true;
    site.writeSiteSettings(file);
    ScopedEnv browserHome("BROWSER_HOME", std::string("/opt/firefox"));
    EXPECT_EQ(merged(), (std::vector<std::string>{
                            "UGII_BASE_DIR=D:\\nx\\", "UGII_ROOT_DIR=D:\\nx\\\\ugii\\;extra", "TC_ROOT=C:\\tc",
                            "TC_PORTAL_ROOT=C:\\portal", "SDI_SERVER_CFG_BASE=P:\\plot",
                            "UGII_HTML_BROWSER=C:\\Program Files\\Internet Explorer\\iexplore.exe",
                            "UGII_SDI_SERVER_CFG_DIR=P:\\plot/win", "UGII_UGDOC_BASE_DIR=${UGII_BASE_DIR}/ugdoc",
                            "SITE_COMMON=c", "SITE_WIN=w"}));
    EXPECT_EQ(registry.asked, (std::vector<std::string>{"SOFTWARE\\Unigraphics Solutions\\NX\\4.0|UGII_BASE_DIR"}));

    Base::Platform::setCurrent(Base::Platform::Posix);
    EXPECT_EQ(merged(), (std::vector<std::string>{
                            "UGII_BASE_DIR=/opt/nx", "UGII_ROOT_DIR=/opt/nx/ugii/", "TC_ROOT=/opt/tc",
                            "TC_PORTAL_ROOT=/opt/portal", "SDI_SERVER_CFG_BASE=/opt/plot",
                            "UGII_HTML_BROWSER=/opt/firefox/firefox", "UGII_SDI_SERVER_CFG_DIR=/opt/plot/lnx64",
                            "UGII_UGDOC_BASE_DIR=${UGII_BASE_DIR}/ugdoc", "SITE_COMMON=c", "SITE_UNIX=u"}));
    EXPECT_EQ(registry.asked.size(), 1u);
}

TEST_F(SiteMerge, ExistingVariablesAreReplacedInPlaceAndEmptyMembersNeverMerged) {
    SiteFile file;
    file.useWindowsRegistry = false;
    file.winNXInstallPath.value = "C:\\nx";
    site.writeSiteSettings(file);
    EXPECT_EQ(merged({{"UGII_BASE_DIR", "C:\\old"}, {"TC_ROOT", "C:\\tc"}, {"UGII_UGDOC_BASE_DIR", "C:\\doc"}}),
              (std::vector<std::string>{"UGII_BASE_DIR=C:\\nx", "TC_ROOT=C:\\tc", "UGII_UGDOC_BASE_DIR=C:\\doc",
                                        "UGII_ROOT_DIR=C:\\nx\\ugii\\",
                                        "UGII_HTML_BROWSER=C:\\Program Files\\Internet Explorer\\iexplore.exe"}));
}

TEST(SiteSettings, MissingFileGivesAStoreThatWritesNothing) {
    Site site;
    SiteInformation().save();
    EXPECT_FALSE(fs::exists(site.siteSettingsFile()));
}

TEST(SiteSettings, SystemInformationNamesTheFileAndTheVariables) {
    Site site;
    site.writeSystemInfo({{"SiteSettingsSuffix", "Nx5"}, {"CadInstallPathVariable", "MY_NX_DIR"}});
    SiteFile file;
    file.unixNXInstallPath = {"OLD_NAME", "/opt/nx5"};
    site.writeSiteSettings(file, "Nx5");
    SiteSettings& store = SiteInformation();
    EXPECT_EQ(store.dataFile(), site.departmentsPath() / "site_settingsNx5.dat");
    EXPECT_EQ(store.unixNXInstallPath().name + "=" + store.unixNXInstallPath().value, "MY_NX_DIR=/opt/nx5");
    EXPECT_EQ(store.winNXInstallPath().name, "MY_NX_DIR");
}

TEST(SiteSettings, SaveWritesTheFifteenKeysInOrderAndReadsBack) {
    Site site;
    site.writeSiteSettings(fullSite());
    SiteSettings& store = SiteInformation();
    store.setUseWindowsRegistry(true);
    store.setWinExternalPluginsLocation("E:\\plugins");
    store.settingsChanged();
    store.save();
    EXPECT_EQ(archiveTopLevelKeys(site.siteSettingsFile()),
              (std::vector<std::string>{
                  "UNIX NX Install Path Key", "Windows NX Install Path Key", "UNIX TcEng Install Path Key",
                  "Windows TcEng Install Path Key", "UNIX Portal Install Path Key", "Windows Portal Install Path Key",
                  "UNIX Browser Key", "Use Windows Registry Key", "Common Environment Variables Key",
                  "Unix Environment Variables Key", "Windows Environment Variables Key",
                  "Unix NX Plot Conf Directory Base Key", "Windows NX Plot Conf Directory Base Key",
                  "Unix External Plugins Location Key", "Windows External Plugins Location Key"}));
    SiteSettings reread(store);
    reread.load();
    EXPECT_EQ(reread.winExternalPluginsLocation(), "E:\\plugins");
    EXPECT_TRUE(reread.useWindowsRegistry());
}

TEST(SiteSettings, FailedSaveKeepsTheOldFileAndTheMarks) {
    Site site;
    site.writeSiteSettings(fullSite());
    const std::string before = readFile(site.siteSettingsFile());
    SiteSettings& store = SiteInformation();
    store.unixVariables()->insertRow(-1);
    Base::SystemCalls::setRenameFault([](const std::string&) { return EROFS; });
    EXPECT_THROW(store.save(), Base::BaseException);
    Base::SystemCalls::setRenameFault(nullptr);
    EXPECT_TRUE(store.needsSaving());
    EXPECT_EQ(readFile(site.siteSettingsFile()), before);
}

TEST(SiteSettings, DamagedFileLeavesNoStoreAndTheNextCallRetries) {
    Site site;
    site.writeSiteSettings(fullSite());
    const std::string good = readFile(site.siteSettingsFile());
    writeFile(site.siteSettingsFile(), good.substr(0, good.size() - 40));
    const std::string message = thrownMessage([] { SiteInformation(); });
    EXPECT_NE(message.find(site.siteSettingsFile().string()), std::string::npos) << message;
    writeFile(site.siteSettingsFile(), good);
    EXPECT_EQ(SiteInformation().unixNXInstallPath().value, "/opt/nx");
    EXPECT_EQ(&SiteInformation(), &SiteInformation());
}

TEST(SiteExternalPlugins, TheUnixOnesFollowTheInternalOnesInNameOrderAndADamagedOneTakesOutThoseAddedBeforeIt) {
    Site site;
    site.addInternalPlugin("internal");
    writeExternalLocations(site, {"c", "a"});
    const fs::path location = site.root() / "unix-plugins";
    writeFile(location / "b" / "settings.dat", "damaged");
    EXPECT_THROW(SiteInformation(), Base::BaseException);
    EXPECT_EQ(pluginNames(), (std::vector<std::string>{"internal"}));

    site.writePlugin(location / "b", "Site-wide");
    SiteInformation();
    EXPECT_EQ(pluginNames(), (std::vector<std::string>{"internal", "a", "b", "c"}));
    // Now the plugins added before the fault are external ones too.
    writeFile(location / "d" / "settings.dat", "damaged");
    EXPECT_THROW(SiteSettings(), Base::BaseException);
    EXPECT_EQ(pluginNames(), (std::vector<std::string>{"internal", "a", "b", "c"}));
}
