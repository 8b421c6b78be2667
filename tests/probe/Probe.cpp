// A program that records how it was started, for tests of program starts:
// beside its own executable it writes "arguments" (its argument vector as
// the C runtime gave it), "environment" (its environment, in order),
// "directory" (its working directory), "process" (its process id) and, on
// Windows, "handle" (whether the handle named by PROBE_HANDLE is open in it),
// each item ending in a NUL byte; "done" comes last.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#ifdef _WIN32
#include <windows.h>
#else
#include <climits>
#include <unistd.h>
extern char** environ;
#endif

namespace {

std::string folder;

void record(const std::string& name, const std::vector<std::string>& items) {
    const std::string part = folder + name + ".part";
    std::FILE* file = std::fopen(part.c_str(), "wb");
    if (!file) std::exit(2);
    for (const std::string& item : items) std::fwrite(item.c_str(), 1, item.size() + 1, file);
    if (std::fclose(file) != 0) std::exit(3);
    std::remove((folder + name).c_str());
    if (std::rename(part.c_str(), (folder + name).c_str()) != 0) std::exit(4);
}

} // namespace

int main(int argc, char** argv) {
    std::vector<std::string> arguments(argv, argv + argc);
    std::vector<std::string> environment;
#ifdef _WIN32
    char self[MAX_PATH];
    const DWORD length = GetModuleFileNameA(nullptr, self, sizeof(self));
    folder.assign(self, length);
    folder.erase(folder.find_last_of("\\/") + 1);
    char* block = GetEnvironmentStringsA();
    for (const char* entry = block; entry && *entry; entry += std::string(entry).size() + 1)
        environment.emplace_back(entry);
    FreeEnvironmentStringsA(block);
    char directory[MAX_PATH];
    const DWORD directoryLength = GetCurrentDirectoryA(sizeof(directory), directory);
    if (const char* handle = std::getenv("PROBE_HANDLE")) {
        DWORD flags = 0;
        const HANDLE value = reinterpret_cast<HANDLE>(static_cast<std::uintptr_t>(std::strtoull(handle, nullptr, 10)));
        record("handle", {GetHandleInformation(value, &flags) ? "open" : "closed"});
    }
#else
    char self[PATH_MAX];
    const ssize_t length = ::readlink("/proc/self/exe", self, sizeof(self));
    folder.assign(self, length > 0 ? static_cast<std::size_t>(length) : 0);
    folder.erase(folder.find_last_of('/') + 1);
    for (char** entry = environ; entry && *entry; ++entry) environment.emplace_back(*entry);
    char directory[PATH_MAX];
    const std::size_t directoryLength = ::getcwd(directory, sizeof(directory)) ? std::string(directory).size() : 0;
#endif
    record("arguments", arguments);
    record("environment", environment);
    record("directory", {std::string(directory, directoryLength)});
#ifdef _WIN32
    record("process", {std::to_string(GetCurrentProcessId())});
#else
    record("process", {std::to_string(::getpid())});
#endif
    record("done", {});
    return 0;
}
