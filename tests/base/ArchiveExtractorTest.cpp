#include "base/ArchiveExtractor.h"

#include "base/BaseException.h"
#include "base/FileManager.h"

#include "support/Site.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace KymTest;
using Base::ArchiveExtractor;

namespace {

// The test's own working directory, left again at the end.
struct InDirectory {
    const fs::path previous = Base::FileManager::workDirectory();
    explicit InDirectory(const fs::path& directory) {
        fs::create_directories(directory);
        Base::FileManager::changeWorkDirectory(directory);
    }
    ~InDirectory() { Base::FileManager::changeWorkDirectory(previous); }
};

} // namespace

TEST(ArchiveExtractor, UnpacksIntoTheWorkingDirectoryWithPermissionsAndTimesButNotTheOwner) {
    TempDir temp;
    const fs::path content = temp / "content";
    writeFile(content / "lib" / "readme.txt", "read me");
    writeFile(content / "bin" / "run.sh", "#!/bin/sh\n");
    fs::permissions(content / "lib" / "readme.txt", fs::perms(0640));
    fs::permissions(content / "bin" / "run.sh", fs::perms(0750));
    setAge(content / "lib" / "readme.txt", 3 * 86400);
    const struct passwd* nobody = ::getpwnam("nobody");
    ASSERT_NE(nobody, nullptr);
    ASSERT_EQ(::chown((content / "bin" / "run.sh").c_str(), nobody->pw_uid, nobody->pw_gid), 0);
    makeTarGz(temp / "files.tar.gz", content);

    {
        InDirectory target(temp / "target");
        ArchiveExtractor::extractAll(temp / "files.tar.gz");
    }
    const fs::path target = temp / "target";
    EXPECT_EQ(readFile(target / "lib" / "readme.txt"), "read me");
    EXPECT_EQ(fs::last_write_time(target / "lib" / "readme.txt"), fs::last_write_time(content / "lib" / "readme.txt"));
    struct stat readme {}, run {};
    ASSERT_EQ(::stat((target / "lib" / "readme.txt").c_str(), &readme) + ::stat((target / "bin" / "run.sh").c_str(), &run), 0);
    EXPECT_EQ(readme.st_mode & 07777, 0640u);
    EXPECT_EQ(run.st_mode & 07777, 0750u);
    EXPECT_EQ(run.st_uid, ::getuid());
}

TEST(ArchiveExtractor, ADamagedOrMissingArchiveThrowsLibarchivesMessageAndExtractsNothing) {
    TempDir temp;
    writeFile(temp / "damaged.tar.gz", "this is no archive at all");
    InDirectory target(temp / "target");
    EXPECT_THROW(ArchiveExtractor::extractAll(temp / "damaged.tar.gz"), Base::BaseException);
    EXPECT_EQ(thrownMessage([&] { ArchiveExtractor::extractAll(temp / "damaged.tar.gz"); }),
              "Unrecognized archive format");
    EXPECT_EQ(thrownMessage([&] { ArchiveExtractor::extractAll(temp / "missing.tar.gz"); }),
              "Failed to open '" + (temp / "missing.tar.gz").string() + "'");
    EXPECT_TRUE(fs::is_empty(temp / "target"));
}
