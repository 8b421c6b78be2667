#include "LauncherScene.h"

#include <gtest/gtest.h>

#include <algorithm>

#ifndef _WIN32
#include <pwd.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>
#endif

using namespace LauncherTest;
using Base::Platform;

namespace {

constexpr double Day = 86400.0;

fs::path fileAged(const fs::path& file, double days) {
    KymTest::writeFile(file, "x");
    KymTest::setAge(file, days * Day);
    return file;
}

// Names of the entries left, sorted; a directory's entries follow it as "dir/name".
Lines remaining(const fs::path& directory) {
    Lines names;
    for (fs::recursive_directory_iterator entry(directory), end; entry != end; ++entry)
        names.push_back(fs::relative(entry->path(), directory).generic_string());
    std::sort(names.begin(), names.end());
    return names;
}

// What every cleanup test puts in a temporary directory; the old ones are just over 4 days old.
void fillWithCandidates(const fs::path& dir) {
    for (const auto& [name, days] : std::vector<std::pair<std::string, double>>{
             {"young.jnl", 3.9}, {"old.jnl", 4.1}, {"old.LOG", 4.1}, {"x.csv", 4.1}, {"x.c", 4.1}, {"x.log.bak", 30},
             {"sub/inside.log", 30}})
        fileAged(dir / name, days);
    fs::create_directories(dir / "folder.tmp");
    KymTest::setAge(dir / "folder.tmp", 30 * Day);
}

const Lines leftOfCandidates = {"folder.tmp", "old.LOG", "sub", "sub/inside.log", "x.csv", "x.log.bak", "young.jnl"};

#ifndef _WIN32
// Cleans up in a child process that sees the directory as /tmp; returns the
// child's exit status, 200 and above when there is no private mount namespace.
int cleanUpWithPrivateTmp(const fs::path& directory, const Kym::Configuration& config) {
    const pid_t child = ::fork();
    if (child < 0) return 250;
    if (child == 0) {
        if (::unshare(CLONE_NEWNS) != 0 || ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            ::mount(directory.c_str(), "/tmp", nullptr, MS_BIND, nullptr) != 0)
            ::_exit(200);
        try {
            Kym::Launcher().removeLogFiles(config);
            ::_exit(0);
        } catch (...) {
            ::_exit(1);
        }
    }
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 251;
}
#endif

} // namespace

TEST(LauncherCleanup, UnderWindowsConventionsTempLosesOldJournalsLogsAndSourcesAfterTheDepartmentsDays) {
    KymTest::TempDir temp;
    Scene scene(Platform::Windows);
    KymTest::ScopedEnv tempVariable("TEMP", temp.path().string());
    fillWithCandidates(temp.path());
    Kym::Launcher().removeLogFiles(scene.department("Off", propertiesWith("", false, 3)));
    EXPECT_EQ(remaining(temp.path()).size(), leftOfCandidates.size() + 2);

    const Kym::Configuration config = scene.department("On", propertiesWith("", true, 3));
    KymTest::LogRecorder log({"kym.info"});
    Kym::Launcher().removeLogFiles(config);

    EXPECT_EQ(leftOfCandidates, remaining(temp.path()));
    Lines lines = log.lines("kym.info");
    std::sort(lines.begin(), lines.end());  // the files come in the order the directory lists them
    const std::string native = Scene::native(temp.path());
    EXPECT_EQ((Lines{"  Removing " + native + "\\old.jnl which is 4 days old.",
                     "  Removing " + native + "\\x.c which is 4 days old.", "Removing tmp files greater than 3 days old:"}),
              lines);
}

#ifndef _WIN32
TEST(LauncherCleanup, UnderPosixConventionsTmpAndTmpdirLoseOnlyTheUsersOwnOldFiles) {
    KYM_SKIP_UNLESS_ROOT();
    Scene scene(Platform::Posix);
    KymTest::TempDir root;
    const fs::path tmp = root / "tmp";
    fillWithCandidates(tmp / "user");
    fileAged(tmp / "old.jnl", 4.1);
    const fs::path others = fileAged(tmp / "others.jnl", 30);
    const passwd* nobody = ::getpwnam("nobody");
    ASSERT_NE(nullptr, nobody);
    ASSERT_EQ(0, ::chown(others.c_str(), nobody->pw_uid, static_cast<gid_t>(-1)));
    KymTest::setAge(others, 30 * Day);
    const Kym::Configuration config = scene.department("Design", propertiesWith("", true, 3));
    KymTest::ScopedEnv tmpdir("TMPDIR", std::string("/tmp/user"));

    const int status = cleanUpWithPrivateTmp(tmp, config);
    if (status >= 200) GTEST_SKIP() << "no private mount namespace for /tmp (status " << status << ")";

    EXPECT_EQ(0, status);
    Lines expected{"others.jnl", "user"};
    for (const std::string& name : leftOfCandidates) expected.push_back("user/" + name);
    EXPECT_EQ(expected, remaining(tmp));
}
#endif
