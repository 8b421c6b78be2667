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

TEST(ConfigApplication, MergePutsTheCadLibrariesInFrontOfTheFirstPathOrAppendsItOnlyWhenFlagged) {
    Base::Platform::setCurrent(Base::Platform::Windows);
    ConfigApplication app;
    KymTest::appendVariable(app.commonVariables(), "PATH", "$PATH;D:\\tools");
    EXPECT_EQ((std::vector<std::string>{"Path=p", "PATH=${UGII_BASE_DIR}/ugii:C:\\bin;D:\\tools", "PATH=x"}),
              merged(app, {EnvironmentVariable("Path", "p"), EnvironmentVariable("PATH", "C:\\bin"),
                           EnvironmentVariable("PATH", "x")}));
    EXPECT_EQ((std::vector<std::string>{"PATH=${UGII_BASE_DIR}/ugii"}), merged(ConfigApplication(), {}));

    // Without the flag, PATH follows the merge rule of the launch conventions.
    ConfigApplication plain;
    plain.addUGLibsToPath = false;
    KymTest::appendVariable(plain.winVariables(), "PATH", "$PATH;x");
    EXPECT_EQ(std::vector<std::string>{"PATH=a;x"}, merged(plain, {EnvironmentVariable("PATH", "a")}));
    Base::Platform::setCurrent(Base::Platform::Posix);
    EXPECT_EQ(std::vector<std::string>{"PATH=a"}, merged(plain, {EnvironmentVariable("PATH", "a")}));
}
