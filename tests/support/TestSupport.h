// Small helpers that build real scenes for tests: temporary directories,
// files, environment variables, recorded log lines, and code run as an
// unprivileged user (root ignores file permissions).
#pragma once

#include "base/SystemCalls.h"

#include <boost/filesystem.hpp>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace KymTest {

namespace fs = boost::filesystem;

// A fresh temporary directory, removed with its content when the object goes; open to everybody,
// so code run as an unprivileged user can use it.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const fs::path& path() const { return mPath; }
    fs::path operator/(const std::string& name) const { return mPath / name; }

private:
    fs::path mPath;
};

// Sets (or, with no value, unsets) a variable of the process environment and
// restores the previous state when it goes.
class ScopedEnv {
public:
    ScopedEnv(const std::string& name, const std::optional<std::string>& value);
    ~ScopedEnv();
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

private:
    std::string mName;
    std::optional<std::string> mPrevious;
};

// Writes a file, making its parent directories.
void writeFile(const fs::path& file, const std::string& content);
// Writes a file and gives it the mode, by default that of a script anyone may run; returns the file.
fs::path writeExecutable(const fs::path& file, const std::string& content, unsigned mode = 0755);
std::string readFile(const fs::path& file);
// The items of a text where each ends in a NUL byte, as /proc holds argument vectors and environments.
std::vector<std::string> splitAtNul(const std::string& text);
// Waits up to ten seconds for the file a started program writes last; whether it is there.
bool waitForFile(const fs::path& file);

// This test program's own executable.
fs::path ownProgram();

// The what() of the exception of that type the action throws, or "(nothing thrown)"; others go through.
template <class Exception = std::exception>
std::string thrownMessage(const std::function<void()>& action) {
    try { action(); } catch (const Exception& failure) { return failure.what(); }
    return "(nothing thrown)";
}
// What the action throws as a BaseException while every call the setter hooks (write, rename) fails with the error.
std::string thrownUnderFault(void (*setFault)(Base::SystemCalls::FaultHook), int error,
                             const std::function<void()>& action);
// Sets a file's modification time to the given number of seconds ago.
void setAge(const fs::path& file, double secondsAgo);

// Records every line written to the named loggers and switches them on.
class LogRecorder {
public:
    explicit LogRecorder(const std::vector<std::string>& loggers = {"kym.info", "kym.verbose"});
    std::vector<std::string> lines() const;             // "name: text" each
    std::vector<std::string> lines(const std::string& logger) const;  // text only
    bool contains(const std::string& text) const;       // some line's text equals it

    struct Sink;
private:
    std::shared_ptr<Sink> mSink;
};

#ifndef _WIN32
// Runs the function in a child process as user nobody and group nogroup and returns what it returned
// (as the exit status): EXPECT macros do not cross processes, so the function returns a code instead.
// Only root can; a test that uses it calls KYM_SKIP_UNLESS_ROOT() first.
int runAsNobody(const std::function<int()>& function);
bool isRoot();
// Ends the calling test as skipped when it runs as an ordinary user, who can neither run code as another
// user nor give a file to one.
#define KYM_SKIP_UNLESS_ROOT() \
    if (!::KymTest::isRoot()) GTEST_SKIP() << "needs root: only root can act as user nobody or give a file to it"
#endif

// Started programs are orphans by design, and some containers never reap orphans. Call once, at static
// initialisation: the tests go on in a child (where it returns true); this process reaps and exits with their status.
bool reapOrphansOfTheTests();

// Makes a gzip-compressed tar archive of a directory's content: with the tar program, on Windows with libarchive.
void makeTarGz(const fs::path& archive, const fs::path& contentDirectory);

} // namespace KymTest
