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
    const fs::directory_iterator files(fs::path(KYM_SOURCE_DIR) / "fuzz" / "corpus" / name);
    return {begin(files), end(files)};
}

} // namespace

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

TEST(FuzzCorpus, EveryArchiveInputIsReadBackUnchangedOrRejectedWithABaseException) {
    const std::vector<fs::path> files = corpusFiles("archive");
    ASSERT_FALSE(files.empty());
    for (const fs::path& file : files) {
        const std::string content = KymTest::readFile(file);
        EXPECT_EQ(LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(content.data()), content.size()), 0) << file;
    }
}
