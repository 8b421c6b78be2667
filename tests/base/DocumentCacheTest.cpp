#include "base/PropertyList.h"
#include "base/plist/Document.h"
#include "base/plist/DocumentCache.h"
#include "support/TestSupport.h"

#include <boost/filesystem.hpp>
#include <functional>
#include <gtest/gtest.h>

namespace {

using Base::plist::Document;
using Base::plist::DocumentCache;
using KymTest::readFile;
using KymTest::TempDir;
using KymTest::thrownMessage;
using KymTest::writeFile;
using Entry = Document::Entry;
using Kind = Document::Node::Kind;
namespace fs = boost::filesystem;

std::string plist(const std::string& body) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n" + body + "\n</plist>\n";
}

const std::string everyKind = plist(
    "<dict><key>name</key><string>a &amp; b</string><key>count</key><integer> -12 </integer>"
    "<key>ratio</key><real>2.5</real><key>on</key><true/><key>off</key><false/>"
    "<key>when</key><date>2026-11-24T10:00:00Z</date><key>bytes</key><data>AQI=</data>"
    "<key>list</key><array><string>x</string><dict><key>name</key><string>y</string></dict><array/></array></dict>");

std::vector<Entry> tableOf(const Document& document) {
    return std::vector<Entry>(document.entryData(), document.entryData() + document.entryCount());
}

std::string serialized(const Document& document) {
    return Base::PropertyList::serialize(document.root().toAny());
}

TEST(DocumentTable, ATableTakenBackReadsAsTheParsedDocumentAndADamagedOneIsRefused) {
    const Document parsed(everyKind, "every.plist");
    const std::vector<Entry> sound = tableOf(parsed);
    const std::string pool(parsed.pool());
    const auto copy = Document::fromTable(sound, pool);
    ASSERT_TRUE(copy);
    EXPECT_EQ(serialized(*copy), serialized(parsed));
    EXPECT_EQ(pool.find("name"), pool.rfind("name")) << "each distinct key is kept once";

    const std::size_t leaf = static_cast<std::size_t>(std::find_if(sound.begin(), sound.end(), [](const Entry& e) {
                                                           return e.kind == std::uint32_t(Kind::Integer);
                                                       }) - sound.begin());
    const auto size = static_cast<std::uint32_t>(sound.size()), poolSize = static_cast<std::uint32_t>(pool.size());
    const std::pair<const char*, std::function<void(std::vector<Entry>&)>> damages[] = {
        {"unknown kind", [&](auto& e) { e[leaf].kind = 8; }},
        {"leaf with members", [&](auto& e) { e[leaf].end = static_cast<std::uint32_t>(leaf) + 2; }},
        {"root not spanning all", [&](auto& e) { e[0].end = size - 1; }},
        {"member beyond its container", [&](auto& e) { e.back().kind = 0, e.back().end = size + 1; }},
        {"key beyond the pool", [&](auto& e) { e[leaf].key = poolSize; e[leaf].keyLength = 1; }},
        {"text beyond the pool", [&](auto& e) { e[leaf].textLength = poolSize; }},
        {"unreadable number", [&](auto& e) { e[leaf].text = 0; e[leaf].textLength = 4; }},
        {"half a character", [&](auto& e) { e[leaf] = Entry{std::uint32_t(Kind::String), e[leaf].end, 0, 0, poolSize, 1}; }},
    };
    for (const auto& [what, damage] : damages) {
        std::vector<Entry> entries = sound;
        damage(entries);
        EXPECT_FALSE(Document::fromTable(entries, what == std::string("half a character") ? pool + "\xC3\xA9" : pool))
            << what;
    }
    // As deep as a property list may nest, and no deeper.
    const auto nestedArrays = [](std::uint32_t depth) {
        return std::vector<Entry>(depth, Entry{std::uint32_t(Kind::Array), depth, 0, 0, 0, 0});
    };
    const auto deepest = static_cast<std::uint32_t>(Base::PropertyList::maxDepth);
    EXPECT_TRUE(Document::fromTable(nestedArrays(deepest), std::string()));
    EXPECT_FALSE(Document::fromTable(nestedArrays(deepest + 1), std::string()));
}

class DocumentCacheTest : public ::testing::Test {
protected:
    void SetUp() override {
        writeFile(mFile, plist("<dict><key>value</key><string>first</string></dict>"));
        // Older than any rewrite below, whatever the file system's time stamp granularity.
        KymTest::setAge(mFile, 10);
        DocumentCache::enable(mCache, std::chrono::nanoseconds(0));
    }
    void TearDown() override { DocumentCache::disable(); }

    // The value read, and whether it came from the kept table.
    std::pair<std::string, bool> read() {
        KymTest::LogRecorder log({"kym.verbose"});
        const auto document = DocumentCache::read(mFile, "settings.dat");
        bool kept = false;
        for (const std::string& line : log.lines("kym.verbose")) kept = kept || line.find("as kept in") != std::string::npos;
        return {Document::Members(document->root()).find("value").text(), kept};
    }

    TempDir mDirectory;
    fs::path mFile = mDirectory / "settings.dat";
    fs::path mCache = mDirectory / "cache";
};

TEST_F(DocumentCacheTest, AnUnchangedFileIsReadFromItsTableAndAChangedOneAfresh) {
    EXPECT_EQ(read(), std::make_pair(std::string("first"), false));
    EXPECT_TRUE(fs::exists(DocumentCache::entryFor(mFile)));
    EXPECT_EQ(read(), std::make_pair(std::string("first"), true));
    // Same size, same place: the change time still tells.
    writeFile(mFile, plist("<dict><key>value</key><string>other</string></dict>"));
    EXPECT_EQ(read(), std::make_pair(std::string("other"), false));
    EXPECT_EQ(read(), std::make_pair(std::string("other"), true));
}

TEST_F(DocumentCacheTest, DamagedOrForeignTablesAreIgnoredAndReplaced) {
    read();
    const fs::path entry = DocumentCache::entryFor(mFile);
    const std::string sound = readFile(entry);
    const fs::path otherFile = mDirectory / "other.dat";
    writeFile(otherFile, plist("<dict><key>value</key><string>elsewhere</string></dict>"));
    DocumentCache::read(otherFile, "other.dat");
    std::string flipped = sound;
    flipped[flipped.size() - 3] ^= 0x20;
    const std::pair<const char*, std::string> damages[] = {
        {"truncated", sound.substr(0, sound.size() - 5)},
        {"a byte changed", flipped},
        {"another file's table", readFile(DocumentCache::entryFor(otherFile))},
        {"empty", std::string()},
        {"too long", sound + "x"},
    };
    for (const auto& [what, content] : damages) {
        writeFile(entry, content);
        EXPECT_EQ(read(), std::make_pair(std::string("first"), false)) << what;
        EXPECT_EQ(read(), std::make_pair(std::string("first"), true)) << what;
    }
}

TEST_F(DocumentCacheTest, TroubleWithTheCacheOnlyCostsTheParse) {
    // A file where the folder must be: nothing can be kept.
    writeFile(mCache, "not a folder");
    EXPECT_EQ(read(), std::make_pair(std::string("first"), false));
    EXPECT_EQ(read(), std::make_pair(std::string("first"), false));
}

TEST_F(DocumentCacheTest, AFileChangedJustNowIsNotKept) {
    DocumentCache::enable(mCache);
    writeFile(mFile, plist("<dict><key>value</key><string>now</string></dict>"));
    EXPECT_EQ(read(), std::make_pair(std::string("now"), false));
    EXPECT_FALSE(fs::exists(DocumentCache::entryFor(mFile)));
}

} // namespace
