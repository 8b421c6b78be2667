#include "LauncherScene.h"

#include "kym/WorkDirectory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <thread>

using namespace LauncherTest;
using Base::Platform;
using KymTest::thrownMessage;

namespace {

const bool orphansReaped = KymTest::reapOrphansOfTheTests();

Lines splitAtNul(const std::string& text) {
    Lines parts;
    std::size_t start = 0;
    for (std::size_t end; (end = text.find('\0', start)) != std::string::npos; start = end + 1)
        parts.push_back(text.substr(start, end - start));
    return parts;
}

// A program that records how it was started: its argument vector and
// environment as execve gave them (from /proc) and its working directory.
struct Probe {
    Probe() {
        KymTest::writeFile(program, "#!/bin/sh\n"
                                    "out='" + dir.path().string() + "'\n"
                                    "/bin/cat /proc/$$/cmdline > \"$out/cmdline\"\n"
                                    "/bin/cat /proc/$$/environ > \"$out/environ\"\n"
                                    "pwd -P > \"$out/cwd.part\"\n"
                                    "/bin/mv \"$out/cwd.part\" \"$out/cwd\"\n");
        fs::permissions(program, fs::perms(0755));
    }

    struct Record {
        Lines arguments, environment;
        std::string directory;
    };
    // Waits until the program has written everything; it runs on after the launch returned.
    Record record() const {
        for (int attempt = 0; attempt < 500 && !fs::exists(dir / "cwd"); ++attempt)
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        if (!fs::exists(dir / "cwd")) throw std::runtime_error("the probe did not run");
        const std::string directory = KymTest::readFile(dir / "cwd");
        return {splitAtNul(KymTest::readFile(dir / "cmdline")), splitAtNul(KymTest::readFile(dir / "environ")),
                directory.substr(0, directory.size() - 1)};
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

Kym::WorkDirectory workDirectory(const std::string& path) {
    Kym::WorkDirectory directory;
    directory.name = "Run";
    directory.path = path;
    return directory;
}

bool has(const Lines& lines, const std::string& line) {
    return std::find(lines.begin(), lines.end(), line) != lines.end();
}

} // namespace

TEST(LauncherLaunch, ProgramGetsTheLayersEnvironmentItsArgumentsAndTheHomeOrWorkDirectory) {
    ASSERT_TRUE(orphansReaped);
    Scene scene(Platform::Posix);
    const fs::path home = scene.site.root() / "home";
    fs::create_directories(home);
    KymTest::ScopedEnv homeVariable("HOME", home.string());
    const Kym::Configuration config = scene.department(
        "Design", propertiesWith(""), settingsWith({var("UGII_LOCAL_USER_DEFAULTS", "from the department")}));
    fs::create_directories(config.path() / "run");
    Probe probe, inWorkDirectory;
    const Kym::ConfigApplication app = application(probe.program.string(), "-a \"x y\" -dept=$KYM_DEPT_DIR");
    KymTest::LogRecorder log({"kym.info"});

    Kym::Launcher().launchApplication(config, nullptr, app, nullptr);

    Probe::Record started = probe.record();
    EXPECT_EQ((Lines{"/bin/sh", probe.program.string(), "-a", "\"x y\"", "-dept=" + config.path().string()}),
              started.arguments);
    EXPECT_EQ(home.string(), started.directory);
    EXPECT_EQ(expectedEnvironment(config, app, home.string() + "/nx90_user.dpv"), started.environment);
    Lines steps;
    for (const std::string& line : log.lines("kym.info"))
        for (const char* step : {"Building env", "Finished", "Starting", "  with", "Application"})
            if (line.rfind(step, 0) == 0) steps.push_back(line);
    EXPECT_EQ((Lines{"Building environment...", "Finished building environment.",
                     "Starting application " + probe.program.string(),
                     "  with arguments: -a \"x y\" -dept=" + config.path().string() + " ",
                     "Application " + probe.program.string() + " has started."}),
              steps);

    const Kym::ConfigApplication plain = application(inWorkDirectory.program.string());
    const Kym::WorkDirectory directory = workDirectory("$KYM_DEPT_DIR/run");
    Kym::Launcher().launchApplication(config, nullptr, plain, &directory);
    started = inWorkDirectory.record();
    EXPECT_EQ((Lines{"/bin/sh", inWorkDirectory.program.string()}), started.arguments);
    EXPECT_EQ((config.path() / "run").string(), started.directory);
    EXPECT_EQ(expectedEnvironment(config, plain, (config.path() / "run").string() + "/nx90_user.dpv"),
              started.environment);
}

TEST(LauncherLaunch, UnderWindowsConventionsTheChildGetsNativeValuesAndStaleFilesGoOnlyAfterTheChecks) {
    ASSERT_TRUE(orphansReaped);
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
    const Kym::WorkDirectory directory = workDirectory(run.string());

    EXPECT_EQ("Program " + Scene::native(temp / "missing.exe") + " is not found.\n  Original string = " +
                  (temp / "missing.exe").string() + "\n  Maybe a environment variable is set wrong.",
              thrownMessage([&] {
                  Kym::Launcher().launchApplication(config, nullptr, application((temp / "missing.exe").string()),
                                                    &directory);
              }));
    EXPECT_TRUE(fs::exists(temp / "old.jnl"));

    Kym::Launcher().launchApplication(config, nullptr, app, &directory);

    const Probe::Record started = probe.record();
    EXPECT_EQ((Lines{"/bin/sh", probe.program.string(), "/dir=" + Scene::native(config.path())}), started.arguments);
    EXPECT_EQ(run.string(), started.directory);
    EXPECT_EQ(expectedEnvironment(config, app, run.string() + "\\nx90_user.dpv"), started.environment);
    EXPECT_TRUE(has(started.environment, "KYM_DEPT_DIR=" + Scene::native(config.path())));
    EXPECT_FALSE(fs::exists(temp / "old.jnl"));
}

TEST(LauncherLaunch, AFailedStartPropagatesWithTheReason) {
    ASSERT_TRUE(orphansReaped);
    Scene scene(Platform::Windows);
    KymTest::ScopedEnv profile("USERPROFILE", (scene.site.root() / "profile").string());
    const Kym::Configuration config = scene.department("Design", propertiesWith(""));
    Probe probe;
    // Under Windows conventions the profile directory is the default, a Windows text this host cannot enter.
    EXPECT_EQ("Cannot start program " + Scene::native(probe.program) + " in directory " +
                  Scene::native(scene.site.root() / "profile") + ": No such file or directory",
              thrownMessage([&] {
                  Kym::Launcher().launchApplication(config, nullptr, application(probe.program.string()), nullptr);
              }));

    Platform::setCurrent(Platform::Posix);
    KymTest::ScopedEnv home("HOME", scene.site.root().string());
    const fs::path program = scene.site.root() / "broken.sh";
    KymTest::writeFile(program, "#!/nonexistent/interpreter\n");
    fs::permissions(program, fs::perms(0755));
    EXPECT_EQ("Cannot start program " + program.string() + ": No such file or directory", thrownMessage([&] {
                  Kym::Launcher().launchApplication(config, nullptr, application(program.string()), nullptr);
              }));
}

TEST(LauncherLaunch, AnyProgramStartsWithTheDepartmentsEnvironmentAndOptionallyTheCadLibraries) {
    ASSERT_TRUE(orphansReaped);
    Scene scene(Platform::Posix, {{"PATH", "/usr/bin:/bin"}});
    scene.site.writeSiteSettings(siteFile("/opt/nx4"));
    KymTest::ScopedEnv home("HOME", scene.site.root().string());
    const Kym::Configuration config = scene.department("Design", propertiesWith(""));
    Probe withLibraries, without;

    Kym::Launcher().launchApplication(config, nullptr, withLibraries.program.string(), {"one", "two words"}, true);
    Kym::Launcher().launchApplication(config, nullptr, without.program.string(), {}, false);

    const Probe::Record started = withLibraries.record(), plain = without.record();
    EXPECT_EQ((Lines{"/bin/sh", withLibraries.program.string(), "one", "two", "words"}), started.arguments);
    EXPECT_EQ((Lines{"/bin/sh", without.program.string()}), plain.arguments);
    EXPECT_TRUE(has(started.environment, "PATH=/opt/nx4/ugii:/usr/bin:/bin"));
    EXPECT_EQ(scene.site.root().string(), started.directory);
    EXPECT_TRUE(has(plain.environment, "PATH=/usr/bin:/bin"));
}
