#include "LauncherScene.h"

#include "kym/ConfigApplication.h"

#include <gtest/gtest.h>

#include <memory>

using namespace LauncherTest;
using Base::Platform;
using KymTest::Layer;

namespace {

// "layer: ORDER=value" after each layer.
struct OrderObserver : Kym::Launcher::LayerObserver {
    Lines seen;
    void layerMerged(const std::string& layer, const std::vector<Kym::EnvironmentVariable>& vars) override {
        std::string order = "(none)";
        for (const auto& variable : vars)
            if (variable.name == "ORDER") order = variable.value;
        seen.push_back(layer + ": " + order);
    }
};

Layer layerWith(const std::vector<Kym::EnvironmentVariable>& commonVariables) {
    Layer layer;
    layer.commonVariables = commonVariables;
    return layer;
}

// Every settings layer extends ORDER; a plugin of another type and one the department switches off do not apply.
struct LayeredSite {
    LayeredSite() : scene(Platform::Windows, {{"ORDER", "process"}}) {
        scene.site.writeSiteSettings(siteFile("/opt/nx4", {var("ORDER", "$ORDER;site")}));
        scene.site.writeBaseSettings(layerWith({var("ORDER", "${ORDER};base")}));
        scene.site.addInternalPlugin("alpha", "Site-wide", layerWith({var("ORDER", "$ORDER;alpha")}));
        scene.site.addInternalPlugin("beta", "Production", layerWith({var("ORDER", "$ORDER;beta")}));
        scene.site.addInternalPlugin("delta", "Site-wide", layerWith({var("ORDER", "$ORDER;delta")}));
        scene.site.addInternalPlugin("gamma", "Development", layerWith({var("ORDER", "$ORDER;gamma")}));
        common = std::make_unique<Kym::Configuration>(
            scene.department("Shared", {}, settingsWith({var("ORDER", "$ORDER;common")})));
        KymTest::DepartmentSettings settings = settingsWith({var("ORDER", "$ORDER;department")});
        settings.disabledPlugins = {"delta"};
        config = std::make_unique<Kym::Configuration>(scene.department("Design", propertiesWith("Shared"), settings));
        app = application("/bin/true", "", {var("ORDER", "$ORDER;application")});
    }

    Scene scene;
    std::unique_ptr<Kym::Configuration> common;
    std::unique_ptr<Kym::Configuration> config;
    Kym::ConfigApplication app;
};

} // namespace

TEST(LauncherEnvironment, LayersMergeInOrderEachExtendingTheOneBeforeAndDisabledCustomizationSkipsTheSettingsLayers) {
    LayeredSite layered;
    OrderObserver observer;
    const Environment observed = build(*layered.config, layered.common.get(), layered.app, &observer);
    EXPECT_EQ((Lines{"process: process", "site: process;site", "base: process;site;base",
                     "plugin alpha: process;site;base;alpha", "plugin beta: process;site;base;alpha;beta",
                     "common department: process;site;base;alpha;beta;common",
                     "department: process;site;base;alpha;beta;common;department",
                     "application: process;site;base;alpha;beta;common;department;application",
                     "launcher: process;site;base;alpha;beta;common;department;application"}),
              observer.seen);
    EXPECT_EQ(build(*layered.config, layered.common.get(), layered.app), observed);

    // Without the common department given, the layer is skipped but the customer defaults still follow it.
    const Environment alone = build(*layered.config, nullptr, layered.app);
    EXPECT_EQ("process;site;base;alpha;beta;department;application", alone.at("ORDER"));
    EXPECT_EQ(Scene::native(layered.common->path()) + "\\nx4", alone.at("UGII_SITE_DIR"));

    layered.app.disableCustomization = true;
    EXPECT_EQ("process;site;application", build(*layered.config, layered.common.get(), layered.app).at("ORDER"));
}

TEST(LauncherEnvironment, WholeEnvironmentUnderWindowsConventions) {
    Scene scene(Platform::Windows, {{"Path", "\\\\server\\share;C:\\a;C:\\a;c:\\b"}, {"LIBPATH", "/usr/lib:/opt/lib"},
                                    {"CLASSPATH", "a.jar;a.jar"}, {"commonprogramfiles(x86)", "C:\\Common"},
                                    {"1ABC", "digit first"}, {"PROGRAMFILES", "C:\\Program Files"},
                                    {"KYM_DEPT_DIR", "stale"}});
    scene.site.writeSiteSettings(siteFile("C:\\NX4"));
    const Kym::Configuration config =
        scene.department("Design", {}, settingsWith({var("DIRECTORY", "C:/x//y"), var("URL", "http://host/a\\b"),
                                                     var("REF", "$DIRECTORY\\${UG_VER}")}));
    const std::string install = Scene::native(scene.site.installPath());
    const std::string department = Scene::native(config.path());
    EXPECT_EQ((Environment{{"CLASSPATH", "a.jar;a.jar"}, {"COMMONPROGRAMFILES(X86)", "C:\\Common"},
                           {"DIRECTORY", "C:\\x\\\\y"}, {"KYM_BASE_DIR", install},
                           {"KYM_COMMONDEPT_DIR", department}, {"KYM_DEPT_DIR", department},
                           {"KYM_UGSITE_DIR", Scene::native(scene.site.departmentsPath())},
                           {"LIBPATH", "\\usr\\lib;\\opt\\lib"}, {"OS", "win64"}, {"OSA", "win64"},
                           {"PATH", "\\\\server\\share;C:\\a;c:\\b"}, {"PROGRAMFILES", "C:\\Program Files"},
                           {"REF", "C:\\x\\\\y\\nx4"}, {"SCRIPTx", "bat"}, {"UGII_BASE_DIR", "C:\\NX4"},
                           {"UGII_GROUP_DIR", department + "\\nx4"},
                           {"UGII_HTML_BROWSER", "C:\\Program Files\\Internet Explorer\\iexplore.exe"},
                           {"UGII_ROOT_DIR", "C:\\NX4\\ugii\\"}, {"UGII_SITE_DIR", install},
                           {"UGII_UGDOC_BASE_DIR", "C:\\NX4\\ugdoc"}, {"UG_VER", "nx4"}, {"URL", "http://host/a\\b"},
                           {"XDG_CONFIG_HOME", Scene::native(scene.site.applicationDataFolder())}}),
              build(config, nullptr, application("C:\\bin\\app.exe")));
}

TEST(LauncherEnvironment, WholeEnvironmentUnderPosixConventions) {
    Scene scene(Platform::Posix, {{"PATH", "/usr//bin:/bin::\"/usr/bin\":/opt/x"}, {"LD_LIBRARY_PATH", "/lib\\64:/lib/64"},
                                  {"CLASSPATH", "a.jar:a.jar"}, {"Path", "kept:kept"}, {"lower", "C:\\x\\y"},
                                  {"KYM_DEPT_DIR", "stale"}});
    scene.site.writeSiteSettings(siteFile("/opt/nx4"));
    const Kym::Configuration config =
        scene.department("Design", {}, settingsWith({var("URL", "http://host/a\\b"), var("lower", "$lower\\z")}));
    const std::string install = scene.site.installPath().string();
    const std::string department = config.path().string();
    EXPECT_EQ((Environment{{"CLASSPATH", "a.jar:a.jar"}, {"KYM_BASE_DIR", install},
                           {"KYM_COMMONDEPT_DIR", department}, {"KYM_DEPT_DIR", department},
                           {"KYM_UGSITE_DIR", scene.site.departmentsPath().string()},
                           {"LD_LIBRARY_PATH", "/lib/64"}, {"OS", "lnx64"}, {"OSA", "lnx64"},
                           {"PATH", "/usr/bin:/bin:/opt/x"}, {"Path", "kept:kept"}, {"SCRIPTx", "sh"},
                           {"UGII_BASE_DIR", "/opt/nx4"}, {"UGII_GROUP_DIR", department + "/nx4"},
                           {"UGII_HTML_BROWSER", "/usr/bin/xdg-open"}, {"UGII_ROOT_DIR", "/opt/nx4/ugii/"},
                           {"UGII_SITE_DIR", install}, {"UGII_UGDOC_BASE_DIR", "/opt/nx4/ugdoc"}, {"UG_VER", "nx4"},
                           {"URL", "http://host/a\\b"},
                           {"XDG_CONFIG_HOME", scene.site.applicationDataFolder().string()},
                           {"lower", "C:/x/y/z"}}),
              build(config, nullptr, application("/bin/true")));
}

TEST(LauncherEnvironment, LauncherVariablesOverrideEveryLayerAndAnEmptyOneUnsetsTheVariable) {
    Scene scene(Platform::Posix, {{"UG_VER", "process"}, {"OS", "process"}});
    scene.site.writeSystemInfo({{"CadVersionDirectory", ""}});
    const Kym::Configuration config = scene.department("Design");
    const Environment env = build(config, nullptr, application("/bin/true", "", {var("SCRIPTx", "application")}));
    EXPECT_EQ(0u, env.count("UG_VER"));
    EXPECT_EQ("lnx64", env.at("OS"));
    EXPECT_EQ("sh", env.at("SCRIPTx"));
    // References to the removed variable expand to nothing.
    EXPECT_EQ(config.path().string() + "/", env.at("UGII_GROUP_DIR"));
}

TEST(LauncherEnvironment, SymbolLibraryComesFromTheDepartmentThenTheCommonDepartmentThenTheInstallation) {
    Scene scene(Platform::Windows);
    const Kym::Configuration config = scene.department("Design", propertiesWith("Shared"));
    const Kym::Configuration shared = scene.department("Shared");
    const auto symbolDirectory = [&] {
        const Environment env = build(config, nullptr, application("x"));
        return env.count("UGII_SYMBOL_LIBRARY_DIR") ? env.at("UGII_SYMBOL_LIBRARY_DIR") : "(none)";
    };
    EXPECT_EQ("(none)", symbolDirectory());
    for (const fs::path& directory : {scene.site.installPath(), shared.versionPath(), config.versionPath()}) {
        KymTest::writeFile(directory / "symbol" / "symbol_library.txt", "");
        EXPECT_EQ(Scene::native(directory / "symbol"), symbolDirectory());
    }
}

TEST(LauncherEnvironment, ValuesExpandInNameOrderAgainstTheFinishedEnvironment) {
    Scene scene(Platform::Windows, {{"ZED", "${A_FIRST}/z"}});
    const Kym::Configuration config = scene.department(
        "Design", {}, settingsWith({var("B_SECOND", "$A_FIRST/b"), var("A_FIRST", "a"), var("C_THIRD", "${B_SECOND}/$UNKNOWN/c"),
                                    var("A_FIRST", "a2")}));
    const Environment env = build(config, nullptr, application("x"));
    EXPECT_EQ("a2", env.at("A_FIRST"));
    EXPECT_EQ("a2\\b", env.at("B_SECOND"));
    EXPECT_EQ("a2\\b\\\\c", env.at("C_THIRD"));
    EXPECT_EQ("a2\\z", env.at("ZED"));
}

TEST(LauncherEnvironment, ExpansionErrorNamesTheVariableAndACycleTheFirstVariableInIt) {
    Scene scene(Platform::Posix);
    const auto failure = [&scene](const std::string& department, const std::vector<Kym::EnvironmentVariable>& vars) {
        const Kym::Configuration config = scene.department(department, {}, settingsWith(vars));
        Environment env;
        return KymTest::thrownMessage([&] { Kym::Launcher().buildEnvVarMap(config, nullptr, application("x"), env); });
    };
    EXPECT_EQ("Error expanding variable 'BROKEN'.\nUnterminated reference '${OPEN' in 'x${OPEN'",
              failure("Broken", {var("BROKEN", "x${OPEN")}));
    EXPECT_EQ("Error expanding variable 'CYCLE_A'.\nReference cycle: CYCLE_B -> CYCLE_A -> CYCLE_B",
              failure("Cycle", {var("CYCLE_A", "$CYCLE_B/a"), var("CYCLE_B", "${CYCLE_A}/b")}));
}
