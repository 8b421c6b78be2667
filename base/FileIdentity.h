// What a settings file held when a store read it, so that a later save can
// tell whether another writer changed the file in between: no file, or a
// file with a hash of its whole content. Content, not time stamps: network
// file systems serve times from their caches, and coarse clocks hide quick
// edits of the same size.
#pragma once

#include "base/BaseExport.h"

#include <boost/filesystem/path.hpp>
#include <cstdint>
#include <string_view>

namespace Base {

class BASE_EXPORT FileIdentity {
public:
    // No file at all, as a store that found none knows it.
    FileIdentity() = default;
    static FileIdentity ofContent(std::string_view content);
    static FileIdentity ofHash(std::uint64_t contentHash);
    // The file as it is now: read whole; no file when it is missing. Throws
    // BaseException naming the file when it exists but cannot be read.
    static FileIdentity ofFile(const boost::filesystem::path& file);

    // The hash of a whole content, the same in every build.
    static std::uint64_t hashOf(std::string_view content);

    bool exists() const { return mExists; }
    std::uint64_t contentHash() const { return mHash; }
    bool operator==(const FileIdentity& other) const { return mExists == other.mExists && mHash == other.mHash; }
    bool operator!=(const FileIdentity& other) const { return !(*this == other); }

private:
    bool mExists = false;
    std::uint64_t mHash = 0;
};

} // namespace Base
