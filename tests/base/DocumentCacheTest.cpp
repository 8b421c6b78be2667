#include "base/PropertyList.h"
#include "base/plist/Document.h"
#include "base/plist/DocumentCache.h"
#include "support/TestSupport.h"

#include <boost/filesystem.hpp>
#include <chrono>
#include <functional>
#include <gtest/gtest.h>
#include <stdexcept>
#include <thread>

#ifndef _WIN32
#include <pwd.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>
#endif

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

    // Reads once so that the table is kept; its entry.
    fs::path keep() {
        EXPECT_EQ(read(), std::make_pair(std::string("first"), false));
        EXPECT_EQ(read(), std::make_pair(std::string("first"), true));
        return DocumentCache::entryFor(mFile);
    }

    // Reads from the cache folder afresh, as the next process would.
    void enableAgain(const fs::path& folder) { DocumentCache::enable(folder, std::chrono::nanoseconds(0)); }

    TempDir mDirectory;
    fs::path mFile = mDirectory / "settings.dat";
    fs::path mCache = mDirectory / "cache";
};

#ifndef _WIN32
struct stat statusOf(const fs::path& file) {
    struct stat status {};
    if (::lstat(file.c_str(), &status) != 0) ADD_FAILURE() << "cannot stat " << file;
    return status;
}

const passwd& nobody() {
    static const passwd* user = ::getpwnam("nobody");
    if (!user) throw std::runtime_error("no user nobody");
    return *user;
}
#endif

// Size and modification time are what a careless copy or an editor keeps;
// the file index (inode) and the change time, which no program can set, still tell.
TEST_F(DocumentCacheTest, AFileRewrittenWithItsSizeAndModificationTimePutBackIsReadAfresh) {
    const std::time_t modified = fs::last_write_time(mFile);
    const auto rewriteKeepingSizeAndTime = [&](const std::string& value, bool inPlace) {
        const std::uintmax_t size = fs::file_size(mFile);
#ifndef _WIN32
        const struct stat before = statusOf(mFile);
#endif
        // The change time's clock ticks every few milliseconds; in use a file
        // is kept only once it has been left alone for two seconds.
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        const std::string text = plist("<dict><key>value</key><string>" + value + "</string></dict>");
        if (inPlace) {
            writeFile(mFile, text);
        } else {
            writeFile(mDirectory / "settings.new", text);
            fs::last_write_time(mDirectory / "settings.new", modified);
            fs::rename(mDirectory / "settings.new", mFile);
        }
        fs::last_write_time(mFile, modified);
        ASSERT_EQ(size, fs::file_size(mFile));
        ASSERT_EQ(modified, fs::last_write_time(mFile));
#ifndef _WIN32
        const struct stat after = statusOf(mFile);
        ASSERT_EQ(before.st_mtim.tv_sec, after.st_mtim.tv_sec);
        ASSERT_EQ(before.st_mtim.tv_nsec, after.st_mtim.tv_nsec);
        EXPECT_EQ(inPlace, before.st_ino == after.st_ino);
#endif
    };
    keep();
    rewriteKeepingSizeAndTime("other", true);
    EXPECT_EQ(read(), std::make_pair(std::string("other"), false)) << "rewritten in place";
    EXPECT_EQ(read(), std::make_pair(std::string("other"), true));
    rewriteKeepingSizeAndTime("third", false);
    EXPECT_EQ(read(), std::make_pair(std::string("third"), false)) << "replaced by another file";
    EXPECT_EQ(read(), std::make_pair(std::string("third"), true));
}

TEST_F(DocumentCacheTest, DamagedOrForeignTablesAreIgnoredAndReplaced) {
    read();
    const fs::path entry = DocumentCache::entryFor(mFile);
    const std::string sound = readFile(entry);
    const fs::path otherFile = mDirectory / "other.dat";
    writeFile(otherFile, plist("<dict><key>value</key><string>elsewhere</string></dict>"));
    DocumentCache::read(otherFile, "other.dat");
    std::string flipped = sound, otherBuild = sound;
    flipped[flipped.size() - 3] ^= 0x20;
    const std::uint64_t build = DocumentCache::buildIdentity();
    const std::size_t at = sound.find(std::string(reinterpret_cast<const char*>(&build), sizeof build));
    ASSERT_LT(at, 64u) << "the head records the build that wrote the table";
    otherBuild[at] = static_cast<char>(otherBuild[at] ^ 0x01);
    const std::pair<const char*, std::string> damages[] = {
        {"truncated", sound.substr(0, sound.size() - 5)},
        {"a byte changed", flipped},
        {"another build's table", otherBuild},
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

#ifndef _WIN32
// Anyone who could write the entry, or make the process read or write elsewhere
// than the folder, could feed it variables or have it overwrite the user's files.
TEST_F(DocumentCacheTest, AnEntryThatIsALinkOrNoFileOrThatOthersMayWriteIsReplacedNeverFollowedOrWrittenThrough) {
    const fs::path entry = keep();
    const std::string table = readFile(entry);
    const fs::path soundTable = mDirectory / "sound.table";
    const fs::path precious = mDirectory / "precious.txt";
    const fs::path absent = mDirectory / "absent.txt";
    writeFile(soundTable, table);
    writeFile(precious, "precious");
    const std::pair<const char*, std::function<void()>> plants[] = {
        // Read through the link, it would pass every check.
        {"link to a sound table", [&] { fs::create_symlink(soundTable, entry); }},
        {"link to another file", [&] { fs::create_symlink(precious, entry); }},
        {"link to no file", [&] { fs::create_symlink(absent, entry); }},
        // Opened blocking, it would stall the read for good.
        {"pipe", [&] { ASSERT_EQ(0, ::mkfifo(entry.c_str(), 0600)); }},
        {"writable by its group", [&] { writeFile(entry, table), ::chmod(entry.c_str(), 0620); }},
        {"writable by others", [&] { writeFile(entry, table), ::chmod(entry.c_str(), 0602); }},
    };
    for (const auto& [what, plant] : plants) {
        fs::remove(entry);
        plant();
        EXPECT_EQ(read(), std::make_pair(std::string("first"), false)) << what;
        EXPECT_TRUE(S_ISREG(statusOf(entry).st_mode)) << what << ": replaced by a file of its own";
        EXPECT_EQ(0600u, statusOf(entry).st_mode & 07777u) << what;
        EXPECT_EQ(read(), std::make_pair(std::string("first"), true)) << what;
        EXPECT_EQ(table, readFile(soundTable)) << what;
        EXPECT_EQ("precious", readFile(precious)) << what;
        EXPECT_FALSE(fs::exists(absent)) << what;
    }
}

TEST_F(DocumentCacheTest, AFolderThatOthersMayWriteOrThatIsALinkIsNotUsed) {
    const fs::path entry = keep();
    const auto isNotUsed = [&](const fs::path& folder, const std::string& what) {
        const ino_t kept = statusOf(entry).st_ino;
        enableAgain(folder);
        EXPECT_EQ(read(), std::make_pair(std::string("first"), false)) << what;
        EXPECT_EQ(read(), std::make_pair(std::string("first"), false)) << what;
        EXPECT_EQ(kept, statusOf(entry).st_ino) << what << ": the entry is not rewritten either";
    };
    for (const unsigned mode : {0777u, 0730u, 0703u}) {
        ASSERT_EQ(0, ::chmod(mCache.c_str(), mode));
        isNotUsed(mCache, "mode " + std::to_string(mode));
    }
    ASSERT_EQ(0, ::chmod(mCache.c_str(), 0700));
    const fs::path link = mDirectory / "link";
    fs::create_symlink(mCache, link);
    isNotUsed(link, "a link to the folder");

    // Readable by all, as earlier builds left it: used, and made private.
    ASSERT_EQ(0, ::chmod(mCache.c_str(), 0755));
    enableAgain(mCache);
    EXPECT_EQ(read(), std::make_pair(std::string("first"), true));
    EXPECT_EQ(0700u, statusOf(mCache).st_mode & 07777u);
}

TEST_F(DocumentCacheTest, AnEntryOfAnotherUserIsReplacedAndAFolderOfAnotherUserIsNeitherUsedNorMadeIn) {
    KYM_SKIP_UNLESS_ROOT();
    const fs::path entry = keep();
    ASSERT_EQ(0, ::lchown(entry.c_str(), nobody().pw_uid, nobody().pw_gid));
    EXPECT_EQ(read(), std::make_pair(std::string("first"), false));
    EXPECT_EQ(::geteuid(), statusOf(entry).st_uid);
    EXPECT_EQ(read(), std::make_pair(std::string("first"), true));

    ASSERT_EQ(0, ::chown(mCache.c_str(), nobody().pw_uid, nobody().pw_gid));
    const ino_t kept = statusOf(entry).st_ino;
    enableAgain(mCache);
    EXPECT_EQ(read(), std::make_pair(std::string("first"), false));
    EXPECT_EQ(read(), std::make_pair(std::string("first"), false));
    EXPECT_EQ(kept, statusOf(entry).st_ino);

    // As under sudo with the user's environment: nothing of root's left in the user's home.
    const fs::path home = mDirectory / "home";
    fs::create_directory(home);
    ASSERT_EQ(0, ::chown(home.c_str(), nobody().pw_uid, nobody().pw_gid));
    enableAgain(home / ".cache" / "kym");
    EXPECT_EQ(read(), std::make_pair(std::string("first"), false));
    EXPECT_EQ(read(), std::make_pair(std::string("first"), false));
    EXPECT_FALSE(fs::exists(home / ".cache"));
}
#endif

} // namespace
