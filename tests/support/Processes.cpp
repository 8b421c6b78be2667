#include "support/Processes.h"

#include "base/Task.h"

#include <boost/filesystem/operations.hpp>

#include <cstdlib>
#include <stdexcept>

#ifdef _WIN32
#include <stdlib.h>
#include <windows.h>
#else
#include <cerrno>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
extern char** environ;
#endif

namespace KymTest {

namespace {

std::vector<std::string> environmentEntries() {
#ifdef _WIN32
    char** entries = _environ;
#else
    char** entries = environ;
#endif
    std::vector<std::string> result;
    for (char** entry = entries; entry && *entry; ++entry) result.emplace_back(*entry);
    return result;
}

void setVariable(const std::string& name, const std::string& value) {
#ifdef _WIN32
    _putenv_s(name.c_str(), value.c_str());
#else
    ::setenv(name.c_str(), value.c_str(), 1);
#endif
}

void removeVariable(const std::string& name) {
#ifdef _WIN32
    // An empty value removes a variable there.
    _putenv_s(name.c_str(), "");
#else
    ::unsetenv(name.c_str());
#endif
}

void clearEnvironment(const std::set<std::string>& kept) {
    for (const std::string& entry : environmentEntries()) {
        const std::string name = entry.substr(0, entry.find('='));
        if (!name.empty() && !kept.count(name)) removeVariable(name);
    }
}

#ifdef _WIN32
// Wine appends its own variables to the environment of every program it starts, unless the environment
// it was given holds them: those the starter never gave come last.
bool underWine() {
    const HMODULE system = GetModuleHandleA("ntdll.dll");
    return system && GetProcAddress(system, "wine_get_version");
}

void dropWhatWineAppended(std::vector<std::string>& environment) {
    const auto appended = [](const std::string& entry) {
        const std::string name = entry.substr(0, entry.find('='));
        return name.compare(0, 4, "WINE") == 0 || name == "SystemDrive" || name == "SystemRoot";
    };
    while (underWine() && !environment.empty() && appended(environment.back())) environment.pop_back();
}

HANDLE openInherited(const fs::path& file, DWORD access, DWORD disposition) {
    SECURITY_ATTRIBUTES inherited{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
    HANDLE handle = CreateFileA(file.string().c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE, &inherited,
                                disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (handle == INVALID_HANDLE_VALUE)
        throw std::runtime_error("cannot open " + file.string() + ": error " + std::to_string(GetLastError()));
    return handle;
}
#endif

} // namespace

ProcessEnvironment::ProcessEnvironment(const std::vector<std::pair<std::string, std::string>>& variables,
                                       const std::set<std::string>& kept)
    : mSaved(environmentEntries()) {
    clearEnvironment(kept);
    for (const auto& [name, value] : variables) setVariable(name, value);
}

ProcessEnvironment::~ProcessEnvironment() {
    clearEnvironment({});
    for (const std::string& entry : mSaved)
        if (const auto equals = entry.find('='); equals != std::string::npos && equals > 0)
            setVariable(entry.substr(0, equals), entry.substr(equals + 1));
}

Outcome runProgram(const fs::path& program, const std::vector<std::string>& arguments) {
    TempDir capture;
    writeFile(capture / "in", "");
    const fs::path out = capture / "out", err = capture / "err";
#ifdef _WIN32
    std::string line = Base::quoteWindowsArgument(program.string());
    for (const std::string& argument : arguments) line += " " + Base::quoteWindowsArgument(argument);
    HANDLE input = openInherited(capture / "in", GENERIC_READ, OPEN_EXISTING);
    HANDLE output = openInherited(out, GENERIC_WRITE, CREATE_ALWAYS);
    HANDLE error = openInherited(err, GENERIC_WRITE, CREATE_ALWAYS);
    STARTUPINFOA startup{};
    startup.cb = sizeof(startup);
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = input, startup.hStdOutput = output, startup.hStdError = error;
    PROCESS_INFORMATION process{};
    const BOOL started = CreateProcessA(program.string().c_str(), line.data(), nullptr, nullptr, TRUE, 0, nullptr,
                                        nullptr, &startup, &process);
    const DWORD startError = GetLastError();
    for (HANDLE handle : {input, output, error}) CloseHandle(handle);
    if (!started)
        throw std::runtime_error("cannot start " + program.string() + ": error " + std::to_string(startError));
    WaitForSingleObject(process.hProcess, INFINITE);
    DWORD code = 0;
    GetExitCodeProcess(process.hProcess, &code);
    CloseHandle(process.hThread);
    CloseHandle(process.hProcess);
    const int status = static_cast<int>(code);
#else
    std::vector<std::string> words{program.string()};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (std::string& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, (capture / "in").c_str(), O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    pid_t child = 0;
    const int spawnError = ::posix_spawn(&child, program.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (spawnError != 0) throw std::runtime_error("cannot start " + program.string());
    int code = 0;
    while (::waitpid(child, &code, 0) < 0 && errno == EINTR) {
    }
    const int status = WIFEXITED(code) ? WEXITSTATUS(code) : 128 + WTERMSIG(code);
#endif
    return {status, readFile(out), readFile(err)};
}

std::string printedText(const std::string& text) {
#ifdef _WIN32
    std::string printed;
    for (char c : text) {
        if (c == '\n') printed += '\r';
        printed += c;
    }
    return printed;
#else
    return text;
#endif
}

std::string shortFormOnThisHost(const fs::path& path) {
#ifdef _WIN32
    char buffer[1024] = {};
    const DWORD length = GetShortPathNameA(path.string().c_str(), buffer, sizeof(buffer));
    if (length == 0 || length >= sizeof(buffer)) throw std::runtime_error("no short form of " + path.string());
    return std::string(buffer, length);
#else
    return path.string();
#endif
}

Probe::Probe(const fs::path& builtProbe) {
#ifdef _WIN32
    mProgram = mFolder / "probe.exe";
    fs::copy_file(builtProbe, mProgram);
#else
    (void)builtProbe;
    mProgram = writeExecutable(mFolder / "probe.sh", "#!/bin/sh\nout='" + mFolder.path().string() + "'\n"
                                                     "/bin/cat /proc/$$/cmdline > \"$out/arguments\"\n"
                                                     "/bin/cat /proc/$$/environ > \"$out/environment\"\n"
                                                     "printf '%s\\0' \"$(pwd -P)\" > \"$out/directory\"\n"
                                                     ": > \"$out/done\"\n");
#endif
}

std::string Probe::Record::value(const std::string& name) const {
    for (const std::string& entry : environment)
        if (entry.compare(0, name.size() + 1, name + "=") == 0) return entry.substr(name.size() + 1);
    return "(unset)";
}

Probe::Record Probe::record() const {
    if (!waitForFile(mFolder / "done")) throw std::runtime_error("the probe " + mProgram.string() + " did not run");
    Record record;
    record.arguments = splitAtNul(readFile(mFolder / "arguments"));
    record.environment = splitAtNul(readFile(mFolder / "environment"));
    const std::vector<std::string> directory = splitAtNul(readFile(mFolder / "directory"));
    record.directory = directory.empty() ? std::string() : directory.front();
#ifdef _WIN32
    dropWhatWineAppended(record.environment);
#endif
    for (const char* name : {"arguments", "environment", "directory", "process", "handle", "done"})
        fs::remove(mFolder / name);
    return record;
}

std::vector<std::string> Probe::argumentsFor(const std::vector<std::string>& arguments) const {
#ifdef _WIN32
    std::vector<std::string> vector{mProgram.string()};
#else
    std::vector<std::string> vector{"/bin/sh", mProgram.string()};
#endif
    vector.insert(vector.end(), arguments.begin(), arguments.end());
    return vector;
}

} // namespace KymTest
