#include "base/ArchiveExtractor.h"

#include "base/BaseException.h"

#include <archive.h>
#include <archive_entry.h>
#include <memory>
#include <string>

#ifndef _WIN32
#include <dlfcn.h>
#ifndef KYM_LIBARCHIVE_SONAME
#error "KYM_LIBARCHIVE_SONAME (the file name of the libarchive to load) comes from the build"
#endif
#endif

namespace Base {

namespace {

// Block size of the reads.
const std::size_t blockSize = 10240;
// Restore permissions and times; nothing else.
const int extractFlags = ARCHIVE_EXTRACT_PERM | ARCHIVE_EXTRACT_TIME;

// The functions used, each with the member that holds it.
#define BASE_ARCHIVE_FUNCTIONS(F)                                   \
    F(readNew, archive_read_new)                                    \
    F(readFree, archive_read_free)                                  \
    F(supportFilterAll, archive_read_support_filter_all)            \
    F(supportFormatAll, archive_read_support_format_all)            \
    F(openFilename, archive_read_open_filename)                     \
    F(nextHeader, archive_read_next_header)                         \
    F(extract, archive_read_extract)                                \
    F(close, archive_read_close)                                    \
    F(errorString, archive_error_string)

struct ArchiveLibrary {
#define BASE_ARCHIVE_MEMBER(member, function) decltype(&function) member = nullptr;
    BASE_ARCHIVE_FUNCTIONS(BASE_ARCHIVE_MEMBER)
#undef BASE_ARCHIVE_MEMBER
    // Why the library is unusable; empty once every function is found.
    std::string failure;
};

#ifdef _WIN32

// Built into libkym.dll and kym.exe with zlib, so there is nothing apart to load.
ArchiveLibrary loadArchiveLibrary() {
    ArchiveLibrary api;
#define BASE_ARCHIVE_BIND(member, function) api.member = &function;
    BASE_ARCHIVE_FUNCTIONS(BASE_ARCHIVE_BIND)
#undef BASE_ARCHIVE_BIND
    return api;
}

#else

// libarchive and the libraries it drags in (libxml2, ICU, the compressors) are
// loaded only when an archive is unpacked, so that every other start of a
// program stays cheap. The headers still check every call.
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
#define BASE_ARCHIVE_RESOLVE(member, function) resolve(library, #function, api.member, api.failure);
    BASE_ARCHIVE_FUNCTIONS(BASE_ARCHIVE_RESOLVE)
#undef BASE_ARCHIVE_RESOLVE
    return api;
}

#endif

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
