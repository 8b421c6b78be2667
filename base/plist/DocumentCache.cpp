#include "base/plist/DocumentCache.h"

#include "base/FileManager.h"
#include "base/Platform.h"
#include "base/log/Logger.h"

#include <boost/filesystem/operations.hpp>

#include <algorithm>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <functional>
#include <memory>
#include <string_view>

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

// The head of a kept table; the source's path follows, then, from the next
// multiple of eight, the entries and the pool.
struct Head {
    char magic[8];
    Identity source;
    std::uint64_t pathLength;
    std::uint64_t entryCount;
    std::uint64_t poolSize;
    std::uint64_t checksum;
    std::uint64_t sourceHash;  // of the settings file's text, which a save checks against
};

// Bump the last character when the table or the head changes shape.
const char Magic[8] = {'K', 'Y', 'M', 'P', 'L', 'S', 'T', '3'};
using Entry = Document::Entry;

std::uint64_t tableOffset(std::uint64_t pathLength) {
    return (sizeof(Head) + pathLength + 7) / 8 * 8;
}

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

std::uint64_t tableChecksum(const Entry* entries, std::size_t count, std::string_view pool) {
    return checksum(pool.data(), pool.size(), checksum(entries, count * sizeof(Entry), 0));
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

// The bytes of a kept table; null when it cannot be read. A copy, not a
// mapping: cheaper here, and it cannot fault when the file is truncated.
std::shared_ptr<const std::string> readTable(const fs::path& file) {
    try {
        return std::make_shared<const std::string>(FileManager::readFile(file));
    } catch (const std::exception&) {
        return nullptr;
    }
}

// The kept table of the file when it is current and sound; null otherwise.
std::unique_ptr<Document> load(const fs::path& entry, const Identity& source, const std::string& path) {
    const std::shared_ptr<const std::string> table = readTable(entry);
    if (!table || table->size() < sizeof(Head)) return nullptr;
    const std::string_view bytes(*table);
    Head head{};
    std::memcpy(&head, bytes.data(), sizeof head);
    if (std::memcmp(head.magic, Magic, sizeof Magic) != 0 || !(head.source == source) || head.pathLength != path.size())
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

void store(const fs::path& entry, const Identity& source, const std::string& path, const Document& document) {
    Head head{};
    std::memcpy(head.magic, Magic, sizeof Magic);
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

namespace {

// The file's path as its entry records it: absolute where it can be made so.
std::string recordedPath(const fs::path& file) {
    boost::system::error_code error;
    const fs::path absolute = fs::absolute(file, error);
    return (error ? file : absolute).string();
}

fs::path entryNamed(const std::string& path) {
    char name[32];
    std::snprintf(name, sizeof name, "%016llx.plist-table",
                  static_cast<unsigned long long>(std::hash<std::string>()(path)));
    return settings().folder / name;
}

} // namespace

fs::path DocumentCache::entryFor(const fs::path& file) {
    return entryNamed(recordedPath(file));
}

std::unique_ptr<Document> DocumentCache::read(const fs::path& file, const std::string& sourceName) {
    Identity source;
    if (!settings().enabled || !identify(file, source))
        return std::make_unique<Document>(FileManager::readFile(file), sourceName);

    const std::string path = recordedPath(file);
    const fs::path entry = entryNamed(path);
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
