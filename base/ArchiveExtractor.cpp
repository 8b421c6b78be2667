#include "base/ArchiveExtractor.h"

#include "base/BaseException.h"

#include <archive.h>
#include <archive_entry.h>
#include <dlfcn.h>

#include <memory>
#include <string>

#ifndef KYM_LIBARCHIVE_SONAME
#error "KYM_LIBARCHIVE_SONAME (the file name of the libarchive to load) comes from the build"
#endif

namespace Base {

namespace {

// Block size of the reads.
const std::size_t blockSize = 10240;
// Restore permissions and times; nothing else.
const int extractFlags = ARCHIVE_EXTRACT_PERM | ARCHIVE_EXTRACT_TIME;

// libarchive and the libraries it drags in (libxml2, ICU, the compressors) are
// loaded only when an archive is unpacked, so that every other start of a
// program stays cheap. The headers still check every call.
struct ArchiveLibrary {
    decltype(&archive_read_new) readNew = nullptr;
    decltype(&archive_read_free) readFree = nullptr;
    decltype(&archive_read_support_filter_all) supportFilterAll = nullptr;
    decltype(&archive_read_support_format_all) supportFormatAll = nullptr;
    decltype(&archive_read_open_filename) openFilename = nullptr;
    decltype(&archive_read_next_header) nextHeader = nullptr;
    decltype(&archive_read_extract) extract = nullptr;
    decltype(&archive_read_close) close = nullptr;
    decltype(&archive_error_string) errorString = nullptr;
    // Why the library is unusable; empty once every function is found.
    std::string failure;
};

std::string loaderError() {
    const char* text = ::dlerror();
    return text ? text : "no reason given";
}

// Leaves the function unset once an earlier one was missing.
template <typename Function>
void resolve(void* library, const char* name, Function& function, std::string& failure) {
    if (!failure.empty()) return;
    ::dlerror();
    void* symbol = ::dlsym(library, name);
    if (!symbol)
        failure = std::string("the archive library " KYM_LIBARCHIVE_SONAME " lacks ") + name + ": " + loaderError();
    else
        function = reinterpret_cast<Function>(symbol);
}

ArchiveLibrary loadArchiveLibrary() {
    ArchiveLibrary api;
    // Never closed: the process keeps it once it has unpacked an archive.
    void* library = ::dlopen(KYM_LIBARCHIVE_SONAME, RTLD_NOW | RTLD_LOCAL);
    if (!library) {
        api.failure = "cannot load the archive library " KYM_LIBARCHIVE_SONAME ": " + loaderError();
        return api;
    }
    std::string& failure = api.failure;
    resolve(library, "archive_read_new", api.readNew, failure);
    resolve(library, "archive_read_free", api.readFree, failure);
    resolve(library, "archive_read_support_filter_all", api.supportFilterAll, failure);
    resolve(library, "archive_read_support_format_all", api.supportFormatAll, failure);
    resolve(library, "archive_read_open_filename", api.openFilename, failure);
    resolve(library, "archive_read_next_header", api.nextHeader, failure);
    resolve(library, "archive_read_extract", api.extract, failure);
    resolve(library, "archive_read_close", api.close, failure);
    resolve(library, "archive_error_string", api.errorString, failure);
    return api;
}

const ArchiveLibrary& archiveLibrary() {
    static const ArchiveLibrary api = loadArchiveLibrary();
    return api;
}

[[noreturn]] void fail(const ArchiveLibrary& api, struct archive* handle, const boost::filesystem::path& archive) {
    const char* message = api.errorString(handle);
    throw BaseException(message ? message : "Cannot read the archive " + archive.string());
}

} // namespace

void ArchiveExtractor::extractAll(const boost::filesystem::path& archive) {
    const ArchiveLibrary& api = archiveLibrary();
    if (!api.failure.empty()) throw BaseException("Cannot unpack " + archive.string() + ": " + api.failure);

    const auto readFree = [&api](struct archive* handle) { api.readFree(handle); };
    std::unique_ptr<struct archive, decltype(readFree)> handle(api.readNew(), readFree);
    if (!handle) throw BaseException("Cannot read the archive " + archive.string() + ": out of memory");
    api.supportFilterAll(handle.get());
    api.supportFormatAll(handle.get());
    if (api.openFilename(handle.get(), archive.string().c_str(), blockSize) != ARCHIVE_OK)
        fail(api, handle.get(), archive);

    for (;;) {
        struct archive_entry* entry = nullptr;
        const int result = api.nextHeader(handle.get(), &entry);
        if (result == ARCHIVE_EOF) break;
        if (result != ARCHIVE_OK) fail(api, handle.get(), archive);
        if (api.extract(handle.get(), entry, extractFlags) != ARCHIVE_OK) fail(api, handle.get(), archive);
    }
    api.close(handle.get());
}

} // namespace Base
