#include "base/BaseException.h"
#include "base/Environment.h"
#include "base/FileManager.h"
#include "base/SystemCalls.h"
#include "base/SystemError.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <thread>
#include <tuple>

#ifdef _WIN32
#include <windows.h>
// After windows.h, whose types they use.
#include <aclapi.h>
#include <sddl.h>
#else
#include <sys/stat.h>
#endif

using Base::FileManager;
namespace fs = boost::filesystem;

namespace {

std::vector<std::string> entries(const fs::path& directory) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(directory)) names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

std::string failureOf(const std::function<void()>& action) { return KymTest::thrownMessage<Base::BaseException>(action); }

#ifdef _WIN32
// The system's words for an error code: Wine words them differently from Windows, the code is what counts.
std::string reason(DWORD error) { return Base::windowsErrorText(error); }
#else
unsigned modeOf(const fs::path& p) {
    struct stat status;
    return ::stat(p.c_str(), &status) == 0 ? status.st_mode & 07777 : 0xFFFF;
}
#endif

} // namespace

#ifndef _WIN32
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
#endif

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

#ifdef _WIN32
namespace {

// A reader of the file that holds it open until it goes, opened as readFile opens files.
class SharingReader {
public:
    explicit SharingReader(const fs::path& file)
        : mHandle(CreateFileA(file.string().c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                              nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr)) {}
    ~SharingReader() { CloseHandle(mHandle); }
    SharingReader(const SharingReader&) = delete;
    SharingReader& operator=(const SharingReader&) = delete;
    bool isOpen() const { return mHandle != INVALID_HANDLE_VALUE; }
    std::string content() const {
        char buffer[64];
        DWORD count = 0;
        return ReadFile(mHandle, buffer, sizeof(buffer), &count, nullptr) ? std::string(buffer, count) : "(unreadable)";
    }

private:
    HANDLE mHandle;
};

} // namespace

TEST(WriteFileAtomically, ReplacesAFileThatAReaderSharingItsDeletionHoldsOpenAndTheReaderKeepsTheOldContent) {
    KymTest::TempDir dir;
    KymTest::writeFile(dir / "site.dat", "old");
    {
        SharingReader reader(dir / "site.dat");
        ASSERT_TRUE(reader.isOpen());
        FileManager::writeFileAtomically(dir / "site.dat", "new");
        EXPECT_EQ("new", FileManager::readFile(dir / "site.dat"));
        EXPECT_EQ("old", reader.content());
    }
    // The old file goes with its last reader.
    EXPECT_EQ(std::vector<std::string>{"site.dat"}, entries(dir.path()));
}

// The access list of a file as text, or why it could not be read.
std::string accessListOf(const fs::path& file) {
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    const DWORD error = GetNamedSecurityInfoA(file.string().c_str(), SE_FILE_OBJECT, DACL_SECURITY_INFORMATION, nullptr,
                                              nullptr, nullptr, nullptr, &descriptor);
    if (error != ERROR_SUCCESS) return reason(error);
    char* text = nullptr;
    const BOOL converted = ConvertSecurityDescriptorToStringSecurityDescriptorA(descriptor, SDDL_REVISION_1,
                                                                                DACL_SECURITY_INFORMATION, &text, nullptr);
    const std::string result = converted ? text : reason(GetLastError());
    if (converted) LocalFree(text);
    LocalFree(descriptor);
    return result;
}

TEST(WriteFileAtomically, ReadersAlwaysFindTheOldOrTheNewContentAndTheFileKeepsItsAccessListAndAttributes) {
    KymTest::TempDir dir;
    const fs::path target = dir / "site.dat";
    KymTest::writeFile(target, "0");
    // Everyone may do everything, and nothing is inherited from the folder.
    const std::string accessList = "D:P(A;;FA;;;WD)";
    PSECURITY_DESCRIPTOR wanted = nullptr;
    ASSERT_TRUE(ConvertStringSecurityDescriptorToSecurityDescriptorA(accessList.c_str(), SDDL_REVISION_1, &wanted,
                                                                     nullptr));
    PACL list = nullptr;
    BOOL present = FALSE, defaulted = FALSE;
    ASSERT_TRUE(GetSecurityDescriptorDacl(wanted, &present, &list, &defaulted));
    ASSERT_EQ(DWORD(ERROR_SUCCESS),
              SetNamedSecurityInfoA(const_cast<char*>(target.string().c_str()), SE_FILE_OBJECT,
                                    DACL_SECURITY_INFORMATION | PROTECTED_DACL_SECURITY_INFORMATION, nullptr, nullptr,
                                    list, nullptr));
    LocalFree(wanted);
    // Wine keeps no access lists on most file systems; it makes them up from the file's mode.
    const bool listsKept = accessListOf(target) == accessList;
    ASSERT_TRUE(SetFileAttributesA(target.string().c_str(), FILE_ATTRIBUTE_HIDDEN));

    std::atomic<bool> writing{true};
    std::string missed;
    // Read as the launches of many engineers read it: one read after another, each brief.
    std::thread reader([&] {
        while (writing) {
            try {
                FileManager::readFile(target);
            } catch (const std::exception& failure) {
                missed = failure.what();
                return;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    const std::string saved = failureOf([&] {
        for (int round = 1; round <= 100; ++round) FileManager::writeFileAtomically(target, std::to_string(round));
    });
    writing = false;
    reader.join();
    EXPECT_EQ("(nothing thrown)", saved);
    EXPECT_EQ("", missed);
    EXPECT_EQ("100", KymTest::readFile(target));

    EXPECT_TRUE(GetFileAttributesA(target.string().c_str()) & FILE_ATTRIBUTE_HIDDEN);
    if (listsKept) {
        EXPECT_EQ(accessList, accessListOf(target));
    }
}

TEST(WriteFileAtomically, WaitsBrieflyForAReaderThatDoesNotShareDeletionAndFailsCleanlyWhenItStays) {
    KymTest::TempDir dir;
    const fs::path target = dir / "site.dat";
    KymTest::writeFile(target, "old");

    std::FILE* briefReader = std::fopen(target.string().c_str(), "rb");
    ASSERT_NE(nullptr, briefReader);
    std::thread closer([briefReader] {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        std::fclose(briefReader);
    });
    const std::string briefFailure = failureOf([&] { FileManager::writeFileAtomically(target, "new"); });
    closer.join();
    EXPECT_EQ("(nothing thrown)", briefFailure);
    EXPECT_EQ("new", KymTest::readFile(target));

    std::FILE* stayingReader = std::fopen(target.string().c_str(), "rb");
    ASSERT_NE(nullptr, stayingReader);
    const auto start = std::chrono::steady_clock::now();
    const std::string failure = failureOf([&] { FileManager::writeFileAtomically(target, "newer"); });
    const auto waited = std::chrono::steady_clock::now() - start;
    std::fclose(stayingReader);
    EXPECT_EQ("Cannot write settings file " + target.string() + ": " + reason(ERROR_SHARING_VIOLATION), failure);
    EXPECT_GE(waited, std::chrono::milliseconds(900));
    EXPECT_LT(waited, std::chrono::seconds(5));
    EXPECT_EQ("new", KymTest::readFile(target));
    EXPECT_EQ(std::vector<std::string>{"site.dat"}, entries(dir.path()));
}
#endif

#ifndef _WIN32
TEST(FileManager, ReadableAndExecutableFollowTheUsersRights) {
    KYM_SKIP_UNLESS_ROOT();
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
#else
TEST(FileManager, ExecutablesAreFilesWithAnExtensionFromPathExtAndFoldersThatCanBeListed) {
    KymTest::TempDir dir;
    for (const char* name : {"a.exe", "b.Bat", "c.CMD", "d.com", "e.txt", "f", "g.exe.txt"})
        KymTest::writeFile(dir / name, "");
    fs::create_directories(dir / "folder.txt");
    const auto executables = [&dir] {
        std::vector<std::string> names;
        for (const char* name : {"a.exe", "b.Bat", "c.CMD", "d.com", "e.txt", "f", "g.exe.txt", "folder.txt", "none.exe"})
            if (FileManager::isExecutable(dir / name)) names.push_back(name);
        return names;
    };
    std::vector<std::string> withoutPathExt, withPathExt;
    {
        KymTest::ScopedEnv unset("PATHEXT", std::nullopt);
        withoutPathExt = executables();
    }
    {
        KymTest::ScopedEnv own("PATHEXT", std::string(".txt;.EXE"));
        withPathExt = executables();
    }
    EXPECT_EQ((std::vector<std::string>{"a.exe", "b.Bat", "c.CMD", "d.com", "folder.txt"}), withoutPathExt);
    EXPECT_EQ((std::vector<std::string>{"a.exe", "e.txt", "g.exe.txt", "folder.txt"}), withPathExt);
    EXPECT_TRUE(FileManager::isReadable(dir / "e.txt"));
    EXPECT_FALSE(FileManager::isReadable(dir / "none.exe"));
}
#endif

TEST(FileManager, ReadFileReturnsTheWholeContentWhateverSizeTheFileReports) {
    KymTest::TempDir dir;
    std::string large(200001, '\0');
    for (std::size_t i = 0; i < large.size(); ++i) large[i] = static_cast<char>(i * 7 % 251);
    KymTest::writeFile(dir / "large.dat", large);
    KymTest::writeFile(dir / "empty.dat", "");
    EXPECT_EQ(large, FileManager::readFile(dir / "large.dat"));
    EXPECT_EQ("", FileManager::readFile(dir / "empty.dat"));
#ifndef _WIN32
    // A regular file that reports no size but has content.
    const std::string commandLine = FileManager::readFile("/proc/self/cmdline");
    EXPECT_GT(commandLine.size(), 1u);
    EXPECT_EQ(KymTest::readFile("/proc/self/cmdline"), commandLine);
#endif
}

TEST(FileManager, FailuresToReadSetPermissionsOrChangeDirectoryNamePathAndReason) {
    KymTest::TempDir dir;
#ifdef _WIN32
    const std::string isDirectory = reason(ERROR_ACCESS_DENIED), noFile = reason(ERROR_FILE_NOT_FOUND);
#else
    const std::string isDirectory = "Is a directory", noFile = "No such file or directory";
    FileManager::setPermissions(dir.path(), 0775);
    EXPECT_EQ(0775u, modeOf(dir.path()));
#endif
    EXPECT_EQ("Cannot read file " + dir.path().string() + ": " + isDirectory,
              failureOf([&] { FileManager::readFile(dir.path()); }));
    EXPECT_EQ("Cannot read file " + (dir / "none").string() + ": " + noFile,
              failureOf([&] { FileManager::readFile(dir / "none"); }));
    EXPECT_EQ("Cannot set the permissions of " + (dir / "none").string() + " to 775: " + noFile,
              failureOf([&] { FileManager::setPermissions(dir / "none", 0775); }));
    fs::path previous = FileManager::workDirectory();
    EXPECT_EQ("Cannot change the working directory to " + (dir / "none").string() + ": " + noFile,
              failureOf([&] { FileManager::changeWorkDirectory(dir / "none"); }));
    EXPECT_EQ(previous, FileManager::workDirectory());
}

#ifndef _WIN32
TEST(FileManager, ApplicationDataFolderFallsBackToTheConfigFolderInHomeWhenXdgConfigHomeIsEmpty) {
    KymTest::ScopedEnv home("HOME", std::string("/home/user"));
    KymTest::ScopedEnv emptyXdg("XDG_CONFIG_HOME", std::string(""));
    EXPECT_EQ(fs::path("/home/user/.config"), FileManager::applicationDataFolder());
}
#else
TEST(FileManager, ApplicationDataFolderIsTheUsersRoamingAppDataFolder) {
    const fs::path folder = FileManager::applicationDataFolder();
    // The shell's folder, whatever the environment says.
    KymTest::ScopedEnv misleading("APPDATA", std::string("C:\\elsewhere"));
    EXPECT_EQ(folder, FileManager::applicationDataFolder());
    EXPECT_TRUE(fs::is_directory(folder));
    const fs::path profile = fs::path(Base::Environment::getEnvVariable("USERPROFILE"));
    EXPECT_EQ(profile / "AppData" / "Roaming", folder);
}

TEST(FileManager, ShortPathNameGivesTheEightDotThreeFormOfAnExistingPathAndNothingForAMissingOne) {
    KymTest::TempDir dir;
    const fs::path file = dir / "Program Files" / "a long file name.text";
    KymTest::writeFile(file, "x");
    const std::string shortForm = FileManager::shortPathName(file.string());
    if (shortForm == file.string()) GTEST_SKIP() << "this volume keeps no short names";
    // Every part fits 8.3 and has no blank, and the short form names the same file.
    std::vector<std::string> parts;
    for (const auto& part : fs::path(shortForm).relative_path()) parts.push_back(part.string());
    ASSERT_FALSE(parts.empty()) << shortForm;
    for (const auto& part : parts) {
        const std::size_t dot = part.find('.');
        const bool fits = part.find(' ') == std::string::npos && (dot == std::string::npos ? part.size() <= 8
                                                                  : dot <= 8 && part.size() - dot - 1 <= 3);
        EXPECT_TRUE(fits) << part << " in " << shortForm;
    }
    EXPECT_TRUE(fs::equivalent(file, shortForm)) << shortForm;
    EXPECT_EQ("x", FileManager::readFile(shortForm));
    EXPECT_EQ("", FileManager::shortPathName((dir / "none" / "a long file name.text").string()));
}
#endif
