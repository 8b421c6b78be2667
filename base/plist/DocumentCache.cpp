#include "base/plist/DocumentCache.h"

#include "base/FileManager.h"
#include "base/Platform.h"
#include "base/log/Logger.h"

#include <boost/filesystem/operations.hpp>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <functional>
#include <memory>
#include <vector>

#ifndef _WIN32
#include <sys/stat.h>
#endif

namespace fs = boost::filesystem;

namespace Base {
namespace plist {

namespace {

// What tells one state of a file from another. Times in nanoseconds.
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

#ifdef _WIN32
// Windows has no change time or inode here: the write time and the size
// decide, which the settling time makes safe for edits in place.
bool identify(const fs::path& file, Identity& identity) {
    boost::system::error_code error;
    const std::uintmax_t size = fs::file_size(file, error);
    if (error) return false;
    const std::time_t modified = fs::last_write_time(file, error);
    if (error) return false;
    identity.size = size;
    identity.modified = static_cast<std::int64_t>(modified) * 1000000000LL;
    identity.changed = identity.modified;
    return true;
}
#else
bool identify(const fs::path& file, Identity& identity) {
    struct stat status {};
    if (::stat(file.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return false;
    identity.device = static_cast<std::uint64_t>(status.st_dev);
    identity.inode = static_cast<std::uint64_t>(status.st_ino);
    identity.size = static_cast<std::uint64_t>(status.st_size);
    identity.modified = static_cast<std::int64_t>(status.st_mtim.tv_sec) * 1000000000LL + status.st_mtim.tv_nsec;
    identity.changed = static_cast<std::int64_t>(status.st_ctim.tv_sec) * 1000000000LL + status.st_ctim.tv_nsec;
    return true;
}
#endif

// The head of a kept table; the source's path, the entries and the pool follow.
struct Head {
    char magic[8];
    Identity source;
    std::uint64_t pathLength;
    std::uint64_t entryCount;
    std::uint64_t poolSize;
    std::uint64_t checksum;
};

// Bump the last character when the table or the head changes shape.
const char Magic[8] = {'K', 'Y', 'M', 'P', 'L', 'S', 'T', '1'};
using Entry = Document::Entry;

// Catches damage, not tampering: the folder is the user's own.
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

std::uint64_t tableChecksum(const std::vector<Entry>& entries, const std::string& pool) {
    return checksum(pool.data(), pool.size(), checksum(entries.data(), entries.size() * sizeof(Entry), 0));
}

struct Settings {
    bool enabled = false;
    fs::path folder;
    std::chrono::nanoseconds settlingTime{DocumentCache::defaultSettlingTime};
};

Settings& settings() {
    static Settings current;
    return current;
}

struct FileCloser {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

bool readExactly(std::FILE* file, void* data, std::size_t size) {
    return size == 0 || std::fread(data, 1, size, file) == size;
}

// The kept table of the file when it is current and sound; null otherwise.
std::unique_ptr<Document> load(const fs::path& entry, const Identity& source, const std::string& path) {
    File file(std::fopen(entry.string().c_str(), "rb"));
    if (!file) return nullptr;
    Head head{};
    if (!readExactly(file.get(), &head, sizeof head) || std::memcmp(head.magic, Magic, sizeof Magic) != 0 ||
        !(head.source == source) || head.pathLength != path.size())
        return nullptr;
    // The counts must fit the file before anything is allocated for them.
    boost::system::error_code error;
    const std::uintmax_t size = fs::file_size(entry, error);
    if (error || head.entryCount > size / sizeof(Entry) || head.poolSize > size ||
        size != sizeof head + head.pathLength + head.entryCount * sizeof(Entry) + head.poolSize)
        return nullptr;
    std::string keptPath(path.size(), '\0');
    if (!readExactly(file.get(), keptPath.data(), keptPath.size()) || keptPath != path) return nullptr;
    std::vector<Entry> entries(static_cast<std::size_t>(head.entryCount));
    std::string pool(static_cast<std::size_t>(head.poolSize), '\0');
    if (!readExactly(file.get(), entries.data(), entries.size() * sizeof(Entry)) ||
        !readExactly(file.get(), pool.data(), pool.size()) || tableChecksum(entries, pool) != head.checksum)
        return nullptr;
    return Document::fromTable(std::move(entries), std::move(pool));
}

void store(const fs::path& entry, const Identity& source, const std::string& path, const Document& document) {
    Head head{};
    std::memcpy(head.magic, Magic, sizeof Magic);
    head.source = source;
    head.pathLength = path.size();
    head.entryCount = document.entries().size();
    head.poolSize = document.pool().size();
    head.checksum = tableChecksum(document.entries(), document.pool());
    std::string content;
    content.reserve(sizeof head + path.size() + document.entries().size() * sizeof(Entry) + document.pool().size());
    content.append(reinterpret_cast<const char*>(&head), sizeof head);
    content.append(path);
    content.append(reinterpret_cast<const char*>(document.entries().data()), document.entries().size() * sizeof(Entry));
    content.append(document.pool());
    fs::create_directories(entry.parent_path());
    FileManager::writeFileAtomically(entry, content);
}

// Changed so recently that a coarse time stamp could still hide a further change.
bool isSettling(const Identity& source) {
    const std::int64_t now = std::chrono::duration_cast<std::chrono::nanoseconds>(
                                 std::chrono::system_clock::now().time_since_epoch())
                                 .count();
    const std::int64_t latest = std::max(source.modified, source.changed);
    return now - latest < settings().settlingTime.count();
}

} // namespace

void DocumentCache::enable(const fs::path& folder, std::chrono::nanoseconds settlingTime) {
    settings().enabled = true;
    settings().folder = folder;
    settings().settlingTime = settlingTime;
}

void DocumentCache::disable() {
    settings().enabled = false;
}

bool DocumentCache::isEnabled() {
    return settings().enabled;
}

fs::path DocumentCache::entryFor(const fs::path& file) {
    boost::system::error_code error;
    const fs::path absolute = fs::absolute(file, error);
    char name[32];
    std::snprintf(name, sizeof name, "%016llx.plist-table",
                  static_cast<unsigned long long>(std::hash<std::string>()((error ? file : absolute).string())));
    return settings().folder / name;
}

std::unique_ptr<Document> DocumentCache::read(const fs::path& file, const std::string& sourceName) {
    Identity source;
    if (!settings().enabled || !identify(file, source))
        return std::make_unique<Document>(FileManager::readFile(file), sourceName);

    const fs::path entry = entryFor(file);
    boost::system::error_code error;
    const std::string path = fs::absolute(file, error).string();
    if (std::unique_ptr<Document> kept = load(entry, source, path)) {
        BASE_LOG(log::verbose()) << "Read " << sourceName << " as kept in " << Platform::current().nativePath(entry);
        return kept;
    }
    auto document = std::make_unique<Document>(FileManager::readFile(file), sourceName);
    if (isSettling(source)) return document;
    try {
        store(entry, source, path, *document);
    } catch (const std::exception& failure) {
        BASE_LOG(log::verbose()) << "Cannot keep the table of " << sourceName << ": " << failure.what();
    }
    return document;
}

} // namespace plist
} // namespace Base
