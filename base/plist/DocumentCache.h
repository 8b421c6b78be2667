// Keeps the checked table of each property list that was read, in a folder
// of the user's, so that reading an unchanged file again needs neither the
// XML parse nor its check. A kept table is used only while the file has the
// same identity (device, inode, size, modification and change times); one
// that is damaged, stale or unreadable is ignored and replaced. Off until a
// program enables it; a launcher that starts programs many times a day
// should.
#pragma once

#include "base/BaseExport.h"

#include "base/plist/Document.h"

#include <boost/filesystem/path.hpp>

#include <chrono>
#include <memory>
#include <string>

namespace Base {
namespace plist {

class BASE_EXPORT DocumentCache {
public:
    // A file changed within this time of being read is not kept: file
    // systems with coarse time stamps could not tell a later change apart.
    static constexpr std::chrono::seconds defaultSettlingTime{2};

    // Keeps tables in the folder (created when missing) from now on.
    static void enable(const boost::filesystem::path& folder,
                       std::chrono::nanoseconds settlingTime = defaultSettlingTime);
    static void disable();
    // Where the table of a file is kept.
    static boost::filesystem::path entryFor(const boost::filesystem::path& file);

    // The document of the file: the kept table when it is current, else the
    // file read, parsed and checked (and kept). Throws BaseException naming
    // sourceName when the file cannot be read or is not a property list;
    // trouble with the cache itself only costs the parse.
    static std::unique_ptr<Document> read(const boost::filesystem::path& file, const std::string& sourceName);
};

} // namespace plist
} // namespace Base
