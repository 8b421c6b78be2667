#include "base/ArchiveExtractor.h"

#include "base/BaseException.h"
#include "base/FileManager.h"

#include "support/TestSupport.h"

#include <gtest/gtest.h>

#ifndef _WIN32
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>
#endif

using namespace KymTest;
using Base::ArchiveExtractor;

namespace {

// Unpacks the archive in the target folder, as a department's version folder is filled.
void extractIn(const fs::path& archive, const fs::path& target) {
    const fs::path previous = Base::FileManager::workDirectory();
    fs::create_directories(target);
    Base::FileManager::changeWorkDirectory(target);
    ArchiveExtractor::extractAll(archive);
    Base::FileManager::changeWorkDirectory(previous);
}

} // namespace

TEST(ArchiveExtractor, UnpacksIntoTheWorkingDirectoryWithContentAndTimes) {
    TempDir temp;
    const fs::path script = temp / "content" / "bin" / "run.bat";
    writeFile(script, "@echo off\r\n");
    writeFile(temp / "content" / "empty" / "none.txt", "");
    setAge(script, 3 * 86400);
    makeTarGz(temp / "files.tar.gz", temp / "content");
    extractIn(temp / "files.tar.gz", temp / "target");
    const fs::path unpacked = temp / "target" / "bin" / "run.bat";
    EXPECT_EQ(readFile(unpacked), "@echo off\r\n");
    EXPECT_EQ(readFile(temp / "target" / "empty" / "none.txt"), "");
    EXPECT_EQ(fs::last_write_time(unpacked), fs::last_write_time(script));
}

#ifndef _WIN32
TEST(ArchiveExtractor, UnpackedFilesKeepTheirPermissionsButNotTheirOwner) {
    TempDir temp;
    const fs::path script = temp / "content" / "bin" / "run.sh";
    writeFile(script, "#!/bin/sh\n");
    fs::permissions(script, fs::perms(0750));
    const struct passwd* nobody = ::getpwnam("nobody");
    ASSERT_NE(nobody, nullptr);
    ASSERT_EQ(::chown(script.c_str(), nobody->pw_uid, nobody->pw_gid), 0);
    makeTarGz(temp / "files.tar.gz", temp / "content");
    extractIn(temp / "files.tar.gz", temp / "target");
    struct stat status {};
    ASSERT_EQ(::stat((temp / "target" / "bin" / "run.sh").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0750u);
    EXPECT_EQ(status.st_uid, ::getuid());
}
#endif

TEST(ArchiveExtractor, ADamagedOrMissingArchiveThrowsNamingTheMissingFile) {
    TempDir temp;
    writeFile(temp / "damaged.tar.gz", "this is no archive at all");
    EXPECT_THROW(ArchiveExtractor::extractAll(temp / "damaged.tar.gz"), Base::BaseException);
    EXPECT_EQ(thrownMessage([&] { ArchiveExtractor::extractAll(temp / "missing.tar.gz"); }),
              "Failed to open '" + (temp / "missing.tar.gz").string() + "'");
}
