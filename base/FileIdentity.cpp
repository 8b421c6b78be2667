#include "base/FileIdentity.h"

#include "base/FileManager.h"

#include <boost/filesystem/operations.hpp>
#include <cstring>

namespace Base {

std::uint64_t FileIdentity::hashOf(std::string_view content) {
    // Eight bytes a step: settings files of a large site are read at every launch.
    std::uint64_t hash = 0xCBF29CE484222325ULL ^ content.size();
    std::size_t at = 0;
    for (; at + 8 <= content.size(); at += 8) {
        std::uint64_t word;
        std::memcpy(&word, content.data() + at, sizeof word);
        hash = (hash ^ word) * 0x100000001B3ULL;
        hash ^= hash >> 29;
    }
    for (; at < content.size(); ++at) hash = (hash ^ static_cast<unsigned char>(content[at])) * 0x100000001B3ULL;
    return hash ^ (hash >> 32);
}

FileIdentity FileIdentity::ofContent(std::string_view content) {
    return ofHash(hashOf(content));
}

FileIdentity FileIdentity::ofHash(std::uint64_t contentHash) {
    FileIdentity identity;
    identity.mExists = true;
    identity.mHash = contentHash;
    return identity;
}

FileIdentity FileIdentity::ofFile(const boost::filesystem::path& file) {
    boost::system::error_code error;
    const boost::filesystem::file_status status = boost::filesystem::symlink_status(file, error);
    if (status.type() == boost::filesystem::file_not_found) return FileIdentity();
    return ofContent(FileManager::readFile(file));
}

} // namespace Base
