#include "LauncherScene.h"

#include "kym/WorkDirectory.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using namespace LauncherTest;
using Base::Platform;
using KymTest::thrownMessage;

namespace {

const bool orphansReaped = KymTest::reapOrphansOfTheTests();

// A program that records how it was started: its argument vector and
// environment as execve gave them (from /proc) and its working directory.
class Probe {
public:
    Probe() : mProgram(mDir / "probe.sh") {
        KymTest::writeFile(mProgram, "#!/bin/sh\n"
                                     "out='" + mDir.path().string() + "'\n"
                                     "/bin/cat /proc/$$/cmdline > \"$out/cmdline\"\n"
                                     "/bin/cat /proc/$$/environ > \"$out/environ\"\n"
                                     "pwd -P > \"$out/cwd.part\"\n"
                                     "/bin/mv \"$out/cwd.part\" \"$out/cwd\"\n");
        fs::permissions(mProgram, fs::perms(0755));
    }

    const fs::path& program() const { return mProgram; }

    // Waits until the program has written everything.
    void wait() const {
        for (int attempt = 0; attempt < 500 && !fs::exists(mDir / "cwd"); ++attempt)
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        if (!fs::exists(mDir / "cwd")) throw std::runtime_error("the probe did not run");
    }
    Lines arguments() const {
        wait();
        return splitAtNul(KymTest::readFile(mDir / "cmdline"));
    }
    Lines environment() const {
        wait();
        return splitAtNul(KymTest::readFile(mDir / "environ"));
    }
    std::string directory() const {
        wait();
        const std::string text = KymTest::readFile(mDir / "cwd");
        return text.substr(0, text.size() - 1);
    }

private:
    static Lines splitAtNul(const std::string& text) {
        Lines parts;
        std::size_t start = 0;
        for (std::size_t end; (end = text.find('\0', start)) != std::string::npos; start = end + 1)
            parts.push_back(text.substr(start, end - start));
        return parts;
    }

    KymTest::TempDir mDir;
    fs::path mProgram;
};

// NAME=VALUE in map order, as the started program receives them.
Lines environmentStrings(const Environment& env) {
    Lines strings;
    for (const auto& [name, value] : env) strings.push_back(name + "=" + value);
    return strings;
}

// What the layers give plus the user defaults file of the launch.
Lines expectedEnvironment(const Kym::Configuration& config, const Kym::ConfigApplication& app,
                          const std::string& userDefaults) {
    Environment env = build(config, nullptr, app);
    env["UGII_LOCAL_USER_DEFAULTS"] = userDefaults;
    return environmentStrings(env);
}

Kym::WorkDirectory workDirectory(const std::string& path) {
    Kym::WorkDirectory directory;
    directory.name = "Run";
    directory.path = path;
    return directory;
}

} // namespace

TEST(LauncherLaunch, ProgramGetsTheLayersEnvironmentItsArgumentsAndTheHomeDirectory) {
    ASSERT_TRUE(orphansReaped);
    Scene scene(Platform::Posix, {{"PATH", "/usr/bin:/bin:/usr/bin"}});
    const fs::path home = scene.site.root() / "home";
    fs::create_directories(home);
    KymTest::ScopedEnv homeVariable("HOME", home.string());
    const Kym::Configuration config = scene.department(
        "Design", propertiesWith(""),
        settingsWith({var("DEPT_VAR", "dept"), var("UGII_LOCAL_USER_DEFAULTS", "from the department")}));
    Probe probe;
    const Kym::ConfigApplication app = application(probe.program().string(), "-a \"x y\" -dept=$KYM_DEPT_DIR");
    KymTest::LogRecorder log({"kym.info"});

    Kym::Launcher().launchApplication(config, nullptr, app, nullptr);

    EXPECT_EQ((Lines{"/bin/sh", probe.program().string(), "-a", "\"x y\"", "-dept=" + config.path().string()}),
              probe.arguments());
    EXPECT_EQ(home.string(), probe.directory());
    const Lines environment = probe.environment();
    EXPECT_EQ(expectedEnvironment(config, app, home.string() + "/nx90_user.dpv"), environment);
    EXPECT_NE(environment.end(), std::find(environment.begin(), environment.end(), "DEPT_VAR=dept"));
    EXPECT_NE(environment.end(), std::find(environment.begin(), environment.end(), "PATH=/usr/bin:/bin"));

    Lines steps;
    for (const std::string& line : log.lines("kym.info"))
        if (line.rfind("Building env", 0) == 0 || line.rfind("Finished", 0) == 0 || line.rfind("Starting", 0) == 0 ||
            line.rfind("  with", 0) == 0 || line.rfind("Application", 0) == 0)
            steps.push_back(line);
    EXPECT_EQ((Lines{"Building environment...", "Finished building environment.",
                     "Starting application " + probe.program().string(),
                     "  with arguments: -a \"x y\" -dept=" + config.path().string() + " ",
                     "Application " + probe.program().string() + " has started."}),
              steps);
}

TEST(LauncherLaunch, WorkDirectoryIsExpandedAndNamesTheUserDefaults) {
    ASSERT_TRUE(orphansReaped);
    Scene scene(Platform::Posix);
    const Kym::Configuration config = scene.department("Design", propertiesWith(""));
    fs::create_directories(config.path() / "run");
    Probe probe;
    const Kym::ConfigApplication app = application(probe.program().string());
    const Kym::WorkDirectory directory = workDirectory("$KYM_DEPT_DIR/run");

    Kym::Launcher().launchApplication(config, nullptr, app, &directory);

    EXPECT_EQ((Lines{"/bin/sh", probe.program().string()}), probe.arguments());
    EXPECT_EQ((config.path() / "run").string(), probe.directory());
    EXPECT_EQ(expectedEnvironment(config, app, (config.path() / "run").string() + "/nx90_user.dpv"),
              probe.environment());
}

TEST(LauncherLaunch, UnderWindowsConventionsTheChildGetsNativeValuesAndStaleFilesGoFirst) {
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
    const Kym::ConfigApplication app = application(probe.program().string(), "/dir=$KYM_DEPT_DIR");
    const Kym::WorkDirectory directory = workDirectory(run.string());

    Kym::Launcher().launchApplication(config, nullptr, app, &directory);

    EXPECT_EQ((Lines{"/bin/sh", probe.program().string(), "/dir=" + Scene::native(config.path())}), probe.arguments());
    EXPECT_EQ(run.string(), probe.directory());
    const Lines environment = probe.environment();
    EXPECT_EQ(expectedEnvironment(config, app, run.string() + "\\nx90_user.dpv"), environment);
    EXPECT_NE(environment.end(),
              std::find(environment.begin(), environment.end(), "KYM_DEPT_DIR=" + Scene::native(config.path())));
    EXPECT_FALSE(fs::exists(temp / "old.jnl"));
}

TEST(LauncherLaunch, UnderWindowsConventionsTheProfileDirectoryIsTheDefaultAndAFailedStartPropagates) {
    ASSERT_TRUE(orphansReaped);
    Scene scene(Platform::Windows);
    KymTest::ScopedEnv profile("USERPROFILE", (scene.site.root() / "profile").string());
    const Kym::Configuration config = scene.department("Design", propertiesWith(""));
    Probe probe;
    // A Windows directory text, which this host cannot enter.
    EXPECT_EQ("Cannot start program " + Scene::native(probe.program()) + " in directory " +
                  Scene::native(scene.site.root() / "profile") + ": No such file or directory",
              thrownMessage([&] {
                  Kym::Launcher().launchApplication(config, nullptr, application(probe.program().string()), nullptr);
              }));
}

TEST(LauncherLaunch, AnyProgramStartsWithTheDepartmentsEnvironmentAndOptionallyTheCadLibraries) {
    ASSERT_TRUE(orphansReaped);
    Scene scene(Platform::Posix, {{"PATH", "/usr/bin:/bin"}});
    scene.site.writeSiteSettings(siteFile("/opt/nx4"));
    KymTest::ScopedEnv home("HOME", scene.site.root().string());
    const Kym::Configuration config = scene.department("Design", propertiesWith(""));
    Probe withLibraries, without;

    Kym::Launcher().launchApplication(config, nullptr, withLibraries.program().string(), {"one", "two words"}, true);
    Kym::Launcher().launchApplication(config, nullptr, without.program().string(), {}, false);

    EXPECT_EQ((Lines{"/bin/sh", withLibraries.program().string(), "one", "two", "words"}), withLibraries.arguments());
    EXPECT_EQ((Lines{"/bin/sh", without.program().string()}), without.arguments());
    const Lines environment = withLibraries.environment();
    EXPECT_NE(environment.end(), std::find(environment.begin(), environment.end(), "PATH=/opt/nx4/ugii:/usr/bin:/bin"));
    EXPECT_EQ(scene.site.root().string(), withLibraries.directory());
    const Lines plain = without.environment();
    EXPECT_NE(plain.end(), std::find(plain.begin(), plain.end(), "PATH=/usr/bin:/bin"));
}

TEST(LauncherLaunch, ProgramThatCannotBeExecutedFailsTheLaunchWithTheReason) {
    ASSERT_TRUE(orphansReaped);
    Scene scene(Platform::Posix);
    KymTest::ScopedEnv home("HOME", scene.site.root().string());
    const Kym::Configuration config = scene.department("Design", propertiesWith(""));
    const fs::path program = scene.site.root() / "broken.sh";
    KymTest::writeFile(program, "#!/nonexistent/interpreter\n");
    fs::permissions(program, fs::perms(0755));
    EXPECT_EQ("Cannot start program " + program.string() + ": No such file or directory",
              thrownMessage([&] {
                  Kym::Launcher().launchApplication(config, nullptr, application(program.string()), nullptr);
              }));
}

TEST(LauncherLaunch, FailedCheckStopsTheLaunchBeforeAnyFileIsRemoved) {
    Scene scene(Platform::Windows);
    KymTest::TempDir temp;
    KymTest::ScopedEnv tempVariable("TEMP", temp.path().string());
    KymTest::writeFile(temp / "old.jnl", "");
    KymTest::setAge(temp / "old.jnl", 30 * 86400);
    const Kym::Configuration config = scene.department("Design", propertiesWith("", true));
    EXPECT_EQ("Program " + Scene::native(temp / "missing.exe") + " is not found.\n  Original string = " +
                  (temp / "missing.exe").string() + "\n  Maybe a environment variable is set wrong.",
              thrownMessage([&] {
                  Kym::Launcher().launchApplication(config, nullptr, application((temp / "missing.exe").string()), nullptr);
              }));
    EXPECT_TRUE(fs::exists(temp / "old.jnl"));
}
