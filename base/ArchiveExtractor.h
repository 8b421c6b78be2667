// Unpacks a compressed archive (any format and filter libarchive reads) into
// the current working directory.
#pragma once

#include <boost/filesystem/path.hpp>

namespace Base {

class ArchiveExtractor {
public:
    // Extracts every entry, relative to the working directory, restoring
    // permissions and modification times but not the owner, with no check
    // of the entry paths. Entries extracted before a failure stay. Throws
    // BaseException carrying libarchive's own message.
    static void extractAll(const boost::filesystem::path& archive);
};

} // namespace Base
