#include "LauncherScene.h"

#include "kym/ConfigApplication.h"
#include "kym/SystemInfo.h"

#include <gtest/gtest.h>

using namespace LauncherTest;
using Base::Platform;
using KymTest::thrownMessage;

TEST(LauncherExecutable, ExpandsTheProgramCollapsesTheSeparatorAfterTheDirectoryAndNamesTheFault) {
    KymTest::TempDir dir;
    Platform::setCurrent(Platform::Posix);
    // Executable by its mode on POSIX, by its extension on Windows.
    const fs::path program = KymTest::writeExecutable(dir / "bin" / "cad.exe", "#!/bin/sh\n");
    const Environment tools{{"TOOLS", (dir / "bin").string() + "/"}};
    EXPECT_EQ(program, Kym::Launcher().getAndCheckExecutable(application("${TOOLS}//cad.exe"), tools));

    fs::create_directories(dir / "cad");
    KymTest::writeExecutable(dir / "notes.txt", "", 0644);
    for (const fs::path& notExecutable : {dir / "cad", dir / "notes.txt"})
        EXPECT_EQ("Program " + Platform::current().nativePath(notExecutable) + " is not executable.\n",
                  thrownMessage([&] {
                      Kym::Launcher().getAndCheckExecutable(application(notExecutable.string()), {});
                  }));
    Platform::setCurrent(Platform::Windows);
    EXPECT_EQ("Program C:\\NX\\ugii\\ugraf.exe is not found.\n  Original string = ${UGII_BASE_DIR}\\ugii\\ugraf.exe\n"
              "  Maybe a environment variable is set wrong.",
              thrownMessage([] {
                  Kym::Launcher().getAndCheckExecutable(application("${UGII_BASE_DIR}\\ugii\\ugraf.exe"),
                                                        {{"UGII_BASE_DIR", "C:\\NX\\"}});
              }));
}

TEST(LauncherCadEnvironment, ShortensTheInstallPathDropsAMissingLibraryAndNamesWhatIsWrong) {
    KymTest::TempDir nx;
    Scene scene(Platform::Windows);
    Environment env{{"UGII_BASE_DIR", nx.path().string()}, {"UGII_LIB1", (nx / "missing").string()}, {"OTHER", "o"}};
    Kym::Launcher().checkCadEnvironment(env);
    EXPECT_EQ((Environment{{"OTHER", "o"}, {"UGII_BASE_DIR", KymTest::shortFormOnThisHost(nx.path())},
                           {"UGII_ROOT_DIR", ""}}),
              env);

    auto failure = [](Environment env) { return thrownMessage([&] { Kym::Launcher().checkCadEnvironment(env); }); };
    EXPECT_EQ("UGII_BASE_DIR is set to C:\\NX missing. Invalid directory.", failure({{"UGII_BASE_DIR", "C:\\NX missing"}}));
    // The variable checked is the one the system information names.
    Kym::SystemInformation().CadInstallPathVariable = "MY_NX";
    EXPECT_EQ("MY_NX is not set.", failure({{"UGII_BASE_DIR", "/"}}));
    Kym::SystemInformation().CadInstallPathVariable = "";
    EXPECT_EQ("The system has not defined the environment variable for the install path of the CAD system. "
              "Cannot verify it is installed.",
              failure({{"UGII_BASE_DIR", "/"}}));
}

TEST(LauncherArguments, QuotedRunsAreGreedyAndKeepTheirQuotesAndExpandedValuesSplit) {
    const Environment env{{"PART", "/parts/"}, {"NAME", "two words"}};
    const std::pair<std::string, Lines> cases[] = {
        {"", {}},
        // The quoted run is greedy: two quoted words and what stands between them are one argument.
        {"-a \"a\" \"b\" -part=$PART/p.prt", {"-a", "\"a\" \"b\"", "-part=/parts/p.prt"}},
        {"\"a\" \"b\" -name=$NAME \"say \\\"hi\\\"\"", {"\"a\" \"b\" -name=two words \"say \\\"hi\\\"\""}},
        {"-name=$NAME $UNSET back\\slash trailing\\", {"-name=two", "words", "back\\slash", "trailing\\"}}};
    for (const Platform::Kind conventions : {Platform::Posix, Platform::Windows}) {
        Platform::setCurrent(conventions);
        for (const auto& [text, arguments] : cases)
            EXPECT_EQ(arguments, Kym::Launcher().buildArgList(application("x", text), env)) << conventions << ": " << text;
    }
}
