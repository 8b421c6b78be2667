// Replays every input kept in fuzz/corpus through the fuzz target of its
// folder, so an input that once broke a reader stays a regression test.
#include "base/BaseException.h"
#include "base/PropertyList.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

// The fuzz targets themselves, each entry point under a name of its own; they abort on a wrong result.
#define LLVMFuzzerTestOneInput replayArchiveInput
#include "fuzz/fuzz_archive.cpp"
#undef LLVMFuzzerTestOneInput
#define LLVMFuzzerTestOneInput replayPropertyListInput
#include "fuzz/fuzz_plist.cpp"
#undef LLVMFuzzerTestOneInput
#define LLVMFuzzerTestOneInput replayTableInput
#include "fuzz/fuzz_table.cpp"
#undef LLVMFuzzerTestOneInput

namespace fs = boost::filesystem;

namespace {

using Target = int (*)(const std::uint8_t*, std::size_t);

// Each corpus folder, by name, and the target that replays it.
const std::map<std::string, Target> targets = {
    {"archive", replayArchiveInput}, {"plist", replayPropertyListInput}, {"table", replayTableInput}};

const fs::path corpusRoot = fs::path(KYM_SOURCE_DIR) / "fuzz" / "corpus";

std::vector<fs::path> corpusFiles(const std::string& name) {
    const fs::directory_iterator files(corpusRoot / name);
    return {begin(files), end(files)};
}

} // namespace

TEST(FuzzCorpus, EveryInputOfEveryCorpusFolderPassesThroughItsTarget) {
    std::vector<std::string> folders;
    for (const fs::directory_entry& entry : fs::directory_iterator(corpusRoot))
        if (fs::is_directory(entry.path())) folders.push_back(entry.path().filename().string());
    ASSERT_FALSE(folders.empty());
    for (const std::string& folder : folders) {
        const auto target = targets.find(folder);
        if (target == targets.end()) {
            ADD_FAILURE() << "fuzz/corpus/" << folder << " has no replay here";
            continue;
        }
        const std::vector<fs::path> files = corpusFiles(folder);
        EXPECT_FALSE(files.empty()) << "fuzz/corpus/" << folder << " is empty";
        for (const fs::path& file : files) {
            const std::string content = KymTest::readFile(file);
            EXPECT_EQ(target->second(reinterpret_cast<const std::uint8_t*>(content.data()), content.size()), 0) << file;
        }
    }
}

// Each input is read and survives a write and a second read unchanged, or is
// rejected with a BaseException that names its source.
TEST(FuzzCorpus, EveryPropertyListInputIsReadBackUnchangedOrRejectedNamingItsSource) {
    const std::vector<fs::path> files = corpusFiles("plist");
    ASSERT_FALSE(files.empty());
    for (const fs::path& file : files) {
        const std::string name = file.filename().string();
        try {
            const std::string written = Base::PropertyList::serialize(Base::PropertyList::parse(KymTest::readFile(file), name));
            EXPECT_EQ(Base::PropertyList::serialize(Base::PropertyList::parse(written, "written back")), written) << name;
        } catch (const Base::BaseException& exception) {
            EXPECT_NE(std::string(exception.what()).find(name), std::string::npos) << exception.what();
        }
    }
}
