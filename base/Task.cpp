#include "base/Task.h"

#include "base/BaseException.h"
#include "base/Platform.h"
#include "base/SystemCalls.h"
#include "base/SystemError.h"

#include <utility>

#ifdef _WIN32
#include <boost/algorithm/string/case_conv.hpp>
#include <boost/algorithm/string/predicate.hpp>
#include <boost/filesystem/operations.hpp>
#include <algorithm>
#include <windows.h>
#else
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <memory>
#include <pthread.h>
#include <sched.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;
#endif

namespace Base {

namespace {

BaseException startFailure(const boost::filesystem::path& program, const boost::filesystem::path& directory,
                           bool directoryAtFault, const std::string& reason) {
    const Platform& platform = Platform::current();
    std::string message = "Cannot start program " + platform.nativePath(program);
    if (directoryAtFault) message += " in directory " + platform.nativePath(directory);
    return BaseException(message + ": " + reason);
}

} // namespace

Task::Task(const boost::filesystem::path& program, const std::vector<std::string>& arguments)
    : mLaunchPath(program), mArguments(arguments) {
    launch();
}

void Task::setEnvironment(std::map<std::string, std::string> environment) {
    mEnvironment = std::move(environment);
    mHasEnvironment = true;
}

#ifdef _WIN32

std::string quoteWindowsArgument(const std::string& argument) {
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

namespace {

// Windows wants the block sorted by name without regard to case.
std::vector<char> environmentBlock(const std::map<std::string, std::string>& environment) {
    std::vector<std::pair<std::string, const std::pair<const std::string, std::string>*>> entries;
    entries.reserve(environment.size());
    for (const auto& entry : environment) entries.emplace_back(boost::algorithm::to_upper_copy(entry.first), &entry);
    std::stable_sort(entries.begin(), entries.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    std::vector<char> block;
    for (const auto& entry : entries) {
        const std::string& name = entry.second->first;
        const std::string& value = entry.second->second;
        block.insert(block.end(), name.begin(), name.end());
        block.push_back('=');
        block.insert(block.end(), value.begin(), value.end());
        block.push_back('\0');
    }
    if (block.empty()) block.push_back('\0');
    block.push_back('\0');
    return block;
}

// The command interpreter acts on % in any place and on & | < > ^ outside
// quotes; a double quote switches quoting. What reaches a batch file is
// therefore quoted whole, and what quoting cannot protect is refused.
std::string batchArgument(const std::string& argument, const boost::filesystem::path& program,
                          const boost::filesystem::path& directory) {
    if (argument.find_first_of("%\"\r\n") != std::string::npos)
        throw startFailure(program, directory, false,
                           "the command interpreter would change the argument " + argument +
                               " (it holds %, a double quote or a line break)");
    return "\"" + argument + "\"";
}

bool isBatchFile(const boost::filesystem::path& program) {
    const std::string extension = program.extension().string();
    return boost::algorithm::iequals(extension, ".bat") || boost::algorithm::iequals(extension, ".cmd");
}

// The command interpreter that runs batch files, as Windows itself finds it.
std::string commandInterpreter() {
    char path[MAX_PATH];
    const DWORD length = GetEnvironmentVariableA("ComSpec", path, sizeof(path));
    if (length > 0 && length < sizeof(path)) return std::string(path, length);
    const UINT systemLength = GetSystemDirectoryA(path, sizeof(path));
    return std::string(path, systemLength < sizeof(path) ? systemLength : 0) + "\\cmd.exe";
}

// Why the working directory cannot be used, or 0; checked first, so that the message can name it.
DWORD directoryFault(const std::string& directory) {
    const DWORD attributes = GetFileAttributesA(directory.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES) return GetLastError();
    return attributes & FILE_ATTRIBUTE_DIRECTORY ? 0 : ERROR_DIRECTORY;
}

} // namespace

long Task::launch() {
    if (mLaunchPath.empty()) throw BaseException("Cannot start a program: no launch path is set");
    if (int fault = SystemCalls::execFault(mLaunchPath.string()))
        throw startFailure(mLaunchPath, mCurrentDirectory, false, errnoText(fault));
    const std::string directory = mCurrentDirectory.string();
    if (!directory.empty())
        if (const DWORD fault = directoryFault(directory))
            throw startFailure(mLaunchPath, mCurrentDirectory, true, windowsErrorText(fault));
    // Absolute, so that a program named relative to the caller's folder is found
    // there whatever working directory it is given, batch files included.
    const std::string program = boost::filesystem::absolute(mLaunchPath).make_preferred().string();

    std::string commandLine, application = program;
    if (isBatchFile(mLaunchPath)) {
        // The interpreter itself would start, and only then miss the file.
        if (GetFileAttributesA(program.c_str()) == INVALID_FILE_ATTRIBUTES)
            throw startFailure(mLaunchPath, mCurrentDirectory, false, windowsErrorText(GetLastError()));
        // /s keeps the quotes inside the line after /c as they are.
        commandLine = batchArgument(program, mLaunchPath, mCurrentDirectory);
        for (const auto& argument : mArguments)
            commandLine += " " + batchArgument(argument, mLaunchPath, mCurrentDirectory);
        application = commandInterpreter();
        commandLine = quoteWindowsArgument(application) + " /d /s /c \"" + commandLine + "\"";
    } else {
        commandLine = quoteWindowsArgument(program);
        for (const auto& argument : mArguments) commandLine += " " + quoteWindowsArgument(argument);
    }
    std::vector<char> commandBuffer(commandLine.begin(), commandLine.end());
    commandBuffer.push_back('\0');
    std::vector<char> block;
    if (mHasEnvironment) block = environmentBlock(mEnvironment);

    // No handle of ours is inherited, and the program has no console of ours.
    STARTUPINFOA startup{};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION process{};
    if (!CreateProcessA(application.c_str(), commandBuffer.data(), nullptr, nullptr, FALSE,
                        DETACHED_PROCESS | CREATE_NEW_PROCESS_GROUP, mHasEnvironment ? block.data() : nullptr,
                        directory.empty() ? nullptr : directory.c_str(), &startup, &process))
        throw startFailure(mLaunchPath, mCurrentDirectory, false, windowsErrorText(GetLastError()));
    CloseHandle(process.hThread);
    CloseHandle(process.hProcess);
    // A caller that ends now steps back, as on other hosts; the program keeps its own class.
    if (mCallerEndsAfterStart) SetPriorityClass(GetCurrentProcess(), IDLE_PRIORITY_CLASS);
    return static_cast<long>(process.dwProcessId);
}

#else

namespace {

// Owns the attributes and file actions that posix_spawn reads.
struct SpawnSetup {
    posix_spawnattr_t attributes;
    posix_spawn_file_actions_t actions;
    SpawnSetup() {
        posix_spawnattr_init(&attributes);
        posix_spawn_file_actions_init(&actions);
    }
    ~SpawnSetup() {
        posix_spawn_file_actions_destroy(&actions);
        posix_spawnattr_destroy(&attributes);
    }
    SpawnSetup(const SpawnSetup&) = delete;
    SpawnSetup& operator=(const SpawnSetup&) = delete;
};

// The reason a working directory cannot be entered, or 0. Checked here because
// posix_spawn reports a failed chdir and a failed exec alike.
int directoryFault(const std::string& directory) {
    struct stat status {};
    if (::stat(directory.c_str(), &status) != 0) return errno;
    if (!S_ISDIR(status.st_mode)) return ENOTDIR;
    if (::faccessat(AT_FDCWD, directory.c_str(), X_OK, AT_EACCESS) != 0) return errno;
    return 0;
}

// What posix_spawn is given and hands back; a middle process shares it with us.
struct Spawn {
    const char* program;
    const posix_spawn_file_actions_t* actions;
    const posix_spawnattr_t* attributes;
    char* const* argv;
    char* const* envp;
    pid_t pid = 0;
    int error = 0;
};

// Runs in the middle process, or in the caller itself when it ends right after.
int spawnProgram(void* data) {
    Spawn& spawn = *static_cast<Spawn*>(data);
    spawn.error = ::posix_spawn(&spawn.pid, spawn.program, spawn.actions, spawn.attributes, spawn.argv, spawn.envp);
    return 0;
}

} // namespace

long Task::launch() {
    if (mLaunchPath.empty()) throw BaseException("Cannot start a program: no launch path is set");
    const std::string program = mLaunchPath.string();
    if (int fault = SystemCalls::execFault(program))
        throw startFailure(mLaunchPath, mCurrentDirectory, false, errnoText(fault));
    const std::string directory = mCurrentDirectory.string();
    if (!directory.empty())
        if (int fault = directoryFault(directory))
            throw startFailure(mLaunchPath, mCurrentDirectory, true, errnoText(fault));

    std::vector<std::string> argumentStrings;
    argumentStrings.reserve(mArguments.size() + 1);
    argumentStrings.push_back(program);
    argumentStrings.insert(argumentStrings.end(), mArguments.begin(), mArguments.end());
    std::vector<char*> argv;
    argv.reserve(argumentStrings.size() + 1);
    for (auto& argument : argumentStrings) argv.push_back(argument.data());
    argv.push_back(nullptr);

    // Thousands of variables: one block of NAME=VALUE strings, not one allocation each.
    std::string environmentBlock;
    std::vector<char*> envp;
    if (mHasEnvironment) {
        std::vector<std::size_t> starts;
        starts.reserve(mEnvironment.size());
        for (const auto& [name, value] : mEnvironment) {
            starts.push_back(environmentBlock.size());
            environmentBlock.append(name).append(1, '=').append(value).append(1, '\0');
        }
        envp.reserve(starts.size() + 1);
        for (std::size_t start : starts) envp.push_back(&environmentBlock[start]);
        envp.push_back(nullptr);
    }

    // The program gets its own session, no blocked signals, SIGPIPE as the
    // default, /dev/null as input and none of the descriptors the caller left open.
    SpawnSetup setup;
    sigset_t none;
    sigemptyset(&none);
    sigset_t defaults;
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGPIPE);
    posix_spawnattr_setsigmask(&setup.attributes, &none);
    posix_spawnattr_setsigdefault(&setup.attributes, &defaults);
    posix_spawnattr_setflags(&setup.attributes, POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    posix_spawn_file_actions_addopen(&setup.actions, 0, "/dev/null", O_RDONLY, 0);
    if (!directory.empty()) posix_spawn_file_actions_addchdir_np(&setup.actions, directory.c_str());
    posix_spawn_file_actions_addclosefrom_np(&setup.actions, 3);

    Spawn spawn{program.c_str(), &setup.actions, &setup.attributes, argv.data(),
                mHasEnvironment ? envp.data() : environ};
    if (mCallerEndsAfterStart) {
        spawnProgram(&spawn);
    } else {
        // A middle process starts the program and exits at once, so that the
        // program is adopted by init and never becomes our zombie. The middle
        // shares our memory (nothing is copied) and we are suspended until it
        // ends; posix_spawn in it returns once the program is exec'd, with the
        // reason when it could not be. Our signal handlers must not run in the
        // middle, hence every signal is blocked around it.
        constexpr std::size_t MiddleStackSize = 64 * 1024;
        std::unique_ptr<char[]> middleStack(new char[MiddleStackSize]);
        sigset_t all, previous;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &previous);
        const pid_t middle = ::clone(spawnProgram, middleStack.get() + MiddleStackSize,
                                     CLONE_VM | CLONE_VFORK | SIGCHLD, &spawn);
        const int cloneError = errno;
        pthread_sigmask(SIG_SETMASK, &previous, nullptr);
        if (middle < 0) throw startFailure(mLaunchPath, mCurrentDirectory, false, errnoText(cloneError));
        int status = 0;
        while (::waitpid(middle, &status, 0) < 0 && errno == EINTR) {
        }
    }
    if (spawn.error != 0) throw startFailure(mLaunchPath, mCurrentDirectory, false, errnoText(spawn.error));
    // A caller that ends now: its last steps (its report, the release of its
    // memory) must not hold up the program's start where both share a processor.
    if (mCallerEndsAfterStart) ::setpriority(PRIO_PROCESS, 0, 19);
    return spawn.pid;
}

#endif

} // namespace Base
