#include "base/FileManager.h"

#include "base/BaseException.h"
#include "base/Environment.h"
#include "base/Platform.h"
#include "base/SystemCalls.h"

#include <boost/algorithm/string/case_conv.hpp>
#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>
#include <boost/filesystem/operations.hpp>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <vector>

#ifdef _WIN32
#include <io.h>
#include <shlobj.h>
#include <windows.h>
#else
#include <unistd.h>
#endif

namespace Base {

namespace fs = boost::filesystem;

namespace {

std::string native(const fs::path& p) {
    return Platform::current().nativePath(p);
}

std::string reason(int error) {
    return std::strerror(error);
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

// The temporary file of an atomic write, removed unless it was renamed over the target.
class TemporaryFile {
public:
    explicit TemporaryFile(const fs::path& target) : mTarget(target) {}
    ~TemporaryFile() {
        if (mDescriptor >= 0) closeDescriptor();
        if (!mPath.empty()) std::remove(mPath.c_str());
    }
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    // Each step answers 0 or the errno of its failure.
    int create() {
        fs::path directory = mTarget.parent_path();
        std::string name = "." + mTarget.filename().string() + ".XXXXXX";
        std::string pattern = (directory.empty() ? fs::path(name) : directory / name).string();
        std::vector<char> buffer(pattern.begin(), pattern.end());
        buffer.push_back('\0');
#ifdef _WIN32
        if (_mktemp_s(buffer.data(), buffer.size()) != 0) return errno;
        mDescriptor = _open(buffer.data(), _O_CREAT | _O_EXCL | _O_WRONLY | _O_BINARY, _S_IREAD | _S_IWRITE);
#else
        mDescriptor = ::mkstemp(buffer.data());
#endif
        if (mDescriptor < 0) return errno;
        mPath = buffer.data();
        return 0;
    }

    int write(const std::string& content) {
        if (int fault = SystemCalls::writeFault(mTarget.string())) return fault;
        const char* data = content.data();
        std::size_t left = content.size();
        while (left > 0) {
#ifdef _WIN32
            int written = _write(mDescriptor, data, static_cast<unsigned>(left > 0x40000000 ? 0x40000000 : left));
#else
            ssize_t written = ::write(mDescriptor, data, left);
#endif
            if (written < 0) {
                if (errno == EINTR) continue;
                return errno;
            }
            data += written;
            left -= static_cast<std::size_t>(written);
        }
        return 0;
    }

    // A new file gets what any new file would get; a replaced one keeps its mode and, as far as allowed, its owner.
    int setMode() {
#ifdef _WIN32
        return 0;
#else
        struct stat existing;
        if (::stat(mTarget.c_str(), &existing) == 0) {
            if (::fchmod(mDescriptor, existing.st_mode & 07777) != 0) return errno;
            if (::fchown(mDescriptor, existing.st_uid, existing.st_gid) != 0) {
                // Only root may give a file away; an ordinary user keeps the file as their own.
            }
            return 0;
        }
        mode_t mask = ::umask(0);
        ::umask(mask);
        return ::fchmod(mDescriptor, 0666 & ~mask) == 0 ? 0 : errno;
#endif
    }

    int sync() {
#ifdef _WIN32
        return _commit(mDescriptor) == 0 ? 0 : errno;
#else
        while (::fsync(mDescriptor) != 0)
            if (errno != EINTR) return errno;
        return 0;
#endif
    }

    int close() { return closeDescriptor(); }

    int renameOverTarget() {
        if (int fault = SystemCalls::renameFault(mTarget.string())) return fault;
#ifdef _WIN32
        if (!MoveFileExA(mPath.c_str(), mTarget.string().c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)) {
            DWORD error = GetLastError();
            return error == ERROR_ACCESS_DENIED ? EACCES : EIO;
        }
#else
        if (::rename(mPath.c_str(), mTarget.c_str()) != 0) return errno;
        syncDirectory();
#endif
        mPath.clear();
        return 0;
    }

private:
    int closeDescriptor() {
#ifdef _WIN32
        int result = _close(mDescriptor);
#else
        int result = ::close(mDescriptor);
#endif
        mDescriptor = -1;
        return result == 0 ? 0 : errno;
    }

#ifndef _WIN32
    // Makes the rename itself durable; a failure here cannot undo the write.
    void syncDirectory() {
        fs::path directory = mTarget.parent_path();
        int descriptor = ::open(directory.empty() ? "." : directory.c_str(), O_RDONLY | O_DIRECTORY);
        if (descriptor < 0) return;
        (void)::fsync(descriptor);
        ::close(descriptor);
    }
#endif

    fs::path mTarget;
    std::string mPath;
    int mDescriptor = -1;
};

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
    return _isatty(stream) != 0;
#else
    return ::isatty(stream) == 1;
#endif
}

void FileManager::setPermissions(const path& p, unsigned permissions) {
    boost::system::error_code error;
    fs::permissions(p, static_cast<fs::perms>(permissions), error);
    if (error)
        throw BaseException("Cannot set the permissions of " + native(p) + " to " + octal(permissions) + ": " +
                            error.message());
}

FileManager::path FileManager::workDirectory() {
    boost::system::error_code error;
    path directory = fs::current_path(error);
    if (error) throw BaseException("Cannot determine the working directory: " + error.message());
    return directory;
}

void FileManager::changeWorkDirectory(const path& p) {
    boost::system::error_code error;
    fs::current_path(p, error);
    if (error) throw BaseException("Cannot change the working directory to " + native(p) + ": " + error.message());
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
    int failure = temporary.create();
    if (!failure) failure = temporary.write(content);
    if (!failure) failure = temporary.setMode();
    if (!failure) failure = temporary.sync();
    if (!failure) failure = temporary.close();
    if (!failure) failure = temporary.renameOverTarget();
    if (failure) throw BaseException("Cannot write settings file " + native(target) + ": " + reason(failure));
}

std::string FileManager::readFile(const path& file) {
    std::FILE* stream = std::fopen(file.string().c_str(), "rb");
    if (!stream) {
        int error = errno;
        throw BaseException("Cannot read file " + native(file) + ": " + reason(error));
    }
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
    if (error) throw BaseException("Cannot read file " + native(file) + ": " + reason(error));
    return content;
}

} // namespace Base
