#include "base/Task.h"

#include "base/BaseException.h"
#include "base/Platform.h"
#include "support/TestSupport.h"

#include <boost/algorithm/string/replace.hpp>
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <map>
#include <sstream>
#include <sys/wait.h>
#include <thread>
#include <tuple>
#include <unistd.h>

extern char** environ;

namespace {

namespace fs = boost::filesystem;
using KymTest::TempDir;

const bool orphansReaped = KymTest::reapOrphansOfTheTests();

// A script that records how it was started. The argument vector and the
// environment come from /proc, which holds exactly what execve was given
// (variables the shell adds itself, such as PWD, never show there).
fs::path writeProbe(const TempDir& dir) {
    fs::path probe = dir / "probe.sh";
    KymTest::writeFile(probe, "#!/bin/sh\n"
                              "out='" + dir.path().string() + "'\n"
                              "/bin/cat /proc/$$/cmdline > \"$out/cmdline\"\n"
                              "/bin/cat /proc/$$/environ > \"$out/environ\"\n"
                              "pwd -P > \"$out/cwd\"\n"
                              "echo $$ > \"$out/pid.part\"\n"
                              "/bin/mv \"$out/pid.part\" \"$out/pid\"\n");
    fs::permissions(probe, fs::perms(0755));
    return probe;
}

struct ProbeRecord {
    std::vector<std::string> arguments;
    std::vector<std::string> environment;
    std::string directory;
    long pid = 0;
};

std::vector<std::string> splitAtNul(const std::string& text) {
    std::vector<std::string> parts;
    std::size_t start = 0;
    for (std::size_t end; (end = text.find('\0', start)) != std::string::npos; start = end + 1)
        parts.push_back(text.substr(start, end - start));
    return parts;
}

// Waits for the probe to finish writing; the started program is never waited for by Task.
ProbeRecord readProbe(const TempDir& dir) {
    for (int attempt = 0; attempt < 500 && !fs::exists(dir / "pid"); ++attempt)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    if (!fs::exists(dir / "pid")) throw std::runtime_error("the probe did not run");
    ProbeRecord record;
    record.arguments = splitAtNul(KymTest::readFile(dir / "cmdline"));
    record.environment = splitAtNul(KymTest::readFile(dir / "environ"));
    record.directory = KymTest::readFile(dir / "cwd");
    record.pid = std::stol(KymTest::readFile(dir / "pid"));
    return record;
}

// True when this process has no child left, reaped or not.
bool hasNoChildren() {
    int status = 0;
    return ::waitpid(-1, &status, WNOHANG) == -1 && errno == ECHILD;
}

std::string launchFailure(Base::Task& task) {
    try {
        task.launch();
    } catch (const Base::BaseException& e) {
        return e.what();
    }
    return "(started)";
}

// The sleeper holds our standard output open; a test runner would wait for it.
struct KillAtEnd {
    long pid;
    ~KillAtEnd() {
        if (pid > 0) ::kill(static_cast<pid_t>(pid), SIGKILL);
    }
};

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

    ProbeRecord record = readProbe(dir);
    EXPECT_EQ(std::vector<std::string>({"/bin/sh", probe.string(), "plain", "with space", "", "say \"hi\"",
                                        "two\nlines", "$HOME", "*"}),
              record.arguments);
    EXPECT_EQ(std::vector<std::string>({"EMPTY=", "KYM_A=one two", "KYM_B=x=y", "MULTI=a\nb"}), record.environment);
    EXPECT_EQ((dir / "work dir").string() + "\n", record.directory);
    EXPECT_EQ(record.pid, pid);
}

TEST(Task, ConstructorStartsAtOnceWithTheInheritedEnvironmentButAnEmptyOneStaysEmpty) {
    TempDir inheriting, empty;
    KymTest::ScopedEnv marker("KYM_TASK_MARKER", std::string("inherited value"));
    std::vector<std::string> ownEnvironment;
    for (char** entry = environ; *entry; ++entry) ownEnvironment.push_back(*entry);
    fs::path probe = writeProbe(inheriting);
    Base::Task task(probe, {"--flag"});
    ProbeRecord record = readProbe(inheriting);
    EXPECT_EQ(std::vector<std::string>({"/bin/sh", probe.string(), "--flag"}), record.arguments);
    EXPECT_EQ(ownEnvironment, record.environment);

    Base::Task withoutEnvironment;
    withoutEnvironment.setLaunchPath(writeProbe(empty));
    withoutEnvironment.setEnvironment({});
    withoutEnvironment.launch();
    EXPECT_EQ(std::vector<std::string>(), readProbe(empty).environment);
}

TEST(Task, ProgramRunsOnDetachedInItsOwnSessionWithNoZombieLeft) {
    TempDir dir;
    KymTest::writeFile(dir / "input", "");
    // Our standard input is a file for the moment, so that a program reading it is told apart.
    int ownInput = ::dup(0);
    int input = ::open((dir / "input").c_str(), O_RDONLY);
    ASSERT_GE(input, 3);
    ::dup2(input, 0);
    // Left open without close-on-exec, as careless callers do; the program must not inherit it.
    int stray = input;
    Base::Task task;
    task.setLaunchPath("/bin/sleep");
    task.setArguments({"30"});
    long pid = task.launch();
    KillAtEnd sleeper{pid};
    ::dup2(ownInput, 0);
    ::close(ownInput);
    ::close(stray);
    ASSERT_GT(pid, 0);

    EXPECT_TRUE(hasNoChildren());
    std::string stat = KymTest::readFile("/proc/" + std::to_string(pid) + "/stat");
    std::istringstream fields(stat.substr(stat.rfind(')') + 2));
    std::string state;
    long parent = 0, group = 0, session = 0;
    fields >> state >> parent >> group >> session;
    EXPECT_NE("Z", state);
    EXPECT_NE(static_cast<long>(::getpid()), parent);
    EXPECT_EQ(pid, session);

    auto link = [](const fs::path& p) { return fs::read_symlink(p).string(); };
    fs::path descriptors = "/proc/" + std::to_string(pid) + "/fd";
    std::map<std::string, std::string> open;
    for (const auto& entry : fs::directory_iterator(descriptors))
        open[entry.path().filename().string()] = link(entry.path());
    EXPECT_EQ((std::map<std::string, std::string>{{"0", "/dev/null"},
                                                  {"1", link("/proc/self/fd/1")},
                                                  {"2", link("/proc/self/fd/2")}}),
              open);
}

TEST(Task, ProgramThatCannotBeExecutedIsReportedWithTheReason) {
    TempDir dir;
    KymTest::writeFile(dir / "no-execute-bit.sh", "#!/bin/sh\n");
    fs::permissions(dir / "no-execute-bit.sh", fs::perms(0644));
    KymTest::writeFile(dir / "missing-interpreter.sh", "#!/nonexistent/interpreter\n");
    fs::permissions(dir / "missing-interpreter.sh", fs::perms(0755));
    KymTest::writeFile(dir / "no-format", "neither a script nor a binary\n");
    fs::permissions(dir / "no-format", fs::perms(0755));
    fs::create_directories(dir / "a-directory");
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"missing", "No such file or directory"},
        {"no-execute-bit.sh", "Permission denied"},
        {"a-directory", "Permission denied"},
        {"missing-interpreter.sh", "No such file or directory"},
        {"no-format", "Exec format error"},
    };
    for (const auto& [name, reason] : cases) {
        Base::Task task;
        task.setLaunchPath(dir / name);
        EXPECT_EQ("Cannot start program " + (dir / name).string() + ": " + reason, launchFailure(task));
        EXPECT_TRUE(hasNoChildren()) << name;
    }
}

TEST(Task, UnusableWorkingDirectoryIsReportedWithProgramAndDirectoryAsTheConventionsWritePaths) {
    TempDir dir;
    fs::path probe = writeProbe(dir);
    auto windows = [](const fs::path& p) { return boost::algorithm::replace_all_copy(p.string(), "/", "\\"); };
    const std::vector<std::tuple<Base::Platform::Kind, fs::path, std::string>> cases = {
        {Base::Platform::Posix, dir / "missing", "Cannot start program " + probe.string() + " in directory " +
                                                     (dir / "missing").string() + ": No such file or directory"},
        {Base::Platform::Windows, dir / "missing", "Cannot start program " + windows(probe) + " in directory " +
                                                       windows(dir / "missing") + ": No such file or directory"},
    };
    for (const auto& [platform, directory, message] : cases) {
        Base::Platform::setCurrent(platform);
        Base::Task task;
        task.setLaunchPath(probe);
        task.setCurrentDirectoryPath(directory);
        const std::string failure = launchFailure(task);
        Base::Platform::resetCurrent();
        EXPECT_EQ(message, failure);
        EXPECT_TRUE(hasNoChildren());
    }
    EXPECT_FALSE(fs::exists(dir / "cmdline"));
}
