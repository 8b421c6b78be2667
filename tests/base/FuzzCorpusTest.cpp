// Replays every input kept in fuzz/corpus through the readers the fuzzers
// drive, so an input that once broke a reader stays a regression test.
#include "base/BaseException.h"
#include "base/PropertyList.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

// The archive fuzzer's schema and entry point, which aborts when a decoded document does not read back unchanged.
#include "fuzz/fuzz_archive.cpp"

namespace fs = boost::filesystem;

namespace {

std::vector<fs::path> corpusFiles(const std::string& name) {
    std::vector<fs::path> files;
    for (const auto& entry : fs::directory_iterator(fs::path(KYM_SOURCE_DIR) / "fuzz" / "corpus" / name))
        files.push_back(entry.path());
    return files;
}

} // namespace

// Each input is read, and then survives a write and a second read unchanged, or is
// rejected with a BaseException that names its source.
TEST(FuzzCorpus, EveryPropertyListInputIsReadBackUnchangedOrRejectedNamingItsSource) {
    const std::vector<fs::path> files = corpusFiles("plist");
    ASSERT_FALSE(files.empty());
    for (const fs::path& file : files) {
        const std::string name = file.filename().string();
        SCOPED_TRACE(name);
        std::string written;
        try {
            written = Base::PropertyList::serialize(Base::PropertyList::parse(KymTest::readFile(file), name));
        } catch (const Base::BaseException& exception) {
            EXPECT_NE(std::string(exception.what()).find(name), std::string::npos) << exception.what();
            continue;
        }
        EXPECT_EQ(Base::PropertyList::serialize(Base::PropertyList::parse(written, "written back")), written);
    }
}

TEST(FuzzCorpus, EveryArchiveInputIsReadBackUnchangedOrRejectedWithABaseException) {
    const std::vector<fs::path> files = corpusFiles("archive");
    ASSERT_FALSE(files.empty());
    for (const fs::path& file : files) {
        SCOPED_TRACE(file.string());
        const std::string content = KymTest::readFile(file);
        EXPECT_EQ(LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(content.data()), content.size()), 0);
    }
}
