#include "base/Task.h"

#include "base/BaseException.h"
#include "base/Platform.h"
#include "base/SystemError.h"
#include "support/TestSupport.h"

#include <boost/algorithm/string/replace.hpp>
#include <gtest/gtest.h>

#include <cerrno>
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <map>
#include <sstream>
#include <thread>
#include <tuple>

#ifdef _WIN32
#include <windows.h>
#else
#include <csignal>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;
#endif

namespace {

namespace fs = boost::filesystem;
using KymTest::TempDir;
using Strings = std::vector<std::string>;

#ifndef _WIN32
// Started again by the test of a detached start, with KYM_TASK_HELD naming a folder, this program lists there
// the descriptors it was started with and stays until it is killed. It lists them itself, once its loader
// is done: from outside, a listing would catch the loader holding a library open.
const bool startedToBeHeld = [] {
    const char* folder = std::getenv("KYM_TASK_HELD");
    if (!folder) return false;
    std::string listing;
    if (DIR* descriptors = ::opendir("/proc/self/fd")) {
        const std::string own = std::to_string(::dirfd(descriptors));
        for (const dirent* entry; (entry = ::readdir(descriptors));) {
            const std::string name = entry->d_name;
            if (name == "." || name == ".." || name == own) continue;
            char target[4096];
            const ssize_t length = ::readlinkat(::dirfd(descriptors), entry->d_name, target, sizeof target);
            listing.append(name).append(1, '\0').append(target, length > 0 ? length : 0).append(1, '\0');
        }
        ::closedir(descriptors);
    }
    const fs::path file = fs::path(folder) / "descriptors";
    KymTest::writeFile(file.string() + ".part", listing);
    fs::rename(file.string() + ".part", file);
    std::this_thread::sleep_for(std::chrono::seconds(30));
    ::_exit(0);
}();
#endif

const bool orphansReaped = KymTest::reapOrphansOfTheTests();

// A copy of the probe program in a folder of its own, whose name has a blank as installed programs' folders do.
fs::path installProbe(const TempDir& dir) {
    const fs::path folder = dir / "Program Files" / "Probe";
    fs::create_directories(folder);
    const fs::path probe = folder / fs::path(KYM_PROBE).filename();
    fs::copy_file(KYM_PROBE, probe);
    return probe;
}

// The NUL-separated items of a file the probe wrote; waits for the probe, which Task never waits for.
Strings probed(const fs::path& probe, const std::string& name) {
    EXPECT_TRUE(KymTest::waitForFile(probe.parent_path() / "done")) << "the probe did not finish";
    const fs::path file = probe.parent_path() / name;
    return fs::exists(file) ? KymTest::splitAtNul(KymTest::readFile(file)) : Strings{"(not written)"};
}

// What the host adds to the environment of every program it starts, after the
// variables it was given: nothing on Windows; Wine adds variables of its own
// and takes them out of what it was given.
Strings hostAdditions(const TempDir& dir) {
    fs::create_directories(dir / "bare");
    const fs::path probe = dir / "bare" / fs::path(KYM_PROBE).filename();
    fs::copy_file(KYM_PROBE, probe);
    Base::Task task;
    task.setLaunchPath(probe);
    task.setEnvironment({});
    task.launch();
    return probed(probe, "environment");
}

// The environment a started program sees: the given one, with the host's additions.
Strings asStarted(const Strings& given, const Strings& additions) {
    const auto name = [](const std::string& entry) { return entry.substr(0, entry.find('=', 1)); };
    Strings seen;
    for (const auto& entry : given)
        if (std::none_of(additions.begin(), additions.end(), [&](const std::string& added) { return name(added) == name(entry); }))
            seen.push_back(entry);
    seen.insert(seen.end(), additions.begin(), additions.end());
    return seen;
}

// This process's environment as a started program inherits it, in order.
Strings ownEnvironment() {
    Strings strings;
#ifdef _WIN32
    char* block = GetEnvironmentStringsA();
    for (const char* entry = block; *entry; entry += std::strlen(entry) + 1) strings.emplace_back(entry);
    FreeEnvironmentStringsA(block);
#else
    for (char** entry = environ; *entry; ++entry) strings.push_back(*entry);
#endif
    return strings;
}

} // namespace

TEST(Task, ProgramGetsExactlyTheGivenArgumentsEnvironmentAndWorkingDirectory) {
    TempDir dir;
    fs::create_directories(dir / "work dir");
    const fs::path probe = installProbe(dir);
    const Strings arguments{"plain", "with space", "", "say \"hi\"", "back\\slash\\", "\\\\server\\share\\a b\\",
                            "end\\\"", "two\nlines", "$HOME", "%PATH%", "*"};
    Base::Task task;
    task.setLaunchPath(probe);
    task.setArguments(arguments);
    task.setEnvironment({{"KYM_B", "x=y"}, {"EMPTY", ""}, {"KYM_A", "one two"}, {"MULTI", "a\nb"}, {"kym_c", "lower"}});
    task.setCurrentDirectoryPath(dir / "work dir");
    const long pid = task.launch();

    Strings expectedArguments{probe.string()};
    expectedArguments.insert(expectedArguments.end(), arguments.begin(), arguments.end());
    EXPECT_EQ(expectedArguments, probed(probe, "arguments"));
#ifdef _WIN32
    // Sorted without regard to case, as Windows wants the block.
    const Strings given{"EMPTY=", "KYM_A=one two", "KYM_B=x=y", "kym_c=lower", "MULTI=a\nb"};
#else
    const Strings given{"EMPTY=", "KYM_A=one two", "KYM_B=x=y", "MULTI=a\nb", "kym_c=lower"};
#endif
    EXPECT_EQ(asStarted(given, hostAdditions(dir)), probed(probe, "environment"));
    EXPECT_EQ(Strings{(dir / "work dir").string()}, probed(probe, "directory"));
    EXPECT_EQ(Strings{std::to_string(pid)}, probed(probe, "process"));
}

TEST(Task, ConstructorStartsAtOnceWithTheInheritedEnvironment) {
    TempDir dir;
    const fs::path probe = installProbe(dir);
    KymTest::ScopedEnv marker("KYM_TASK_MARKER", std::string("inherited value"));
    const Strings environment = ownEnvironment();
    Base::Task task(probe, {"--flag"});
    EXPECT_EQ((Strings{probe.string(), "--flag"}), probed(probe, "arguments"));
    EXPECT_EQ(asStarted(environment, hostAdditions(dir)), probed(probe, "environment"));
}

TEST(Task, AProgramThatCannotStartIsReportedWithTheReasonAndTheDirectoryAsTheConventionsWritePaths) {
    TempDir dir;
    const fs::path probe = installProbe(dir);
    KymTest::writeFile(dir / "file", "");
#ifdef _WIN32
    const std::string noFile = Base::windowsErrorText(ERROR_FILE_NOT_FOUND), noPath = Base::windowsErrorText(ERROR_PATH_NOT_FOUND);
    const std::string notDirectory = Base::windowsErrorText(ERROR_DIRECTORY);
#else
    const std::string noFile = "No such file or directory", noPath = noFile, notDirectory = "Not a directory";
#endif
    const auto posix = [](const fs::path& p) { return boost::algorithm::replace_all_copy(p.string(), "\\", "/"); };
    const auto windows = [](const fs::path& p) { return boost::algorithm::replace_all_copy(p.string(), "/", "\\"); };
    const std::string inDirectory = windows(probe) + " in directory ";
    // Conventions, program, working directory, what follows "Cannot start program ".
    const std::vector<std::tuple<Base::Platform::Kind, fs::path, fs::path, std::string>> cases = {
        {Base::Platform::Posix, dir / "missing", "", posix(dir / "missing") + ": " + noFile},
        {Base::Platform::Windows, probe, dir / "missing", inDirectory + windows(dir / "missing") + ": " + noFile},
        {Base::Platform::Windows, probe, dir / "missing" / "deeper", inDirectory + windows(dir / "missing" / "deeper") + ": " + noPath},
        {Base::Platform::Windows, probe, dir / "file", inDirectory + windows(dir / "file") + ": " + notDirectory},
        // The command interpreter that would run it is there; the file is not.
        {Base::Platform::Windows, dir / "missing.bat", "", windows(dir / "missing.bat") + ": " + noFile},
    };
    for (const auto& [kind, program, directory, message] : cases) {
        Base::Platform::setCurrent(kind);
        Base::Task task;
        task.setLaunchPath(program), task.setCurrentDirectoryPath(directory);
        const std::string failure = KymTest::thrownMessage([&] { task.launch(); });
        Base::Platform::resetCurrent();
        EXPECT_EQ("Cannot start program " + message, failure);
    }
    EXPECT_FALSE(fs::exists(probe.parent_path() / "arguments"));
}

#ifdef _WIN32

TEST(Task, ABatchFileRunsThroughTheCommandInterpreterAndGetsItsArgumentsAsListed) {
    TempDir dir;
    const fs::path probe = installProbe(dir);
    // It hands its arguments on unchanged and names its first one, unquoted, in the probe's environment.
    const fs::path script = dir / "Program Files" / "Scripts & Tools" / "start probe.bat";
    KymTest::writeFile(script, "@set FIRST=%~1\r\n@\"" + probe.string() + "\" %*\r\n");
    // The interpreter's own characters arrive as characters, and nothing else runs.
    const Strings arguments{"with space", "plain", "", "back\\slash", "a&echo.>" + (dir / "ran").string(), "x^y", "<x>|y"};
    Base::Task task;
    task.setLaunchPath(script);
    task.setArguments(arguments);
    task.setEnvironment({{"KYM_A", "1"}});
    task.launch();

    Strings expectedArguments{probe.string()};
    expectedArguments.insert(expectedArguments.end(), arguments.begin(), arguments.end());
    EXPECT_EQ(expectedArguments, probed(probe, "arguments"));
    const Strings environment = probed(probe, "environment");
    EXPECT_NE(environment.end(), std::find(environment.begin(), environment.end(), "FIRST=with space"));
    EXPECT_NE(environment.end(), std::find(environment.begin(), environment.end(), "KYM_A=1"));
    EXPECT_FALSE(fs::exists(dir / "ran"));

    // What quoting cannot keep from the interpreter is refused before anything starts.
    for (const std::string refused : {"50%OS%", "say \"hi\"", "two\nlines"}) {
        task.setArguments({"plain", refused});
        EXPECT_EQ("Cannot start program " + script.string() + ": the command interpreter would change the argument " +
                      refused + " (it holds %, a double quote or a line break)",
                  KymTest::thrownMessage([&] { task.launch(); }));
    }
}

TEST(Task, AProgramInheritsNoHandleOfTheCaller) {
    TempDir dir;
    const fs::path probe = installProbe(dir);
    // Handles numbered high, so that none of the probe's own is taken for ours.
    std::vector<HANDLE> fillers(200);
    for (HANDLE& filler : fillers) filler = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    SECURITY_ATTRIBUTES inheritable{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
    const HANDLE handle = CreateFileA((dir / "held").string().c_str(), GENERIC_WRITE, FILE_SHARE_READ, &inheritable,
                                      CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    for (HANDLE filler : fillers) CloseHandle(filler);
    ASSERT_NE(INVALID_HANDLE_VALUE, handle);
    Base::Task task;
    task.setLaunchPath(probe);
    task.setEnvironment({{"PROBE_HANDLE", std::to_string(reinterpret_cast<std::uintptr_t>(handle))}});
    task.launch();
    const Strings state = probed(probe, "handle");
    CloseHandle(handle);
    EXPECT_EQ(Strings{"closed"}, state);
}

#else

namespace {

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

// The NUL-separated items of a file the script probe wrote.
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

TEST(Task, AScriptGetsItsInterpreterAndExactlyTheGivenArgumentsAndEnvironmentAndAFailedStartLeavesNoChild) {
    TempDir dir;
    fs::path probe = writeProbe(dir);
    Base::Task task;
    task.setLaunchPath(probe);
    task.setArguments({"plain", "with space", "", "$HOME", "*"});
    task.setEnvironment({{"KYM_A", "one two"}});
    const long pid = task.launch();
    EXPECT_EQ(recorded(dir, "where"), (Strings{fs::current_path().string(), std::to_string(pid)}));
    EXPECT_EQ(recorded(dir, "cmdline"), (Strings{"/bin/sh", probe.string(), "plain", "with space", "", "$HOME", "*"}));
    EXPECT_EQ(recorded(dir, "environ"), (Strings{"KYM_A=one two"}));
    EXPECT_TRUE(hasNoChildren());

    task.setLaunchPath(dir / "missing");
    EXPECT_THROW(task.launch(), Base::BaseException);
    EXPECT_TRUE(hasNoChildren());
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

TEST(Task, ProgramRunsOnDetachedInItsOwnSessionWithNoZombieLeft) {
    TempDir dir;
    KymTest::writeFile(dir / "input", "");
    // Our standard input is a file for the moment, so that a program reading it is told apart. The file
    // stays open without close-on-exec too, as careless callers leave theirs; the program must not inherit it.
    const int ownInput = ::dup(0), input = ::open((dir / "input").c_str(), O_RDONLY);
    ASSERT_GE(input, 3);
    ::dup2(input, 0);
    Base::Task task;
    task.setLaunchPath(KymTest::ownProgram());
    task.setEnvironment({{"KYM_TASK_HELD", dir.path().string()}});
    const int ownPriority = ::getpriority(PRIO_PROCESS, 0);
    long pid = task.launch();
    ::dup2(ownInput, 0), ::close(ownInput), ::close(input);
    ASSERT_GT(pid, 0);
    EXPECT_EQ(::getpriority(PRIO_PROCESS, 0), ownPriority) << "a caller that goes on keeps its priority";
    // The program holds our standard output open; a test runner would wait for it.
    std::shared_ptr<void> killAtEnd(nullptr, [pid](void*) { ::kill(static_cast<pid_t>(pid), SIGKILL); });
    EXPECT_TRUE(hasNoChildren());

    ASSERT_TRUE(KymTest::waitForFile(dir / "descriptors")) << "the program did not list its descriptors";
    const std::string stat = KymTest::readFile("/proc/" + std::to_string(pid) + "/stat");
    char state = 0;
    long parent = 0, group = 0, session = 0;
    std::sscanf(stat.c_str() + stat.rfind(')') + 2, "%c %ld %ld %ld", &state, &parent, &group, &session);
    EXPECT_NE('Z', state);
    EXPECT_NE(static_cast<long>(::getpid()), parent);
    EXPECT_EQ(pid, session);

    const Strings listed = KymTest::splitAtNul(KymTest::readFile(dir / "descriptors"));
    std::map<std::string, std::string> open;
    for (std::size_t item = 0; item + 1 < listed.size(); item += 2) open[listed[item]] = listed[item + 1];
    auto link = [](const fs::path& p) { return fs::read_symlink(p).string(); };
    EXPECT_EQ(open, (std::map<std::string, std::string>{
                        {"0", "/dev/null"}, {"1", link("/proc/self/fd/1")}, {"2", link("/proc/self/fd/2")}}));
}

#endif
