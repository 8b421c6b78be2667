#include "kym/ConfigApplication.h"

#include "base/Platform.h"
#include "support/Site.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace Kym;

namespace {

std::vector<std::string> merged(const ConfigApplication& app, std::vector<EnvironmentVariable> list) {
    app.mergeEnvVariables(list);
    return KymTest::variableTexts(list);
}

} // namespace

TEST(ConfigApplication, MergePutsTheCadLibrariesInFrontOfTheFirstPathOrAppendsIt) {
    Base::Platform::setCurrent(Base::Platform::Windows);
    ConfigApplication app;
    KymTest::appendVariable(app.commonVariables(), "PATH", "$PATH;D:\\tools");
    EXPECT_EQ((std::vector<std::string>{"Path=p", "PATH=${UGII_BASE_DIR}/ugii:C:\\bin;D:\\tools", "PATH=x"}),
              merged(app, {EnvironmentVariable("Path", "p"), EnvironmentVariable("PATH", "C:\\bin"),
                           EnvironmentVariable("PATH", "x")}));
    EXPECT_EQ((std::vector<std::string>{"PATH=${UGII_BASE_DIR}/ugii"}), merged(ConfigApplication(), {}));
}

TEST(ConfigApplication, MergeWithoutTheFlagLeavesPathToTheMergeRuleOfTheLaunchConvention) {
    ConfigApplication app;
    app.addUGLibsToPath = false;
    KymTest::appendVariable(app.winVariables(), "PATH", "$PATH;x");
    Base::Platform::setCurrent(Base::Platform::Windows);
    EXPECT_EQ(std::vector<std::string>{"PATH=a;x"}, merged(app, {EnvironmentVariable("PATH", "a")}));
    Base::Platform::setCurrent(Base::Platform::Posix);
    EXPECT_EQ(std::vector<std::string>{"PATH=a"}, merged(app, {EnvironmentVariable("PATH", "a")}));
}
