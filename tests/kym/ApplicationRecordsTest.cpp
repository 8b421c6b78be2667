#include "kym/ConfigApplication.h"

#include "base/Platform.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace Kym;

namespace {

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
