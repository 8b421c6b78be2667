// Unpacks a compressed archive (any format and filter libarchive reads) into
// the current working directory. libarchive is loaded at the first extraction,
// not when the program starts.
#pragma once

#include "base/BaseExport.h"

#include <boost/filesystem/path.hpp>

namespace Base {

class BASE_EXPORT ArchiveExtractor {
public:
    // Extracts every entry, relative to the working directory, restoring
    // permissions and modification times but not the owner, with no check
    // of the entry paths. Entries extracted before a failure stay. Throws
    // BaseException carrying libarchive's own message, or naming libarchive
    // and the loader's reason when it cannot be loaded.
    static void extractAll(const boost::filesystem::path& archive);
};

} // namespace Base
