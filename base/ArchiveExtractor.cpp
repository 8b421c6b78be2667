#include "base/ArchiveExtractor.h"

#include "base/BaseException.h"

#include <archive.h>
#include <archive_entry.h>

#include <memory>
#include <string>

namespace Base {

namespace {

// Block size of the reads.
const std::size_t blockSize = 10240;
// Restore permissions and times; nothing else.
const int extractFlags = ARCHIVE_EXTRACT_PERM | ARCHIVE_EXTRACT_TIME;

struct ArchiveReadFree {
    void operator()(struct archive* handle) const { archive_read_free(handle); }
};
using ArchiveHandle = std::unique_ptr<struct archive, ArchiveReadFree>;

[[noreturn]] void fail(struct archive* handle, const boost::filesystem::path& archive) {
    const char* message = archive_error_string(handle);
    throw BaseException(message ? message : "Cannot read the archive " + archive.string());
}

} // namespace

void ArchiveExtractor::extractAll(const boost::filesystem::path& archive) {
    ArchiveHandle handle(archive_read_new());
    if (!handle) throw BaseException("Cannot read the archive " + archive.string() + ": out of memory");
    archive_read_support_filter_all(handle.get());
    archive_read_support_format_all(handle.get());
    if (archive_read_open_filename(handle.get(), archive.string().c_str(), blockSize) != ARCHIVE_OK)
        fail(handle.get(), archive);

    for (;;) {
        struct archive_entry* entry = nullptr;
        const int result = archive_read_next_header(handle.get(), &entry);
        if (result == ARCHIVE_EOF) break;
        if (result != ARCHIVE_OK) fail(handle.get(), archive);
        if (archive_read_extract(handle.get(), entry, extractFlags) != ARCHIVE_OK) fail(handle.get(), archive);
    }
    archive_read_close(handle.get());
}

} // namespace Base
