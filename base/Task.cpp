#include "base/Task.h"

#include "base/BaseException.h"
#include "base/Platform.h"
#include "base/SystemCalls.h"

#include <system_error>

#ifdef _WIN32
#include <boost/algorithm/string/case_conv.hpp>
#include <algorithm>
#include <windows.h>
#else
#include <cerrno>
#include <climits>
#include <csignal>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;
#endif

namespace Base {

namespace {

BaseException startFailure(const boost::filesystem::path& program, const boost::filesystem::path& directory,
                           bool directoryAtFault, int error) {
    const Platform& platform = Platform::current();
    std::string message = "Cannot start program " + platform.nativePath(program);
    if (directoryAtFault) message += " in directory " + platform.nativePath(directory);
    return BaseException(message + ": " + std::system_category().message(error));
}

} // namespace

Task::Task(const boost::filesystem::path& program, const std::vector<std::string>& arguments)
    : mLaunchPath(program), mArguments(arguments) {
    launch();
}

void Task::setEnvironment(const std::map<std::string, std::string>& environment) {
    mEnvironment = environment;
    mHasEnvironment = true;
}

#ifdef _WIN32

namespace {

// Quoted so that the MS C runtime's command line parser gives the argument back unchanged.
std::string quoteArgument(const std::string& argument) {
    if (!argument.empty() && argument.find_first_of(" \t\n\v\"") == std::string::npos) return argument;
    std::string quoted = "\"";
    std::size_t backslashes = 0;
    for (char c : argument) {
        if (c == '\\') {
            ++backslashes;
            continue;
        }
        if (c == '"') backslashes = backslashes * 2 + 1;
        quoted.append(backslashes, '\\');
        backslashes = 0;
        quoted += c;
    }
    quoted.append(backslashes * 2, '\\');
    return quoted + "\"";
}

// Windows wants the block sorted by name without regard to case.
std::vector<char> environmentBlock(const std::map<std::string, std::string>& environment) {
    std::vector<std::pair<std::string, std::string>> entries(environment.begin(), environment.end());
    std::stable_sort(entries.begin(), entries.end(), [](const auto& a, const auto& b) {
        return boost::algorithm::to_upper_copy(a.first) < boost::algorithm::to_upper_copy(b.first);
    });
    std::vector<char> block;
    for (const auto& entry : entries) {
        std::string line = entry.first + "=" + entry.second;
        block.insert(block.end(), line.begin(), line.end());
        block.push_back('\0');
    }
    if (block.empty()) block.push_back('\0');
    block.push_back('\0');
    return block;
}

} // namespace

long Task::launch() {
    if (mLaunchPath.empty()) throw BaseException("Cannot start a program: no launch path is set");
    if (int fault = SystemCalls::execFault(mLaunchPath.string())) throw startFailure(mLaunchPath, mCurrentDirectory, false, fault);
    if (!mCurrentDirectory.empty() && !boost::filesystem::is_directory(mCurrentDirectory))
        throw startFailure(mLaunchPath, mCurrentDirectory, true, ERROR_DIRECTORY);

    std::string commandLine = quoteArgument(mLaunchPath.string());
    for (const auto& argument : mArguments) commandLine += " " + quoteArgument(argument);
    std::vector<char> commandBuffer(commandLine.begin(), commandLine.end());
    commandBuffer.push_back('\0');
    std::vector<char> block;
    if (mHasEnvironment) block = environmentBlock(mEnvironment);
    std::string directory = mCurrentDirectory.string();

    STARTUPINFOA startup{};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION process{};
    if (!CreateProcessA(mLaunchPath.string().c_str(), commandBuffer.data(), nullptr, nullptr, FALSE,
                        DETACHED_PROCESS | CREATE_NEW_PROCESS_GROUP, mHasEnvironment ? block.data() : nullptr,
                        directory.empty() ? nullptr : directory.c_str(), &startup, &process))
        throw startFailure(mLaunchPath, mCurrentDirectory, false, static_cast<int>(GetLastError()));
    CloseHandle(process.hThread);
    CloseHandle(process.hProcess);
    return static_cast<long>(process.dwProcessId);
}

#else

namespace {

// What the two forked processes tell the caller through the pipe.
struct Report {
    enum Kind : int { Started, ForkFailed, DirectoryFailed, ExecFailed };
    int kind;
    int error;
    long pid;
};

void sendReport(int fd, Report::Kind kind, int error, long pid) {
    Report report{kind, error, pid};
    while (::write(fd, &report, sizeof(report)) < 0 && errno == EINTR) {
    }
}

// Only async-signal-safe calls from here to the exec: the parent may have other threads.
[[noreturn]] void startProgram(int reportFd, const char* program, char* const* argv, char* const* envp,
                               const char* directory, int lastDescriptor) {
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    struct sigaction defaultAction {};
    defaultAction.sa_handler = SIG_DFL;
    sigaction(SIGPIPE, &defaultAction, nullptr);
    ::setsid();
    int nullFd = ::open("/dev/null", O_RDONLY);
    if (nullFd > 0) {
        ::dup2(nullFd, 0);
        ::close(nullFd);
    }
    // Descriptors the caller left open must not leak into a long-lived program.
#ifdef CLOSE_RANGE_CLOEXEC
    if (::close_range(3, ~0U, CLOSE_RANGE_CLOEXEC) != 0)
#endif
        for (int fd = 3; fd <= lastDescriptor; ++fd) ::fcntl(fd, F_SETFD, FD_CLOEXEC);
    if (directory && ::chdir(directory) != 0) {
        sendReport(reportFd, Report::DirectoryFailed, errno, 0);
        ::_exit(127);
    }
    ::execve(program, argv, envp);
    sendReport(reportFd, Report::ExecFailed, errno, 0);
    ::_exit(127);
}

} // namespace

long Task::launch() {
    if (mLaunchPath.empty()) throw BaseException("Cannot start a program: no launch path is set");
    const std::string program = mLaunchPath.string();
    if (int fault = SystemCalls::execFault(program)) throw startFailure(mLaunchPath, mCurrentDirectory, false, fault);

    // Everything the forked processes need is built here, before forking.
    std::vector<std::string> argumentStrings;
    argumentStrings.reserve(mArguments.size() + 1);
    argumentStrings.push_back(program);
    argumentStrings.insert(argumentStrings.end(), mArguments.begin(), mArguments.end());
    std::vector<char*> argv;
    for (auto& argument : argumentStrings) argv.push_back(argument.data());
    argv.push_back(nullptr);

    std::vector<std::string> environmentStrings;
    std::vector<char*> envp;
    if (mHasEnvironment) {
        for (const auto& entry : mEnvironment) environmentStrings.push_back(entry.first + "=" + entry.second);
        for (auto& entry : environmentStrings) envp.push_back(entry.data());
        envp.push_back(nullptr);
    }
    char* const* environment = mHasEnvironment ? envp.data() : environ;
    const std::string directory = mCurrentDirectory.string();
    long openMax = ::sysconf(_SC_OPEN_MAX);
    int lastDescriptor = openMax > 0 && openMax <= 65536 ? static_cast<int>(openMax) - 1 : 65535;

    int reportPipe[2];
    if (::pipe2(reportPipe, O_CLOEXEC) != 0) throw startFailure(mLaunchPath, mCurrentDirectory, false, errno);

    // Double fork: the middle process exits at once and is reaped here, so the
    // program is adopted by init and never becomes our zombie.
    pid_t middle = ::fork();
    if (middle < 0) {
        int error = errno;
        ::close(reportPipe[0]);
        ::close(reportPipe[1]);
        throw startFailure(mLaunchPath, mCurrentDirectory, false, error);
    }
    if (middle == 0) {
        ::close(reportPipe[0]);
        pid_t child = ::fork();
        if (child == 0)
            startProgram(reportPipe[1], program.c_str(), argv.data(), environment,
                         directory.empty() ? nullptr : directory.c_str(), lastDescriptor);
        if (child < 0) sendReport(reportPipe[1], Report::ForkFailed, errno, 0);
        else sendReport(reportPipe[1], Report::Started, 0, child);
        ::_exit(0);
    }
    ::close(reportPipe[1]);

    // The pipe reaches end of file once the program has been exec'd or both processes are gone.
    long pid = -1;
    Report failure{Report::Started, 0, 0};
    Report report;
    std::size_t filled = 0;
    for (;;) {
        ssize_t count = ::read(reportPipe[0], reinterpret_cast<char*>(&report) + filled, sizeof(report) - filled);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) break;
        filled += static_cast<std::size_t>(count);
        if (filled < sizeof(report)) continue;
        filled = 0;
        if (report.kind == Report::Started) pid = report.pid;
        else failure = report;
    }
    ::close(reportPipe[0]);
    int status = 0;
    while (::waitpid(middle, &status, 0) < 0 && errno == EINTR) {
    }

    if (failure.kind != Report::Started)
        throw startFailure(mLaunchPath, mCurrentDirectory, failure.kind == Report::DirectoryFailed, failure.error);
    return pid;
}

#endif

} // namespace Base
