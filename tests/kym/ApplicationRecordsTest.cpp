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

void addPath(EnvVariableListSource* source, const std::string& value) {
    source->insertRow(-1);
    source->setValueForListColumnRow("Name", 0, std::string("PATH"));
    source->setValueForListColumnRow("Value", 0, value);
}

} // namespace

TEST(ConfigApplication, OrdersByCategoryThenDescriptionByteWise) {
    EXPECT_TRUE(application("CAD", "Zeta") < application("CAM", "Alpha"));
    EXPECT_TRUE(application("CAD", "Alpha") < application("CAD", "Beta"));
    EXPECT_TRUE(application("CA", "Z") < application("CAD", "A"));
    EXPECT_TRUE(application("Z", "") < application("a", ""));
    ConfigApplication first = application("CAD", "NX"), second = application("CAD", "NX");
    first.appId = "a";
    second.program = "b";
    EXPECT_FALSE(first < second || second < first);
}

TEST(ConfigApplication, MergePutsTheCadLibrariesInFrontOfTheFirstPathOrAppendsIt) {
    Base::Platform::setCurrent(Base::Platform::Windows);
    ConfigApplication app;
    addPath(app.commonVariables(), "$PATH;D:\\tools");
    EXPECT_EQ((std::vector<std::string>{"Path=p", "PATH=${UGII_BASE_DIR}/ugii:C:\\bin;D:\\tools", "PATH=x"}),
              merged(app, {EnvironmentVariable("Path", "p"), EnvironmentVariable("PATH", "C:\\bin"),
                           EnvironmentVariable("PATH", "x")}));
    EXPECT_EQ((std::vector<std::string>{"PATH=${UGII_BASE_DIR}/ugii"}), merged(ConfigApplication(), {}));
}

TEST(ConfigApplication, MergeWithoutTheFlagLeavesPathToTheMergeRuleOfTheLaunchConvention) {
    ConfigApplication app;
    app.addUGLibsToPath = false;
    addPath(app.winVariables(), "$PATH;x");
    Base::Platform::setCurrent(Base::Platform::Windows);
    EXPECT_EQ(std::vector<std::string>{"PATH=a;x"}, merged(app, {EnvironmentVariable("PATH", "a")}));
    Base::Platform::setCurrent(Base::Platform::Posix);
    EXPECT_EQ(std::vector<std::string>{"PATH=a"}, merged(app, {EnvironmentVariable("PATH", "a")}));
}

TEST(EqualOverlayOrApp, MatchesExactlyTheConfigurationAndIdentifier) {
    std::vector<ApplicationOverlay> overlays(3);
    overlays[0].configurationName = "design";
    overlays[1].configurationName = overlays[2].configurationName = "Design";
    overlays[0].appId = overlays[2].appId = "nx";
    overlays[1].appId = "NX";
    const EqualOverlayOrApp predicate("Design", "nx");
    EXPECT_EQ(1, std::count_if(overlays.begin(), overlays.end(), predicate));
    EXPECT_TRUE(predicate(overlays[2]));

    std::vector<ConfigApplication> apps(2);
    apps[0].appId = apps[1].appId = "nx";
    apps[1].setConfigurationName("Design");
    EXPECT_EQ(1, std::find_if(apps.begin(), apps.end(), predicate) - apps.begin());
}
