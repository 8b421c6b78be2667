#include "base/Task.h"

#include "base/Platform.h"
#include "support/TestSupport.h"

#include <boost/algorithm/string/replace.hpp>
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <iterator>
#include <map>
#include <sstream>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <tuple>
#include <unistd.h>

extern char** environ;

namespace {

namespace fs = boost::filesystem;
using KymTest::TempDir;
using Strings = std::vector<std::string>;

const bool orphansReaped = KymTest::reapOrphansOfTheTests();

// A script that records how it was started. The argument vector and the
// environment come from /proc, which holds exactly what execve was given
// (variables the shell adds itself, such as PWD, never show there).
fs::path writeProbe(const TempDir& dir) {
    return KymTest::writeExecutable(dir / "probe.sh", "#!/bin/sh\nout='" + dir.path().string() + "'\n"
                                                      "/bin/cat /proc/$$/cmdline > \"$out/cmdline\"\n"
                                                      "/bin/cat /proc/$$/environ > \"$out/environ\"\n"
                                                      "/bin/cat /proc/$$/stat > \"$out/stat\"\n"
                                                      "printf '%s\\0%s\\0' \"$(pwd -P)\" $$ > \"$out/where.part\"\n"
                                                      "/bin/mv \"$out/where.part\" \"$out/where\"\n");
}

// The NUL-separated items of a file the probe wrote; waits for the probe, which Task never waits for.
Strings recorded(const TempDir& dir, const std::string& name) {
    KymTest::waitForFile(dir / "where");
    return KymTest::splitAtNul(KymTest::readFile(dir / name));
}

// True when this process has no child left, reaped or not.
bool hasNoChildren() {
    int status = 0;
    return ::waitpid(-1, &status, WNOHANG) == -1 && errno == ECHILD;
}

} // namespace

TEST(Task, ProgramGetsExactlyTheGivenArgumentsEnvironmentAndWorkingDirectory) {
    TempDir dir;
    fs::create_directories(dir / "work dir");
    fs::path probe = writeProbe(dir);
    Base::Task task;
    task.setLaunchPath(probe);
    task.setArguments({"plain", "with space", "", "say \"hi\"", "two\nlines", "$HOME", "*"});
    task.setEnvironment({{"KYM_B", "x=y"}, {"EMPTY", ""}, {"KYM_A", "one two"}, {"MULTI", "a\nb"}});
    task.setCurrentDirectoryPath(dir / "work dir");
    long pid = task.launch();

    EXPECT_EQ(recorded(dir, "where"), (Strings{(dir / "work dir").string(), std::to_string(pid)}));
    EXPECT_EQ(recorded(dir, "cmdline"),
              (Strings{"/bin/sh", probe.string(), "plain", "with space", "", "say \"hi\"", "two\nlines", "$HOME", "*"}));
    EXPECT_EQ(recorded(dir, "environ"), (Strings{"EMPTY=", "KYM_A=one two", "KYM_B=x=y", "MULTI=a\nb"}));
}

TEST(Task, ACallerThatEndsAfterTheStartGetsTheProgramAsItsOwnChild) {
    ASSERT_TRUE(orphansReaped);
    TempDir dir;
    Base::Task task;
    task.setLaunchPath(writeProbe(dir));
    task.setEnvironment({{"KYM_A", "1"}});
    task.setCallerEndsAfterStart(true);
    errno = 0;
    const int ownPriority = ::getpriority(PRIO_PROCESS, 0);
    ASSERT_EQ(errno, 0);
    const long pid = task.launch();
    int status = -1;
    ASSERT_EQ(::waitpid(static_cast<pid_t>(pid), &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_EQ(recorded(dir, "environ"), Strings{"KYM_A=1"});
    // The caller stepped back after the start; the program kept the caller's priority.
    EXPECT_EQ(::getpriority(PRIO_PROCESS, 0), 19);
    const std::string stat = KymTest::readFile(dir / "stat");
    std::istringstream afterName(stat.substr(stat.rfind(')') + 1));
    const Strings fields{std::istream_iterator<std::string>(afterName), std::istream_iterator<std::string>()};
    ASSERT_GT(fields.size(), 16u) << stat;
    EXPECT_EQ(fields[16], std::to_string(ownPriority)) << "the nice value, field 19 of " << stat;
}

TEST(Task, ConstructorStartsAtOnceWithTheInheritedEnvironment) {
    TempDir inheriting;
    KymTest::ScopedEnv marker("KYM_TASK_MARKER", std::string("inherited value"));
    Strings ownEnvironment;
    for (char** entry = environ; *entry; ++entry) ownEnvironment.push_back(*entry);
    Base::Task task(writeProbe(inheriting), {"--flag"});
    EXPECT_EQ(recorded(inheriting, "environ"), ownEnvironment);
}

TEST(Task, ProgramRunsOnDetachedInItsOwnSessionWithNoZombieLeft) {
    TempDir dir;
    KymTest::writeFile(dir / "input", "");
    // Our standard input is a file for the moment, so that a program reading it is told apart. The file
    // stays open without close-on-exec too, as careless callers leave theirs; the program must not inherit it.
    const int ownInput = ::dup(0), input = ::open((dir / "input").c_str(), O_RDONLY);
    ASSERT_GE(input, 3);
    ::dup2(input, 0);
    Base::Task task;
    task.setLaunchPath("/bin/sleep");
    task.setArguments({"30"});
    const int ownPriority = ::getpriority(PRIO_PROCESS, 0);
    long pid = task.launch();
    ::dup2(ownInput, 0), ::close(ownInput), ::close(input);
    ASSERT_GT(pid, 0);
    EXPECT_EQ(::getpriority(PRIO_PROCESS, 0), ownPriority) << "a caller that goes on keeps its priority";
    // The sleeper holds our standard output open; a test runner would wait for it.
    std::shared_ptr<void> killAtEnd(nullptr, [pid](void*) { ::kill(static_cast<pid_t>(pid), SIGKILL); });

    EXPECT_TRUE(hasNoChildren());
    const std::string stat = KymTest::readFile("/proc/" + std::to_string(pid) + "/stat");
    char state = 0;
    long parent = 0, group = 0, session = 0;
    std::sscanf(stat.c_str() + stat.rfind(')') + 2, "%c %ld %ld %ld", &state, &parent, &group, &session);
    EXPECT_NE('Z', state);
    EXPECT_NE(static_cast<long>(::getpid()), parent);
    EXPECT_EQ(pid, session);

    auto link = [](const fs::path& p) { return fs::read_symlink(p).string(); };
    // Just after the exec the program's loader still opens and closes its libraries.
    std::map<std::string, std::string> open;
    for (int attempt = 0; attempt == 0 || (open.size() > 3 && attempt < 250); ++attempt) {
        if (attempt > 0) std::this_thread::sleep_for(std::chrono::milliseconds(20));
        open.clear();
        boost::system::error_code gone;  // a descriptor the loader closes while it is listed
        for (const auto& entry : fs::directory_iterator("/proc/" + std::to_string(pid) + "/fd"))
            open[entry.path().filename().string()] = fs::read_symlink(entry.path(), gone).string();
    }
    EXPECT_EQ(open, (std::map<std::string, std::string>{
                        {"0", "/dev/null"}, {"1", link("/proc/self/fd/1")}, {"2", link("/proc/self/fd/2")}}));
}

TEST(Task, AProgramThatCannotStartIsReportedWithTheReasonAndTheDirectoryAsTheConventionsWritePaths) {
    TempDir dir;
    const fs::path probe = writeProbe(dir);
    const std::string inMissing = probe.string() + " in directory " + (dir / "missing").string() + ": No such file or directory";
    const std::vector<std::tuple<Base::Platform::Kind, fs::path, fs::path, std::string>> cases = {
        {Base::Platform::Posix, dir / "missing", "", (dir / "missing").string() + ": No such file or directory"},
        {Base::Platform::Windows, probe, dir / "missing", boost::algorithm::replace_all_copy(inMissing, "/", "\\")},
    };
    for (const auto& [kind, program, directory, message] : cases) {
        Base::Platform::setCurrent(kind);
        Base::Task task;
        task.setLaunchPath(program), task.setCurrentDirectoryPath(directory);
        const std::string failure = KymTest::thrownMessage([&] { task.launch(); });
        Base::Platform::resetCurrent();
        EXPECT_EQ("Cannot start program " + message, failure);
        EXPECT_TRUE(hasNoChildren()) << message;
    }
    EXPECT_FALSE(fs::exists(dir / "cmdline"));
}
