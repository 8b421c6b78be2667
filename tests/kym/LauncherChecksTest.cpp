#include "LauncherScene.h"

#include "kym/ConfigApplication.h"
#include "kym/SystemInfo.h"

#include <gtest/gtest.h>

using namespace LauncherTest;
using Base::Platform;
using KymTest::thrownMessage;

namespace {

fs::path executableScript(const fs::path& file) {
    KymTest::writeFile(file, "#!/bin/sh\n");
    fs::permissions(file, fs::perms(0755));
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

TEST(LauncherExecutable, ExpandsTheProgramCollapsesTheSeparatorAfterTheDirectoryAndNamesTheFault) {
    KymTest::TempDir dir;
    Platform::setCurrent(Platform::Posix);
    const fs::path program = executableScript(dir / "bin" / "cad.sh");
    const Environment tools{{"TOOLS", (dir / "bin").string() + "/"}};
    EXPECT_EQ(program, Kym::Launcher().getAndCheckExecutable(application("${TOOLS}//cad.sh"), tools));

    fs::create_directories(dir / "cad");
    const struct {
        Platform::Kind conventions;
        std::string program;
        Environment env;
        std::string message;
    } cases[] = {
        {Platform::Windows, "${UGII_BASE_DIR}\\ugii\\ugraf.exe", {{"UGII_BASE_DIR", "C:\\NX\\"}},
         notFound("C:\\NX\\ugii\\ugraf.exe", "${UGII_BASE_DIR}\\ugii\\ugraf.exe")},
        {Platform::Posix, "$NOT_SET/bin/cad", {}, notFound("/bin/cad", "$NOT_SET/bin/cad")},
        {Platform::Posix, (dir / "cad").string(), {}, "Program " + (dir / "cad").string() + " is not executable.\n"},
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
}

TEST(LauncherCadEnvironment, UnsetOrMissingInstallPathIsReported) {
    Scene scene(Platform::Windows);
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

TEST(LauncherArguments, QuotedRunsAreGreedyAndKeepTheirQuotesAndExpandedValuesSplit) {
    Platform::setCurrent(Platform::Posix);
    const Environment env{{"PART", "/parts/"}, {"NAME", "a b"}};
    EXPECT_EQ((std::vector<std::string>{"-a", "\"a\" \"b\"", "-part=/parts/p.prt", "a", "b"}),
              Kym::Launcher().buildArgList(application("x", "-a \"a\" \"b\" -part=$PART/p.prt $NAME $UNSET"), env));
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
