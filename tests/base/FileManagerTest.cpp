#include "base/BaseException.h"
#include "base/FileManager.h"
#include "base/SystemCalls.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <sys/stat.h>
#include <tuple>

using Base::FileManager;
namespace fs = boost::filesystem;

namespace {

std::vector<std::string> entries(const fs::path& directory) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(directory)) names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

unsigned modeOf(const fs::path& p) {
    struct stat status;
    return ::stat(p.c_str(), &status) == 0 ? status.st_mode & 07777 : 0xFFFF;
}

std::string failureOf(const std::function<void()>& action) { return KymTest::thrownMessage<Base::BaseException>(action); }

} // namespace

TEST(WriteFileAtomically, NewFileGetsTheModeOfAnyNewFileAndAFileReplacedThroughALinkKeepsItsOwn) {
    KymTest::TempDir dir;
    const mode_t previousMask = ::umask(027);
    FileManager::writeFileAtomically(dir / "new.dat", std::string("a\0b", 3));
    ::umask(previousMask);
    KymTest::writeFile(dir / "old.dat", "old content that is longer");
    fs::permissions(dir / "old.dat", fs::perms(0604));
    fs::create_symlink(dir / "old.dat", dir / "link.dat");
    FileManager::writeFileAtomically(dir / "link.dat", "new");
    EXPECT_EQ(std::string("a\0b", 3), KymTest::readFile(dir / "new.dat"));
    EXPECT_EQ("new", KymTest::readFile(dir / "old.dat"));
    EXPECT_TRUE(fs::is_symlink(dir / "link.dat"));
    EXPECT_EQ(0640u, modeOf(dir / "new.dat"));
    EXPECT_EQ(0604u, modeOf(dir / "old.dat"));
    EXPECT_EQ((std::vector<std::string>{"link.dat", "new.dat", "old.dat"}), entries(dir.path()));
}

TEST(WriteFileAtomically, FailedWriteOrRenameKeepsTheOldFileAndNoTemporaryFile) {
    KymTest::TempDir dir;
    fs::path target = dir / "site.dat";
    KymTest::writeFile(target, "old");
    const auto write = [&] { FileManager::writeFileAtomically(target, "new"); };
    const std::string writeFailure = KymTest::thrownUnderFault(&Base::SystemCalls::setWriteFault, ENOSPC, write);
    const std::string renameFailure = KymTest::thrownUnderFault(&Base::SystemCalls::setRenameFault, EXDEV, write);

    EXPECT_EQ("Cannot write settings file " + target.string() + ": No space left on device", writeFailure);
    EXPECT_EQ("Cannot write settings file " + target.string() + ": Invalid cross-device link", renameFailure);
    EXPECT_EQ("old", KymTest::readFile(target));
    EXPECT_EQ(std::vector<std::string>{"site.dat"}, entries(dir.path()));
}

TEST(FileManager, ReadableAndExecutableFollowTheUsersRights) {
    KymTest::TempDir dir;
    // Mode, readable, executable; a mode of 0 makes no file.
    const std::vector<std::tuple<unsigned, bool, bool>> cases = {
        {0600, false, false}, {0644, true, false}, {0755, true, true}, {0, false, false}};
    for (const auto& [mode, readable, executable] : cases)
        if (mode) KymTest::writeExecutable(dir / std::to_string(mode), "#!/bin/sh\n", mode);
    // The number of wrong answers.
    EXPECT_EQ(0, KymTest::runAsNobody([&] {
        int wrong = 0;
        for (const auto& [mode, readable, executable] : cases)
            wrong += (FileManager::isReadable(dir / std::to_string(mode)) != readable) +
                     (FileManager::isExecutable(dir / std::to_string(mode)) != executable);
        return wrong;
    }));
}

TEST(FileManager, ReadFileReturnsTheWholeContentWhateverSizeTheFileReports) {
    KymTest::TempDir dir;
    std::string large(200001, '\0');
    for (std::size_t i = 0; i < large.size(); ++i) large[i] = static_cast<char>(i * 7 % 251);
    KymTest::writeFile(dir / "large.dat", large);
    KymTest::writeFile(dir / "empty.dat", "");
    EXPECT_EQ(large, FileManager::readFile(dir / "large.dat"));
    EXPECT_EQ("", FileManager::readFile(dir / "empty.dat"));
    // A regular file that reports no size but has content.
    const std::string commandLine = FileManager::readFile("/proc/self/cmdline");
    EXPECT_GT(commandLine.size(), 1u);
    EXPECT_EQ(KymTest::readFile("/proc/self/cmdline"), commandLine);
}

TEST(FileManager, FailuresToReadSetPermissionsOrChangeDirectoryNamePathAndReason) {
    KymTest::TempDir dir;
    FileManager::setPermissions(dir.path(), 0775);
    EXPECT_EQ(0775u, modeOf(dir.path()));
    EXPECT_EQ("Cannot read file " + dir.path().string() + ": Is a directory",
              failureOf([&] { FileManager::readFile(dir.path()); }));
    EXPECT_EQ("Cannot set the permissions of " + (dir / "none").string() + " to 775: No such file or directory",
              failureOf([&] { FileManager::setPermissions(dir / "none", 0775); }));
    fs::path previous = FileManager::workDirectory();
    EXPECT_EQ("Cannot change the working directory to " + (dir / "none").string() + ": No such file or directory",
              failureOf([&] { FileManager::changeWorkDirectory(dir / "none"); }));
    EXPECT_EQ(previous, FileManager::workDirectory());
}

TEST(FileManager, ApplicationDataFolderFallsBackToTheConfigFolderInHomeWhenXdgConfigHomeIsEmpty) {
    KymTest::ScopedEnv home("HOME", std::string("/home/user"));
    KymTest::ScopedEnv emptyXdg("XDG_CONFIG_HOME", std::string(""));
    EXPECT_EQ(fs::path("/home/user/.config"), FileManager::applicationDataFolder());
}
