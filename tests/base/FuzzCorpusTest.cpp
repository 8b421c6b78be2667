// Replays every input kept in fuzz/corpus through the readers the fuzzers
// drive, so an input that once broke a reader stays a regression test: each
// must be read, or rejected with a BaseException that names its source.
#include "base/BaseException.h"
#include "base/PropertyList.h"
#include "base/Unarchiver.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <boost/any.hpp>
#include <boost/filesystem.hpp>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

namespace {

namespace fs = boost::filesystem;

fs::path corpusDirectory(const std::string& name) {
    return fs::path(KYM_SOURCE_DIR) / "fuzz" / "corpus" / name;
}

std::vector<fs::path> corpusFiles(const fs::path& directory) {
    std::vector<fs::path> files;
    if (fs::is_directory(directory)) {
        for (const fs::directory_entry& entry : fs::directory_iterator(directory))
            if (fs::is_regular_file(entry.path()))
                files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    return files;
}

std::string contentOf(const fs::path& file) {
    std::ifstream stream(file.string(), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>());
}

// Feeds each file to the reader under its file name and returns one line per
// file that the reader failed in another way than a BaseException naming it.
// A reader that accepts an input returns what went wrong afterwards, or "".
using Reader = std::function<std::string(const std::string& text, const std::string& name)>;

std::vector<std::string> misbehaviours(const std::vector<fs::path>& files, const Reader& read) {
    std::vector<std::string> found;
    for (const fs::path& file : files) {
        const std::string name = file.filename().string();
        try {
            const std::string problem = read(contentOf(file), name);
            if (!problem.empty())
                found.push_back(name + ": " + problem);
        } catch (const Base::BaseException& exception) {
            if (std::string(exception.what()).find(name) == std::string::npos)
                found.push_back(name + ": the message does not name the input: " + exception.what());
        } catch (const std::exception& exception) {
            found.push_back(name + ": not a BaseException: " + exception.what());
        } catch (...) {
            found.push_back(name + ": an exception of an unknown type");
        }
    }
    return found;
}

} // namespace

TEST(FuzzCorpus, EveryPropertyListInputIsReadOrRejectedWithABaseException) {
    const std::vector<fs::path> files = corpusFiles(corpusDirectory("plist"));
    ASSERT_FALSE(files.empty()) << "no inputs in " << corpusDirectory("plist");
    // What is read must also come back unchanged through the writer and the reader.
    const auto parse = [](const std::string& text, const std::string& name) -> std::string {
        const boost::any value = Base::PropertyList::parse(text, name);
        try {
            const std::string written = Base::PropertyList::serialize(value);
            const std::string rewritten =
                Base::PropertyList::serialize(Base::PropertyList::parse(written, "written back"));
            return rewritten == written ? "" : "reads back changed:\n" + written + "\n" + rewritten;
        } catch (const std::exception& exception) {
            return std::string("what was read does not write and read back: ") + exception.what();
        }
    };
    EXPECT_EQ(misbehaviours(files, parse), std::vector<std::string>{});
}

TEST(FuzzCorpus, EveryArchiveInputIsReadOrRejectedWithABaseException) {
    const std::vector<fs::path> files = corpusFiles(corpusDirectory("archive"));
    ASSERT_FALSE(files.empty()) << "no inputs in " << corpusDirectory("archive");
    const auto unarchive = [](const std::string& text, const std::string& name) -> std::string {
        const std::unique_ptr<Base::Unarchiver> unarchiver = Base::Unarchiver::fromText(text, name);
        // Whatever type an input names is created through the coder registered for it.
        unarchiver->decodeObject("Root", static_cast<void*>(nullptr));
        unarchiver->decodeObject("Anything", static_cast<void*>(nullptr));
        return "";
    };
    EXPECT_EQ(misbehaviours(files, unarchive), std::vector<std::string>{});
}
