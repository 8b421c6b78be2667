#include "base/FileManager.h"

#include "base/BaseException.h"
#include "base/Environment.h"
#include "base/Platform.h"
#include "base/SystemCalls.h"
#include "base/SystemError.h"

#include <boost/algorithm/string/case_conv.hpp>
#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>
#include <boost/filesystem/operations.hpp>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <vector>

#ifdef _WIN32
#include <atomic>
#include <io.h>
#include <shlobj.h>
#include <windows.h>
// After windows.h, whose types it uses.
#include <aclapi.h>
#else
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#endif

namespace Base {

namespace fs = boost::filesystem;

namespace {

std::string native(const fs::path& p) {
    return Platform::current().nativePath(p);
}

// The reason of a failed file system operation; on Windows the system's own text of its error code.
std::string reasonOf(const boost::system::error_code& error) {
#ifdef _WIN32
    if (error.category() == boost::system::system_category()) return windowsErrorText(error.value());
#endif
    return error.message();
}

BaseException readFailure(const fs::path& file, const std::string& reason) {
    return BaseException("Cannot read file " + native(file) + ": " + reason);
}

std::string octal(unsigned value) {
    char text[16];
    std::snprintf(text, sizeof(text), "%o", value);
    return text;
}

#ifdef _WIN32
bool extensionInPathExt(const fs::path& p) {
    std::string list = Environment::getEnvVariable("PATHEXT");
    if (list.empty()) list = ".COM;.EXE;.BAT;.CMD";
    std::vector<std::string> extensions;
    boost::algorithm::split(extensions, list, boost::algorithm::is_any_of(";"));
    std::string extension = boost::algorithm::to_upper_copy(p.extension().string());
    if (extension.empty()) return false;
    for (const auto& candidate : extensions)
        if (boost::algorithm::to_upper_copy(candidate) == extension) return true;
    return false;
}
#endif

// Each step of an atomic write answers the empty text, or the reason it failed.
using Failure = std::string;

#ifdef _WIN32

// How long a save waits for readers that hold the target without sharing its deletion.
constexpr DWORD RenameRetryMilliseconds = 1000;
constexpr DWORD RenameRetryPause = 20;

// Errors of a target that other processes hold open, which left it as it was.
bool isHeld(DWORD error) {
    return error == ERROR_ACCESS_DENIED || error == ERROR_SHARING_VIOLATION || error == ERROR_UNABLE_TO_REMOVE_REPLACED;
}

// Closes a handle however the function that opened it ends.
struct HandleCloser {
    HANDLE handle;
    ~HandleCloser() {
        if (handle != INVALID_HANDLE_VALUE) CloseHandle(handle);
    }
};

// ERROR_SUCCESS when everyone who holds the file open lets it be deleted, else why not.
DWORD deletionSharedByEveryHolder(const std::string& file) {
    const HANDLE probe = CreateFileA(file.c_str(), DELETE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                     nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (probe == INVALID_HANDLE_VALUE) return GetLastError();
    CloseHandle(probe);
    return ERROR_SUCCESS;
}

// A name no other save of ours uses at the same time; CREATE_NEW settles the rest.
std::string uniqueSuffix() {
    static std::atomic<unsigned> counter{0};
    char text[32];
    std::snprintf(text, sizeof(text), "%lx%lx%x", static_cast<unsigned long>(GetCurrentProcessId()),
                  static_cast<unsigned long>(GetTickCount() & 0xFFFF), counter++);
    return text;
}

// The temporary file of an atomic write, removed unless it was renamed over the target.
class TemporaryFile {
public:
    explicit TemporaryFile(const fs::path& target) : mTarget(target) {}
    ~TemporaryFile() {
        if (mHandle != INVALID_HANDLE_VALUE) CloseHandle(mHandle);
        if (!mPath.empty()) DeleteFileA(mPath.c_str());
    }
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    Failure create() {
        const fs::path directory = mTarget.parent_path();
        DWORD error = ERROR_FILE_EXISTS;
        for (int attempt = 0; attempt < 100 && error == ERROR_FILE_EXISTS; ++attempt) {
            const std::string name = "." + mTarget.filename().string() + "." + uniqueSuffix();
            const std::string candidate = (directory.empty() ? fs::path(name) : directory / name).string();
            mHandle = CreateFileA(candidate.c_str(), GENERIC_WRITE | WRITE_DAC, 0, nullptr, CREATE_NEW, FILE_ATTRIBUTE_NORMAL,
                                  nullptr);
            if (mHandle != INVALID_HANDLE_VALUE) {
                mPath = candidate;
                return Failure();
            }
            error = GetLastError();
        }
        return windowsErrorText(error);
    }

    Failure write(const std::string& content) {
        if (int fault = SystemCalls::writeFault(mTarget.string())) return errnoText(fault);
        const char* data = content.data();
        std::size_t left = content.size();
        while (left > 0) {
            DWORD written = 0;
            const DWORD chunk = static_cast<DWORD>(left > 0x40000000 ? 0x40000000 : left);
            if (!WriteFile(mHandle, data, chunk, &written, nullptr)) return windowsErrorText(GetLastError());
            data += written;
            left -= written;
        }
        return Failure();
    }

    // The new file keeps what an administrator set on the file it replaces:
    // its access control list and its hidden, system and archive attributes.
    // A new settings file gets what any new file in its folder gets.
    Failure setMode() {
        const DWORD attributes = GetFileAttributesA(mTarget.string().c_str());
        if (attributes == INVALID_FILE_ATTRIBUTES) return Failure();
        PACL list = nullptr;
        PSECURITY_DESCRIPTOR descriptor = nullptr;
        DWORD error = GetNamedSecurityInfoA(mTarget.string().c_str(), SE_FILE_OBJECT, DACL_SECURITY_INFORMATION, nullptr,
                                            nullptr, &list, nullptr, &descriptor);
        if (error == ERROR_SUCCESS) {
            // A file system without access lists (FAT) answers with none.
            if (list) {
                SECURITY_DESCRIPTOR_CONTROL control = 0;
                DWORD revision = 0;
                GetSecurityDescriptorControl(descriptor, &control, &revision);
                // Entries inherited from the folder stay inherited; a list cut off from it stays cut off.
                const SECURITY_INFORMATION which =
                    DACL_SECURITY_INFORMATION | ((control & SE_DACL_PROTECTED) ? PROTECTED_DACL_SECURITY_INFORMATION
                                                                               : UNPROTECTED_DACL_SECURITY_INFORMATION);
                error = SetSecurityInfo(mHandle, SE_FILE_OBJECT, which, nullptr, nullptr, list, nullptr);
            }
            LocalFree(descriptor);
        }
        // Where the file system keeps no access lists there is none to keep.
        if (error == ERROR_NOT_SUPPORTED || error == ERROR_INVALID_FUNCTION) error = ERROR_SUCCESS;
        if (error != ERROR_SUCCESS) return windowsErrorText(error);
        FILE_BASIC_INFO basic{};
        basic.FileAttributes = attributes & (FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM | FILE_ATTRIBUTE_ARCHIVE |
                                             FILE_ATTRIBUTE_NOT_CONTENT_INDEXED);
        if (basic.FileAttributes == 0) basic.FileAttributes = FILE_ATTRIBUTE_NORMAL;
        return SetFileInformationByHandle(mHandle, FileBasicInfo, &basic, sizeof(basic))
                   ? Failure()
                   : windowsErrorText(GetLastError());
    }

    Failure sync() { return FlushFileBuffers(mHandle) ? Failure() : windowsErrorText(GetLastError()); }

    Failure close() {
        const BOOL closed = CloseHandle(mHandle);
        mHandle = INVALID_HANDLE_VALUE;
        return closed ? Failure() : windowsErrorText(GetLastError());
    }

    // The new file takes the name in one step wherever the system can: a
    // reader always finds the old content or the new, and one that holds the
    // old file keeps reading it. Otherwise (older systems, Wine) the file is
    // renamed over the target once no reader holds it, tried again for a
    // short while; a target held all along by readers that share its
    // deletion is replaced with ReplaceFile, which moves the old file aside
    // first (a reader that opens the name at that instant finds no file).
    Failure renameOverTarget() {
        if (int fault = SystemCalls::renameFault(mTarget.string())) return errnoText(fault);
        if (renameOverHolders()) {
            mPath.clear();
            return Failure();
        }
        const std::string target = mTarget.string();
        const DWORD start = GetTickCount();
        while (!MoveFileExA(mPath.c_str(), target.c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)) {
            DWORD error = GetLastError();
            if (!isHeld(error)) return windowsErrorText(error);
            if (GetTickCount() - start < RenameRetryMilliseconds) {
                Sleep(RenameRetryPause);
                continue;
            }
            // Asked first, as Wine's ReplaceFile leaves a file behind each time such a reader stops it.
            if ((error = deletionSharedByEveryHolder(target)) != ERROR_SUCCESS) return windowsErrorText(error);
            if (ReplaceFileA(target.c_str(), mPath.c_str(), nullptr, REPLACEFILE_IGNORE_MERGE_ERRORS, nullptr, nullptr))
                break;
            error = GetLastError();
            if (error != ERROR_UNABLE_TO_MOVE_REPLACEMENT && error != ERROR_UNABLE_TO_MOVE_REPLACEMENT_2)
                return windowsErrorText(error);
            // The old file has left its name and the new one did not take it: the name never stays empty.
            if (MoveFileExA(mPath.c_str(), target.c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)) break;
            const std::string kept = Platform::current().nativePath(mPath);
            mPath.clear();
            return windowsErrorText(GetLastError()) + "; the new content is kept in " + kept;
        }
        mPath.clear();
        return Failure();
    }

private:
    // The rename of Windows 10 and later on NTFS that replaces a file others hold open; false where it is not offered.
    bool renameOverHolders() const {
        const HANDLE handle = CreateFileA(mPath.c_str(), DELETE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                          nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
        if (handle == INVALID_HANDLE_VALUE) return false;
        const HandleCloser closer{handle};
        // A full path: a bare name would be taken as relative to the working directory.
        const std::wstring target = fs::absolute(mTarget).make_preferred().wstring();
        std::vector<char> buffer(sizeof(FILE_RENAME_INFO) + target.size() * sizeof(wchar_t), '\0');
        FILE_RENAME_INFO& rename = *reinterpret_cast<FILE_RENAME_INFO*>(buffer.data());
        rename.Flags = FILE_RENAME_FLAG_REPLACE_IF_EXISTS | FILE_RENAME_FLAG_POSIX_SEMANTICS;
        rename.FileNameLength = static_cast<DWORD>(target.size() * sizeof(wchar_t));
        std::copy(target.begin(), target.end(), rename.FileName);
        // FileRenameInfoEx, which the headers name only for newer targets than ours.
        const auto renameInfoEx = static_cast<FILE_INFO_BY_HANDLE_CLASS>(22);
        return SetFileInformationByHandle(handle, renameInfoEx, &rename, static_cast<DWORD>(buffer.size()));
    }

    fs::path mTarget;
    std::string mPath;
    HANDLE mHandle = INVALID_HANDLE_VALUE;
};

#else

// The temporary file of an atomic write, removed unless it was renamed over the target.
class TemporaryFile {
public:
    explicit TemporaryFile(const fs::path& target) : mTarget(target) {}
    ~TemporaryFile() {
        if (mDescriptor >= 0) ::close(mDescriptor);
        if (!mPath.empty()) std::remove(mPath.c_str());
    }
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    Failure create() {
        fs::path directory = mTarget.parent_path();
        std::string name = "." + mTarget.filename().string() + ".XXXXXX";
        std::string pattern = (directory.empty() ? fs::path(name) : directory / name).string();
        std::vector<char> buffer(pattern.begin(), pattern.end());
        buffer.push_back('\0');
        mDescriptor = ::mkstemp(buffer.data());
        if (mDescriptor < 0) return errnoText(errno);
        mPath = buffer.data();
        return Failure();
    }

    Failure write(const std::string& content) {
        if (int fault = SystemCalls::writeFault(mTarget.string())) return errnoText(fault);
        const char* data = content.data();
        std::size_t left = content.size();
        while (left > 0) {
            ssize_t written = ::write(mDescriptor, data, left);
            if (written < 0) {
                if (errno == EINTR) continue;
                return errnoText(errno);
            }
            data += written;
            left -= static_cast<std::size_t>(written);
        }
        return Failure();
    }

    // A new file gets what any new file would get; a replaced one keeps its mode and, as far as allowed, its owner.
    Failure setMode() {
        struct stat existing;
        if (::stat(mTarget.c_str(), &existing) == 0) {
            if (::fchmod(mDescriptor, existing.st_mode & 07777) != 0) return errnoText(errno);
            if (::fchown(mDescriptor, existing.st_uid, existing.st_gid) != 0) {
                // Only root may give a file away; an ordinary user keeps the file as their own.
            }
            return Failure();
        }
        mode_t mask = ::umask(0);
        ::umask(mask);
        return ::fchmod(mDescriptor, 0666 & ~mask) == 0 ? Failure() : errnoText(errno);
    }

    Failure sync() {
        while (::fsync(mDescriptor) != 0)
            if (errno != EINTR) return errnoText(errno);
        return Failure();
    }

    Failure close() {
        const int result = ::close(mDescriptor);
        mDescriptor = -1;
        return result == 0 ? Failure() : errnoText(errno);
    }

    Failure renameOverTarget() {
        if (int fault = SystemCalls::renameFault(mTarget.string())) return errnoText(fault);
        if (::rename(mPath.c_str(), mTarget.c_str()) != 0) return errnoText(errno);
        syncDirectory();
        mPath.clear();
        return Failure();
    }

private:
    // Makes the rename itself durable; a failure here cannot undo the write.
    void syncDirectory() {
        fs::path directory = mTarget.parent_path();
        int descriptor = ::open(directory.empty() ? "." : directory.c_str(), O_RDONLY | O_DIRECTORY);
        if (descriptor < 0) return;
        (void)::fsync(descriptor);
        ::close(descriptor);
    }

    fs::path mTarget;
    std::string mPath;
    int mDescriptor = -1;
};

#endif

} // namespace

bool FileManager::exists(const path& p) {
    boost::system::error_code error;
    return fs::exists(p, error);
}

bool FileManager::isReadable(const path& p) {
#ifdef _WIN32
    return _access(p.string().c_str(), 4) == 0;
#else
    return ::access(p.c_str(), R_OK) == 0;
#endif
}

bool FileManager::isExecutable(const path& p) {
#ifdef _WIN32
    boost::system::error_code error;
    if (fs::is_directory(p, error)) {
        fs::directory_iterator listing(p, error);
        return !error;
    }
    return fs::is_regular_file(p, error) && extensionInPathExt(p);
#else
    return ::access(p.c_str(), X_OK) == 0;
#endif
}

bool FileManager::isOwnedByCurrentUser(const path& p) {
#ifdef _WIN32
    (void)p;
    return true;
#else
    struct stat status {};
    return ::lstat(p.c_str(), &status) == 0 && status.st_uid == ::geteuid();
#endif
}

bool FileManager::isTerminal(int stream) {
#ifdef _WIN32
    // A console, not any character device: NUL is one too.
    const DWORD which = stream == 0 ? STD_INPUT_HANDLE : stream == 1 ? STD_OUTPUT_HANDLE : STD_ERROR_HANDLE;
    DWORD mode = 0;
    return GetConsoleMode(GetStdHandle(which), &mode) != 0;
#else
    return ::isatty(stream) == 1;
#endif
}

void FileManager::setPermissions(const path& p, unsigned permissions) {
    boost::system::error_code error;
    fs::permissions(p, static_cast<fs::perms>(permissions), error);
    if (error)
        throw BaseException("Cannot set the permissions of " + native(p) + " to " + octal(permissions) + ": " +
                            reasonOf(error));
}

FileManager::path FileManager::workDirectory() {
    boost::system::error_code error;
    path directory = fs::current_path(error);
    if (error) throw BaseException("Cannot determine the working directory: " + reasonOf(error));
    return directory;
}

void FileManager::changeWorkDirectory(const path& p) {
    boost::system::error_code error;
    fs::current_path(p, error);
    if (error) throw BaseException("Cannot change the working directory to " + native(p) + ": " + reasonOf(error));
}

namespace {

#ifdef _WIN32
// The shell's folder of that kind, created when missing.
FileManager::path shellFolder(int kind) {
    char folder[MAX_PATH] = {};
    if (SHGetFolderPathA(nullptr, kind | CSIDL_FLAG_CREATE, nullptr, 0, folder) != S_OK) return FileManager::path();
    return FileManager::path(folder);
}
#else
// The folder the XDG variable names, else that folder of $HOME.
FileManager::path xdgFolder(const char* variable, const char* inHome) {
    const std::string named = Environment::getEnvVariable(variable);
    if (!named.empty()) return FileManager::path(named);
    const std::string home = Environment::getEnvVariable("HOME");
    return home.empty() ? FileManager::path() : FileManager::path(home) / inHome;
}
#endif

} // namespace

FileManager::path FileManager::applicationDataFolder() {
#ifdef _WIN32
    return shellFolder(CSIDL_APPDATA);
#else
    return xdgFolder("XDG_CONFIG_HOME", ".config");
#endif
}

FileManager::path FileManager::userCacheFolder() {
#ifdef _WIN32
    return shellFolder(CSIDL_LOCAL_APPDATA);
#else
    return xdgFolder("XDG_CACHE_HOME", ".cache");
#endif
}

std::string FileManager::shortPathName(const std::string& longPath) {
#ifdef _WIN32
    char buffer[1024] = {};
    DWORD length = GetShortPathNameA(longPath.c_str(), buffer, sizeof(buffer));
    if (length == 0 || length >= sizeof(buffer)) return std::string(buffer);
    return std::string(buffer, length);
#else
    return longPath;
#endif
}

void FileManager::writeFileAtomically(const path& target, const std::string& content) {
    // A link is followed, so the file it names is replaced and the link stays.
    boost::system::error_code error;
    path file = target;
    if (fs::is_symlink(target, error)) {
        path resolved = fs::canonical(target, error);
        if (!error) file = resolved;
    }

    TemporaryFile temporary(file);
    Failure failure = temporary.create();
    if (failure.empty()) failure = temporary.write(content);
    if (failure.empty()) failure = temporary.setMode();
    if (failure.empty()) failure = temporary.sync();
    if (failure.empty()) failure = temporary.close();
    if (failure.empty()) failure = temporary.renameOverTarget();
    if (!failure.empty()) throw BaseException("Cannot write settings file " + native(target) + ": " + failure);
}

#ifdef _WIN32

std::string FileManager::readFile(const path& file) {
    // Shared for deletion too: a save may rename a new file over this one while it is read.
    const HANDLE handle = CreateFileA(file.string().c_str(), GENERIC_READ,
                                      FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                                      FILE_ATTRIBUTE_NORMAL, nullptr);
    if (handle == INVALID_HANDLE_VALUE) throw readFailure(file, windowsErrorText(GetLastError()));
    const HandleCloser closer{handle};
    // Sized from the file (one byte over, to meet the end in the same read).
    LARGE_INTEGER size{};
    std::string content(GetFileSizeEx(handle, &size) ? static_cast<std::size_t>(size.QuadPart) + 1 : 65536, '\0');
    std::size_t filled = 0;
    DWORD error = 0;
    for (;;) {
        if (filled == content.size()) content.resize(2 * content.size());
        const std::size_t wanted = content.size() - filled;
        DWORD count = 0;
        if (!ReadFile(handle, &content[filled], static_cast<DWORD>(wanted > 0x40000000 ? 0x40000000 : wanted), &count,
                      nullptr)) {
            error = GetLastError();
            break;
        }
        if (count == 0) break;
        filled += count;
    }
    if (error) throw readFailure(file, windowsErrorText(error));
    content.resize(filled);
    return content;
}

#else

std::string FileManager::readFile(const path& file) {
    std::FILE* stream = std::fopen(file.c_str(), "rb");
    if (!stream) throw readFailure(file, errnoText(errno));
    // Sized from a regular file (one byte over, to meet the end in the same
    // read): large settings files are read once, without regrowing the string.
    boost::system::error_code noSize;
    const std::uintmax_t size = fs::file_size(file, noSize);
    std::string content(noSize ? 65536 : static_cast<std::size_t>(size) + 1, '\0');
    std::size_t filled = 0;
    for (;;) {
        if (filled == content.size()) content.resize(2 * content.size());
        const std::size_t wanted = content.size() - filled;
        const std::size_t count = std::fread(&content[filled], 1, wanted, stream);
        filled += count;
        if (count < wanted) break;
    }
    content.resize(filled);
    int error = std::ferror(stream) ? errno : 0;
    std::fclose(stream);
    if (error) throw readFailure(file, errnoText(error));
    return content;
}

#endif

bool FileManager::isPlainName(const std::string& name) {
    const bool blank = std::any_of(name.begin(), name.end(), [](unsigned char c) { return std::isspace(c); });
    return !name.empty() && name != "." && name != ".." && !blank && name.find_first_of("/\\") == std::string::npos;
}

void FileManager::moveDirectory(const path& from, const path& to) {
    int error = SystemCalls::renameFault(to.string());
#ifdef _WIN32
    if (!error && !MoveFileExW(from.c_str(), to.c_str(), 0)) {
        const DWORD code = GetLastError();
        throw BaseException("Cannot rename directory " + from.string() + " to " + to.string() + ": " +
                            windowsErrorText(code));
    }
#else
    if (!error && ::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) != 0) {
        error = errno;
        // File systems that cannot promise it: checked just before instead.
        if (error == EINVAL || error == ENOSYS) {
            boost::system::error_code ignored;
            error = fs::exists(to, ignored) ? EEXIST : ::rename(from.c_str(), to.c_str()) == 0 ? 0 : errno;
        }
    }
#endif
    if (error)
        throw BaseException("Cannot rename directory " + from.string() + " to " + to.string() + ": " +
                            errnoText(error));
}

} // namespace Base
