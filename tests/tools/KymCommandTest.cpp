// The kym command run as a user runs it: the built program in a child
// process, against a real site in a temporary folder, its output and exit
// status compared whole, and what it wrote read back through the library.
#include "kym/BaseSettings.h"
#include "kym/Configuration.h"
#include "kym/ConfigurationSettings.h"
#include "kym/PluginSettings.h"
#include "kym/SiteSettings.h"
#include "kym/SystemInfo.h"
#include "kym/WorkDirectory.h"

#include "base/PropertyList.h"
#include "base/Unarchiver.h"

#include "support/Site.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <boost/algorithm/string/predicate.hpp>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <pty.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

using namespace KymTest;

const bool orphansReaped = KymTest::reapOrphansOfTheTests();

const std::string KymProgram = std::string(KYM_BINARY_DIR) + "/tools/kym";

struct Outcome {
    int status;
    std::string out;
    std::string err;
};

std::vector<char*> argumentVector(std::vector<std::string>& arguments) {
    std::vector<char*> argv{const_cast<char*>(KymProgram.c_str())};
    for (std::string& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    return argv;
}

int exitStatus(pid_t child) {
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Runs kym with the test's environment; standard input is empty, not a terminal.
Outcome kym(std::vector<std::string> arguments) {
    TempDir capture;
    const fs::path in = capture / "in", out = capture / "out", err = capture / "err";
    writeFile(in, "");
    std::vector<char*> argv = argumentVector(arguments);
    pid_t child = ::fork();
    if (child == 0) {
        ::dup2(::open(in.c_str(), O_RDONLY), 0);
        ::dup2(::open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 1);
        ::dup2(::open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 2);
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    const int status = exitStatus(child);
    return {status, readFile(out), readFile(err)};
}

// Runs kym on a terminal and types the answer; returns the exit status.
int kymOnTerminal(std::vector<std::string> arguments, const std::string& answer, std::string& screen) {
    std::vector<char*> argv = argumentVector(arguments);
    int terminal = -1;
    pid_t child = ::forkpty(&terminal, nullptr, nullptr, nullptr);
    if (child == 0) {
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    const std::string typed = answer + "\n";
    if (::write(terminal, typed.data(), typed.size()) != static_cast<ssize_t>(typed.size())) return -1;
    char buffer[4096];
    for (ssize_t count; (count = ::read(terminal, buffer, sizeof buffer)) > 0;) screen.append(buffer, count);
    ::close(terminal);
    return exitStatus(child);
}

// A program that records how it was started, from /proc (exactly what execve was given).
fs::path writeProbe(const fs::path& directory) {
    const fs::path probe = directory / "probe.sh";
    writeFile(probe, "#!/bin/sh\n"
                     "out='" + directory.string() + "'\n"
                     "/bin/cat /proc/$$/cmdline > \"$out/cmdline\"\n"
                     "/bin/cat /proc/$$/environ > \"$out/environ\"\n"
                     "pwd -P > \"$out/cwd\"\n"
                     "echo $$ > \"$out/pid.part\"\n"
                     "/bin/mv \"$out/pid.part\" \"$out/pid\"\n");
    fs::permissions(probe, fs::perms(0755));
    return probe;
}

std::vector<std::string> splitAtNul(const std::string& text) {
    std::vector<std::string> parts;
    std::size_t start = 0;
    for (std::size_t end; (end = text.find('\0', start)) != std::string::npos; start = end + 1)
        parts.push_back(text.substr(start, end - start));
    return parts;
}

struct ProbeRecord {
    std::vector<std::string> arguments;
    std::vector<std::string> environment;
    std::string directory;

    std::string variable(const std::string& name) const {
        for (const std::string& entry : environment)
            if (boost::starts_with(entry, name + "=")) return entry.substr(name.size() + 1);
        return "(unset)";
    }
};

// The probe runs on after kym has returned; it is waited for here, not timed.
ProbeRecord readProbe(const fs::path& directory) {
    for (int attempt = 0; attempt < 500 && !fs::exists(directory / "pid"); ++attempt)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    if (!fs::exists(directory / "pid")) throw std::runtime_error("the probe did not run");
    return {splitAtNul(readFile(directory / "cmdline")), splitAtNul(readFile(directory / "environ")),
            readFile(directory / "cwd")};
}

// The lines of a text from the one that equals `first` up to the next line that does not start with a blank.
std::string block(const std::string& text, const std::string& first) {
    const std::size_t start = text.find("\n" + first + "\n");
    if (start == std::string::npos) return "(no " + first + ")";
    std::size_t end = start + first.size() + 2;
    while (end < text.size() && text[end] == ' ') end = text.find('\n', end) + 1;
    return text.substr(start + 1, end - start - 1);
}

Kym::WorkDirectory workDirectoryRecord(const std::string& name, const std::string& path) {
    Kym::WorkDirectory directory;
    directory.name = name;
    directory.path = path;
    return directory;
}

template <class T>
T property(const fs::path& department, const std::string& key) {
    return boost::any_cast<T>(
        Base::PropertyList(department / Kym::Configuration::PropertyFileName).getProperty(key));
}

class KymCommand : public ::testing::Test {
protected:
    KymCommand() {
        site.writeReleaseNames();
        site.writeVersionFiles({{"config/readme", "release files\n"}});
        fs::create_directories(home);
    }

    fs::path department(const std::string& name) const { return site.departmentsPath() / name; }
    std::string native(const fs::path& p) const { return p.string(); }

    // Shared (type Common) and Design, which uses it, both updated for the release.
    void makeDepartments() {
        ASSERT_EQ(kym({"dept", "create", "Shared", "--type", "Common", "--description", "Shared settings"}).status, 0);
        ASSERT_EQ(kym({"dept", "create", "Design", "--description", "Design office", "--common", "Shared"}).status, 0);
    }

    Site site;
    fs::path home = site.root() / "home";
    ScopedEnv homeVariable{"HOME", home.string()};
    ScopedEnv noDepartment{"KYM_DEPT_DIR", std::nullopt};
    ScopedEnv noLog{"KYM_LOG", std::nullopt};
    ScopedEnv noLogFile{"KYM_LOG_FILE", std::nullopt};
    ScopedEnv noPlatform{"KYM_PLATFORM", std::nullopt};
};

TEST_F(KymCommand, WrongCommandLinesShowTheUsageWithStatusTwo) {
    ASSERT_TRUE(orphansReaped);
    Outcome none = kym({});
    EXPECT_EQ(none.status, 2);
    EXPECT_EQ(none.err, "kym: no command given.\nUsage: kym [OPTIONS] [SUBCOMMAND]\nRun 'kym --help' for more.\n");
    EXPECT_EQ(none.out, "");

    Outcome missing = kym({"var", "set", "base", "UGII_LANG"});
    EXPECT_EQ(missing.status, 2);
    EXPECT_EQ(missing.err, "kym: VALUE is required\nUsage: kym var set [OPTIONS] LAYER NAME VALUE\n"
                           "Run 'kym help var set' for more.\n");

    Outcome unknown = kym({"frob"});
    EXPECT_EQ(unknown.status, 2);
    EXPECT_EQ(unknown.err, "kym: The following argument was not expected: frob\n"
                           "Usage: kym [OPTIONS] [SUBCOMMAND]\nRun 'kym --help' for more.\n");

    Outcome option = kym({"dept", "list", "--colour"});
    EXPECT_EQ(option.status, 2);
    EXPECT_EQ(option.err, "kym: The following argument was not expected: --colour\n"
                          "Usage: kym dept list [OPTIONS]\nRun 'kym help dept list' for more.\n");

    Outcome layer = kym({"var", "list", "elsewhere"});
    EXPECT_EQ(layer.status, 2);
    EXPECT_EQ(layer.err, "kym: Unknown layer 'elsewhere': LAYER is one of: site, base, plugin:NAME, dept:NAME (a "
                         "department).\nUsage: kym var list [OPTIONS] LAYER\nRun 'kym help var list' for more.\n");

    Outcome program = kym({"run", "Design"});
    EXPECT_EQ(program.status, 2);
    EXPECT_EQ(program.err, "kym: Give the program after '--': kym run [DEPT] -- PROGRAM [ARGUMENTS...].\n"
                           "Usage: kym run [OPTIONS] [DEPT]\nRun 'kym help run' for more.\n");

    EXPECT_EQ(kym({"--platform", "macos", "departments"}).status, 2);
    EXPECT_EQ(kym({"help", "nothing"}).status, 2);
}

TEST_F(KymCommand, HelpExplainsEveryCommandWithExamples) {
    Outcome overview = kym({"--help"});
    EXPECT_EQ(overview.status, 0);
    EXPECT_TRUE(boost::contains(overview.out, "Usage: kym [OPTIONS] [SUBCOMMAND]\n")) << overview.out;
    EXPECT_TRUE(boost::contains(overview.out, "  doctor                      Check the whole site.\n")) << overview.out;

    Outcome command = kym({"help", "var", "set"});
    EXPECT_EQ(command.status, 0);
    EXPECT_TRUE(boost::starts_with(command.out, "Set a variable: its value is replaced when the list has the name, else it "
                                                    "is added at the end.\nUsage: kym var set [OPTIONS] LAYER NAME VALUE\n"))
        << command.out;
    EXPECT_TRUE(boost::contains(command.out, "Examples:\n  kym var set base UGII_LANG english\n")) << command.out;
    EXPECT_EQ(kym({"var", "set", "--help"}).out, command.out);
}

TEST_F(KymCommand, FailuresPrintTheLibraryMessageWithStatusOne) {
    Outcome unknownDepartment = kym({"dept", "show", "Nowhere"});
    EXPECT_EQ(unknownDepartment.status, 1);
    EXPECT_EQ(unknownDepartment.err,
              "kym: Department 'Nowhere' does not exist in " + native(site.departmentsPath()) + ".\n");
    EXPECT_EQ(unknownDepartment.out, "");

    ScopedEnv noInstallation("KYM_BASE_DIR", std::nullopt);
    Outcome noSite = kym({"departments"});
    EXPECT_EQ(noSite.status, 1);
    EXPECT_EQ(noSite.err, "kym: KYM_BASE_DIR is not set.\n");
}

TEST_F(KymCommand, VariablesAreSetReplacedAndUnsetWhereTheLibraryReadsThem) {
    Layer base;
    base.applications.push_back(makeApplication("nx", "/bin/true", "NX"));
    site.writeBaseSettings(base);

    EXPECT_EQ(kym({"var", "set", "base", "UGII_LANG", "english"}).out,
              "Set UGII_LANG=english in the common list of the base settings.\n");
    EXPECT_EQ(kym({"var", "set", "base", "UGII_LANG", "german", "--comment", "for design"}).out,
              "Replaced UGII_LANG=german in the common list of the base settings.\n");
    EXPECT_EQ(kym({"var", "set", "base", "PATH", "${PATH}:/opt/tools", "--list", "unix"}).status, 0);
    EXPECT_EQ(kym({"var", "set", "base", "UGII_OPTION", "1", "--app", "nx"}).out,
              "Set UGII_OPTION=1 in the common list of application nx of the base settings.\n");
    EXPECT_EQ(kym({"var", "set", "base", "SCRATCH", "x"}).status, 0);
    EXPECT_EQ(kym({"var", "unset", "base", "SCRATCH"}).out, "Removed SCRATCH from the common list of the base settings.\n");
    Outcome again = kym({"var", "unset", "base", "SCRATCH"});
    EXPECT_EQ(again.status, 1);
    EXPECT_EQ(again.err, "kym: Variable 'SCRATCH' is not in the common list of the base settings.\n");
    EXPECT_EQ(kym({"var", "list", "base"}).out, "LIST    NAME       VALUE               COMMENT\n"
                                                "common  UGII_LANG  german              for design\n"
                                                "unix    PATH       ${PATH}:/opt/tools\n");

    Kym::BaseSettings& settings = Kym::BaseInformation();
    EXPECT_EQ(variableTexts(settings.commonVariableList()), std::vector<std::string>{"UGII_LANG=german"});
    EXPECT_EQ(settings.commonVariableList().at(0).comment, "for design");
    EXPECT_EQ(variableTexts(settings.unixVariableList()), std::vector<std::string>{"PATH=${PATH}:/opt/tools"});
    EXPECT_EQ(variableTexts(settings.applicationList().at(0).commonVariableList()),
              std::vector<std::string>{"UGII_OPTION=1"});
}

TEST_F(KymCommand, InvalidVariablesAreRefusedAndNothingIsSaved) {
    makeDepartments();
    ASSERT_EQ(kym({"var", "set", "dept:Design", "UGII_LANG", "german"}).status, 0);
    const fs::path file = department("Design") / "nx4" / "config" / "configSettings.dat";
    const std::string before = readFile(file);

    Outcome name = kym({"var", "set", "dept:Design", "1ABC", "x"});
    EXPECT_EQ(name.status, 1);
    EXPECT_EQ(name.err, "kym: Invalid variable name '1ABC': a name holds letters, digits and '_' (a '#' only first) "
                        "and starts with neither a digit nor '_'.\n");
    Outcome value = kym({"var", "set", "dept:Design", "UGII_LANG", "a{b"});
    EXPECT_EQ(value.status, 1);
    EXPECT_EQ(value.err, "kym: Invalid value 'a{b' for variable 'UGII_LANG': a value holds its '%' signs in pairs "
                         "and closes every '{' with a '}'.\n");
    EXPECT_EQ(readFile(file), before);

    site.addDepartment("Old");
    Outcome old = kym({"var", "set", "dept:Old", "UGII_LANG", "german"});
    EXPECT_EQ(old.status, 1);
    EXPECT_EQ(old.err, "kym: Department 'Old' is not updated for release nx4 (" + native(department("Old") / "nx4") +
                           " is missing): run 'kym dept update Old' first.\n");
}

TEST_F(KymCommand, DepartmentsAreCreatedRenamedAndDeletedWithTheirDependents) {
    Outcome shared = kym({"dept", "create", "Shared", "--type", "Common", "--description", "Shared settings"});
    EXPECT_EQ(shared.status, 0);
    EXPECT_EQ(shared.out, "Created department Shared in " + native(department("Shared")) + ".\n");
    EXPECT_EQ(shared.err, "");
    EXPECT_EQ(readFile(department("Shared") / "nx4" / "config" / "readme"), "release files\n");
    ASSERT_EQ(kym({"dept", "create", "Design", "--description", "Design office", "--common", "Shared", "--cleanup",
                   "off", "--cleanup-days", "7"})
                  .status,
              0);
    EXPECT_EQ(property<std::string>(department("Design"), "Description"), "Design office");
    EXPECT_EQ(property<std::string>(department("Design"), "Type"), "Production");
    EXPECT_EQ(property<bool>(department("Design"), "Do File Cleanup Key"), false);
    EXPECT_EQ(kym({"departments"}).out, "   NAME    TYPE        UPDATED  DESCRIPTION\n"
                                        "   Design  Production  yes      Design office\n"
                                        "   Shared  Common      yes      Shared settings\n");

    Outcome rename = kym({"dept", "rename", "Shared", "Common"});
    EXPECT_EQ(rename.out, "Renamed department Shared to Common.\n"
                          "Now naming Common as their common department: Design.\n");
    EXPECT_EQ(property<std::string>(department("Design"), "Common Department"), "Common");

    Outcome refused = kym({"dept", "delete", "Common"});
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.err, "kym: Deleting department 'Common' removes all its releases; without a terminal to ask on, "
                           "confirm with --yes.\n");
    EXPECT_TRUE(fs::exists(department("Common")));
    EXPECT_EQ(kym({"dept", "delete", "Common", "--yes"}).out,
              "Deleted department Common.\n"
              "Warning: these departments still name Common as their common department: Design.\n");
    EXPECT_FALSE(fs::exists(department("Common")));

    Outcome type = kym({"dept", "set", "Design", "type", "Prod"});
    EXPECT_EQ(type.err, "kym: Unknown department type 'Prod': choose Common, Development, Production, Test.\n");
    Outcome common = kym({"dept", "set", "Design", "common", "Nowhere"});
    EXPECT_EQ(common.err, "kym: Department 'Nowhere' does not exist in " + native(site.departmentsPath()) +
                              ", so it cannot be a common department.\n");
    EXPECT_EQ(kym({"dept", "set", "Design", "cleanup-days", "9"}).status, 0);
    EXPECT_EQ(property<std::int64_t>(department("Design"), "Cleanup Days Key"), 9);
}

TEST_F(KymCommand, DeletingADepartmentAsksOnATerminal) {
    makeDepartments();
    std::string screen;
    EXPECT_EQ(kymOnTerminal({"dept", "delete", "Design"}, "n", screen), 1);
    EXPECT_TRUE(boost::contains(screen, "Delete department Design and all its releases? [y/N] ")) << screen;
    EXPECT_TRUE(boost::contains(screen, "kym: Department 'Design' was not deleted.")) << screen;
    EXPECT_TRUE(fs::exists(department("Design")));

    EXPECT_EQ(kymOnTerminal({"dept", "delete", "Design"}, "y", screen), 0);
    EXPECT_FALSE(fs::exists(department("Design")));
}

TEST_F(KymCommand, AFailedCreationLeavesNoDepartmentBehind) {
    fs::remove(site.versionFilesArchive());
    Outcome create = kym({"dept", "create", "Design"});
    EXPECT_EQ(create.status, 1);
    EXPECT_EQ(create.err, "kym: Data file " + native(site.versionFilesArchive()) + " was not found.\n");
    EXPECT_TRUE(fs::is_empty(site.departmentsPath()));

    Outcome blank = kym({"dept", "create", "Design office"});
    EXPECT_EQ(blank.err, "kym: Invalid department name 'Design office': a department is a directory of the "
                         "departments directory, named without blanks and without '/' or '\\'.\n");
    EXPECT_TRUE(fs::is_empty(site.departmentsPath()));
}

TEST_F(KymCommand, UpdatingADepartmentCarriesItsPreviousReleaseSettingsOver) {
    const fs::path old = site.addDepartment("Old");
    DepartmentSettings previous;
    previous.layer.commonVariables = {{"PROJECT_DIR", "/projects/old"}};
    previous.workDirectories = {workDirectoryRecord("projects", "/projects")};
    site.writeDepartmentSettings(old, previous, Site::PreviousRelease);
    EXPECT_EQ(kym({"departments"}).out, "   NAME  TYPE        UPDATED  DESCRIPTION\n"
                                        "   Old   Production  no       None\n");

    Outcome update = kym({"dept", "update", "Old"});
    EXPECT_EQ(update.status, 0);
    EXPECT_EQ(update.out, "Updated department Old for release nx4.\n");
    EXPECT_EQ(readFile(old / "nx4" / "config" / "readme"), "release files\n");
    EXPECT_EQ(kym({"var", "list", "dept:Old"}).out, "LIST    NAME         VALUE          COMMENT\n"
                                                    "common  PROJECT_DIR  /projects/old\n");
    EXPECT_EQ(kym({"workdir", "list", "Old"}).out, "NAME      PATH\nprojects  /projects\n");
    EXPECT_EQ(kym({"dept", "update", "Old"}).err, "kym: Department 'Old' is already updated for release nx4.\n");
}

TEST_F(KymCommand, WorkDirectoriesAndOverlaysAreListedAndRemoved) {
    makeDepartments();
    ASSERT_EQ(kym({"app", "add", "base", "nx", "--description", "NX", "--category", "CAD"}).status, 0);
    EXPECT_EQ(kym({"workdir", "list", "Design"}).out, "Department Design has no work directories.\n");
    EXPECT_EQ(kym({"workdir", "add", "Design", "projects", "${HOME}/projects"}).out,
              "Added work directory projects (${HOME}/projects) to department Design.\n");
    EXPECT_EQ(kym({"workdir", "add", "Design", "scratch", "/tmp"}).status, 0);
    EXPECT_EQ(kym({"workdir", "add", "Design", "scratch", "/var/tmp"}).err,
              "kym: Department 'Design' already has a work directory 'scratch'.\n");
    EXPECT_EQ(kym({"workdir", "remove", "Design", "projects"}).out, "Removed work directory projects from department Design.\n");
    EXPECT_EQ(kym({"workdir", "remove", "Design", "projects"}).err,
              "kym: Department 'Design' has no work directory 'projects'.\n");
    EXPECT_EQ(kym({"workdir", "list", "Design"}).out, "NAME     PATH\nscratch  /tmp\n");

    ASSERT_EQ(kym({"overlay", "set", "Design", "Base KYM", "nx", "--description", "NX for design"}).status, 0);
    EXPECT_EQ(kym({"overlay", "set", "Design", "Base KYM", "nx", "--disable"}).out,
              "Changed the overlay of application nx of 'Base KYM' in department Design.\n");
    EXPECT_EQ(kym({"overlay", "list", "Design"}).out, "CONFIGURATION  APPID  CATEGORY  DESCRIPTION    DISABLED\n"
                                                      "Base KYM       nx     CAD       NX for design  yes\n");
    EXPECT_EQ(kym({"overlay", "set", "Design", "Base KYM", "nx", "--disable", "--enable"}).status, 2);
    EXPECT_EQ(kym({"overlay", "remove", "Design", "Base KYM", "nx"}).out,
              "Removed the overlay of application nx of 'Base KYM' from department Design.\n");
    EXPECT_EQ(kym({"overlay", "remove", "Design", "Base KYM", "nx"}).err,
              "kym: Department 'Design' has no overlay for application 'nx' of 'Base KYM'.\n");
    EXPECT_EQ(kym({"overlay", "list", "Design"}).out, "Department Design has no overlays.\n");
}

TEST_F(KymCommand, TheListsOfTheChosenLaunchConventionsApply) {
    makeDepartments();
    ASSERT_EQ(kym({"app", "add", "base", "nx", "--program", "/bin/true", "--no-libraries"}).status, 0);
    ASSERT_EQ(kym({"var", "set", "base", "CAD_HOME", "/opt/cad", "--list", "unix"}).status, 0);
    ASSERT_EQ(kym({"var", "set", "base", "CAD_HOME", "C:/cad", "--list", "windows"}).status, 0);

    EXPECT_TRUE(boost::contains(kym({"env", "Design", "nx"}).out, "\nCAD_HOME=/opt/cad\n"));
    EXPECT_TRUE(boost::contains(kym({"--platform", "windows", "env", "Design", "nx"}).out, "\nCAD_HOME=C:\\cad\n"));
    ScopedEnv windows("KYM_PLATFORM", std::string("windows"));
    EXPECT_TRUE(boost::contains(kym({"env", "Design", "nx"}).out, "\nCAD_HOME=C:\\cad\n"));
    EXPECT_TRUE(boost::contains(kym({"--platform", "posix", "env", "Design", "nx"}).out, "\nCAD_HOME=/opt/cad\n"));

    EXPECT_EQ(kym({"--json", "apps", "Design"}).out, "{\n"
                                                     "  \"department\": \"Design\",\n"
                                                     "  \"description\": \"Design office\",\n"
                                                     "  \"applications\": [\n"
                                                     "    {\n"
                                                     "      \"appId\": \"nx\",\n"
                                                     "      \"description\": \"\",\n"
                                                     "      \"category\": \"\",\n"
                                                     "      \"configuration\": \"Base KYM\",\n"
                                                     "      \"source\": \"base\",\n"
                                                     "      \"program\": \"/bin/true\",\n"
                                                     "      \"arguments\": \"\",\n"
                                                     "      \"disabled\": false,\n"
                                                     "      \"overlaid\": false\n"
                                                     "    }\n"
                                                     "  ]\n"
                                                     "}\n");
}

TEST_F(KymCommand, AppsListsEveryLayerWithTheDepartmentsOverlays) {
    makeDepartments();
    ASSERT_EQ(kym({"app", "add", "base", "nx", "--description", "NX", "--category", "CAD", "--program", "/bin/true"}).status, 0);
    ASSERT_EQ(kym({"app", "add", "base", "view", "--description", "Viewer", "--category", "Tools", "--program",
                   "/bin/cat"}).status, 0);
    ASSERT_EQ(kym({"plugin", "create", "cam", "--type", "Production"}).status, 0);
    ASSERT_EQ(kym({"app", "add", "plugin:cam", "mill", "--description", "Milling", "--category", "CAM"}).status, 0);
    ASSERT_EQ(kym({"app", "add", "dept:Shared", "pdm", "--description", "Parts", "--category", "Tools"}).status, 0);
    ASSERT_EQ(kym({"app", "add", "dept:Design", "own", "--description", "Design tool", "--category", "CAD"}).status, 0);
    EXPECT_EQ(kym({"app", "set", "base", "view", "disable", "on"}).out,
              "Set Disable of application view in the base settings to 'True'.\n");
    EXPECT_EQ(kym({"overlay", "set", "Design", "cam Plugin", "mill", "--category", "CAD"}).out,
              "Added the overlay of application mill of 'cam Plugin' in department Design.\n");

    Outcome apps = kym({"apps", "Design"});
    EXPECT_EQ(apps.out, "Department Design (Design office)\n"
                        "CAD\n"
                        "  own   Design tool  [Design]\n"
                        "  mill  Milling      [cam Plugin]\n"
                        "  nx    NX           [Base KYM]\n"
                        "Tools\n"
                        "  pdm   Parts        [Shared]\n");
    EXPECT_TRUE(boost::contains(kym({"apps", "Design", "--all"}).out, "  view  Viewer       [Base KYM]    disabled\n"));

    EXPECT_EQ(kym({"app", "remove", "base", "view"}).status, 0);
    EXPECT_EQ(kym({"app", "list", "base"}).out, "APPID  CATEGORY  DESCRIPTION  EXECUTABLE  ARGUMENTS  FLAGS\n"
                                                "nx     CAD       NX           /bin/true\n");
    Outcome column = kym({"app", "set", "base", "nx", "Colour", "red"});
    EXPECT_EQ(column.status, 2);
    EXPECT_TRUE(boost::starts_with(column.err, "kym: Unknown application column 'Colour': choose Disable, AppID, "
                                               "Category, Description, Executable, Arguments, AddNXLibs, NoCustom.\n"));
    EXPECT_EQ(kym({"app", "add", "base", "nx"}).err, "kym: Application 'nx' already exists in the base settings.\n");
    EXPECT_EQ(kym({"overlay", "set", "Design", "Base KYM", "ghost"}).err,
              "kym: Department 'Design' is offered no application 'ghost' of 'Base KYM' ('kym apps Design --all' "
              "lists them).\n");

    std::vector<std::string> overlays;
    Kym::Configuration design(department("Design"), true);
    for (const Kym::ApplicationOverlay& overlay : design.settings()->overlays())
        overlays.push_back(overlay.configurationName + "/" + overlay.appId + "/" + overlay.category + "/" +
                           overlay.description);
    EXPECT_EQ(overlays, std::vector<std::string>{"cam Plugin/mill/CAD/Milling"});
}

TEST_F(KymCommand, EnvExplainShowsEveryLayerThatSetAVariable) {
    makeDepartments();
    ASSERT_EQ(kym({"app", "add", "base", "nx", "--program", "/bin/true", "--no-libraries"}).status, 0);
    ASSERT_EQ(kym({"plugin", "create", "cam"}).status, 0);
    ASSERT_EQ(kym({"var", "set", "site", "UGII_LANG", "site"}).status, 0);
    ASSERT_EQ(kym({"var", "set", "base", "UGII_LANG", "${UGII_LANG}_base"}).status, 0);
    ASSERT_EQ(kym({"var", "set", "plugin:cam", "UGII_LANG", "${UGII_LANG}_cam"}).status, 0);
    ASSERT_EQ(kym({"var", "set", "dept:Shared", "UGII_LANG", "${UGII_LANG}_shared"}).status, 0);
    ASSERT_EQ(kym({"var", "set", "dept:Design", "UGII_LANG", "${UGII_LANG}_design"}).status, 0);
    ASSERT_EQ(kym({"var", "set", "base", "UGII_LANG", "${UGII_LANG}_nx", "--app", "nx"}).status, 0);
    ASSERT_EQ(kym({"var", "set", "dept:Design", "HOME", ""}).status, 0);

    Outcome explained = kym({"env", "Design", "nx", "--explain"});
    EXPECT_EQ(explained.status, 0);
    EXPECT_EQ(block(explained.out, "UGII_LANG=site_base_cam_shared_design_nx"),
              "UGII_LANG=site_base_cam_shared_design_nx\n"
              "    site               site\n"
              "    base               site_base\n"
              "    plugin cam         site_base_cam\n"
              "    common department  site_base_cam_shared\n"
              "    department         site_base_cam_shared_design\n"
              "    application        site_base_cam_shared_design_nx\n");
    EXPECT_EQ(block(explained.out, "HOME (not set)"), "HOME (not set)\n"
                                                       "    process     " + native(home) + "\n"
                                                       "    department  (removed)\n");
    EXPECT_EQ(block(explained.out, "KYM_DEPT_DIR=" + native(department("Design"))),
              "KYM_DEPT_DIR=" + native(department("Design")) + "\n    launcher  " + native(department("Design")) + "\n");

    Outcome plain = kym({"env", "Design", "nx"});
    EXPECT_TRUE(boost::contains(plain.out, "\nUGII_LANG=site_base_cam_shared_design_nx\n")) << plain.out;
    EXPECT_TRUE(boost::contains(plain.out, "\nKYM_COMMONDEPT_DIR=" + native(department("Shared")) + "\n"));
    EXPECT_FALSE(boost::contains(plain.out, "\nHOME="));
    Outcome windows = kym({"--platform", "windows", "env", "Design", "nx"});
    EXPECT_TRUE(boost::contains(windows.out, "\nOS=win64\n")) << windows.out;
    EXPECT_TRUE(boost::contains(windows.out, "\nUG_VER=nx4\n"));
}

TEST_F(KymCommand, LaunchStartsTheProgramInTheWorkDirectoryWithTheAssembledEnvironment) {
    ASSERT_TRUE(orphansReaped);
    makeDepartments();
    TempDir probeDirectory;
    const fs::path probe = writeProbe(probeDirectory.path());
    const fs::path projects = home / "projects";
    fs::create_directories(projects);
    ASSERT_EQ(kym({"app", "add", "dept:Design", "probe", "--program", probe.string(), "--arguments", "one ${PROBE_VAR}",
                   "--no-libraries"}).status, 0);
    ASSERT_EQ(kym({"var", "set", "dept:Shared", "PROBE_VAR", "shared"}).status, 0);
    ASSERT_EQ(kym({"workdir", "add", "Design", "projects", "${HOME}/projects"}).status, 0);

    Outcome unknown = kym({"launch", "Design", "probe", "--workdir", "elsewhere"});
    EXPECT_EQ(unknown.err, "kym: Department 'Design' has no work directory 'elsewhere'. It has: projects.\n");
    Outcome launch = kym({"launch", "Design", "probe", "--workdir", "projects"});
    EXPECT_EQ(launch.status, 0);
    EXPECT_EQ(launch.out, "Started probe from department Design.\n");
    EXPECT_EQ(launch.err, "");

    const ProbeRecord record = readProbe(probeDirectory.path());
    EXPECT_EQ(record.arguments, (std::vector<std::string>{"/bin/sh", probe.string(), "one", "shared"}));
    EXPECT_EQ(record.directory, fs::canonical(projects).string() + "\n");
    EXPECT_EQ(record.variable("PROBE_VAR"), "shared");
    EXPECT_EQ(record.variable("KYM_DEPT_DIR"), native(department("Design")));
    EXPECT_EQ(record.variable("KYM_COMMONDEPT_DIR"), native(department("Shared")));
    EXPECT_EQ(record.variable("UGII_LOCAL_USER_DEFAULTS"), native(projects / "nx90_user.dpv"));
}

TEST_F(KymCommand, WithoutADepartmentNamedTheCurrentOneOrTheLastOneIsUsed) {
    ASSERT_TRUE(orphansReaped);
    makeDepartments();
    Outcome none = kym({"apps"});
    EXPECT_EQ(none.status, 1);
    EXPECT_EQ(none.err, "kym: No department given and none used before: name one, for example 'kym apps DEPT' "
                        "('kym departments' lists them).\n");

    TempDir probeDirectory;
    const fs::path probe = writeProbe(probeDirectory.path());
    Outcome run = kym({"run", "Design", "--", probe.string(), "-x", "two"});
    EXPECT_EQ(run.out, "Started " + probe.string() + " from department Design.\n");
    const ProbeRecord record = readProbe(probeDirectory.path());
    EXPECT_EQ(record.arguments, (std::vector<std::string>{"/bin/sh", probe.string(), "-x", "two"}));
    EXPECT_EQ(record.variable("KYM_DEPT_DIR"), native(department("Design")));
    EXPECT_EQ(record.directory, fs::canonical(home).string() + "\n");

    EXPECT_TRUE(boost::starts_with(kym({"apps"}).out, "Department Design (Design office)\n"));
    EXPECT_TRUE(boost::contains(kym({"departments"}).out, "* current department (last used)\n"));
    ScopedEnv current("KYM_DEPT_DIR", department("Shared").string());
    EXPECT_TRUE(boost::starts_with(kym({"apps"}).out, "Department Shared (Shared settings)\n"));
}

TEST_F(KymCommand, AnApplicationIsChosenByRankOrByItsConfiguration) {
    makeDepartments();
    ASSERT_EQ(kym({"app", "add", "base", "tool", "--program", "/bin/true", "--no-libraries"}).status, 0);
    ASSERT_EQ(kym({"app", "add", "dept:Design", "tool", "--program", "/bin/cat", "--no-libraries"}).status, 0);
    EXPECT_EQ(kym({"command", "Design", "tool"}).out, "/bin/cat\n");
    EXPECT_EQ(kym({"command", "Design", "tool", "--from", "Base KYM"}).out, "/bin/true\n");

    ASSERT_EQ(kym({"plugin", "create", "cam"}).status, 0);
    ASSERT_EQ(kym({"plugin", "create", "milling"}).status, 0);
    ASSERT_EQ(kym({"app", "add", "plugin:cam", "mill", "--program", "/bin/true", "--no-libraries"}).status, 0);
    ASSERT_EQ(kym({"app", "add", "plugin:milling", "mill", "--program", "/bin/echo", "--no-libraries",
                   "--arguments", "-n"}).status, 0);
    Outcome ambiguous = kym({"command", "Design", "mill"});
    EXPECT_EQ(ambiguous.status, 1);
    EXPECT_EQ(ambiguous.err, "kym: Application 'mill' is ambiguous in department 'Design': it is offered by "
                             "'cam Plugin' and 'milling Plugin'. Choose one with --from NAME.\n");
    EXPECT_EQ(kym({"command", "Design", "mill", "--from", "milling Plugin"}).out, "/bin/echo -n\n");
    EXPECT_EQ(kym({"command", "Design", "lathe"}).err,
              "kym: No application 'lathe' in department 'Design'. It offers: tool, mill.\n");

    ASSERT_EQ(kym({"overlay", "set", "Design", "cam Plugin", "mill", "--disable"}).status, 0);
    EXPECT_EQ(kym({"launch", "Design", "mill", "--from", "cam Plugin"}).err,
              "kym: Application 'mill' is disabled in department 'Design'.\n");
}

TEST_F(KymCommand, CheckNamesTheMissingInstallationOrProgram) {
    makeDepartments();
    ASSERT_EQ(kym({"app", "add", "base", "nx", "--program", "${UGII_BASE_DIR}/ugii/ugraf"}).status, 0);
    Outcome unset = kym({"check", "Design", "nx"});
    EXPECT_EQ(unset.status, 1);
    EXPECT_EQ(unset.err, "kym: UGII_BASE_DIR is not set.\n");

    const fs::path installation = site.root() / "nx";
    ASSERT_EQ(kym({"site", "set", "unix-install-path", installation.string()}).status, 0);
    fs::create_directories(installation / "ugii");
    Outcome missing = kym({"check", "Design", "nx"});
    EXPECT_EQ(missing.err, "kym: Program " + native(installation / "ugii" / "ugraf") +
                               " is not found.\n  Original string = ${UGII_BASE_DIR}/ugii/ugraf\n"
                               "  Maybe a environment variable is set wrong.\n");
    Outcome json = kym({"--json", "check", "Design", "nx"});
    EXPECT_EQ(json.status, 1);
    EXPECT_TRUE(boost::starts_with(json.out, "{\n  \"department\": \"Design\",\n  \"application\": \"nx\",\n"
                                             "  \"ok\": false,\n  \"error\": \"Program "))
        << json.out;

    writeFile(installation / "ugii" / "ugraf", "#!/bin/sh\n");
    fs::permissions(installation / "ugii" / "ugraf", fs::perms(0755));
    Outcome ok = kym({"check", "Design", "nx"});
    EXPECT_EQ(ok.status, 0);
    EXPECT_EQ(ok.out, "OK\n");
    EXPECT_EQ(kym({"command", "Design", "nx"}).out, native(installation / "ugii" / "ugraf") + "\n");
}

TEST_F(KymCommand, PluginsAreCreatedAndSwitchedPerDepartment) {
    makeDepartments();
    ASSERT_EQ(kym({"plugin", "create", "cam", "--type", "Production"}).status, 0);
    ASSERT_EQ(kym({"plugin", "create", "pdm"}).status, 0);
    EXPECT_EQ(kym({"plugin", "create", "extra", "--external"}).err,
              "kym: The site names no external plugins location for posix clients: set one with 'kym site set "
              "unix-external-plugins DIRECTORY'.\n");
    const fs::path external = site.root() / "external";
    fs::create_directories(external);
    ASSERT_EQ(kym({"site", "set", "unix-external-plugins", external.string()}).status, 0);
    EXPECT_EQ(kym({"plugin", "create", "extra", "--external"}).out,
              "Created external plugin extra (Site-wide) in " + native(external / "extra") + ".\n");
    EXPECT_EQ(kym({"plugin", "create", "odd", "--type", "Weird"}).err,
              "kym: Unknown plugin type 'Weird': choose Site-wide, Common, Development, Production, Test.\n");
    EXPECT_EQ(kym({"plugin", "list"}).out,
              "NAME   TYPE        KIND      PATH\n"
              "cam    Production  internal  " + native(site.pluginsPath() / "cam") + "\n"
              "pdm    Site-wide   internal  " + native(site.pluginsPath() / "pdm") + "\n"
              "extra  Site-wide   external  " + native(external / "extra") + "\n");

    for (const char* plugin : {"cam", "pdm", "extra"}) ASSERT_EQ(kym({"plugin", "disable", "Design", plugin}).status, 0);
    EXPECT_EQ(kym({"plugin", "disable", "Design", "pdm"}).out, "Plugin pdm is already disabled in department Design.\n");
    EXPECT_EQ(kym({"plugin", "enable", "Design", "cam"}).out, "Enabled plugin cam in department Design.\n");
    EXPECT_EQ(kym({"plugin", "disable", "Design", "lathe"}).err, "kym: No plugin named 'lathe'. Plugins: cam, pdm, extra.\n");
    EXPECT_EQ(kym({"plugin", "set-type", "cam", "Test"}).status, 0);

    Kym::Configuration design(department("Design"), true);
    EXPECT_EQ(design.settings()->disabledPluginList(), (std::vector<std::string>{"pdm", "extra"}));
    std::string type;
    Base::Unarchiver(site.pluginsPath() / "cam" / "settings.dat").decode(Kym::PluginSettings::PluginTypeKey, type);
    EXPECT_EQ(type, "Test");
}

TEST_F(KymCommand, SiteSettingsAndSystemInformationAreWrittenWhereTheLibraryReadsThem) {
    EXPECT_EQ(kym({"site", "set", "unix-install-path", "/opt/nx"}).out,
              "Set unix-install-path to '/opt/nx' in " + native(site.siteSettingsFile()) + ".\n");
    EXPECT_EQ(kym({"site", "set", "use-registry", "off"}).status, 0);
    EXPECT_EQ(kym({"site", "set", "windows-tceng", "C:\\tc"}).status, 0);
    EXPECT_EQ(kym({"site", "set", "use-registry", "maybe"}).status, 2);
    Outcome unknown = kym({"site", "set", "colour", "red"});
    EXPECT_EQ(unknown.status, 2);
    EXPECT_TRUE(boost::starts_with(unknown.err, "kym: Unknown site setting 'colour': choose unix-install-path, "));
    EXPECT_EQ(kym({"sysinfo", "set", "KymVersionString", "2.0"}).status, 0);
    EXPECT_EQ(kym({"sysinfo", "set", "Nothing", "x"}).status, 2);
    EXPECT_TRUE(boost::contains(kym({"site", "show"}).out, "  use-registry:              off\n"));

    EXPECT_EQ(Kym::SystemInformation().KymVersionString, "2.0");
    EXPECT_EQ(Kym::SystemInformation().CadVersionDirectory, "nx4");
    const Kym::SiteSettings& settings = Kym::SiteInformation();
    EXPECT_EQ(settings.unixNXInstallPath().value, "/opt/nx");
    EXPECT_EQ(settings.winTcEngInstallPath().value, "C:\\tc");
    EXPECT_FALSE(settings.useWindowsRegistry());
}

TEST_F(KymCommand, DoctorReportsEveryProblemWithTheFileAtFault) {
    Outcome clean = kym({"doctor"});
    EXPECT_EQ(clean.status, 0);
    EXPECT_EQ(clean.out, "No problems found.\n");

    Layer base;
    base.commonVariables = {{"1ABC", "x"}, {"UGII_LANG", "a{b"}};
    base.applications.push_back(makeApplication("ghost", "/nowhere/ghost"));
    base.applications.back().addUGLibsToPath = false;
    site.writeBaseSettings(base);
    DepartmentProperties properties;
    properties.commonDepartment = "Gone";
    site.addUpdatedDepartment("Design", properties);
    site.addDepartment("Old");

    Outcome doctor = kym({"doctor"});
    EXPECT_EQ(doctor.status, 1);
    const std::string baseFile = native(site.baseSettingsFile());
    EXPECT_EQ(doctor.out,
              baseFile + ": Invalid variable name '1ABC' in the common list of the base settings: a name holds "
                         "letters, digits and '_' (a '#' only first) and starts with neither a digit nor '_'.\n" +
                  baseFile + ": Invalid value 'a{b' for variable 'UGII_LANG' in the common list of the base "
                             "settings: a value holds its '%' signs in pairs and closes every '{' with a '}'.\n" +
                  native(department("Design") / ".dirinfo.plist") +
                  ": The common department 'Gone' of department Design does not exist.\n" + baseFile +
                  ": application ghost (Base KYM) in department Design: Program /nowhere/ghost is not found.\n"
                  "  Original string = /nowhere/ghost\n  Maybe a environment variable is set wrong.\n" +
                  native(department("Old")) + ": Department Old is not updated for release nx4 ('kym dept update "
                                              "Old' makes " + native(department("Old") / "nx4") + ").\n"
                  "5 problems found.\n");
}

TEST_F(KymCommand, DoctorNamesTheSettingsFilesThatDoNotLoad) {
    site.addInternalPlugin("cam");
    writeFile(site.pluginsPath() / "cam" / "settings.dat", "not an archive");
    writeFile(site.systemInfoFile(), "<plist><dict><key>CadVersionDirectory</key><integer>4</integer></dict></plist>");

    Outcome doctor = kym({"--json", "doctor"});
    EXPECT_EQ(doctor.status, 1);
    EXPECT_TRUE(boost::contains(doctor.out, "\"file\": \"" + native(site.systemInfoFile()) +
                                                "\",\n      \"message\": \"the system information does not load, "
                                                "defaults are used: "))
        << doctor.out;
    EXPECT_TRUE(boost::contains(doctor.out, "\"file\": \"" + native(site.pluginsPath() / "cam" / "settings.dat") +
                                                "\",\n      \"message\": \"the plugin settings do not load: "))
        << doctor.out;
    EXPECT_TRUE(boost::ends_with(doctor.out, "  ],\n  \"count\": 2\n}\n")) << doctor.out;
}

TEST_F(KymCommand, JsonIsStableAndVerboseLogsGoToStandardError) {
    ASSERT_EQ(kym({"var", "set", "site", "TC_DATA", "/data/tc", "--comment", "tc \"data\""}).status, 0);
    Outcome json = kym({"var", "list", "site", "--json"});
    EXPECT_EQ(json.out, "{\n"
                        "  \"layer\": \"site\",\n"
                        "  \"file\": \"" + native(site.siteSettingsFile()) + "\",\n"
                        "  \"variables\": {\n"
                        "    \"common\": [\n"
                        "      {\n"
                        "        \"name\": \"TC_DATA\",\n"
                        "        \"value\": \"/data/tc\",\n"
                        "        \"comment\": \"tc \\\"data\\\"\"\n"
                        "      }\n"
                        "    ],\n"
                        "    \"unix\": [],\n"
                        "    \"windows\": []\n"
                        "  }\n"
                        "}\n");
    EXPECT_EQ(json.err, "");

    Outcome verbose = kym({"-v", "sysinfo", "show"});
    EXPECT_TRUE(boost::contains(verbose.err, "[kym.info] Loading system information: " +
                                                 native(site.systemInfoFile()) + "\n"))
        << verbose.err;
    EXPECT_FALSE(boost::contains(verbose.err, "[kym.verbose]"));
    EXPECT_TRUE(boost::contains(kym({"-vv", "sysinfo", "show"}).err, "[kym.verbose] "));
}

} // namespace
