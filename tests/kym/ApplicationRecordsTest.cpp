#include "kym/ApplicationOverlay.h"
#include "kym/ConfigApplication.h"

#include "base/Platform.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

using namespace Kym;

namespace {

ConfigApplication application(const std::string& category, const std::string& description) {
    ConfigApplication result;
    result.category = category;
    result.description = description;
    return result;
}

std::vector<std::string> merged(const ConfigApplication& app, std::vector<EnvironmentVariable> list) {
    app.mergeEnvVariables(list);
    std::vector<std::string> result;
    for (const auto& v : list) result.push_back(v.name + "=" + v.value);
    return result;
}

ApplicationOverlay overlay(const std::string& configuration, const std::string& appId) {
    ApplicationOverlay result;
    result.configurationName = configuration;
    result.appId = appId;
    return result;
}

} // namespace

TEST(ConfigApplication, OrdersByCategoryThenDescriptionByteWise) {
    EXPECT_TRUE(application("CAD", "Zeta") < application("CAM", "Alpha"));
    EXPECT_TRUE(application("CAD", "Alpha") < application("CAD", "Beta"));
    EXPECT_FALSE(application("CAD", "Beta") < application("CAD", "Alpha"));
    EXPECT_TRUE(application("CA", "Z") < application("CAD", "A"));
    EXPECT_TRUE(application("Z", "") < application("a", ""));
    EXPECT_TRUE(application("a", "") < application("\xc3\xa4", ""));
    ConfigApplication first = application("CAD", "NX"), second = application("CAD", "NX");
    first.appId = "a";
    second.program = "b";
    EXPECT_FALSE(first < second);
    EXPECT_FALSE(second < first);
}

TEST(ConfigApplication, MergePutsTheCadLibrariesInFrontOfTheFirstPathOrAppendsIt) {
    Base::Platform::setCurrent(Base::Platform::Windows);
    ConfigApplication app;
    app.commonVariables()->insertRow(-1);
    app.commonVariables()->setValueForListColumnRow("Name", 0, std::string("PATH"));
    app.commonVariables()->setValueForListColumnRow("Value", 0, std::string("$PATH;D:\\tools"));
    EXPECT_EQ((std::vector<std::string>{"Path=p", "PATH=${UGII_BASE_DIR}/ugii:C:\\bin;D:\\tools", "PATH=x"}),
              merged(app, {EnvironmentVariable("Path", "p"), EnvironmentVariable("PATH", "C:\\bin"),
                           EnvironmentVariable("PATH", "x")}));
    EXPECT_EQ((std::vector<std::string>{"Path=p", "PATH=${UGII_BASE_DIR}/ugii:;D:\\tools"}),
              merged(app, {EnvironmentVariable("Path", "p")}));
    EXPECT_EQ((std::vector<std::string>{"PATH=${UGII_BASE_DIR}/ugii"}), merged(ConfigApplication(), {}));
}

TEST(ConfigApplication, MergeWithoutTheFlagLeavesPathToTheMergeRule) {
    ConfigApplication app;
    app.addUGLibsToPath = false;
    app.winVariables()->insertRow(-1);
    app.winVariables()->setValueForListColumnRow("Name", 0, std::string("PATH"));
    app.winVariables()->setValueForListColumnRow("Value", 0, std::string("$PATH;x"));
    Base::Platform::setCurrent(Base::Platform::Windows);
    EXPECT_EQ(std::vector<std::string>{"PATH=a;x"}, merged(app, {EnvironmentVariable("PATH", "a")}));
    Base::Platform::setCurrent(Base::Platform::Posix);
    EXPECT_EQ(std::vector<std::string>{"PATH=a"}, merged(app, {EnvironmentVariable("PATH", "a")}));
}

TEST(EqualOverlayOrApp, MatchesExactlyTheConfigurationAndIdentifier) {
    const std::vector<ApplicationOverlay> overlays{overlay("Design", "NX"), overlay("design", "nx"),
                                                   overlay("Design", "nx"), overlay("Other", "nx")};
    const EqualOverlayOrApp predicate("Design", "nx");
    EXPECT_EQ(2, std::find_if(overlays.begin(), overlays.end(), predicate) - overlays.begin());
    EXPECT_EQ(1, std::count_if(overlays.begin(), overlays.end(), predicate));

    std::vector<ConfigApplication> apps(3);
    apps[0].appId = apps[1].appId = "nx";
    apps[2].appId = "NX";
    apps[1].setConfigurationName("Design");
    apps[2].setConfigurationName("Design");
    EXPECT_EQ(1, std::find_if(apps.begin(), apps.end(), predicate) - apps.begin());
    EXPECT_EQ(1, std::count_if(apps.begin(), apps.end(), predicate));
}
