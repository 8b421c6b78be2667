#include "kym/SiteSettings.h"

#include "support/Processes.h"
#include "support/Site.h"

#include "base/BaseException.h"
#include "base/Platform.h"
#include "base/Registry.h"
#include "base/SystemCalls.h"

#include <gtest/gtest.h>

using namespace KymTest;
using Kym::SiteInformation;
using Kym::SiteSettings;

namespace {

std::vector<std::string> merged(std::vector<Kym::EnvironmentVariable> vars = {}) {
    SiteInformation().mergeEnvVariables(vars);
    return variableTexts(vars);
}

// A site with every Unix and Windows member but the portal's set and one variable in each list.
SiteFile fullSite() {
    SiteFile site;
    site.unixNXInstallPath.value = "/opt/nx", site.winNXInstallPath.value = "C:\\nx";
    site.unixTcEngInstallPath.value = "/opt/tc", site.winTcEngInstallPath.value = "C:\\tc";
    site.unixPlotConfBase.value = "/opt/plot", site.winPlotConfBase.value = "P:\\plot";
    site.browser.value = "${BROWSER_HOME}/firefox", site.useWindowsRegistry = false;
    site.commonVariables = {{"SITE_COMMON", "c"}}, site.unixVariables = {{"SITE_UNIX", "u"}};
    site.windowsVariables = {{"SITE_WIN", "w"}, {"UGII_ROOT_DIR", "${UGII_ROOT_DIR};extra"}};
    return site;
}

// The browser under Windows conventions, with PROGRAMFILES as SiteMerge sets it: a Windows host gives its
// path in the short form when the browser is there.
std::string windowsBrowser() {
    const fs::path browser = "C:\\Program Files\\Internet Explorer\\iexplore.exe";
    return fs::exists(browser) ? shortFormOnThisHost(browser) : browser.string();
}

class SiteMerge : public ::testing::Test {
protected:
    SiteMerge() { Base::Platform::setCurrent(Base::Platform::Windows); }
    Site site;
    ScopedEnv programFiles{"PROGRAMFILES", std::string("C:\\Program Files")};
};

} // namespace

TEST_F(SiteMerge, EachConventionsTakeTheirMembersReplacingInPlaceAndOnlyWindowsReadsTheRegistryLosingOneTrailingBackslash) {
    std::vector<std::string> asked;
    Base::Registry::setReader([&asked](const std::string& key, const std::string& name) {
        asked.push_back(key + "|" + name);
        return std::string("D:\\nx\\\\");
    });
    SiteFile file = fullSite();
    file.useWindowsRegistry = true;
    site.writeSiteSettings(file);
    ScopedEnv browserHome("BROWSER_HOME", std::string("/opt/firefox"));
    EXPECT_EQ(merged(), (std::vector<std::string>{
                            "UGII_BASE_DIR=D:\\nx\\", "UGII_ROOT_DIR=D:\\nx\\\\ugii\\;extra", "TC_ROOT=C:\\tc",
                            "SDI_SERVER_CFG_BASE=P:\\plot",
                            "UGII_HTML_BROWSER=" + windowsBrowser(),
                            "UGII_SDI_SERVER_CFG_DIR=P:\\plot/win", "UGII_UGDOC_BASE_DIR=${UGII_BASE_DIR}/ugdoc",
                            "SITE_COMMON=c", "SITE_WIN=w"}));
    EXPECT_EQ(asked, (std::vector<std::string>{"SOFTWARE\\Unigraphics Solutions\\NX\\4.0|UGII_BASE_DIR"}));

    // Variables already there are replaced where they stand; an empty member leaves its variable alone.
    Base::Platform::setCurrent(Base::Platform::Posix);
    EXPECT_EQ(merged({{"UGII_BASE_DIR", "/old"}, {"TC_PORTAL_ROOT", "/portal"}, {"UGII_UGDOC_BASE_DIR", "/doc"}}),
              (std::vector<std::string>{"UGII_BASE_DIR=/opt/nx", "TC_PORTAL_ROOT=/portal", "UGII_UGDOC_BASE_DIR=/doc",
                                        "UGII_ROOT_DIR=/opt/nx/ugii/", "TC_ROOT=/opt/tc", "SDI_SERVER_CFG_BASE=/opt/plot",
                                        "UGII_HTML_BROWSER=/opt/firefox/firefox", "UGII_SDI_SERVER_CFG_DIR=/opt/plot/lnx64",
                                        "SITE_COMMON=c", "SITE_UNIX=u"}));
    EXPECT_EQ(asked.size(), 1u);
    Base::Registry::setReader(nullptr);
}

TEST_F(SiteMerge, AnInstallPathTheRegistryDoesNotHoldIsLeftOut) {
    site.writeSystemInfo({{"CadWindowsRegistryPath", "SOFTWARE\\Kym Tests\\No Such Key"}});
    SiteFile file;
    file.winNXInstallPath.value = "C:\\not read";
    site.writeSiteSettings(file);
    EXPECT_EQ(merged(), (std::vector<std::string>{"UGII_HTML_BROWSER=" + windowsBrowser(),
                                                  "UGII_UGDOC_BASE_DIR=${UGII_BASE_DIR}/ugdoc"}));
}

TEST(SiteSettings, AFailedSaveKeepsTheOldFileAndTheMarksAndTheNextWritesTheFifteenKeysInOrder) {
    Site site;
    site.writeSiteSettings(fullSite());
    const std::string before = readFile(site.siteSettingsFile());
    SiteSettings& store = SiteInformation();
    store.setWinExternalPluginsLocation("E:\\plugins");
    store.settingsChanged();
    EXPECT_EQ(thrownUnderFault(&Base::SystemCalls::setRenameFault, EROFS, [&] { store.save(); }),
              "Cannot write settings file " + site.siteSettingsFile().string() + ": Read-only file system");
    EXPECT_TRUE(store.needsSaving());
    EXPECT_EQ(readFile(site.siteSettingsFile()), before);

    store.save();
    EXPECT_EQ(archiveTopLevelKeys(site.siteSettingsFile()),
              (std::vector<std::string>{"UNIX NX Install Path Key", "Windows NX Install Path Key",
                  "UNIX TcEng Install Path Key", "Windows TcEng Install Path Key", "UNIX Portal Install Path Key",
                  "Windows Portal Install Path Key", "UNIX Browser Key", "Use Windows Registry Key",
                  "Common Environment Variables Key", "Unix Environment Variables Key", "Windows Environment Variables Key",
                  "Unix NX Plot Conf Directory Base Key", "Windows NX Plot Conf Directory Base Key",
                  "Unix External Plugins Location Key", "Windows External Plugins Location Key"}));
    SiteSettings reread(store);
    reread.load();
    EXPECT_EQ(reread.winExternalPluginsLocation(), "E:\\plugins");
}

// The Windows location holds a plugin too: only the location of the active conventions counts.
TEST(SiteExternalPlugins, FollowTheInternalOnesInNameOrderAndADamagedOneTakesOutThoseAddedBeforeIt) {
    Base::Platform::setCurrent(Base::Platform::Posix);
    Site site;
    site.addInternalPlugin("internal");
    SiteFile file;
    const fs::path location = site.root() / "unix-plugins";
    file.unixExternalPluginsLocation = location.string();
    file.winExternalPluginsLocation = (site.root() / "win-plugins").string();
    for (const char* name : {"c", "a"}) site.writePlugin(location / name, "Site-wide");
    site.writePlugin(site.root() / "win-plugins" / "w", "Site-wide");
    site.writeSiteSettings(file);
    writeFile(location / "b" / "settings.dat", "damaged");
    EXPECT_THROW(SiteInformation(), Base::BaseException);
    EXPECT_EQ(pluginNames(), (std::vector<std::string>{"internal Site-wide"}));
    site.writePlugin(location / "b", "Site-wide");
    SiteInformation();
    EXPECT_EQ(pluginNames(),
              (std::vector<std::string>{"internal Site-wide", "a Site-wide", "b Site-wide", "c Site-wide"}));
}
