#include "base/plist/DocumentCache.h"

#include "base/FileIdentity.h"
#include "base/FileManager.h"
#include "base/Platform.h"
#include "base/SystemError.h"
#include "base/log/Logger.h"

#include <boost/filesystem/operations.hpp>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>
#include <stdexcept>
#include <string_view>

#ifdef _WIN32
#include <windows.h>
#else
#include <fcntl.h>
#include <link.h>
#include <sys/stat.h>
#include <unistd.h>
#endif

namespace fs = boost::filesystem;

namespace Base {
namespace plist {

namespace {

// What tells one state of a file from another. Times in nanoseconds since 1970.
struct Identity {
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    std::uint64_t size = 0;
    std::int64_t modified = 0;
    std::int64_t changed = 0;

    bool operator==(const Identity& other) const {
        return device == other.device && inode == other.inode && size == other.size && modified == other.modified &&
               changed == other.changed;
    }
};

// The head of a kept table; the source's path follows, then, from the next
// multiple of eight, the entries and the pool.
struct Head {
    char magic[8];
    std::uint64_t build;  // DocumentCache::buildIdentity() of the writer
    Identity source;
    std::uint64_t pathLength;
    std::uint64_t entryCount;
    std::uint64_t poolSize;
    std::uint64_t checksum;
    std::uint64_t sourceHash;  // of the settings file's text, which a save checks against
};

// Bump the last character when the table or the head changes shape.
const char Magic[8] = {'K', 'Y', 'M', 'P', 'L', 'S', 'T', '4'};
using Entry = Document::Entry;

std::uint64_t tableOffset(std::uint64_t pathLength) {
    return (sizeof(Head) + pathLength + 7) / 8 * 8;
}

// Catches damage, not tampering: nobody but the user can write the folder.
std::uint64_t checksum(const void* data, std::size_t size, std::uint64_t seed) {
    const auto* bytes = static_cast<const unsigned char*>(data);
    std::uint64_t hash = seed ^ 0x9E3779B97F4A7C15ULL;
    std::size_t at = 0;
    for (; at + 8 <= size; at += 8) {
        std::uint64_t word;
        std::memcpy(&word, bytes + at, sizeof word);
        hash = (hash ^ word) * 0x100000001B3ULL;
        hash ^= hash >> 29;
    }
    for (; at < size; ++at) hash = (hash ^ bytes[at]) * 0x100000001B3ULL;
    return hash;
}

std::uint64_t tableChecksum(const Entry* entries, std::size_t count, std::string_view pool) {
    return checksum(pool.data(), pool.size(), checksum(entries, count * sizeof(Entry), 0));
}

std::runtime_error failure(const std::string& what, const fs::path& file, const std::string& reason) {
    return std::runtime_error("cannot " + what + " " + Platform::current().nativePath(file) + ": " + reason);
}

// Names a writer's temporary file apart from every other writer's, threads included.
std::string temporaryName(const std::string& name, unsigned long process) {
    static std::atomic<unsigned> counter{0};
    return name + "." + std::to_string(process) + "-" + std::to_string(counter++) + ".new";
}

// ---- What differs between the hosts: open files, their identity, the folder's checks.

#ifdef _WIN32

using Handle = HANDLE;
const Handle NoHandle = INVALID_HANDLE_VALUE;

void closeHandle(Handle handle) {
    CloseHandle(handle);
}

// Bytes read, 0 at the end, -1 on an error.
long long readSome(Handle handle, char* into, std::size_t wanted) {
    DWORD count = 0;
    if (!ReadFile(handle, into, static_cast<DWORD>(std::min<std::size_t>(wanted, 0x40000000)), &count, nullptr))
        return -1;
    return count;
}

std::int64_t nanosecondsSince1970(std::int64_t ticks) {
    return (ticks - 116444736000000000LL) * 100;
}

// Shared for deletion too: a save may rename a new file over this one while it is read.
Handle openToRead(const fs::path& file, DWORD flags) {
    return CreateFileW(file.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                       OPEN_EXISTING, flags, nullptr);
}

Handle openSource(const fs::path& file) {
    return openToRead(file, FILE_ATTRIBUTE_NORMAL);
}

// Volume, file index, size and times of the open file, so that it is the
// state of the file that is read. The change time tells a rewrite in place
// that kept the size and had its write time put back.
bool identify(Handle handle, Identity& identity) {
    BY_HANDLE_FILE_INFORMATION information{};
    FILE_BASIC_INFO times{};
    if (!GetFileInformationByHandle(handle, &information) ||
        (information.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0 ||
        !GetFileInformationByHandleEx(handle, FileBasicInfo, &times, sizeof times))
        return false;
    identity.device = information.dwVolumeSerialNumber;
    identity.inode = (static_cast<std::uint64_t>(information.nFileIndexHigh) << 32) | information.nFileIndexLow;
    identity.size = (static_cast<std::uint64_t>(information.nFileSizeHigh) << 32) | information.nFileSizeLow;
    identity.modified = nanosecondsSince1970(times.LastWriteTime.QuadPart);
    identity.changed = nanosecondsSince1970(times.ChangeTime.QuadPart);
    return true;
}

#else

using Handle = int;
const Handle NoHandle = -1;

void closeHandle(Handle handle) {
    ::close(handle);
}

long long readSome(Handle descriptor, char* into, std::size_t wanted) {
    for (;;) {
        const ssize_t count = ::read(descriptor, into, wanted);
        if (count >= 0 || errno != EINTR) return count;
    }
}

Handle openSource(const fs::path& file) {
    return ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
}

// From the descriptor, not the path: on a network file system the open has
// revalidated the attributes, as a read of the file relies on.
bool identify(Handle descriptor, Identity& identity) {
    struct stat status {};
    if (::fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode)) return false;
    identity.device = static_cast<std::uint64_t>(status.st_dev);
    identity.inode = static_cast<std::uint64_t>(status.st_ino);
    identity.size = static_cast<std::uint64_t>(status.st_size);
    identity.modified = static_cast<std::int64_t>(status.st_mtim.tv_sec) * 1000000000LL + status.st_mtim.tv_nsec;
    identity.changed = static_cast<std::int64_t>(status.st_ctim.tv_sec) * 1000000000LL + status.st_ctim.tv_nsec;
    return true;
}

#endif

// The content of an open file, read to its end; false on a read error.
bool readAll(Handle handle, std::uint64_t size, std::string& content) {
    // One byte over, to meet the end in the same read.
    content.assign(static_cast<std::size_t>(size) + 1, '\0');
    std::size_t filled = 0;
    for (;;) {
        if (filled == content.size()) content.resize(2 * content.size());
        const long long count = readSome(handle, &content[filled], content.size() - filled);
        if (count < 0) return false;
        if (count == 0) break;
        filled += static_cast<std::size_t>(count);
    }
    content.resize(filled);
    return true;
}

// A settings file opened once: its identity and its text come from the same open file.
class SourceFile {
public:
    explicit SourceFile(const fs::path& file) : mHandle(openSource(file)) {
        mIdentified = mHandle != NoHandle && identify(mHandle, mIdentity);
    }
    ~SourceFile() {
        if (mHandle != NoHandle) closeHandle(mHandle);
    }
    SourceFile(const SourceFile&) = delete;
    SourceFile& operator=(const SourceFile&) = delete;

    bool identified() const { return mIdentified; }
    const Identity& identity() const { return mIdentity; }
    bool read(std::string& text) const { return readAll(mHandle, mIdentity.size, text); }

private:
    Handle mHandle;
    Identity mIdentity;
    bool mIdentified = false;
};

// The folder the tables are kept in, found fit for them once per enable.
class Folder {
public:
    explicit Folder(const fs::path& path);
    ~Folder();
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;

    // Empty when the folder is used; else why not.
    const std::string& refusal() const { return mRefusal; }
    // The bytes of the entry when it is a regular file of the user's that
    // nobody else may write, read without following a link; null otherwise.
    std::shared_ptr<const std::string> read(const std::string& name) const;
    // Replaces the entry, never writing through a link: a new file made in the
    // folder, renamed over the entry (which replaces a link itself). Throws
    // std::runtime_error with the reason.
    void write(const std::string& name, const std::string& content) const;

private:
    fs::path mPath;
    std::string mRefusal;
#ifndef _WIN32
    int mDescriptor = -1;
#endif
};

#ifdef _WIN32

// The local application data folder is the user's alone by its access
// control list; what is checked here is that no link redirects it.
Folder::Folder(const fs::path& path) : mPath(path) {
    boost::system::error_code ignored;
    fs::create_directories(path, ignored);
    const DWORD attributes = GetFileAttributesW(path.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES)
        mRefusal = windowsErrorText(GetLastError());
    else if ((attributes & FILE_ATTRIBUTE_DIRECTORY) == 0 || (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0)
        mRefusal = "not a folder, or a link";
}

Folder::~Folder() = default;

std::shared_ptr<const std::string> Folder::read(const std::string& name) const {
    const Handle handle = openToRead(mPath / name, FILE_FLAG_OPEN_REPARSE_POINT);
    if (handle == NoHandle) return nullptr;
    BY_HANDLE_FILE_INFORMATION information{};
    auto content = std::make_shared<std::string>();
    const bool sound =
        GetFileInformationByHandle(handle, &information) &&
        (information.dwFileAttributes & (FILE_ATTRIBUTE_REPARSE_POINT | FILE_ATTRIBUTE_DIRECTORY)) == 0 &&
        readAll(handle, (static_cast<std::uint64_t>(information.nFileSizeHigh) << 32) | information.nFileSizeLow,
                *content);
    closeHandle(handle);
    return sound ? content : nullptr;
}

void Folder::write(const std::string& name, const std::string& content) const {
    const fs::path entry = mPath / name;
    const fs::path temporary = mPath / temporaryName(name, GetCurrentProcessId());
    Handle handle = NoHandle;
    for (int attempt = 0; attempt < 2 && handle == NoHandle; ++attempt) {
        handle = CreateFileW(temporary.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr);
        // Left by a writer that died, or a link: removed, never followed.
        if (handle == NoHandle && GetLastError() == ERROR_FILE_EXISTS && attempt == 0) DeleteFileW(temporary.c_str());
    }
    if (handle == NoHandle) throw failure("create", temporary, windowsErrorText(GetLastError()));
    DWORD error = 0;
    for (std::size_t written = 0; written < content.size() && !error;) {
        DWORD count = 0;
        if (!WriteFile(handle, content.data() + written,
                       static_cast<DWORD>(std::min<std::size_t>(content.size() - written, 0x40000000)), &count,
                       nullptr))
            error = GetLastError();
        written += count;
    }
    if (!CloseHandle(handle) && !error) error = GetLastError();
    if (!error && !MoveFileExW(temporary.c_str(), entry.c_str(), MOVEFILE_REPLACE_EXISTING)) error = GetLastError();
    if (error) {
        DeleteFileW(temporary.c_str());
        throw failure("write", entry, windowsErrorText(error));
    }
}

#else

// The user's own, and nobody else may write it.
bool isPrivate(const struct stat& status) {
    return status.st_uid == ::geteuid() && (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

// Makes the folder and the missing folders above it, each private, but not
// inside a folder of another user's (root's aside).
void makeFolders(const fs::path& folder) {
    struct stat status {};
    if (::lstat(folder.c_str(), &status) == 0) return;
    if (errno != ENOENT) throw failure("reach", folder, errnoText(errno));
    const fs::path parent = folder.parent_path();
    if (parent.empty() || parent == folder) throw failure("reach", folder, errnoText(ENOENT));
    makeFolders(parent);
    if (::stat(parent.c_str(), &status) != 0) throw failure("reach", parent, errnoText(errno));
    if (status.st_uid != ::geteuid() && status.st_uid != 0)
        throw failure("make a folder in", parent, "it belongs to another user");
    if (::mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) throw failure("make", folder, errnoText(errno));
}

Folder::Folder(const fs::path& path) : mPath(path) {
    try {
        makeFolders(path);
    } catch (const std::exception& problem) {
        mRefusal = problem.what();
        return;
    }
    // Entries are reached from this descriptor only, so the folder checked is the folder used.
    const int descriptor = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (descriptor < 0) {
        mRefusal = errno == ELOOP || errno == ENOTDIR ? std::string("not a folder, or a link") : errnoText(errno);
        return;
    }
    struct stat status {};
    if (::fstat(descriptor, &status) != 0 || !isPrivate(status)) {
        ::close(descriptor);
        mRefusal = "owned by another user, or others may write it";
        return;
    }
    // Earlier builds left it readable by everybody.
    if ((status.st_mode & 077) != 0) ::fchmod(descriptor, 0700);
    mDescriptor = descriptor;
}

Folder::~Folder() {
    if (mDescriptor >= 0) ::close(mDescriptor);
}

std::shared_ptr<const std::string> Folder::read(const std::string& name) const {
    // Not blocking: whatever stands under the name must not stall the launch.
    const int descriptor = ::openat(mDescriptor, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (descriptor < 0) return nullptr;
    struct stat status {};
    auto content = std::make_shared<std::string>();
    const bool sound = ::fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode) && isPrivate(status) &&
                       readAll(descriptor, static_cast<std::uint64_t>(status.st_size), *content);
    ::close(descriptor);
    return sound ? content : nullptr;
}

void Folder::write(const std::string& name, const std::string& content) const {
    const std::string temporary = temporaryName(name, static_cast<unsigned long>(::getpid()));
    int descriptor = -1;
    for (int attempt = 0; attempt < 2 && descriptor < 0; ++attempt) {
        descriptor = ::openat(mDescriptor, temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
        // Left by a writer that died, or a link: removed, never followed.
        if (descriptor < 0 && errno == EEXIST && attempt == 0) ::unlinkat(mDescriptor, temporary.c_str(), 0);
    }
    if (descriptor < 0) throw failure("create", mPath / temporary, errnoText(errno));
    int error = 0;
    for (std::size_t written = 0; written < content.size() && !error;) {
        const ssize_t count = ::write(descriptor, content.data() + written, content.size() - written);
        if (count < 0 && errno != EINTR) error = errno;
        if (count > 0) written += static_cast<std::size_t>(count);
    }
    if (::close(descriptor) != 0 && !error) error = errno;
    if (!error && ::renameat(mDescriptor, temporary.c_str(), mDescriptor, name.c_str()) != 0) error = errno;
    if (error) {
        ::unlinkat(mDescriptor, temporary.c_str(), 0);
        throw failure("write", mPath / name, errnoText(error));
    }
}

#endif

// ---- The build that writes and reads the tables.

#ifdef _WIN32

// The link time stamp, size and entry point of the module (program or DLL) that holds this code.
std::uint64_t linkedObjectIdentity() {
    HMODULE module = nullptr;
    if (!GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                            reinterpret_cast<LPCWSTR>(&linkedObjectIdentity), &module))
        return 0;
    const auto* image = reinterpret_cast<const unsigned char*>(module);
    const auto* headers =
        reinterpret_cast<const IMAGE_NT_HEADERS*>(image + reinterpret_cast<const IMAGE_DOS_HEADER*>(image)->e_lfanew);
    return (static_cast<std::uint64_t>(headers->FileHeader.TimeDateStamp) << 32) ^
           headers->OptionalHeader.SizeOfImage ^ headers->OptionalHeader.AddressOfEntryPoint;
}

#else

struct BuildIdSearch {
    std::uintptr_t address;
    std::uint64_t identity = 0;
};

// The GNU build ID note (the linker's hash of the whole linked content) of
// the loaded object whose segments hold the address.
int findBuildId(dl_phdr_info* object, std::size_t, void* data) {
    auto* search = static_cast<BuildIdSearch*>(data);
    bool holds = false;
    for (int index = 0; index < object->dlpi_phnum && !holds; ++index) {
        const ElfW(Phdr)& segment = object->dlpi_phdr[index];
        const std::uintptr_t start = object->dlpi_addr + segment.p_vaddr;
        holds = segment.p_type == PT_LOAD && search->address >= start && search->address < start + segment.p_memsz;
    }
    if (!holds) return 0;
    for (int index = 0; index < object->dlpi_phnum; ++index) {
        const ElfW(Phdr)& segment = object->dlpi_phdr[index];
        if (segment.p_type != PT_NOTE) continue;
        const std::size_t alignment = segment.p_align >= 8 ? 8 : 4;
        const auto align = [alignment](std::size_t size) { return (size + alignment - 1) / alignment * alignment; };
        const auto* at = reinterpret_cast<const char*>(object->dlpi_addr + segment.p_vaddr);
        const char* const end = at + segment.p_memsz;
        while (at + sizeof(ElfW(Nhdr)) <= end) {
            ElfW(Nhdr) note;
            std::memcpy(&note, at, sizeof note);
            const char* name = at + sizeof note;
            const char* description = name + align(note.n_namesz);
            if (description + note.n_descsz > end) break;
            if (note.n_type == NT_GNU_BUILD_ID && note.n_namesz == 4 && std::memcmp(name, "GNU", 4) == 0) {
                search->identity = FileIdentity::hashOf(std::string_view(description, note.n_descsz));
                return 1;
            }
            at = description + align(note.n_descsz);
        }
    }
    return 1;
}

std::uint64_t linkedObjectIdentity() {
    BuildIdSearch search{reinterpret_cast<std::uintptr_t>(&linkedObjectIdentity)};
    ::dl_iterate_phdr(findBuildId, &search);
    return search.identity;
}

#endif

// ---- Reading and keeping tables.

struct Settings {
    bool enabled = false;
    fs::path folderPath;
    std::chrono::nanoseconds settlingTime{DocumentCache::defaultSettlingTime};
    std::unique_ptr<Folder> folder;  // made at the first read
};

Settings& settings() {
    static Settings current;
    return current;
}

// The folder when tables may be kept in it; null otherwise.
const Folder* keptTablesFolder() {
    Settings& current = settings();
    if (!current.folder) {
        current.folder = std::make_unique<Folder>(current.folderPath);
        if (!current.folder->refusal().empty()) {
            BASE_LOG(log::verbose()) << "Keeping no settings tables in "
                                     << Platform::current().nativePath(current.folderPath) << ": "
                                     << current.folder->refusal();
        }
    }
    return current.folder->refusal().empty() ? current.folder.get() : nullptr;
}

// The kept table of the file when it is current, sound and of this build; null otherwise.
std::unique_ptr<Document> load(const Folder& folder, const std::string& name, const Identity& source,
                               const std::string& path) {
    const std::shared_ptr<const std::string> table = folder.read(name);
    if (!table || table->size() < sizeof(Head)) return nullptr;
    const std::string_view bytes(*table);
    Head head{};
    std::memcpy(&head, bytes.data(), sizeof head);
    if (std::memcmp(head.magic, Magic, sizeof Magic) != 0 || head.build != DocumentCache::buildIdentity() ||
        !(head.source == source) || head.pathLength != path.size())
        return nullptr;
    // The counts must fit the bytes before anything is taken from them.
    const std::uint64_t offset = tableOffset(head.pathLength);
    if (head.entryCount > bytes.size() / sizeof(Entry) || head.poolSize > bytes.size() ||
        bytes.size() != offset + head.entryCount * sizeof(Entry) + head.poolSize ||
        path.compare(0, path.size(), bytes.data() + sizeof head, path.size()) != 0)
        return nullptr;
    const auto* entries = reinterpret_cast<const Entry*>(bytes.data() + offset);
    const std::size_t count = static_cast<std::size_t>(head.entryCount);
    const std::string_view pool(bytes.data() + offset + count * sizeof(Entry), static_cast<std::size_t>(head.poolSize));
    if ((tableChecksum(entries, count, pool) ^ head.sourceHash) != head.checksum) return nullptr;
    std::unique_ptr<Document> document = Document::fromTable(entries, count, pool, table);
    if (document) document->setSourceHash(head.sourceHash);
    return document;
}

void store(const Folder& folder, const std::string& name, const Identity& source, const std::string& path,
           const Document& document) {
    Head head{};
    std::memcpy(head.magic, Magic, sizeof Magic);
    head.build = DocumentCache::buildIdentity();
    head.source = source;
    head.pathLength = path.size();
    head.entryCount = document.entryCount();
    head.poolSize = document.pool().size();
    head.sourceHash = document.sourceHash();
    head.checksum = tableChecksum(document.entryData(), document.entryCount(), document.pool()) ^ head.sourceHash;
    const std::size_t tableBytes = document.entryCount() * sizeof(Entry);
    std::string content;
    content.reserve(tableOffset(path.size()) + tableBytes + document.pool().size());
    content.append(reinterpret_cast<const char*>(&head), sizeof head);
    content.append(path);
    content.resize(tableOffset(path.size()), '\0');
    content.append(reinterpret_cast<const char*>(document.entryData()), tableBytes);
    content.append(document.pool());
    folder.write(name, content);
}

// Changed so recently that a coarse time stamp could still hide a further change.
bool isSettling(const Identity& source) {
    const std::int64_t now = std::chrono::duration_cast<std::chrono::nanoseconds>(
                                 std::chrono::system_clock::now().time_since_epoch())
                                 .count();
    const std::int64_t latest = std::max(source.modified, source.changed);
    return now - latest < settings().settlingTime.count();
}

// The file's path as its entry records it: absolute where it can be made so.
std::string recordedPath(const fs::path& file) {
    boost::system::error_code error;
    const fs::path absolute = fs::absolute(file, error);
    return (error ? file : absolute).string();
}

std::string entryName(const std::string& path) {
    char name[32];
    std::snprintf(name, sizeof name, "%016llx.plist-table",
                  static_cast<unsigned long long>(FileIdentity::hashOf(path)));
    return name;
}

} // namespace

std::uint64_t DocumentCache::buildIdentity() {
    // The compile time stands in where the linker left no identity.
    static const std::uint64_t identity =
        FileIdentity::hashOf(__DATE__ " " __TIME__ " " __VERSION__) ^ linkedObjectIdentity();
    return identity;
}

void DocumentCache::enable(const fs::path& folder, std::chrono::nanoseconds settlingTime) {
    boost::system::error_code error;
    const fs::path absolute = fs::absolute(folder, error);
    settings().enabled = true;
    settings().folderPath = error ? folder : absolute;
    settings().settlingTime = settlingTime;
    settings().folder.reset();
}

void DocumentCache::disable() {
    settings().enabled = false;
    settings().folder.reset();
}

fs::path DocumentCache::entryFor(const fs::path& file) {
    return settings().folderPath / entryName(recordedPath(file));
}

std::unique_ptr<Document> DocumentCache::read(const fs::path& file, const std::string& sourceName) {
    if (!settings().enabled) return std::make_unique<Document>(FileManager::readFile(file), sourceName);
    const SourceFile source(file);
    // The library's own read gives the message for a file that cannot be opened or read.
    if (!source.identified()) return std::make_unique<Document>(FileManager::readFile(file), sourceName);
    const std::string path = recordedPath(file);
    const std::string name = entryName(path);
    const Folder* folder = keptTablesFolder();
    if (folder) {
        if (std::unique_ptr<Document> kept = load(*folder, name, source.identity(), path)) {
            BASE_LOG(log::verbose()) << "Read " << sourceName << " as kept in "
                                     << Platform::current().nativePath(settings().folderPath / name);
            return kept;
        }
    }
    std::string text;
    if (!source.read(text)) return std::make_unique<Document>(FileManager::readFile(file), sourceName);
    auto document = std::make_unique<Document>(text, sourceName);
    if (!folder || isSettling(source.identity())) return document;
    try {
        store(*folder, name, source.identity(), path, *document);
    } catch (const std::exception& problem) {
        BASE_LOG(log::verbose()) << "Cannot keep the table of " << sourceName << ": " << problem.what();
    }
    return document;
}

} // namespace plist
} // namespace Base
