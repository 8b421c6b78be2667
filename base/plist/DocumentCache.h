// Keeps the checked table of each property list that was read, in a private
// folder of the user's, so that reading an unchanged file again needs neither
// the XML parse nor its check. A kept table is used only while the file,
// opened as a read would open it, has the same identity, and only when this
// very build wrote it; one that is damaged, stale, foreign or a link is
// ignored and replaced. Off until a program enables it.
#pragma once

#include "base/BaseExport.h"

#include "base/plist/Document.h"

#include <boost/filesystem/path.hpp>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

namespace Base {
namespace plist {

class BASE_EXPORT DocumentCache {
public:
    // A file changed within this time of being read is not kept: file
    // systems with coarse time stamps could not tell a later change apart.
    static constexpr std::chrono::seconds defaultSettlingTime{2};

    // Keeps tables in the folder from now on. The folder and the folders
    // made above it are made private to the effective user; on POSIX a
    // folder that another user owns, that others may write, or that is a
    // link is not used at all. It is not made inside a folder that belongs
    // to another user (but root), so `sudo -E` leaves nothing behind.
    static void enable(const boost::filesystem::path& folder,
                       std::chrono::nanoseconds settlingTime = defaultSettlingTime);
    static void disable();
    // Where the table of a file is kept.
    static boost::filesystem::path entryFor(const boost::filesystem::path& file);
    // What every kept table records of the build that wrote it: the linked
    // program's or library's own build identity and this file's compile time.
    static std::uint64_t buildIdentity();

    // The document of the file: the kept table when it is current and sound,
    // else the file read, parsed and checked (and kept). Throws BaseException
    // naming sourceName when the file cannot be read or is not a property
    // list; trouble with the cache itself only costs the parse.
    static std::unique_ptr<Document> read(const boost::filesystem::path& file, const std::string& sourceName);
};

} // namespace plist
} // namespace Base
