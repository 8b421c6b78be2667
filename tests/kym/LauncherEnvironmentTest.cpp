#include "LauncherScene.h"

#include "kym/BaseSettings.h"
#include "kym/ConfigApplication.h"
#include "kym/PluginsManager.h"
#include "kym/SiteSettings.h"

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <stdexcept>

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

Layer layerWith(const std::string& order) { return {{{"ORDER", order}}, {}, {}, {}}; }

using Variables = std::vector<Kym::EnvironmentVariable>;

// The whole list after each layer.
struct ListObserver : Kym::Launcher::LayerObserver {
    std::vector<std::pair<std::string, Variables>> lists;
    void layerMerged(const std::string& layer, const Variables& vars) override { lists.emplace_back(layer, vars); }
};

// Names the other layers and the process share (PATH, SHARED_n), names of
// the layer's own repeated within it, self-references and empty values.
Variables mixedVariables(const std::string& tag, int count) {
    Variables variables;
    for (int k = 0; k < count; ++k) {
        const std::string shared = "SHARED_" + std::to_string(k % 7);
        if (k % 4 == 0)
            variables.emplace_back("PATH", "$PATH;C:\\" + tag + std::to_string(k));
        else if (k % 4 == 1)
            variables.emplace_back(shared, "${" + shared + "}\\" + tag);
        else if (k % 4 == 2)
            variables.emplace_back(tag + "_" + std::to_string(k % 5), "C:\\" + tag + "\\" + std::to_string(k));
        else
            variables.emplace_back(shared, k % 8 == 3 ? "" : tag);
    }
    return variables;
}

const Kym::PluginSettings& pluginNamed(const std::string& name) {
    Kym::PluginsManager& plugins = Kym::PluginsManagement();
    for (int index = 0; index < plugins.numberOfPlugins(); ++index)
        if (plugins.plugin(index, false)->name() == name) return *plugins.plugin(index, false);
    throw std::runtime_error("no plugin " + name);
}

} // namespace

TEST(LauncherEnvironment, LayersMergeInOrderEachExtendingTheOneBeforeAndDisabledCustomizationSkipsTheSettingsLayers) {
    // Every settings layer extends ORDER; a plugin of another type does not apply.
    Scene scene(Platform::Windows, {{"ORDER", "process"}});
    scene.site.writeSiteSettings(siteFile("/opt/nx4", {{"ORDER", "$ORDER;site"}}));
    scene.site.writeBaseSettings(layerWith("${ORDER};base"));
    scene.site.addInternalPlugin("alpha", "Site-wide", layerWith("$ORDER;alpha"));
    scene.site.addInternalPlugin("beta", "Production", layerWith("$ORDER;beta"));
    scene.site.addInternalPlugin("gamma", "Development", layerWith("$ORDER;gamma"));
    const Kym::Configuration common = scene.department("Shared", {}, settingsWith({{"ORDER", "$ORDER;common"}}));
    const Kym::Configuration config =
        scene.department("Design", propertiesWith("Shared"), settingsWith({{"ORDER", "$ORDER;department"}}));
    Kym::ConfigApplication app = application("/bin/true", "", {{"ORDER", "$ORDER;application"}});
    OrderObserver observer;
    const Environment observed = build(config, &common, app, &observer);
    EXPECT_EQ((Lines{"process: process", "site: process;site", "base: process;site;base",
                     "plugin alpha: process;site;base;alpha", "plugin beta: process;site;base;alpha;beta",
                     "common department: process;site;base;alpha;beta;common",
                     "department: process;site;base;alpha;beta;common;department",
                     "application: process;site;base;alpha;beta;common;department;application",
                     "launcher: process;site;base;alpha;beta;common;department;application"}),
              observer.seen);
    EXPECT_EQ(build(config, &common, app), observed);

    // Without the common department given, the layer is skipped but the customer defaults still follow it.
    const Environment alone = build(config, nullptr, app);
    EXPECT_EQ("process;site;base;alpha;beta;department;application", alone.at("ORDER"));
    EXPECT_EQ(Scene::native(common.path()) + "\\nx4", alone.at("UGII_SITE_DIR"));

    app.disableCustomization = true;
    EXPECT_EQ("process;site;application", build(config, &common, app).at("ORDER"));
}

TEST(LauncherEnvironment, WholeEnvironmentUnderWindowsConventions) {
    Scene scene(Platform::Windows, {{"Path", "\\\\server\\share;C:\\a;C:\\a;c:\\b"}, {"LIBPATH", "/usr/lib:/opt/lib"},
                                    {"CLASSPATH", "a.jar;a.jar"}, {"commonprogramfiles(x86)", "C:\\Common"},
                                    {"1ABC", "digit first"}, {"PROGRAMFILES", "C:\\Program Files"},
                                    {"KYM_DEPT_DIR", "stale"}});
    scene.site.writeSiteSettings(siteFile("C:\\NX4"));
    const Kym::Configuration config =
        scene.department("Design", {}, settingsWith({{"DIRECTORY", "C:/x//y"}, {"URL", "http://host/a\\b"},
                                                     {"REF", "$DIRECTORY\\${UG_VER}"}}));
    const std::string install = Scene::native(scene.site.installPath()), department = Scene::native(config.path());
    // A Windows host gives the browser's path in its short form when the browser is there.
    const fs::path browserPath = "C:\\Program Files\\Internet Explorer\\iexplore.exe";
    const std::string browser =
        fs::exists(browserPath) ? KymTest::shortFormOnThisHost(browserPath) : browserPath.string();
    EXPECT_EQ((Environment{{"CLASSPATH", "a.jar;a.jar"}, {"COMMONPROGRAMFILES(X86)", "C:\\Common"},
                           {"DIRECTORY", "C:\\x\\\\y"}, {"KYM_BASE_DIR", install}, {"KYM_COMMONDEPT_DIR", department},
                           {"KYM_DEPT_DIR", department}, {"KYM_UGSITE_DIR", Scene::native(scene.site.departmentsPath())},
                           {"LIBPATH", "\\usr\\lib;\\opt\\lib"}, {"OS", "win64"}, {"OSA", "win64"},
                           {"PATH", "\\\\server\\share;C:\\a;c:\\b"}, {"PROGRAMFILES", "C:\\Program Files"},
                           {"REF", "C:\\x\\\\y\\nx4"}, {"SCRIPTx", "bat"}, {"UGII_BASE_DIR", "C:\\NX4"},
                           {"UGII_GROUP_DIR", department + "\\nx4"}, {"UGII_ROOT_DIR", "C:\\NX4\\ugii\\"},
                           {"UGII_HTML_BROWSER", browser},
                           {"UGII_SITE_DIR", install}, {"UGII_UGDOC_BASE_DIR", "C:\\NX4\\ugdoc"}, {"UG_VER", "nx4"},
                           {"URL", "http://host/a\\b"}, {"XDG_CONFIG_HOME", Scene::native(scene.site.applicationDataFolder())}}),
              build(config, nullptr, application("C:\\bin\\app.exe")));
}

TEST(LauncherEnvironment, WholeEnvironmentUnderPosixConventions) {
    std::vector<std::pair<std::string, std::string>> process{
        {"PATH", "/usr//bin:/bin::\"/usr/bin\":/opt/x"}, {"LD_LIBRARY_PATH", "/lib\\64:/lib/64"},
        {"CLASSPATH", "a.jar:a.jar"}, {"lower", "C:\\x\\y"}, {"KYM_DEPT_DIR", "stale"}};
#ifndef _WIN32
    process.emplace_back("Path", "kept:kept");  // a Windows environment holds a name once, in any case
#endif
    Scene scene(Platform::Posix, process);
    scene.site.writeSiteSettings(siteFile("/opt/nx4"));
    const Kym::Configuration config =
        scene.department("Design", {}, settingsWith({{"URL", "http://host/a\\b"}, {"lower", "$lower\\z"}}));
    const std::string install = Scene::native(scene.site.installPath()), department = Scene::native(config.path());
    Environment expected{{"CLASSPATH", "a.jar:a.jar"}, {"KYM_BASE_DIR", install}, {"KYM_COMMONDEPT_DIR", department},
                         {"KYM_DEPT_DIR", department}, {"KYM_UGSITE_DIR", Scene::native(scene.site.departmentsPath())},
                         {"LD_LIBRARY_PATH", "/lib/64"}, {"OS", "lnx64"}, {"OSA", "lnx64"},
                         {"PATH", "/usr/bin:/bin:/opt/x"}, {"SCRIPTx", "sh"},
                         {"UGII_BASE_DIR", "/opt/nx4"}, {"UGII_GROUP_DIR", department + "/nx4"},
                         {"UGII_HTML_BROWSER", "/usr/bin/xdg-open"}, {"UGII_ROOT_DIR", "/opt/nx4/ugii/"},
                         {"UGII_SITE_DIR", install}, {"UGII_UGDOC_BASE_DIR", "/opt/nx4/ugdoc"}, {"UG_VER", "nx4"},
                         {"URL", "http://host/a\\b"},
                         {"XDG_CONFIG_HOME", Scene::native(scene.site.applicationDataFolder())}, {"lower", "C:/x/y/z"}};
#ifndef _WIN32
    expected.emplace("Path", "kept:kept");
#endif
    EXPECT_EQ(expected, build(config, nullptr, application("/bin/true")));
}

TEST(LauncherEnvironment, LauncherVariablesOverrideEveryLayerAndAnEmptyOneUnsetsTheVariable) {
    Scene scene(Platform::Posix, {{"UG_VER", "process"}, {"OS", "process"}, {"BACK", "process"}});
    scene.site.writeSystemInfo({{"CadVersionDirectory", ""}});
    const Kym::Configuration config = scene.department("Design", {}, settingsWith({{"BACK", ""}}));
    const Environment env =
        build(config, nullptr, application("/bin/true", "", {{"SCRIPTx", "application"}, {"BACK", "again"}}));
    EXPECT_EQ(0u, env.count("UG_VER"));
    EXPECT_EQ("again", env.at("BACK"));
    // References to the removed variable expand to nothing.
    EXPECT_EQ((Lines{"lnx64", "sh", Scene::native(config.path()) + "/"}),
              (Lines{env.at("OS"), env.at("SCRIPTx"), env.at("UGII_GROUP_DIR")}));
}

TEST(LauncherEnvironment, ValuesExpandInNameOrderAgainstTheFinishedEnvironmentAndACycleIsNamedByItsFirstVariable) {
    Scene scene(Platform::Windows, {{"ZED", "${A_FIRST}/z"}});
    const Kym::Configuration config = scene.department(
        "Design", {}, settingsWith({{"B_SECOND", "$A_FIRST/b"}, {"A_FIRST", "a"}, {"C_THIRD", "${B_SECOND}/$UNKNOWN/c"},
                                    {"A_FIRST", "a2"}}));
    const Environment env = build(config, nullptr, application("x"));
    EXPECT_EQ((Lines{"a2", "a2\\b", "a2\\b\\\\c", "a2\\z"}),
              (Lines{env.at("A_FIRST"), env.at("B_SECOND"), env.at("C_THIRD"), env.at("ZED")}));

    const Kym::Configuration cycle =
        scene.department("Cycle", {}, settingsWith({{"CYCLE_A", "$CYCLE_B/a"}, {"CYCLE_B", "${CYCLE_A}/b"}}));
    EXPECT_EQ("Error expanding variable 'CYCLE_A'.\nReference cycle: CYCLE_B -> CYCLE_A -> CYCLE_B",
              KymTest::thrownMessage([&] { build(cycle, nullptr, application("x")); }));
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

TEST(LauncherEnvironment, EachLayerMergesIntoTheWorkingListAsItWouldMergeIntoACopyOfIt) {
    // Small and large layers over names that the process holds twice (Path and PATH both become PATH), that the
    // site appends before its own variables merge, and that the application's PATH prefix changes in place.
    Scene scene(Platform::Windows, {{"Path", "C:\\first"}, {"PATH", "C:\\second"}, {"SHARED_1", "process"}});
    scene.site.writeSiteSettings(siteFile("C:\\NX4", {{"UGII_HTML_BROWSER", "$UGII_HTML_BROWSER -new"},
                                                       {"UGII_UGDOC_BASE_DIR", "${UGII_UGDOC_BASE_DIR}\\en"},
                                                       {"PATH", "$PATH;C:\\site"}}));
    scene.site.writeBaseSettings({mixedVariables("BASE", 30), {}, {}, {}});
    scene.site.addInternalPlugin("alpha", "Site-wide", {mixedVariables("ALPHA", 5), {}, {}, {}});
    scene.site.addInternalPlugin("beta", "Production", {{}, {}, mixedVariables("BETA", 20), {}});
    const Kym::Configuration common = scene.department("Shared", {}, settingsWith(mixedVariables("COMMON", 12)));
    const Kym::Configuration config =
        scene.department("Design", propertiesWith("Shared"), settingsWith(mixedVariables("DEPT", 25)));
    Kym::ConfigApplication app = application("x", "", mixedVariables("APP", 9));
    app.addUGLibsToPath = true;
    ListObserver observer;
    build(config, &common, app, &observer);

    const std::map<std::string, std::function<void(Variables&)>> alone = {
        {"site", [](Variables& vars) { Kym::SiteInformation().mergeEnvVariables(vars); }},
        {"base", [](Variables& vars) { Kym::BaseInformation().mergeEnvVariables(vars); }},
        {"plugin alpha", [](Variables& vars) { pluginNamed("alpha").mergeEnvVariables(vars); }},
        {"plugin beta", [](Variables& vars) { pluginNamed("beta").mergeEnvVariables(vars); }},
        {"common department", [&](Variables& vars) { common.mergeEnvVariables(vars); }},
        {"department", [&](Variables& vars) { config.mergeEnvVariables(vars); }},
        {"application", [&](Variables& vars) { app.mergeEnvVariables(vars); }}};
    Lines layers;
    for (std::size_t index = 1; index < observer.lists.size(); ++index) {
        const auto& [layer, merged] = observer.lists[index];
        layers.push_back(layer);
        if (!alone.count(layer)) continue;
        Variables expected = observer.lists[index - 1].second;
        alone.at(layer)(expected);
        EXPECT_EQ(KymTest::variableTexts(expected), KymTest::variableTexts(merged)) << layer;
    }
    EXPECT_EQ((Lines{"site", "base", "plugin alpha", "plugin beta", "common department", "department", "application",
                     "launcher"}),
              layers);
}
