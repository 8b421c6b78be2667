// An exclusive lock on a settings file that several processes, on several
// machines, write: a lock file created exclusively beside it ("NAME.lock"),
// which works on the shared folders sites use, where byte-range locks do
// not. It holds who took it. A second taker waits a short, bounded time and
// then fails, naming the file and the holder; a lock whose holder has ended
// (on this machine: its process is gone; elsewhere: it is older than any hold
// lasts) is taken over. Within one process a lock is shared: locking a file
// that the process already holds costs nothing and releases nothing early.
#pragma once

#include "base/BaseExport.h"

#include <boost/filesystem/path.hpp>
#include <chrono>
#include <string>

namespace Base {

class BASE_EXPORT FileLock {
public:
    // Waits for the lock of the file, up to the wait limit; throws
    // BaseException naming the file and the holder when it cannot have it.
    // A file whose folder does not exist yet takes no lock: there is nothing
    // to guard until the folder is made, and its writer locks it then.
    explicit FileLock(const boost::filesystem::path& file);
    ~FileLock();
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;

    // Throws BaseException naming the file when another process took the
    // lock over meanwhile (as left behind); else marks the lock as fresh.
    // Call it right before writing.
    void confirm(const boost::filesystem::path& file) const;

    // The lock file of a settings file.
    static boost::filesystem::path lockFileOf(const boost::filesystem::path& file);

    // How long a taker waits (default 10 s), and after how long a lock taken on
    // another machine counts as left behind (default 60 s).
    static void setWaitLimit(std::chrono::milliseconds limit);
    static void setForeignLockAge(std::chrono::seconds age);

private:
    std::string mKey;  // empty when nothing was locked
};

} // namespace Base
