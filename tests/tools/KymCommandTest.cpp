// The kym command run as a user runs it: the built program in a child
// process, against a real site in a temporary folder, its output and exit
// status compared whole, and what it wrote read back through the library.
#include "kym/BaseSettings.h"
#include "kym/Configuration.h"
#include "kym/ConfigurationSettings.h"
#include "kym/PluginSettings.h"
#include "kym/SiteSettings.h"
#include "kym/SystemInfo.h"

#include "base/PropertyList.h"
#include "base/Unarchiver.h"

#include "support/Site.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <boost/algorithm/string/predicate.hpp>
#include <chrono>
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

// What kym printed when it ended with the expected status (standard output for
// 0, standard error else, the other one empty); otherwise everything it did.
std::string printed(int expected, const std::vector<std::string>& arguments) {
    const Outcome outcome = kym(arguments);
    if (outcome.status == expected && (expected == 0 ? outcome.err : outcome.out).empty())
        return expected == 0 ? outcome.out : outcome.err;
    return "status " + std::to_string(outcome.status) + "\nout: " + outcome.out + "\nerr: " + outcome.err;
}
std::string out(const std::vector<std::string>& arguments) { return printed(0, arguments); }
std::string failure(const std::vector<std::string>& arguments) { return printed(1, arguments); }
std::string misuse(const std::vector<std::string>& arguments) { return printed(2, arguments); }

// Runs command lines that must succeed, in order.
void ok(const std::vector<std::vector<std::string>>& commands) {
    for (const std::vector<std::string>& command : commands) {
        const Outcome outcome = kym(command);
        if (outcome.status != 0) ADD_FAILURE() << command.at(0) << " failed: " << outcome.err;
    }
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

// A program that writes how it was started: its arguments (each in brackets),
// its working directory and the variables the launch sets.
fs::path writeProbe(const fs::path& directory) {
    const fs::path probe = directory / "probe.sh";
    writeFile(probe, "#!/bin/sh\n"
                     "out='" + directory.string() + "'\n"
                     "{ printf '[%s]' \"$0\" \"$@\"; echo; pwd -P\n"
                     "  for v in PROBE_VAR KYM_DEPT_DIR KYM_COMMONDEPT_DIR UGII_LOCAL_USER_DEFAULTS; do\n"
                     "    echo \"$v=$(printenv $v)\"; done; } > \"$out/record.part\"\n"
                     "/bin/mv \"$out/record.part\" \"$out/record\"\n");
    fs::permissions(probe, fs::perms(0755));
    return probe;
}

// The probe runs on after kym has returned; it is waited for here, not timed.
std::string readProbe(const fs::path& directory) {
    for (int attempt = 0; attempt < 500 && !fs::exists(directory / "record"); ++attempt)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    return fs::exists(directory / "record") ? readFile(directory / "record") : "the probe did not run";
}

// The lines of a text from the one that equals `first` up to the next line that does not start with a blank.
std::string block(const std::string& text, const std::string& first) {
    const std::size_t start = text.find("\n" + first + "\n");
    if (start == std::string::npos) return "(no " + first + ")";
    std::size_t end = start + first.size() + 2;
    while (end < text.size() && text[end] == ' ') end = text.find('\n', end) + 1;
    return text.substr(start + 1, end - start - 1);
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
        ok({{"dept", "create", "Shared", "--type", "Common", "--description", "Shared settings"},
            {"dept", "create", "Design", "--description", "Design office", "--common", "Shared"}});
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
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{}, "kym: no command given.\nUsage: kym [OPTIONS] [SUBCOMMAND]\nRun 'kym --help' for more.\n"},
        {{"var", "set", "base", "UGII_LANG"},
         "kym: VALUE is required\nUsage: kym var set [OPTIONS] LAYER NAME VALUE\nRun 'kym help var set' for more.\n"},
        {{"frob"}, "kym: The following argument was not expected: frob\n"
                   "Usage: kym [OPTIONS] [SUBCOMMAND]\nRun 'kym --help' for more.\n"},
        {{"dept", "list", "--colour"}, "kym: The following argument was not expected: --colour\n"
                                       "Usage: kym dept list [OPTIONS]\nRun 'kym help dept list' for more.\n"},
        {{"var", "list", "elsewhere"},
         "kym: Unknown layer 'elsewhere': LAYER is one of: site, base, plugin:NAME, dept:NAME (a department).\n"
         "Usage: kym var list [OPTIONS] LAYER\nRun 'kym help var list' for more.\n"},
        {{"run", "Design"}, "kym: Give the program after '--': kym run [DEPT] -- PROGRAM [ARGUMENTS...].\n"
                            "Usage: kym run [OPTIONS] [DEPT]\nRun 'kym help run' for more.\n"},
        {{"help", "nothing"}, "kym: No command 'nothing'. 'kym --help' lists the commands.\n"
                              "Usage: kym help [OPTIONS] [COMMAND...]\nRun 'kym help help' for more.\n"},
    };
    for (const auto& [arguments, message] : cases) {
        SCOPED_TRACE(arguments.empty() ? "(none)" : arguments.at(0));
        EXPECT_EQ(misuse(arguments), message);
    }
}

TEST_F(KymCommand, HelpExplainsEveryCommandWithExamples) {
    const std::string command = out({"help", "var", "set"});
    EXPECT_TRUE(boost::starts_with(command, "Set a variable: its value is replaced when the list has the name, else it "
                                            "is added at the end.\nUsage: kym var set [OPTIONS] LAYER NAME VALUE\n"))
        << command;
    EXPECT_TRUE(boost::contains(command, "Examples:\n  kym var set base UGII_LANG english\n")) << command;
    EXPECT_EQ(out({"var", "set", "--help"}), command);
    EXPECT_TRUE(boost::contains(out({"--help"}), "  doctor                      Check the whole site.\n"));
}

TEST_F(KymCommand, FailuresPrintTheLibraryMessageWithStatusOne) {
    EXPECT_EQ(failure({"dept", "show", "Nowhere"}),
              "kym: Department 'Nowhere' does not exist in " + native(site.departmentsPath()) + ".\n");
    ScopedEnv noInstallation("KYM_BASE_DIR", std::nullopt);
    EXPECT_EQ(failure({"departments"}), "kym: KYM_BASE_DIR is not set.\n");
}

TEST_F(KymCommand, VariablesAreSetReplacedAndUnsetWhereTheLibraryReadsThem) {
    Layer base;
    base.applications.push_back(makeApplication("nx", "/bin/true", "NX"));
    site.writeBaseSettings(base);

    EXPECT_EQ(out({"var", "set", "base", "UGII_LANG", "english"}),
              "Set UGII_LANG=english in the common list of the base settings.\n");
    EXPECT_EQ(out({"var", "set", "base", "UGII_LANG", "german", "--comment", "for design"}),
              "Replaced UGII_LANG=german in the common list of the base settings.\n");
    EXPECT_EQ(out({"var", "set", "base", "UGII_OPTION", "1", "--app", "nx"}),
              "Set UGII_OPTION=1 in the common list of application nx of the base settings.\n");
    ok({{"var", "set", "base", "PATH", "${PATH}:/opt/tools", "--list", "unix"}, {"var", "set", "base", "SCRATCH", "x"}});
    EXPECT_EQ(out({"var", "unset", "base", "SCRATCH"}), "Removed SCRATCH from the common list of the base settings.\n");
    EXPECT_EQ(failure({"var", "unset", "base", "SCRATCH"}),
              "kym: Variable 'SCRATCH' is not in the common list of the base settings.\n");
    EXPECT_EQ(out({"var", "list", "base"}), "LIST    NAME       VALUE               COMMENT\n"
                                            "common  UGII_LANG  german              for design\n"
                                            "unix    PATH       ${PATH}:/opt/tools\n");

    Kym::BaseSettings& settings = Kym::BaseInformation();
    EXPECT_EQ(variableTexts(settings.commonVariableList()), std::vector<std::string>{"UGII_LANG=german"});
    EXPECT_EQ(variableTexts(settings.applicationList().at(0).commonVariableList()),
              std::vector<std::string>{"UGII_OPTION=1"});
}

TEST_F(KymCommand, InvalidVariablesAreRefusedAndNothingIsSaved) {
    makeDepartments();
    ok({{"var", "set", "dept:Design", "UGII_LANG", "german"}});
    const fs::path file = department("Design") / "nx4" / "config" / "configSettings.dat";
    const std::string before = readFile(file);
    EXPECT_EQ(failure({"var", "set", "dept:Design", "1ABC", "x"}),
              "kym: Invalid variable name '1ABC': a name holds letters, digits and '_' (a '#' only first) "
              "and starts with neither a digit nor '_'.\n");
    EXPECT_EQ(failure({"var", "set", "dept:Design", "UGII_LANG", "a{b"}),
              "kym: Invalid value 'a{b' for variable 'UGII_LANG': a value holds its '%' signs in pairs "
              "and closes every '{' with a '}'.\n");
    EXPECT_EQ(readFile(file), before);

    site.addDepartment("Old");
    EXPECT_EQ(failure({"var", "set", "dept:Old", "UGII_LANG", "german"}),
              "kym: Department 'Old' is not updated for release nx4 (" + native(department("Old") / "nx4") +
                  " is missing): run 'kym dept update Old' first.\n");
}

TEST_F(KymCommand, DepartmentsAreCreatedRenamedAndDeletedWithTheirDependents) {
    EXPECT_EQ(out({"dept", "create", "Shared", "--type", "Common", "--description", "Shared settings"}),
              "Created department Shared in " + native(department("Shared")) + ".\n");
    EXPECT_EQ(readFile(department("Shared") / "nx4" / "config" / "readme"), "release files\n");
    ok({{"dept", "create", "Design", "--description", "Design office", "--common", "Shared", "--cleanup", "off",
         "--cleanup-days", "7"}});
    EXPECT_EQ(property<bool>(department("Design"), "Do File Cleanup Key"), false);
    EXPECT_EQ(out({"departments"}), "   NAME    TYPE        UPDATED  DESCRIPTION\n"
                                    "   Design  Production  yes      Design office\n"
                                    "   Shared  Common      yes      Shared settings\n");

    EXPECT_EQ(out({"dept", "rename", "Shared", "Common"}), "Renamed department Shared to Common.\n"
                                                           "Now naming Common as their common department: Design.\n");
    EXPECT_EQ(property<std::string>(department("Design"), "Common Department"), "Common");
    EXPECT_EQ(failure({"dept", "delete", "Common"}), "kym: Deleting department 'Common' removes all its releases; "
                                                     "without a terminal to ask on, confirm with --yes.\n");
    EXPECT_TRUE(fs::exists(department("Common")));
    EXPECT_EQ(out({"dept", "delete", "Common", "--yes"}),
              "Deleted department Common.\n"
              "Warning: these departments still name Common as their common department: Design.\n");
    EXPECT_FALSE(fs::exists(department("Common")));

    EXPECT_EQ(failure({"dept", "set", "Design", "type", "Prod"}),
              "kym: Unknown department type 'Prod': choose Common, Development, Production, Test.\n");
    EXPECT_EQ(failure({"dept", "set", "Design", "common", "Nowhere"}),
              "kym: Department 'Nowhere' does not exist in " + native(site.departmentsPath()) +
                  ", so it cannot be a common department.\n");
    ok({{"dept", "set", "Design", "cleanup-days", "9"}});
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
    EXPECT_EQ(failure({"dept", "create", "Design"}),
              "kym: Data file " + native(site.versionFilesArchive()) + " was not found.\n");
    EXPECT_TRUE(fs::is_empty(site.departmentsPath()));
    EXPECT_EQ(failure({"dept", "create", "Design office"}),
              "kym: Invalid department name 'Design office': a department is a directory of the "
              "departments directory, named without blanks and without '/' or '\\'.\n");
    EXPECT_TRUE(fs::is_empty(site.departmentsPath()));
}

TEST_F(KymCommand, UpdatingADepartmentCarriesItsPreviousReleaseSettingsOver) {
    const fs::path old = site.addDepartment("Old");
    DepartmentSettings previous;
    previous.layer.commonVariables = {{"PROJECT_DIR", "/projects/old"}};
    previous.workDirectories.resize(1);
    previous.workDirectories[0].name = "projects";
    previous.workDirectories[0].path = "/projects";
    site.writeDepartmentSettings(old, previous, Site::PreviousRelease);
    EXPECT_EQ(out({"departments"}), "   NAME  TYPE        UPDATED  DESCRIPTION\n"
                                    "   Old   Production  no       None\n");

    EXPECT_EQ(out({"dept", "update", "Old"}), "Updated department Old for release nx4.\n");
    EXPECT_EQ(readFile(old / "nx4" / "config" / "readme"), "release files\n");
    EXPECT_EQ(out({"var", "list", "dept:Old"}), "LIST    NAME         VALUE          COMMENT\n"
                                                "common  PROJECT_DIR  /projects/old\n");
    EXPECT_EQ(out({"workdir", "list", "Old"}), "NAME      PATH\nprojects  /projects\n");
    EXPECT_EQ(failure({"dept", "update", "Old"}), "kym: Department 'Old' is already updated for release nx4.\n");
}

TEST_F(KymCommand, WorkDirectoriesAndOverlaysAreListedAndRemoved) {
    makeDepartments();
    ok({{"app", "add", "base", "nx", "--description", "NX", "--category", "CAD"},
        {"workdir", "add", "Design", "scratch", "/tmp"}});
    EXPECT_EQ(out({"workdir", "add", "Design", "projects", "${HOME}/projects"}),
              "Added work directory projects (${HOME}/projects) to department Design.\n");
    EXPECT_EQ(failure({"workdir", "add", "Design", "scratch", "/var/tmp"}),
              "kym: Department 'Design' already has a work directory 'scratch'.\n");
    EXPECT_EQ(out({"workdir", "remove", "Design", "projects"}), "Removed work directory projects from department Design.\n");
    EXPECT_EQ(failure({"workdir", "remove", "Design", "projects"}),
              "kym: Department 'Design' has no work directory 'projects'.\n");
    EXPECT_EQ(out({"workdir", "list", "Design"}), "NAME     PATH\nscratch  /tmp\n");

    ok({{"overlay", "set", "Design", "Base KYM", "nx", "--description", "NX for design"}});
    EXPECT_EQ(out({"overlay", "set", "Design", "Base KYM", "nx", "--disable"}),
              "Changed the overlay of application nx of 'Base KYM' in department Design.\n");
    EXPECT_EQ(out({"overlay", "list", "Design"}), "CONFIGURATION  APPID  CATEGORY  DESCRIPTION    DISABLED\n"
                                                  "Base KYM       nx     CAD       NX for design  yes\n");
    EXPECT_EQ(out({"overlay", "remove", "Design", "Base KYM", "nx"}),
              "Removed the overlay of application nx of 'Base KYM' from department Design.\n");
    EXPECT_EQ(failure({"overlay", "remove", "Design", "Base KYM", "nx"}),
              "kym: Department 'Design' has no overlay for application 'nx' of 'Base KYM'.\n");
    EXPECT_EQ(out({"overlay", "list", "Design"}), "Department Design has no overlays.\n");
}

TEST_F(KymCommand, TheListsOfTheChosenLaunchConventionsApply) {
    makeDepartments();
    ok({{"app", "add", "base", "nx", "--program", "/bin/true", "--no-libraries"},
        {"var", "set", "base", "CAD_HOME", "/opt/cad", "--list", "unix"},
        {"var", "set", "base", "CAD_HOME", "C:/cad", "--list", "windows"}});

    EXPECT_TRUE(boost::contains(out({"env", "Design", "nx"}), "\nCAD_HOME=/opt/cad\n"));
    EXPECT_TRUE(boost::contains(out({"--platform", "windows", "env", "Design", "nx"}), "\nCAD_HOME=C:\\cad\n"));
    ScopedEnv windows("KYM_PLATFORM", std::string("windows"));
    EXPECT_TRUE(boost::contains(out({"env", "Design", "nx"}), "\nCAD_HOME=C:\\cad\n"));
    EXPECT_TRUE(boost::contains(out({"--platform", "posix", "env", "Design", "nx"}), "\nCAD_HOME=/opt/cad\n"));
    EXPECT_EQ(out({"--json", "apps", "Design"}), "{\n"
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
    EXPECT_EQ(misuse({"--platform", "macos", "departments"}),
              "kym: --platform: macos not in {windows,posix}\n"
              "Usage: kym departments [OPTIONS]\nRun 'kym help departments' for more.\n");
}

TEST_F(KymCommand, AppsListsEveryLayerWithTheDepartmentsOverlays) {
    makeDepartments();
    ok({{"app", "add", "base", "nx", "--description", "NX", "--category", "CAD", "--program", "/bin/true"},
        {"app", "add", "base", "view", "--description", "Viewer", "--category", "Tools", "--program", "/bin/cat"},
        {"plugin", "create", "cam", "--type", "Production"},
        {"app", "add", "plugin:cam", "mill", "--description", "Milling", "--category", "CAM"},
        {"app", "add", "dept:Shared", "pdm", "--description", "Parts", "--category", "Tools"},
        {"app", "add", "dept:Design", "own", "--description", "Design tool", "--category", "CAD"}});
    EXPECT_EQ(out({"app", "set", "base", "view", "disable", "on"}),
              "Set Disable of application view in the base settings to 'True'.\n");
    EXPECT_EQ(out({"overlay", "set", "Design", "cam Plugin", "mill", "--category", "CAD"}),
              "Added the overlay of application mill of 'cam Plugin' in department Design.\n");

    EXPECT_EQ(out({"apps", "Design"}), "Department Design (Design office)\n"
                                       "CAD\n"
                                       "  own   Design tool  [Design]\n"
                                       "  mill  Milling      [cam Plugin]\n"
                                       "  nx    NX           [Base KYM]\n"
                                       "Tools\n"
                                       "  pdm   Parts        [Shared]\n");
    EXPECT_TRUE(boost::contains(out({"apps", "Design", "--all"}), "  view  Viewer       [Base KYM]    disabled\n"));
    ok({{"app", "remove", "base", "view"}});
    EXPECT_EQ(out({"app", "list", "base"}), "APPID  CATEGORY  DESCRIPTION  EXECUTABLE  ARGUMENTS  FLAGS\n"
                                            "nx     CAD       NX           /bin/true\n");
    EXPECT_EQ(failure({"app", "add", "base", "nx"}), "kym: Application 'nx' already exists in the base settings.\n");
    EXPECT_EQ(failure({"overlay", "set", "Design", "Base KYM", "ghost"}),
              "kym: Department 'Design' is offered no application 'ghost' of 'Base KYM' ('kym apps Design --all' "
              "lists them).\n");

    const std::vector<Kym::ApplicationOverlay> overlays =
        Kym::Configuration(department("Design"), true).settings()->overlays();
    ASSERT_EQ(overlays.size(), 1u);
    EXPECT_EQ(overlays[0].configurationName + "/" + overlays[0].appId + "/" + overlays[0].category + "/" +
                  overlays[0].description,
              "cam Plugin/mill/CAD/Milling");
}

TEST_F(KymCommand, EnvExplainShowsEveryLayerThatSetAVariable) {
    makeDepartments();
    ok({{"app", "add", "base", "nx", "--program", "/bin/true", "--no-libraries"},
        {"plugin", "create", "cam"},
        {"var", "set", "site", "UGII_LANG", "site"},
        {"var", "set", "base", "UGII_LANG", "${UGII_LANG}_base"},
        {"var", "set", "plugin:cam", "UGII_LANG", "${UGII_LANG}_cam"},
        {"var", "set", "dept:Shared", "UGII_LANG", "${UGII_LANG}_shared"},
        {"var", "set", "dept:Design", "UGII_LANG", "${UGII_LANG}_design"},
        {"var", "set", "base", "UGII_LANG", "${UGII_LANG}_nx", "--app", "nx"},
        {"var", "set", "dept:Design", "HOME", ""}});

    const std::string explained = out({"env", "Design", "nx", "--explain"});
    EXPECT_EQ(block(explained, "UGII_LANG=site_base_cam_shared_design_nx"),
              "UGII_LANG=site_base_cam_shared_design_nx\n"
              "    site               site\n"
              "    base               site_base\n"
              "    plugin cam         site_base_cam\n"
              "    common department  site_base_cam_shared\n"
              "    department         site_base_cam_shared_design\n"
              "    application        site_base_cam_shared_design_nx\n");
    EXPECT_EQ(block(explained, "HOME (not set)"), "HOME (not set)\n"
                                                   "    process     " + native(home) + "\n"
                                                   "    department  (removed)\n");
    EXPECT_EQ(block(explained, "KYM_DEPT_DIR=" + native(department("Design"))),
              "KYM_DEPT_DIR=" + native(department("Design")) + "\n    launcher  " + native(department("Design")) + "\n");

    const std::string plain = out({"env", "Design", "nx"});
    EXPECT_TRUE(boost::contains(plain, "\nUGII_LANG=site_base_cam_shared_design_nx\n")) << plain;
    EXPECT_TRUE(boost::contains(plain, "\nKYM_COMMONDEPT_DIR=" + native(department("Shared")) + "\n"));
    EXPECT_FALSE(boost::contains(plain, "\nHOME="));
}

TEST_F(KymCommand, LaunchStartsTheProgramInTheWorkDirectoryWithTheAssembledEnvironment) {
    ASSERT_TRUE(orphansReaped);
    makeDepartments();
    TempDir probeDirectory;
    const fs::path probe = writeProbe(probeDirectory.path());
    const fs::path projects = home / "projects";
    fs::create_directories(projects);
    ok({{"app", "add", "dept:Design", "probe", "--program", probe.string(), "--arguments", "one ${PROBE_VAR}",
         "--no-libraries"},
        {"var", "set", "dept:Shared", "PROBE_VAR", "shared"},
        {"workdir", "add", "Design", "projects", "${HOME}/projects"}});

    EXPECT_EQ(failure({"launch", "Design", "probe", "--workdir", "elsewhere"}),
              "kym: Department 'Design' has no work directory 'elsewhere'. It has: projects.\n");
    EXPECT_EQ(out({"launch", "Design", "probe", "--workdir", "projects"}), "Started probe from department Design.\n");

    EXPECT_EQ(readProbe(probeDirectory.path()),
              "[" + probe.string() + "][one][shared]\n" + fs::canonical(projects).string() +
                  "\nPROBE_VAR=shared\nKYM_DEPT_DIR=" + native(department("Design")) +
                  "\nKYM_COMMONDEPT_DIR=" + native(department("Shared")) +
                  "\nUGII_LOCAL_USER_DEFAULTS=" + native(projects / "nx90_user.dpv") + "\n");
}

TEST_F(KymCommand, WithoutADepartmentNamedTheCurrentOneOrTheLastOneIsUsed) {
    ASSERT_TRUE(orphansReaped);
    makeDepartments();
    EXPECT_EQ(failure({"apps"}), "kym: No department given and none used before: name one, for example "
                                 "'kym apps DEPT' ('kym departments' lists them).\n");

    TempDir probeDirectory;
    const fs::path probe = writeProbe(probeDirectory.path());
    EXPECT_EQ(out({"run", "Design", "--", probe.string(), "-x", "two"}),
              "Started " + probe.string() + " from department Design.\n");
    EXPECT_EQ(readProbe(probeDirectory.path()),
              "[" + probe.string() + "][-x][two]\n" + fs::canonical(home).string() + "\nPROBE_VAR=\nKYM_DEPT_DIR=" +
                  native(department("Design")) + "\nKYM_COMMONDEPT_DIR=" + native(department("Shared")) +
                  "\nUGII_LOCAL_USER_DEFAULTS=" + native(home / "nx90_user.dpv") + "\n");

    EXPECT_TRUE(boost::starts_with(out({"apps"}), "Department Design (Design office)\n"));
    EXPECT_TRUE(boost::contains(out({"departments"}), "* current department (last used)\n"));
    ScopedEnv current("KYM_DEPT_DIR", department("Shared").string());
    EXPECT_TRUE(boost::starts_with(out({"apps"}), "Department Shared (Shared settings)\n"));
}

TEST_F(KymCommand, AnApplicationIsChosenByRankOrByItsConfiguration) {
    makeDepartments();
    ok({{"app", "add", "base", "tool", "--program", "/bin/true", "--no-libraries"},
        {"app", "add", "dept:Design", "tool", "--program", "/bin/cat", "--no-libraries"},
        {"plugin", "create", "cam"},
        {"plugin", "create", "milling"},
        {"app", "add", "plugin:cam", "mill", "--program", "/bin/true", "--no-libraries"},
        {"app", "add", "plugin:milling", "mill", "--program", "/bin/echo", "--no-libraries", "--arguments", "-n"}});
    EXPECT_EQ(out({"command", "Design", "tool"}), "/bin/cat\n");
    EXPECT_EQ(out({"command", "Design", "tool", "--from", "Base KYM"}), "/bin/true\n");
    EXPECT_EQ(failure({"command", "Design", "mill"}),
              "kym: Application 'mill' is ambiguous in department 'Design': it is offered by "
              "'cam Plugin' and 'milling Plugin'. Choose one with --from NAME.\n");
    EXPECT_EQ(out({"command", "Design", "mill", "--from", "milling Plugin"}), "/bin/echo -n\n");
    EXPECT_EQ(failure({"command", "Design", "lathe"}),
              "kym: No application 'lathe' in department 'Design'. It offers: tool, mill.\n");

    ok({{"overlay", "set", "Design", "cam Plugin", "mill", "--disable"}});
    EXPECT_EQ(failure({"launch", "Design", "mill", "--from", "cam Plugin"}),
              "kym: Application 'mill' is disabled in department 'Design'.\n");
}

TEST_F(KymCommand, CheckNamesTheMissingInstallationOrProgram) {
    makeDepartments();
    ok({{"app", "add", "base", "nx", "--program", "${UGII_BASE_DIR}/ugii/ugraf"}});
    EXPECT_EQ(failure({"check", "Design", "nx"}), "kym: UGII_BASE_DIR is not set.\n");

    const fs::path installation = site.root() / "nx";
    ok({{"site", "set", "unix-install-path", installation.string()}});
    fs::create_directories(installation / "ugii");
    EXPECT_EQ(failure({"check", "Design", "nx"}), "kym: Program " + native(installation / "ugii" / "ugraf") +
                                                      " is not found.\n  Original string = ${UGII_BASE_DIR}/ugii/ugraf\n"
                                                      "  Maybe a environment variable is set wrong.\n");
    const Outcome json = kym({"--json", "check", "Design", "nx"});
    EXPECT_EQ(json.status, 1);
    EXPECT_TRUE(boost::starts_with(json.out, "{\n  \"department\": \"Design\",\n  \"application\": \"nx\",\n"
                                             "  \"ok\": false,\n  \"error\": \"Program "))
        << json.out;

    writeFile(installation / "ugii" / "ugraf", "#!/bin/sh\n");
    fs::permissions(installation / "ugii" / "ugraf", fs::perms(0755));
    EXPECT_EQ(out({"check", "Design", "nx"}), "OK\n");
    EXPECT_EQ(out({"command", "Design", "nx"}), native(installation / "ugii" / "ugraf") + "\n");
}

TEST_F(KymCommand, PluginsAreCreatedAndSwitchedPerDepartment) {
    makeDepartments();
    ok({{"plugin", "create", "cam", "--type", "Production"}, {"plugin", "create", "pdm"}});
    EXPECT_EQ(failure({"plugin", "create", "extra", "--external"}),
              "kym: The site names no external plugins location for posix clients: set one with 'kym site set "
              "unix-external-plugins DIRECTORY'.\n");
    const fs::path external = site.root() / "external";
    fs::create_directories(external);
    ok({{"site", "set", "unix-external-plugins", external.string()}});
    EXPECT_EQ(out({"plugin", "create", "extra", "--external"}),
              "Created external plugin extra (Site-wide) in " + native(external / "extra") + ".\n");
    EXPECT_EQ(failure({"plugin", "create", "odd", "--type", "Weird"}),
              "kym: Unknown plugin type 'Weird': choose Site-wide, Common, Development, Production, Test.\n");
    EXPECT_EQ(out({"plugin", "list"}), "NAME   TYPE        KIND      PATH\n"
                                       "cam    Production  internal  " + native(site.pluginsPath() / "cam") + "\n"
                                       "pdm    Site-wide   internal  " + native(site.pluginsPath() / "pdm") + "\n"
                                       "extra  Site-wide   external  " + native(external / "extra") + "\n");

    ok({{"plugin", "disable", "Design", "cam"}, {"plugin", "disable", "Design", "pdm"},
        {"plugin", "disable", "Design", "extra"}, {"plugin", "set-type", "cam", "Test"}});
    EXPECT_EQ(out({"plugin", "disable", "Design", "pdm"}), "Plugin pdm is already disabled in department Design.\n");
    EXPECT_EQ(out({"plugin", "enable", "Design", "cam"}), "Enabled plugin cam in department Design.\n");
    EXPECT_EQ(failure({"plugin", "disable", "Design", "lathe"}), "kym: No plugin named 'lathe'. Plugins: cam, pdm, extra.\n");

    Kym::Configuration design(department("Design"), true);
    EXPECT_EQ(design.settings()->disabledPluginList(), (std::vector<std::string>{"pdm", "extra"}));
    std::string type;
    Base::Unarchiver(site.pluginsPath() / "cam" / "settings.dat").decode(Kym::PluginSettings::PluginTypeKey, type);
    EXPECT_EQ(type, "Test");
}

TEST_F(KymCommand, SiteSettingsAndSystemInformationAreWrittenWhereTheLibraryReadsThem) {
    EXPECT_EQ(out({"site", "set", "unix-install-path", "/opt/nx"}),
              "Set unix-install-path to '/opt/nx' in " + native(site.siteSettingsFile()) + ".\n");
    ok({{"site", "set", "use-registry", "off"}, {"site", "set", "windows-tceng", "C:\\tc"},
        {"sysinfo", "set", "KymVersionString", "2.0"}});
    EXPECT_EQ(misuse({"site", "set", "use-registry", "maybe"}), "kym: Invalid value 'maybe' for use-registry: give on "
                                                                "or off.\nUsage: kym site set [OPTIONS] KEY VALUE\n"
                                                                "Run 'kym help site set' for more.\n");
    EXPECT_TRUE(boost::starts_with(misuse({"site", "set", "colour", "red"}),
                                   "kym: Unknown site setting 'colour': choose unix-install-path, "));
    EXPECT_TRUE(boost::starts_with(misuse({"sysinfo", "set", "Nothing", "x"}),
                                   "kym: Unknown system information member 'Nothing': choose CadProductName, "));
    EXPECT_TRUE(boost::contains(out({"site", "show"}), "  use-registry:              off\n"));

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
