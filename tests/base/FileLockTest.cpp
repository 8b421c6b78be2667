#include "base/FileLock.h"
#include "base/Platform.h"
#include "support/TestSupport.h"

#include <boost/algorithm/string/predicate.hpp>
#include <boost/filesystem/operations.hpp>
#include <gtest/gtest.h>

#include <optional>
#include <vector>

#ifndef _WIN32
#include <unistd.h>
#endif

namespace {

using Base::FileLock;
using KymTest::TempDir;
namespace fs = boost::filesystem;

std::string native(const fs::path& path) {
    return Base::Platform::current().nativePath(path);
}

// What a lock of this process says, with another process number put in.
std::string holderTextWithPid(const fs::path& file, long pid) {
    std::string own;
    {
        const FileLock lock(file);
        own = KymTest::readFile(FileLock::lockFileOf(file));
    }
    const std::size_t number = own.find(' ') + 1;
    return own.substr(0, number) + std::to_string(pid) + own.substr(own.find(' ', number));
}

TEST(FileLock, IsTakenBesideTheFileSharedWithinTheProcessAndRemovedByItsLastHolder) {
    TempDir dir;
    const fs::path file = dir / "settings.dat";
    const fs::path lockFile = dir / "settings.dat.lock";
    {
        const FileLock outer(file);
        ASSERT_TRUE(fs::exists(lockFile));
        EXPECT_TRUE(boost::algorithm::starts_with(KymTest::readFile(lockFile), "pid ")) << KymTest::readFile(lockFile);
        {
            const FileLock inner(file);
        }
        EXPECT_TRUE(fs::exists(lockFile)) << "an inner holder released the lock early";
    }
    EXPECT_FALSE(fs::exists(lockFile));

    // Nobody can write a file whose folder is missing, so there is nothing to lock.
    const FileLock none(dir / "missing" / "settings.dat");
    EXPECT_FALSE(fs::exists(dir / "missing"));
}

TEST(FileLock, ALiveHolderIsWaitedForThenNamedAndItsLockLeftAlone) {
    TempDir dir;
    const fs::path file = dir / "settings.dat";
    const fs::path lockFile = FileLock::lockFileOf(file);
    FileLock::setWaitLimit(std::chrono::milliseconds(1000));
    std::vector<std::string> holders = {
        // Taken on another machine a moment ago.
        "pid 4242 on another-workstation, user ann, since 2026-11-25 09:00:00 UTC\ntoken 1\n",
    };
#ifndef _WIN32
    // Taken on this machine by a process that runs (the one that started this test).
    holders.push_back(holderTextWithPid(file, static_cast<long>(::getppid())));
#endif
    for (const std::string& holder : holders) {
        KymTest::writeFile(lockFile, holder);
        EXPECT_EQ("Settings file " + native(file) + " is locked by " + holder.substr(0, holder.find('\n')) +
                      "; gave up after 1 s. When that process is gone for good, remove " + native(lockFile) + ".",
                  KymTest::thrownMessage([&] { FileLock lock(file); }));
        EXPECT_EQ(KymTest::readFile(lockFile), holder);
    }
}

#ifndef _WIN32
TEST(FileLock, ALockThatCannotBeReadIsNeverTakenOver) {
    KYM_SKIP_UNLESS_ROOT();
    TempDir dir;
    fs::permissions(dir.path(), fs::perms(0777));
    const fs::path file = dir / "settings.dat";
    const fs::path lockFile = FileLock::lockFileOf(file);
    KymTest::writeFile(lockFile, "");
    fs::permissions(lockFile, fs::perms(0600));
    KymTest::setAge(lockFile, 3600);
    const int status = KymTest::runAsNobody([&] {
        FileLock::setWaitLimit(std::chrono::milliseconds(500));
        const std::string message = KymTest::thrownMessage([&] { FileLock lock(file); });
        return message == "Settings file " + native(file) + " is locked, but its lock file cannot be read; gave up "
                          "after 1 s. When that process is gone for good, remove " + native(lockFile) + "."
                   ? 0
                   : 1;
    });
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(fs::exists(lockFile));
}
#endif

TEST(FileLock, ALockLeftBehindIsTakenOver) {
    TempDir dir;
    const fs::path file = dir / "settings.dat";
    const fs::path lockFile = FileLock::lockFileOf(file);
    FileLock::setWaitLimit(std::chrono::milliseconds(1000));
    FileLock::setForeignLockAge(std::chrono::seconds(60));
    const std::optional<std::string> leftBehind[] = {
        // Taken on another machine longer ago than any save lasts.
        std::string("pid 4242 on another-workstation, user ann, since 2026-11-25 09:00:00 UTC\n"),
        // Taken on this machine by a process that has ended.
        holderTextWithPid(file, 99999999),
        // Made by a taker that crashed before it wrote its name.
        std::string(),
    };
    for (const std::optional<std::string>& holder : leftBehind) {
        KymTest::writeFile(lockFile, *holder);
        KymTest::setAge(lockFile, 120);
        {
            const FileLock lock(file);
            EXPECT_NE(KymTest::readFile(lockFile), *holder);
        }
        EXPECT_FALSE(fs::exists(lockFile)) << *holder;
    }
}

TEST(FileLock, ALockThatCannotBeMadeIsReportedWithTheReason) {
    TempDir dir;
    const fs::path file = dir / "settings.dat";
    // A folder where the lock file would go; root cannot make a file there either.
    fs::create_directories(FileLock::lockFileOf(file) / "x");
    FileLock::setWaitLimit(std::chrono::milliseconds(200));
    EXPECT_EQ("Cannot lock settings file " + native(file) + ": " + native(FileLock::lockFileOf(file)) +
                  " stands in the way and is no lock file.",
              KymTest::thrownMessage([&] { FileLock lock(file); }));
    EXPECT_TRUE(fs::is_directory(FileLock::lockFileOf(file) / "x"));
}

} // namespace
