// Starting a program that links libkym must not load libarchive and what it
// drags in (libxml2, nettle, the compressors); only unpacking an archive does.
// (On Windows libarchive is linked into the library: nothing is loaded later.)
#ifndef _WIN32
#include "base/ArchiveExtractor.h"

#include "base/BaseException.h"

#include "support/TestSupport.h"

#include <gtest/gtest.h>
#include <algorithm>
#include <link.h>

using namespace KymTest;

namespace {

// The file names of the libraries of that family mapped into this process.
std::vector<std::string> loadedArchiveFamily() {
    std::vector<std::string> names;
    ::dl_iterate_phdr(
        [](struct dl_phdr_info* info, std::size_t, void* data) {
            const std::string name = fs::path(info->dlpi_name ? info->dlpi_name : "").filename().string();
            for (const char* prefix : {"libarchive.", "libxml2.", "libnettle.", "libacl.", "liblzma.", "libzstd.", "liblz4.", "libbz2."})
                if (name.rfind(prefix, 0) == 0) static_cast<std::vector<std::string>*>(data)->push_back(name);
            return 0;
        },
        &names);
    return names;
}

} // namespace

TEST(StartupDependencies, LibarchiveIsLoadedOnlyByTheFirstExtraction) {
    EXPECT_EQ(loadedArchiveFamily(), std::vector<std::string>{});
    // Even an archive that cannot be opened is tried by libarchive.
    EXPECT_THROW(Base::ArchiveExtractor::extractAll("/nonexistent/files.tar.gz"), Base::BaseException);
    const std::vector<std::string> loaded = loadedArchiveFamily();
    EXPECT_EQ(std::count_if(loaded.begin(), loaded.end(), [](const std::string& name) { return name.rfind("libarchive.so", 0) == 0; }), 1);
}

#endif
