#include "base/ArchiveExtractor.h"

#include "base/BaseException.h"
#include "base/FileManager.h"

#include "support/TestSupport.h"

#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace KymTest;
using Base::ArchiveExtractor;

TEST(ArchiveExtractor, UnpacksIntoTheWorkingDirectoryWithPermissionsAndTimesButNotTheOwner) {
    TempDir temp;
    const fs::path script = temp / "content" / "bin" / "run.sh";
    writeFile(script, "#!/bin/sh\n");
    fs::permissions(script, fs::perms(0750));
    setAge(script, 3 * 86400);
    const struct passwd* nobody = ::getpwnam("nobody");
    ASSERT_NE(nobody, nullptr);
    ASSERT_EQ(::chown(script.c_str(), nobody->pw_uid, nobody->pw_gid), 0);
    makeTarGz(temp / "files.tar.gz", temp / "content");
    const fs::path previous = Base::FileManager::workDirectory();
    fs::create_directories(temp / "target");
    Base::FileManager::changeWorkDirectory(temp / "target");
    ArchiveExtractor::extractAll(temp / "files.tar.gz");
    Base::FileManager::changeWorkDirectory(previous);
    const fs::path unpacked = temp / "target" / "bin" / "run.sh";
    struct stat status {};
    ASSERT_EQ(::stat(unpacked.c_str(), &status), 0);
    EXPECT_EQ(readFile(unpacked), "#!/bin/sh\n");
    EXPECT_EQ(fs::last_write_time(unpacked), fs::last_write_time(script));
    EXPECT_EQ(status.st_mode & 07777, 0750u);
    EXPECT_EQ(status.st_uid, ::getuid());
}

TEST(ArchiveExtractor, ADamagedOrMissingArchiveThrowsNamingTheMissingFile) {
    TempDir temp;
    writeFile(temp / "damaged.tar.gz", "this is no archive at all");
    EXPECT_THROW(ArchiveExtractor::extractAll(temp / "damaged.tar.gz"), Base::BaseException);
    EXPECT_EQ(thrownMessage([&] { ArchiveExtractor::extractAll(temp / "missing.tar.gz"); }),
              "Failed to open '" + (temp / "missing.tar.gz").string() + "'");
}
