#include "LauncherScene.h"

#include "kym/WorkDirectory.h"

#include <gtest/gtest.h>

#include <boost/algorithm/string/case_conv.hpp>

#include <algorithm>

using namespace LauncherTest;
using Base::Platform;
using KymTest::Probe;

namespace {

const bool orphansReaped = KymTest::reapOrphansOfTheTests();

// A launch as this host's users get it: its conventions, the variable that names the home directory a
// program starts in, a CAD installation, the system's program path and that path with the CAD libraries.
struct HostLaunch {
    Platform::Kind conventions;
    std::string homeVariable, installPath, systemPath, pathWithLibraries;
};
#ifdef _WIN32
const HostLaunch host{Platform::Windows, "USERPROFILE", "C:\\NX4", "C:\\Windows;C:\\tools",
                      "C:\\NX4\\ugii;C:\\Windows;C:\\tools"};
#else
const HostLaunch host{Platform::Posix, "HOME", "/opt/nx4", "/usr/bin:/bin", "/opt/nx4/ugii:/usr/bin:/bin"};
#endif

// The order in which a started program finds its variables: the environment map's; on Windows, whose
// environment block is sorted by name without regard to case, that order.
Lines inChildOrder(Lines strings) {
#ifdef _WIN32
    const auto upperName = [](const std::string& entry) {
        return boost::algorithm::to_upper_copy(entry.substr(0, entry.find('=')));
    };
    std::stable_sort(strings.begin(), strings.end(),
                     [&](const std::string& a, const std::string& b) { return upperName(a) < upperName(b); });
#endif
    return strings;
}

// What the layers give plus the user defaults file of the launch, NAME=VALUE, as the started program gets them.
Lines expectedEnvironment(const Kym::Configuration& config, const Kym::ConfigApplication& app,
                          const std::string& userDefaults) {
    Environment env = build(config, nullptr, app);
    env["UGII_LOCAL_USER_DEFAULTS"] = userDefaults;
    Lines strings;
    for (const auto& [name, value] : env) strings.push_back(name + "=" + value);
    return inChildOrder(strings);
}

} // namespace

TEST(LauncherLaunch, ProgramGetsTheLayersEnvironmentItsArgumentsAndTheHomeDirectory) {
    ASSERT_TRUE(orphansReaped);
    Probe probe(KYM_PROBE), anyProgram(KYM_PROBE);
    Scene scene(host.conventions, {{"PATH", host.systemPath}});
    scene.site.writeSiteSettings(siteFile(host.installPath));
    const fs::path home = scene.site.root() / "home";
    fs::create_directories(home);
    KymTest::ScopedEnv homeVariable(host.homeVariable, home.string());
    const Kym::Configuration config = scene.department(
        "Design", propertiesWith(""), settingsWith({{"UGII_LOCAL_USER_DEFAULTS", "from the department"}}));
    const Kym::ConfigApplication app = application(probe.program().string(), "-a \"x y\" -dept=$KYM_DEPT_DIR");

    Kym::Launcher().launchApplication(config, nullptr, app, nullptr);

    Probe::Record started = probe.record();
    EXPECT_EQ(probe.argumentsFor({"-a", "\"x y\"", "-dept=" + Scene::native(config.path())}), started.arguments);
    EXPECT_EQ(home.string(), started.directory);
    EXPECT_EQ(expectedEnvironment(config, app, Scene::native(home / "nx90_user.dpv")), started.environment);

    // Any program, its arguments split at blanks, with the CAD libraries added to the path.
    Kym::Launcher().launchApplication(config, nullptr, anyProgram.program().string(), {"one", "two words"}, true);
    started = anyProgram.record();
    EXPECT_EQ(anyProgram.argumentsFor({"one", "two", "words"}), started.arguments);
    EXPECT_EQ(home.string(), started.directory);
    EXPECT_EQ(1, std::count(started.environment.begin(), started.environment.end(), "PATH=" + host.pathWithLibraries));

    // Or with exactly the arguments given: nothing split, joined or expanded.
    const Lines given{"sh -c", "echo \"$1\"", "", "a b", "$KYM_DEPT_DIR", "back\\slash"};
    Kym::Launcher().launchProgram(config, nullptr, anyProgram.program().string(), given, false);
    started = anyProgram.record();
    EXPECT_EQ(anyProgram.argumentsFor(given), started.arguments);
    Kym::ConfigApplication withoutLibraries;
    withoutLibraries.addUGLibsToPath = false;
    EXPECT_EQ(expectedEnvironment(config, withoutLibraries, Scene::native(home / "nx90_user.dpv")),
              started.environment);
}

TEST(LauncherLaunch, UnderWindowsConventionsTheChildGetsNativeValuesAndStaleFilesGoOnlyAfterTheChecks) {
    KymTest::TempDir temp;
    Probe probe(KYM_PROBE);
    Scene scene(Platform::Windows);
    KymTest::ScopedEnv tempVariable("TEMP", temp.path().string());
    KymTest::writeFile(temp / "old.jnl", "");
    KymTest::setAge(temp / "old.jnl", 3.5 * 86400);
    const Kym::Configuration config = scene.department("Design", propertiesWith("", true));
    const fs::path run = scene.site.root() / "run";
    fs::create_directories(run);
    const Kym::ConfigApplication app = application(probe.program().string(), "/dir=$KYM_DEPT_DIR");
    Kym::WorkDirectory directory;
    directory.name = "Run";
    directory.path = run.string();

    const Kym::ConfigApplication missing = application((temp / "missing.exe").string());
    EXPECT_THROW(Kym::Launcher().launchApplication(config, nullptr, missing, &directory), std::runtime_error);
    EXPECT_TRUE(fs::exists(temp / "old.jnl"));

    Kym::Launcher().launchApplication(config, nullptr, app, &directory);

    const Probe::Record started = probe.record();
    EXPECT_EQ(probe.argumentsFor({"/dir=" + Scene::native(config.path())}), started.arguments);
    EXPECT_EQ(run.string(), started.directory);
    EXPECT_EQ(expectedEnvironment(config, app, run.string() + "\\nx90_user.dpv"), started.environment);
    EXPECT_FALSE(fs::exists(temp / "old.jnl"));
}
