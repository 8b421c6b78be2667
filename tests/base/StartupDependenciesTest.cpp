// Starting a program that links libkym must not load libarchive and what it
// drags in (libxml2, nettle, the compressors); only unpacking an archive does.
#include "base/ArchiveExtractor.h"

#include "base/FileManager.h"

#include "support/TestSupport.h"

#include <gtest/gtest.h>
#include <algorithm>
#include <link.h>

using namespace KymTest;

namespace {

struct LoadedObject {
    std::string path;
    std::vector<std::string> needed;  // DT_NEEDED entries, in order
};

// Every object mapped into this process with the libraries it names as needed.
std::vector<LoadedObject> loadedObjects() {
    std::vector<LoadedObject> objects;
    ::dl_iterate_phdr(
        [](struct dl_phdr_info* info, std::size_t, void* data) {
            LoadedObject object{info->dlpi_name ? info->dlpi_name : "", {}};
            const ElfW(Dyn)* dynamic = nullptr;
            for (ElfW(Half) i = 0; i < info->dlpi_phnum; ++i)
                if (info->dlpi_phdr[i].p_type == PT_DYNAMIC)
                    dynamic = reinterpret_cast<const ElfW(Dyn)*>(info->dlpi_addr + info->dlpi_phdr[i].p_vaddr);
            if (dynamic) {
                ElfW(Addr) strings = 0;
                for (const ElfW(Dyn)* entry = dynamic; entry->d_tag != DT_NULL; ++entry)
                    if (entry->d_tag == DT_STRTAB) strings = entry->d_un.d_ptr;
                // The loader rebases the string table's address in place unless the section is read-only.
                if (strings < info->dlpi_addr) strings += info->dlpi_addr;
                for (const ElfW(Dyn)* entry = dynamic; entry->d_tag != DT_NULL; ++entry)
                    if (entry->d_tag == DT_NEEDED)
                        object.needed.emplace_back(reinterpret_cast<const char*>(strings + entry->d_un.d_val));
            }
            static_cast<std::vector<LoadedObject>*>(data)->push_back(object);
            return 0;
        },
        &objects);
    return objects;
}

bool isArchiveFamily(const std::string& fileName) {
    for (const char* prefix : {"libarchive.", "libxml2.", "libnettle.", "libacl.", "liblzma.", "libzstd.", "liblz4.", "libbz2."})
        if (fileName.rfind(prefix, 0) == 0) return true;
    return false;
}

std::vector<std::string> loadedArchiveFamily() {
    std::vector<std::string> names;
    for (const LoadedObject& object : loadedObjects()) {
        const std::string name = fs::path(object.path).filename().string();
        if (isArchiveFamily(name)) names.push_back(name);
    }
    std::sort(names.begin(), names.end());
    return names;
}

} // namespace

TEST(StartupDependencies, LibarchiveIsLoadedOnlyByTheFirstExtraction) {
    // A test program that links libarchive itself (the sanitizer builds keep
    // every linked library) has it from the start; nothing to observe then.
    const LoadedObject program = loadedObjects().front();
    if (std::any_of(program.needed.begin(), program.needed.end(), isArchiveFamily))
        GTEST_SKIP() << "the test program itself needs libarchive";
    EXPECT_EQ(loadedArchiveFamily(), std::vector<std::string>{});

    TempDir temp;
    writeFile(temp / "content" / "file.txt", "text");
    makeTarGz(temp / "files.tar.gz", temp / "content");
    const fs::path previous = Base::FileManager::workDirectory();
    fs::create_directories(temp / "target");
    Base::FileManager::changeWorkDirectory(temp / "target");
    Base::ArchiveExtractor::extractAll(temp / "files.tar.gz");
    Base::FileManager::changeWorkDirectory(previous);

    EXPECT_EQ(readFile(temp / "target" / "file.txt"), "text");
    const std::vector<std::string> afterExtraction = loadedArchiveFamily();
    EXPECT_TRUE(std::any_of(afterExtraction.begin(), afterExtraction.end(),
                            [](const std::string& name) { return name.rfind("libarchive.so", 0) == 0; }));
}
