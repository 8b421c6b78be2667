#include "LauncherScene.h"

#include "kym/WorkDirectory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>

using namespace LauncherTest;
using Base::Platform;

namespace {

const bool orphansReaped = KymTest::reapOrphansOfTheTests();

// A program that records how it was started: its argument vector and environment as execve gave them (from
// /proc) and its working directory. It runs on after the launch returned; record() waits for it, not timed.
struct Probe {
    Probe() {
        KymTest::writeExecutable(program, "#!/bin/sh\nout='" + dir.path().string() + "'\n/bin/cat /proc/$$/cmdline > "
                                          "\"$out/cmdline\"\n/bin/cat /proc/$$/environ > \"$out/environ\"\n"
                                          "pwd -P > \"$out/cwd.part\"\n/bin/mv \"$out/cwd.part\" \"$out/cwd\"\n");
    }
    struct Record { Lines arguments, environment; std::string directory; };
    Record record() const {
        if (!KymTest::waitForFile(dir / "cwd")) throw std::runtime_error("the probe did not run");
        const std::string directory = KymTest::readFile(dir / "cwd");
        return {KymTest::splitAtNul(KymTest::readFile(dir / "cmdline")),
                KymTest::splitAtNul(KymTest::readFile(dir / "environ")), directory.substr(0, directory.size() - 1)};
    }

    KymTest::TempDir dir;
    fs::path program = dir / "probe.sh";
};

// What the layers give plus the user defaults file of the launch, NAME=VALUE in map order.
Lines expectedEnvironment(const Kym::Configuration& config, const Kym::ConfigApplication& app,
                          const std::string& userDefaults) {
    Environment env = build(config, nullptr, app);
    env["UGII_LOCAL_USER_DEFAULTS"] = userDefaults;
    Lines strings;
    for (const auto& [name, value] : env) strings.push_back(name + "=" + value);
    return strings;
}

} // namespace

TEST(LauncherLaunch, ProgramGetsTheLayersEnvironmentItsArgumentsAndTheHomeDirectory) {
    ASSERT_TRUE(orphansReaped);
    Scene scene(Platform::Posix, {{"PATH", "/usr/bin:/bin"}});
    scene.site.writeSiteSettings(siteFile("/opt/nx4"));
    const fs::path home = scene.site.root() / "home";
    fs::create_directories(home);
    KymTest::ScopedEnv homeVariable("HOME", home.string());
    const Kym::Configuration config = scene.department(
        "Design", propertiesWith(""), settingsWith({{"UGII_LOCAL_USER_DEFAULTS", "from the department"}}));
    Probe probe, anyProgram;
    const Kym::ConfigApplication app = application(probe.program.string(), "-a \"x y\" -dept=$KYM_DEPT_DIR");

    Kym::Launcher().launchApplication(config, nullptr, app, nullptr);

    Probe::Record started = probe.record();
    EXPECT_EQ((Lines{"/bin/sh", probe.program.string(), "-a", "\"x y\"", "-dept=" + config.path().string()}),
              started.arguments);
    EXPECT_EQ(home.string(), started.directory);
    EXPECT_EQ(expectedEnvironment(config, app, home.string() + "/nx90_user.dpv"), started.environment);

    // Any program, its arguments split at blanks, with the CAD libraries added to the path.
    Kym::Launcher().launchApplication(config, nullptr, anyProgram.program.string(), {"one", "two words"}, true);
    started = anyProgram.record();
    EXPECT_EQ((Lines{"/bin/sh", anyProgram.program.string(), "one", "two", "words"}), started.arguments);
    EXPECT_EQ(home.string(), started.directory);
    EXPECT_EQ(1, std::count(started.environment.begin(), started.environment.end(), "PATH=/opt/nx4/ugii:/usr/bin:/bin"));
}

TEST(LauncherLaunch, UnderWindowsConventionsTheChildGetsNativeValuesAndStaleFilesGoOnlyAfterTheChecks) {
    Scene scene(Platform::Windows);
    KymTest::TempDir temp;
    KymTest::ScopedEnv tempVariable("TEMP", temp.path().string());
    KymTest::writeFile(temp / "old.jnl", "");
    KymTest::setAge(temp / "old.jnl", 3.5 * 86400);
    const Kym::Configuration config = scene.department("Design", propertiesWith("", true));
    const fs::path run = scene.site.root() / "run";
    fs::create_directories(run);
    Probe probe;
    const Kym::ConfigApplication app = application(probe.program.string(), "/dir=$KYM_DEPT_DIR");
    Kym::WorkDirectory directory;
    directory.name = "Run";
    directory.path = run.string();

    const Kym::ConfigApplication missing = application((temp / "missing.exe").string());
    EXPECT_THROW(Kym::Launcher().launchApplication(config, nullptr, missing, &directory), std::runtime_error);
    EXPECT_TRUE(fs::exists(temp / "old.jnl"));

    Kym::Launcher().launchApplication(config, nullptr, app, &directory);

    const Probe::Record started = probe.record();
    EXPECT_EQ((Lines{"/bin/sh", probe.program.string(), "/dir=" + Scene::native(config.path())}), started.arguments);
    EXPECT_EQ(run.string(), started.directory);
    EXPECT_EQ(expectedEnvironment(config, app, run.string() + "\\nx90_user.dpv"), started.environment);
    EXPECT_FALSE(fs::exists(temp / "old.jnl"));
}
