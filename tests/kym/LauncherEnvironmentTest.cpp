#include "LauncherScene.h"

#include "kym/ConfigApplication.h"

#include "base/Environment.h"

#include <gtest/gtest.h>

#include <memory>

using namespace LauncherTest;
using Base::Platform;
using KymTest::Layer;

namespace {

// "layer: ORDER=value" after each layer.
struct OrderObserver : Kym::Launcher::LayerObserver {
    Lines seen;
    std::vector<Kym::EnvironmentVariable> last;
    void layerMerged(const std::string& layer, const std::vector<Kym::EnvironmentVariable>& vars) override {
        std::string order = "(none)";
        for (const auto& variable : vars)
            if (variable.name == "ORDER") order = variable.value;
        seen.push_back(layer + ": " + order);
        last = vars;
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
        KymTest::writeFile(config->versionPath() / "symbol" / "symbol_library.txt", "");
    }

    Scene scene;
    std::unique_ptr<Kym::Configuration> common;
    std::unique_ptr<Kym::Configuration> config;
    Kym::ConfigApplication app;
};

} // namespace

TEST(LauncherEnvironment, LayersMergeInTheirOrderEachExtendingTheOneBeforeAndTheObserverChangesNothing) {
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
    EXPECT_EQ("process;site;base;alpha;beta;department;application",
              build(*layered.config, nullptr, layered.app).at("ORDER"));
    const Lines last = KymTest::variableTexts(observer.last);
    const Lines tail(last.end() - 10, last.end());
    const std::string department = Scene::native(layered.config->path());
    const std::string shared = Scene::native(layered.common->path());
    EXPECT_EQ((Lines{"KYM_DEPT_DIR=" + department, "KYM_COMMONDEPT_DIR=" + shared,
                     "KYM_UGSITE_DIR=" + Scene::native(layered.scene.site.departmentsPath()), "UG_VER=nx4",
                     "OS=win64", "OSA=win64", "SCRIPTx=bat",
                     "UGII_SYMBOL_LIBRARY_DIR=" + Scene::native(layered.config->versionPath() / "symbol"),
                     "UGII_SITE_DIR=${KYM_COMMONDEPT_DIR}/${UG_VER}", "UGII_GROUP_DIR=${KYM_DEPT_DIR}/${UG_VER}"}),
              tail);
}

TEST(LauncherEnvironment, DisabledCustomizationKeepsOnlyProcessSiteApplicationAndLauncherVariables) {
    LayeredSite layered;
    layered.app.disableCustomization = true;
    const Environment env = build(*layered.config, layered.common.get(), layered.app);
    EXPECT_EQ("process;site;application", env.at("ORDER"));
    for (const char* name : {"UGII_SYMBOL_LIBRARY_DIR", "UGII_SITE_DIR", "UGII_GROUP_DIR"})
        EXPECT_EQ(0u, env.count(name)) << name;
    EXPECT_EQ(Scene::native(layered.config->path()), env.at("KYM_DEPT_DIR"));
    EXPECT_EQ("nx4", env.at("UG_VER"));
}

TEST(LauncherEnvironment, WholeEnvironmentUnderWindowsConventions) {
    Scene scene(Platform::Windows, {{"Path", "C:\\a;C:\\a;c:\\b"},
                                    {"LIBPATH", "/usr/lib:/opt/lib"},
                                    {"CLASSPATH", "a.jar;a.jar"},
                                    {"MY_CLASSPATH_X", "x//y;x//y"},
                                    {"commonprogramfiles(x86)", "C:\\Program Files (x86)\\Common Files"},
                                    {"1ABC", "digit first"},
                                    {"A-B", "dash"},
                                    {"lower", "1"},
                                    {"PROGRAMFILES", "C:\\Program Files"},
                                    {"KYM_DEPT_DIR", "stale"},
                                    {"HOMEDRIVE", "C:"}});
    scene.site.writeSiteSettings(siteFile("C:\\NX4"));
    const Kym::Configuration config =
        scene.department("Design", {}, settingsWith({var("DIRECTORY", "C:/x//y"), var("URL", "http://host/a\\b"),
                                                     var("HOMEDRIVE", ""), var("REF", "$DIRECTORY\\${UG_VER}")}));
    const std::string install = Scene::native(scene.site.installPath());
    const std::string department = Scene::native(config.path());
    EXPECT_EQ((Environment{{"CLASSPATH", "a.jar;a.jar"},
                           {"COMMONPROGRAMFILES(X86)", "C:\\Program Files (x86)\\Common Files"},
                           {"KYM_BASE_DIR", install},
                           {"KYM_COMMONDEPT_DIR", department},
                           {"KYM_DEPT_DIR", department},
                           {"KYM_UGSITE_DIR", Scene::native(scene.site.departmentsPath())},
                           {"LIBPATH", "\\usr\\lib;\\opt\\lib"},
                           {"LOWER", "1"},
                           {"MY_CLASSPATH_X", "x\\\\y;x\\\\y"},
                           {"DIRECTORY", "C:\\x\\\\y"},
                           {"OS", "win64"},
                           {"OSA", "win64"},
                           {"PATH", "C:\\a;c:\\b"},
                           {"PROGRAMFILES", "C:\\Program Files"},
                           {"REF", "C:\\x\\\\y\\nx4"},
                           {"SCRIPTx", "bat"},
                           {"UGII_BASE_DIR", "C:\\NX4"},
                           {"UGII_GROUP_DIR", department + "\\nx4"},
                           {"UGII_HTML_BROWSER", "C:\\Program Files\\Internet Explorer\\iexplore.exe"},
                           {"UGII_ROOT_DIR", "C:\\NX4\\ugii\\"},
                           {"UGII_SITE_DIR", install},
                           {"UGII_UGDOC_BASE_DIR", "C:\\NX4\\ugdoc"},
                           {"UG_VER", "nx4"},
                           {"URL", "http://host/a\\b"},
                           {"XDG_CONFIG_HOME", Scene::native(scene.site.applicationDataFolder())}}),
              build(config, nullptr, application("C:\\bin\\app.exe")));
}

TEST(LauncherEnvironment, WholeEnvironmentUnderPosixConventions) {
    Scene scene(Platform::Posix, {{"PATH", "/usr//bin:/bin::\"/usr/bin\":/opt/x"},
                                  {"LD_LIBRARY_PATH", "/lib\\64:/lib/64"},
                                  {"CLASSPATH", "a.jar:a.jar"},
                                  {"Path", "kept:kept"},
                                  {"lower", "C:\\x\\y"},
                                  {"1ABC", "digit first"},
                                  {"A-B", "dash"},
                                  {"KYM_DEPT_DIR", "stale"}});
    scene.site.writeSiteSettings(siteFile("/opt/nx4"));
    const Kym::Configuration config =
        scene.department("Design", {}, settingsWith({var("URL", "http://host/a\\b"), var("lower", "$lower\\z")}));
    const std::string install = scene.site.installPath().string();
    const std::string department = config.path().string();
    EXPECT_EQ((Environment{{"CLASSPATH", "a.jar:a.jar"},
                           {"KYM_BASE_DIR", install},
                           {"KYM_COMMONDEPT_DIR", department},
                           {"KYM_DEPT_DIR", department},
                           {"KYM_UGSITE_DIR", scene.site.departmentsPath().string()},
                           {"LD_LIBRARY_PATH", "/lib/64"},
                           {"OS", "lnx64"},
                           {"OSA", "lnx64"},
                           {"PATH", "/usr/bin:/bin:/opt/x"},
                           {"Path", "kept:kept"},
                           {"SCRIPTx", "sh"},
                           {"UGII_BASE_DIR", "/opt/nx4"},
                           {"UGII_GROUP_DIR", department + "/nx4"},
                           {"UGII_HTML_BROWSER", "/usr/bin/xdg-open"},
                           {"UGII_ROOT_DIR", "/opt/nx4/ugii/"},
                           {"UGII_SITE_DIR", install},
                           {"UGII_UGDOC_BASE_DIR", "/opt/nx4/ugdoc"},
                           {"UG_VER", "nx4"},
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
    KymTest::writeFile(scene.site.installPath() / "symbol" / "symbol_library.txt", "");
    EXPECT_EQ(Scene::native(scene.site.installPath() / "symbol"), symbolDirectory());
    KymTest::writeFile(shared.versionPath() / "symbol" / "symbol_library.txt", "");
    EXPECT_EQ(Scene::native(shared.versionPath() / "symbol"), symbolDirectory());
    KymTest::writeFile(config.versionPath() / "symbol" / "symbol_library.txt", "");
    EXPECT_EQ(Scene::native(config.versionPath() / "symbol"), symbolDirectory());
}

TEST(LauncherEnvironment, CustomerDefaultsFollowTheCommonDepartmentWhenOneIsNamed) {
    Scene scene(Platform::Windows);
    const Kym::Configuration withCommon = scene.department("Design", propertiesWith("Shared"));
    const Kym::Configuration alone = scene.department("Alone");
    {
        KymTest::LogRecorder log;
        const Environment env = build(withCommon, nullptr, application("x"));
        const std::string shared = Scene::native(scene.site.departmentsPath() / "Shared");
        EXPECT_EQ(shared, env.at("KYM_COMMONDEPT_DIR"));
        EXPECT_EQ(shared + "\\nx4", env.at("UGII_SITE_DIR"));
        EXPECT_EQ(Scene::native(withCommon.path()) + "\\nx4", env.at("UGII_GROUP_DIR"));
        EXPECT_TRUE(log.contains("dpv found in CONFIG: setCustomerDefaultVariables setting UGII_SITE_DIR to COMMON"));
        EXPECT_TRUE(log.contains("dpv found in CONFIG: setCustomerDefaultVariables setting UGII_SITE_DIR  to COMMON"));
    }
    KymTest::LogRecorder log;
    const Environment env = build(alone, nullptr, application("x"));
    EXPECT_EQ(Scene::native(alone.path()), env.at("KYM_COMMONDEPT_DIR"));
    EXPECT_EQ(Scene::native(scene.site.installPath()), env.at("UGII_SITE_DIR"));
    EXPECT_TRUE(log.contains("dpv not found in CONFIG: setCustomerDefaultVariables setting UGII_SITE_DIR to BASE"));
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

TEST(LauncherEnvironment, NamesMustStartWithALetterAndHoldOnlyWordCharactersUnlessTheyHoldX86) {
    using Kym::Launcher;
    for (const char* name : {"a_1", "COMMONPROGRAMFILES(X86)", "A-X86", "Z"})
        EXPECT_TRUE(Launcher::isValidVariableName(name)) << name;
    for (const char* name : {"1ABC", "A-B", "_UNDERSCORE", "(X86)", "A.B", "COMMONPROGRAMFILES(x86)", "A B"})
        EXPECT_FALSE(Launcher::isValidVariableName(name)) << name;
}

TEST(LauncherEnvironment, PathListsLoseQuotesEmptyPiecesRepeatsAndDoubledSeparatorsAndLogTheSteps) {
    Platform::setCurrent(Platform::Windows);
    EXPECT_EQ("\\\\server\\share;C:\\a\\b;C:\\q;c:\\a\\b",
              Kym::Launcher::cleanPathList("\\\\server\\share;C:\\a\\\\b;;\"C:\\q\";C:\\a\\b;c:\\a\\b;"));
    EXPECT_EQ("\\usr\\lib;\\opt\\lib", Kym::Launcher::cleanPathList("\\usr\\lib:\\opt\\lib:\\usr\\lib"));
    // Forward slashes only come through in web addresses, which the list clean-up still takes apart.
    EXPECT_EQ("http;\\a\\b", Kym::Launcher::cleanPathList("http://a/b;http://a/b"));

    Platform::setCurrent(Platform::Posix);
    EXPECT_EQ("/usr/bin:/opt/x:/net/share",
              Kym::Launcher::cleanPathList("/usr//bin:\"/opt/x\"::/usr/bin:/usr//bin://net/share"));
    EXPECT_EQ("C;/a", Kym::Launcher::cleanPathList("C;/a"));

    Platform::setCurrent(Platform::Windows);
    KymTest::LogRecorder log({"kym.verbose"});
    Kym::Launcher::cleanPathList("C:\\a;C:\\a;/x//y");
    EXPECT_EQ((Lines{"  PATH string = C:\\a;C:\\a;/x//y", "  PATH string = C:\\a;C:\\a;/x/y", "  C:\\a", "  /x/y"}),
              log.lines("kym.verbose"));
}
