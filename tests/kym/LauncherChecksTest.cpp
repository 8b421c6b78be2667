#include "LauncherScene.h"

#include "kym/ConfigApplication.h"
#include "kym/SystemInfo.h"

#include <gtest/gtest.h>

using namespace LauncherTest;
using Base::Platform;
using KymTest::thrownMessage;

namespace {

fs::path executableScript(const fs::path& file, unsigned mode = 0755) {
    KymTest::writeFile(file, "#!/bin/sh\n");
    fs::permissions(file, fs::perms(mode));
    return file;
}

std::string notFound(const std::string& nativePath, const std::string& original) {
    return "Program " + nativePath + " is not found.\n  Original string = " + original +
           "\n  Maybe a environment variable is set wrong.";
}

std::string cadCheckFailure(Environment env) {
    return thrownMessage([&] { Kym::Launcher().checkCadEnvironment(env); });
}

} // namespace

TEST(LauncherExecutable, ExpandsTheProgramAndCollapsesTheSeparatorAfterTheDirectory) {
    Platform::setCurrent(Platform::Posix);
    KymTest::TempDir dir;
    const fs::path program = executableScript(dir / "bin" / "cad.sh");
    const Environment env{{"TOOLS", (dir / "bin").string() + "/"}};
    EXPECT_EQ(program, Kym::Launcher().getAndCheckExecutable(application("$TOOLS/cad.sh"), env));
    EXPECT_EQ(program, Kym::Launcher().getAndCheckExecutable(application("${TOOLS}//cad.sh"), env));
}

TEST(LauncherExecutable, FailuresNameTheExpandedProgramAndQuoteTheUnexpandedText) {
    KymTest::TempDir dir;
    fs::create_directories(dir / "cad");
    executableScript(dir / "plain.txt", 0644);
    const struct {
        Platform::Kind conventions;
        std::string program;
        Environment env;
        std::string message;
    } cases[] = {
        // The backslash after a directory that ends in one is collapsed.
        {Platform::Windows, "${UGII_BASE_DIR}\\ugii\\ugraf.exe", {{"UGII_BASE_DIR", "C:\\NX\\"}},
         notFound("C:\\NX\\ugii\\ugraf.exe", "${UGII_BASE_DIR}\\ugii\\ugraf.exe")},
        {Platform::Posix, "$NOT_SET/bin/cad", {}, notFound("/bin/cad", "$NOT_SET/bin/cad")},
        {Platform::Posix, "", {}, notFound("", "")},
        {Platform::Posix, (dir / "cad").string(), {}, "Program " + (dir / "cad").string() + " is not executable.\n"},
        {Platform::Posix, (dir / "plain.txt").string(), {},
         "Program " + (dir / "plain.txt").string() + " is not executable.\n"},
        {Platform::Posix, "${BIN/cad", {}, "Unterminated reference '${BIN/cad' in '${BIN/cad'"},
    };
    for (const auto& check : cases) {
        SCOPED_TRACE(check.program);
        Platform::setCurrent(check.conventions);
        EXPECT_EQ(check.message,
                  thrownMessage([&] { Kym::Launcher().getAndCheckExecutable(application(check.program), check.env); }));
    }
}

TEST(LauncherCadEnvironment, InstallPathAndRootGoToShortFormAndAMissingLibraryIsDropped) {
    Scene scene(Platform::Windows);
    KymTest::TempDir nx;
    Environment env{{"UGII_BASE_DIR", nx.path().string()}, {"UGII_LIB1", (nx / "missing").string()}, {"OTHER", "o"}};
    Kym::Launcher().checkCadEnvironment(env);
    EXPECT_EQ((Environment{{"OTHER", "o"}, {"UGII_BASE_DIR", nx.path().string()}, {"UGII_ROOT_DIR", ""}}), env);

    fs::create_directories(nx / "lib");
    env = {{"UGII_BASE_DIR", nx.path().string()},
           {"UGII_LIB1", (nx / "lib").string()},
           {"UGII_ROOT_DIR", (nx / "ugii").string()}};
    const Environment before = env;
    Kym::Launcher().checkCadEnvironment(env);
    EXPECT_EQ(before, env);

    // Only existence is tested: a file will do.
    KymTest::writeFile(nx / "file", "");
    env = {{"UGII_BASE_DIR", (nx / "file").string()}};
    Kym::Launcher().checkCadEnvironment(env);
    EXPECT_EQ((Environment{{"UGII_BASE_DIR", (nx / "file").string()}, {"UGII_ROOT_DIR", ""}}), env);
}

TEST(LauncherCadEnvironment, UnsetOrMissingInstallPathIsReported) {
    Scene scene(Platform::Windows);
    EXPECT_EQ("UGII_BASE_DIR is not set.", cadCheckFailure({}));
    EXPECT_EQ("UGII_BASE_DIR is set to C:\\NX missing. Invalid directory.",
              cadCheckFailure({{"UGII_BASE_DIR", "C:\\NX missing"}}));

    // The variable checked is the one the system information names.
    Kym::SystemInformation().CadInstallPathVariable = "MY_NX";
    EXPECT_EQ("MY_NX is not set.", cadCheckFailure({{"UGII_BASE_DIR", "/"}}));
    Kym::SystemInformation().CadInstallPathVariable = "";
    EXPECT_EQ("The system has not defined the environment variable for the install path of the CAD system. "
              "Cannot verify it is installed.",
              cadCheckFailure({{"UGII_BASE_DIR", "/"}}));
}

TEST(LauncherArguments, QuotedRunsAreGreedyAndKeepTheirQuotes) {
    Platform::setCurrent(Platform::Posix);
    const Kym::Launcher launcher;
    const Environment env{{"PART", "/parts/"}, {"NAME", "a b"}};
    EXPECT_EQ(std::vector<std::string>{}, launcher.buildArgList(application("x", ""), env));
    EXPECT_EQ(std::vector<std::string>{}, launcher.buildArgList(application("x", "  \t "), env));
    EXPECT_EQ((std::vector<std::string>{"-a", "\"x y\"", "-b"}), launcher.buildArgList(application("x", "-a \"x y\" -b"), env));
    EXPECT_EQ((std::vector<std::string>{"\"a\" \"b\""}), launcher.buildArgList(application("x", "\"a\" \"b\""), env));
    KymTest::LogRecorder log({"kym.info"});
    EXPECT_EQ((std::vector<std::string>{"-part=/parts/p.prt", "a", "b", "-x\"q\""}),
              launcher.buildArgList(application("x", "-part=$PART/p.prt $NAME $UNSET -x\"q\""), env));
    EXPECT_EQ((Lines{"Building argument list...", "Argument list size is 4"}), log.lines("kym.info"));
}

TEST(LauncherCommand, IsTheNativeProgramAndItsArgumentsAndStartsAndRemovesNothing) {
    Scene scene(Platform::Windows);
    KymTest::TempDir temp;
    KymTest::ScopedEnv tempVariable("TEMP", temp.path().string());
    const fs::path stale = temp / "old.jnl";
    KymTest::writeFile(stale, "");
    KymTest::setAge(stale, 10 * 86400.0);
    const fs::path program = executableScript(scene.site.root() / "bin" / "cad.sh");
    const Kym::Configuration config = scene.department("Design", propertiesWith("", true));
    EXPECT_EQ(Scene::native(program) + " -a \"x y\" -dept=" + Scene::native(config.path()),
              Kym::Launcher().commandString(config, nullptr, application(program.string(), "-a \"x y\" -dept=$KYM_DEPT_DIR")));
    EXPECT_TRUE(fs::exists(stale));
    EXPECT_EQ(notFound(Scene::native(config.path() / "bin" / "cad"), "$KYM_DEPT_DIR/bin/cad"),
              thrownMessage([&] { Kym::Launcher().commandString(config, nullptr, application("$KYM_DEPT_DIR/bin/cad")); }));
}
