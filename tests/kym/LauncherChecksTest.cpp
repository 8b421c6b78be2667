#include "LauncherScene.h"

#include "kym/ConfigApplication.h"

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

std::string checkFailure(const Kym::ConfigApplication& app, const Environment& env) {
    return thrownMessage([&] { Kym::Launcher().getAndCheckExecutable(app, env); });
}

std::string notFound(const std::string& nativePath, const std::string& original) {
    return "Program " + nativePath + " is not found.\n  Original string = " + original +
           "\n  Maybe a environment variable is set wrong.";
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

TEST(LauncherExecutable, UnderWindowsConventionsABackslashAfterADirectoryEndingInOneIsCollapsed) {
    Platform::setCurrent(Platform::Windows);
    const Environment env{{"UGII_BASE_DIR", "C:\\NX\\"}};
    EXPECT_EQ(notFound("C:\\NX\\ugii\\ugraf.exe", "${UGII_BASE_DIR}\\ugii\\ugraf.exe"),
              checkFailure(application("${UGII_BASE_DIR}\\ugii\\ugraf.exe"), env));
}

TEST(LauncherExecutable, MissingProgramQuotesTheUnexpandedTextSoTheUnsetVariableShows) {
    Platform::setCurrent(Platform::Posix);
    EXPECT_EQ(notFound("/bin/cad", "$NOT_SET/bin/cad"), checkFailure(application("$NOT_SET/bin/cad"), {}));
    EXPECT_EQ(notFound("", ""), checkFailure(application(""), {}));
}

TEST(LauncherExecutable, DirectoryOrFileWithoutExecuteBitIsNotExecutable) {
    Platform::setCurrent(Platform::Posix);
    KymTest::TempDir dir;
    fs::create_directories(dir / "cad");
    executableScript(dir / "plain.txt", 0644);
    EXPECT_EQ("Program " + (dir / "cad").string() + " is not executable.\n",
              checkFailure(application((dir / "cad").string()), {}));
    EXPECT_EQ("Program " + (dir / "plain.txt").string() + " is not executable.\n",
              checkFailure(application((dir / "plain.txt").string()), {}));
}

TEST(LauncherExecutable, ExpansionErrorPassesUnchanged) {
    Platform::setCurrent(Platform::Posix);
    EXPECT_EQ("Unterminated reference '${BIN/cad' in '${BIN/cad'", checkFailure(application("${BIN/cad"), {}));
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
}

TEST(LauncherCadEnvironment, InstallPathThatIsAFileIsEnoughForTheExistenceTest) {
    Scene scene(Platform::Posix);
    KymTest::TempDir nx;
    KymTest::writeFile(nx / "file", "");
    Environment env{{"UGII_BASE_DIR", (nx / "file").string()}};
    Kym::Launcher().checkCadEnvironment(env);
    EXPECT_EQ((Environment{{"UGII_BASE_DIR", (nx / "file").string()}, {"UGII_ROOT_DIR", ""}}), env);
}

TEST(LauncherCadEnvironment, UnsetOrMissingInstallPathIsReported) {
    Scene scene(Platform::Windows);
    Environment env;
    EXPECT_EQ("UGII_BASE_DIR is not set.", thrownMessage([&] { Kym::Launcher().checkCadEnvironment(env); }));
    env = {{"UGII_BASE_DIR", "C:\\NX missing"}};
    EXPECT_EQ("UGII_BASE_DIR is set to C:\\NX missing. Invalid directory.",
              thrownMessage([&] { Kym::Launcher().checkCadEnvironment(env); }));
    EXPECT_EQ((Environment{{"UGII_BASE_DIR", "C:\\NX missing"}}), env);
}

TEST(LauncherCadEnvironment, TheVariableNamedBySystemInformationIsChecked) {
    Scene scene(Platform::Posix);
    scene.site.writeSystemInfo({{"CadInstallPathVariable", "MY_NX"}});
    Environment env{{"UGII_BASE_DIR", "/"}};
    EXPECT_EQ("MY_NX is not set.", thrownMessage([&] { Kym::Launcher().checkCadEnvironment(env); }));
}

TEST(LauncherCadEnvironment, NoInstallPathVariableAtAllIsReported) {
    Scene scene(Platform::Posix);
    scene.site.writeSystemInfo({{"CadInstallPathVariable", ""}});
    Environment env{{"UGII_BASE_DIR", "/"}};
    EXPECT_EQ("The system has not defined the environment variable for the install path of the CAD system. "
              "Cannot verify it is installed.",
              thrownMessage([&] { Kym::Launcher().checkCadEnvironment(env); }));
}

TEST(LauncherArguments, QuotedRunsAreGreedyAndKeepTheirQuotes) {
    Platform::setCurrent(Platform::Posix);
    const Kym::Launcher launcher;
    const Environment env{{"PART", "/parts/"}, {"NAME", "a b"}};
    EXPECT_EQ(std::vector<std::string>{}, launcher.buildArgList(application("x", ""), env));
    EXPECT_EQ(std::vector<std::string>{}, launcher.buildArgList(application("x", "  \t "), env));
    EXPECT_EQ((std::vector<std::string>{"-a", "\"x y\"", "-b"}), launcher.buildArgList(application("x", "-a \"x y\" -b"), env));
    EXPECT_EQ((std::vector<std::string>{"\"a\" \"b\""}), launcher.buildArgList(application("x", "\"a\" \"b\""), env));
    EXPECT_EQ((std::vector<std::string>{"-part=/parts/p.prt", "a", "b", "-x\"q\""}),
              launcher.buildArgList(application("x", "-part=$PART/p.prt $NAME $UNSET -x\"q\""), env));
}

TEST(LauncherArguments, ArgumentCountIsLogged) {
    Platform::setCurrent(Platform::Posix);
    KymTest::LogRecorder log({"kym.info"});
    Kym::Launcher().buildArgList(application("x", "a b"), {});
    EXPECT_EQ((Lines{"Building argument list...", "Argument list size is 2"}), log.lines("kym.info"));
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
}

TEST(LauncherCommand, MissingProgramFailsAsALaunchWould) {
    Scene scene(Platform::Posix);
    const Kym::Configuration config = scene.department("Design");
    EXPECT_EQ(notFound(config.path().string() + "/bin/cad", "$KYM_DEPT_DIR/bin/cad"),
              thrownMessage([&] { Kym::Launcher().commandString(config, nullptr, application("$KYM_DEPT_DIR/bin/cad")); }));
}
