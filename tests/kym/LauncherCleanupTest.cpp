#include "LauncherScene.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <pwd.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

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

Lines sorted(Lines lines) {
    std::sort(lines.begin(), lines.end());
    return lines;
}

// What every cleanup test puts in a temporary directory.
void fillWithCandidates(const fs::path& dir) {
    fileAged(dir / "young.jnl", 2.9);
    fileAged(dir / "old.jnl", 3.1);
    fileAged(dir / "old.LOG", 3.1);
    fileAged(dir / "x.csv", 3.1);
    fileAged(dir / "x.c", 3.1);
    fileAged(dir / "x.rol_bin", 30);
    fileAged(dir / "x.log.bak", 30);
    fileAged(dir / "log", 30);
    fileAged(dir / "sub" / "inside.log", 30);
    fs::create_directories(dir / "folder.tmp");
    KymTest::setAge(dir / "folder.tmp", 30 * Day);
}

const Lines leftOfCandidates = {"folder.tmp", "log", "old.LOG", "sub", "sub/inside.log", "x.csv", "x.log.bak", "young.jnl"};

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
        } catch (...) {
            ::_exit(1);
        }
        ::_exit(0);
    }
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 251;
}

} // namespace

TEST(LauncherCleanup, UnderWindowsConventionsOldJournalsLogsAndSourcesInTempGo) {
    Scene scene(Platform::Windows);
    KymTest::TempDir temp;
    KymTest::ScopedEnv tempVariable("TEMP", temp.path().string());
    fillWithCandidates(temp.path());
    const Kym::Configuration config = scene.department("Design", propertiesWith("", true));
    KymTest::LogRecorder log;

    Kym::Launcher().removeLogFiles(config);

    EXPECT_EQ(leftOfCandidates, remaining(temp.path()));
    const std::string native = Scene::native(temp.path());
    EXPECT_EQ(sorted({"Removing tmp files greater than 2 days old:",
                      "  Removing " + native + "\\old.jnl which is 3 days old.",
                      "  Removing " + native + "\\x.c which is 3 days old.",
                      "  Removing " + native + "\\x.rol_bin which is 30 days old."}),
              sorted(log.lines("kym.info")));
    EXPECT_EQ((Lines{"  looking in c:\\temp", "  looking in " + native}), log.lines("kym.verbose"));

    // Without TEMP there is nothing to look in.
    KymTest::ScopedEnv noTemp("TEMP", std::nullopt);
    KymTest::LogRecorder unset({"kym.verbose"});
    Kym::Launcher().removeLogFiles(config);
    EXPECT_EQ((Lines{"  looking in c:\\temp", "  looking in "}), unset.lines("kym.verbose"));
}

TEST(LauncherCleanup, AgeLimitComesFromTheDepartmentAndCanBeSwitchedOff) {
    Scene scene(Platform::Windows);
    KymTest::TempDir temp;
    KymTest::ScopedEnv tempVariable("TEMP", temp.path().string());
    fileAged(temp / "a.prt", 5.5);
    fileAged(temp / "b.prt", 6.5);
    KymTest::DepartmentProperties properties = propertiesWith("", false);
    properties.cleanupDays = 5;
    scene.site.addDepartment("Off", properties);
    properties.doFileCleanup = true;
    scene.site.addDepartment("On", properties);

    Kym::Launcher().removeLogFiles(Kym::Configuration(scene.site.departmentsPath() / "Off", true));
    EXPECT_EQ((Lines{"a.prt", "b.prt"}), remaining(temp.path()));
    Kym::Launcher().removeLogFiles(Kym::Configuration(scene.site.departmentsPath() / "On", true));
    EXPECT_EQ((Lines{"a.prt"}), remaining(temp.path()));
}

TEST(LauncherCleanup, UnderPosixConventionsTmpAndTmpdirLoseOnlyTheUsersOwnOldFiles) {
    Scene scene(Platform::Posix);
    KymTest::TempDir root;
    const fs::path tmp = root / "tmp";
    fillWithCandidates(tmp / "user");
    fileAged(tmp / "old.jnl", 3.1);
    fileAged(tmp / "young.dlg", 1);
    const fs::path others = fileAged(tmp / "others.jnl", 30);
    const passwd* nobody = ::getpwnam("nobody");
    ASSERT_NE(nullptr, nobody);
    ASSERT_EQ(0, ::chown(others.c_str(), nobody->pw_uid, static_cast<gid_t>(-1)));
    KymTest::setAge(others, 30 * Day);
    const Kym::Configuration config = scene.department("Design", propertiesWith("", true));
    KymTest::ScopedEnv tmpdir("TMPDIR", std::string("/tmp/user"));

    const int status = cleanUpWithPrivateTmp(tmp, config);
    if (status >= 200) GTEST_SKIP() << "no private mount namespace for /tmp (status " << status << ")";

    EXPECT_EQ(0, status);
    Lines expected{"others.jnl", "user", "young.dlg"};
    for (const std::string& name : leftOfCandidates) expected.push_back("user/" + name);
    EXPECT_EQ(sorted(expected), remaining(tmp));
}
