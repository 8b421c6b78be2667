// The kym command run as a user runs it: the built program in a child
// process, against a real site in a temporary folder, its output and exit
// status compared whole, and what it wrote read back through the library.
#include "kym/BaseSettings.h"
#include "kym/Configuration.h"
#include "kym/ConfigurationSettings.h"
#include "kym/PluginSettings.h"
#include "kym/SiteSettings.h"
#include "kym/SystemInfo.h"

#include "base/Unarchiver.h"

#include "support/Site.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <boost/algorithm/string/predicate.hpp>
#include <chrono>
#include <fcntl.h>
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

// Runs kym with the test's environment; standard input is empty, not a terminal.
Outcome kym(std::vector<std::string> arguments) {
    TempDir capture;
    const fs::path in = capture / "in", out = capture / "out", err = capture / "err";
    writeFile(in, "");
    std::vector<char*> argv{const_cast<char*>(KymProgram.c_str())};
    for (std::string& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    pid_t child = ::fork();
    if (child == 0) {
        ::dup2(::open(in.c_str(), O_RDONLY), 0);
        ::dup2(::open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 1);
        ::dup2(::open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 2);
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), readFile(out), readFile(err)};
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
        {{"frob"}, "kym: The following argument was not expected: frob\n"
                   "Usage: kym [OPTIONS] [SUBCOMMAND]\nRun 'kym --help' for more.\n"},
        {{"var", "set", "base", "UGII_LANG"},
         "kym: VALUE is required\nUsage: kym var set [OPTIONS] LAYER NAME VALUE\nRun 'kym help var set' for more.\n"},
        {{"var", "list", "elsewhere"},
         "kym: Unknown layer 'elsewhere': LAYER is one of: site, base, plugin:NAME, dept:NAME (a department).\n"
         "Usage: kym var list [OPTIONS] LAYER\nRun 'kym help var list' for more.\n"},
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
}

TEST_F(KymCommand, FailuresPrintTheLibraryMessageWithStatusOne) {
    EXPECT_EQ(failure({"dept", "show", "Nowhere"}),
              "kym: Department 'Nowhere' does not exist in " + native(site.departmentsPath()) + ".\n");
    ScopedEnv noInstallation("KYM_BASE_DIR", std::nullopt);
    EXPECT_EQ(failure({"departments"}), "kym: KYM_BASE_DIR is not set.\n");
}

TEST_F(KymCommand, VariablesAreSetReplacedAndUnsetWhereTheLibraryReadsThem) {
    ok({{"app", "add", "base", "nx", "--program", "/bin/true"}});
    EXPECT_EQ(out({"var", "set", "base", "UGII_LANG", "english"}),
              "Set UGII_LANG=english in the common list of the base settings.\n");
    EXPECT_EQ(out({"var", "set", "base", "UGII_LANG", "german", "--comment", "for design"}),
              "Replaced UGII_LANG=german in the common list of the base settings.\n");
    EXPECT_EQ(out({"var", "set", "base", "UGII_OPTION", "1", "--app", "nx"}),
              "Set UGII_OPTION=1 in the common list of application nx of the base settings.\n");
    ok({{"var", "set", "base", "PATH", "${PATH}:/opt/tools", "--list", "unix"}, {"var", "set", "base", "SCRATCH", "x"}});
    EXPECT_EQ(out({"var", "unset", "base", "SCRATCH"}), "Removed SCRATCH from the common list of the base settings.\n");
    const std::string saved = readFile(site.baseSettingsFile());
    EXPECT_EQ(failure({"var", "set", "base", "UGII_LANG", "a{b"}),
              "kym: Invalid value 'a{b' for variable 'UGII_LANG': a value holds its '%' signs in pairs "
              "and closes every '{' with a '}'.\n");
    EXPECT_EQ(readFile(site.baseSettingsFile()), saved);

    Kym::BaseSettings& settings = Kym::BaseInformation();
    EXPECT_EQ(variableTexts(settings.commonVariableList()), std::vector<std::string>{"UGII_LANG=german"});
    EXPECT_EQ(variableTexts(settings.unixVariableList()), std::vector<std::string>{"PATH=${PATH}:/opt/tools"});
    EXPECT_EQ(variableTexts(settings.applicationList().at(0).commonVariableList()),
              std::vector<std::string>{"UGII_OPTION=1"});
}

TEST_F(KymCommand, DepartmentsAreCreatedUpdatedRenamedAndDeletedWithTheirDependents) {
    site.addDepartment("Old");
    EXPECT_EQ(out({"dept", "create", "Shared", "--type", "Common", "--description", "Shared settings"}),
              "Created department Shared in " + native(department("Shared")) + ".\n");
    EXPECT_EQ(readFile(department("Shared") / "nx4" / "config" / "readme"), "release files\n");
    ok({{"dept", "create", "Design", "--description", "Design office", "--common", "Shared", "--cleanup", "off"}});
    EXPECT_EQ(out({"dept", "update", "Old"}), "Updated department Old for release nx4.\n");
    EXPECT_EQ(readFile(department("Old") / "nx4" / "config" / "readme"), "release files\n");

    EXPECT_EQ(out({"dept", "rename", "Shared", "Common"}), "Renamed department Shared to Common.\n"
                                                           "Now naming Common as their common department: Design.\n");
    const Kym::Configuration design(department("Design"), true);
    EXPECT_EQ(design.commonDepartment, "Common");
    EXPECT_FALSE(design.doFileCleanup);
    EXPECT_EQ(failure({"dept", "delete", "Common"}), "kym: Deleting department 'Common' removes all its releases; "
                                                     "without a terminal to ask on, confirm with --yes.\n");
    EXPECT_TRUE(fs::exists(department("Common")));
    EXPECT_EQ(out({"dept", "delete", "Common", "--yes"}),
              "Deleted department Common.\n"
              "Warning: these departments still name Common as their common department: Design.\n");
    EXPECT_FALSE(fs::exists(department("Common")));
}

TEST_F(KymCommand, AFailedCreationLeavesNoDepartmentBehind) {
    fs::remove(site.versionFilesArchive());
    EXPECT_EQ(failure({"dept", "create", "Design"}),
              "kym: Data file " + native(site.versionFilesArchive()) + " was not found.\n");
    EXPECT_TRUE(fs::is_empty(site.departmentsPath()));
}

TEST_F(KymCommand, TheListsOfTheChosenLaunchConventionsApply) {
    makeDepartments();
    ok({{"app", "add", "base", "nx", "--program", "/bin/true", "--no-libraries"},
        {"var", "set", "base", "CAD_HOME", "/opt/cad", "--list", "unix"},
        {"var", "set", "base", "CAD_HOME", "C:/cad", "--list", "windows"}});
    EXPECT_TRUE(boost::contains(out({"env", "Design", "nx"}), "\nCAD_HOME=/opt/cad\n"));
    ScopedEnv windows("KYM_PLATFORM", std::string("windows"));
    EXPECT_TRUE(boost::contains(out({"env", "Design", "nx"}), "\nCAD_HOME=C:\\cad\n"));
    EXPECT_TRUE(boost::contains(out({"--platform", "posix", "env", "Design", "nx"}), "\nCAD_HOME=/opt/cad\n"));
}

TEST_F(KymCommand, AppsMergeEveryLayerWithOverlaysAndAnApplicationOfferedTwiceNeedsFrom) {
    makeDepartments();
    ok({{"app", "add", "base", "nx", "--description", "NX", "--category", "CAD", "--program", "/bin/true"},
        {"app", "add", "base", "view", "--description", "Viewer", "--category", "Tools", "--program", "/bin/cat"},
        {"plugin", "create", "cam", "--type", "Production"},
        {"app", "add", "plugin:cam", "mill", "--description", "Milling", "--category", "CAM"},
        {"app", "add", "dept:Design", "own", "--description", "Design tool", "--category", "CAD"},
        {"app", "set", "base", "view", "disable", "on"}});
    EXPECT_EQ(out({"overlay", "set", "Design", "cam Plugin", "mill", "--category", "CAD"}),
              "Added the overlay of application mill of 'cam Plugin' in department Design.\n");

    EXPECT_EQ(out({"apps", "Design"}), "Department Design (Design office)\n"
                                       "CAD\n"
                                       "  own   Design tool  [Design]\n"
                                       "  mill  Milling      [cam Plugin]\n"
                                       "  nx    NX           [Base KYM]\n");
    EXPECT_TRUE(boost::contains(out({"apps", "Design", "--all"}), "  view  Viewer       [Base KYM]    disabled\n"));
    const Kym::ApplicationOverlay overlay = Kym::Configuration(department("Design"), true).settings()->overlays().at(0);
    EXPECT_EQ(overlay.configurationName + "/" + overlay.appId + "/" + overlay.category + "/" + overlay.description,
              "cam Plugin/mill/CAD/Milling");

    EXPECT_EQ(out({"overlay", "remove", "Design", "cam Plugin", "mill"}),
              "Removed the overlay of application mill of 'cam Plugin' from department Design.\n");
    EXPECT_TRUE(Kym::Configuration(department("Design"), true).settings()->overlays().empty());

    ok({{"plugin", "create", "milling"}, {"app", "add", "plugin:milling", "mill", "--program", "/bin/echo", "--arguments", "-n"}});
    EXPECT_EQ(failure({"command", "Design", "mill"}),
              "kym: Application 'mill' is ambiguous in department 'Design': it is offered by "
              "'milling Plugin' and 'cam Plugin'. Choose one with --from NAME.\n");
    EXPECT_EQ(out({"command", "Design", "mill", "--from", "milling Plugin"}), "/bin/echo -n\n");
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
        {"var", "set", "base", "UGII_LANG", "${UGII_LANG}_nx", "--app", "nx"}});

    EXPECT_EQ(block(out({"env", "Design", "nx", "--explain"}), "UGII_LANG=site_base_cam_shared_design_nx"),
              "UGII_LANG=site_base_cam_shared_design_nx\n"
              "    site               site\n"
              "    base               site_base\n"
              "    plugin cam         site_base_cam\n"
              "    common department  site_base_cam_shared\n"
              "    department         site_base_cam_shared_design\n"
              "    application        site_base_cam_shared_design_nx\n");
}

TEST_F(KymCommand, LaunchAndRunStartTheProgramWithTheAssembledEnvironmentInTheLastDepartment) {
    ASSERT_TRUE(orphansReaped);
    makeDepartments();
    EXPECT_EQ(failure({"apps"}), "kym: No department given and none used before: name one, for example "
                                 "'kym apps DEPT' ('kym departments' lists them).\n");
    TempDir probeDirectory;
    const fs::path probe = writeProbe(probeDirectory.path());
    const fs::path projects = home / "projects";
    fs::create_directories(projects);
    ok({{"app", "add", "dept:Design", "probe", "--program", probe.string(), "--arguments", "one ${PROBE_VAR}",
         "--no-libraries"},
        {"var", "set", "dept:Shared", "PROBE_VAR", "shared"},
        {"workdir", "add", "Design", "projects", "${HOME}/projects"}});
    const std::string departmentVariables = "KYM_DEPT_DIR=" + native(department("Design")) +
                                            "\nKYM_COMMONDEPT_DIR=" + native(department("Shared")) + "\n";

    EXPECT_EQ(out({"launch", "Design", "probe", "--workdir", "projects"}), "Started probe from department Design.\n");
    EXPECT_EQ(readProbe(probeDirectory.path()),
              "[" + probe.string() + "][one][shared]\n" + fs::canonical(projects).string() + "\nPROBE_VAR=shared\n" +
                  departmentVariables + "UGII_LOCAL_USER_DEFAULTS=" + native(projects / "nx90_user.dpv") + "\n");

    fs::remove(probeDirectory / "record");
    EXPECT_EQ(out({"run", "--", probe.string(), "-x", "two"}), "Started " + probe.string() + " from department Design.\n");
    EXPECT_EQ(readProbe(probeDirectory.path()),
              "[" + probe.string() + "][-x][two]\n" + fs::canonical(home).string() + "\nPROBE_VAR=shared\n" +
                  departmentVariables + "UGII_LOCAL_USER_DEFAULTS=" + native(home / "nx90_user.dpv") + "\n");

    EXPECT_TRUE(boost::contains(out({"departments"}), "* current department (last used)\n"));
    ScopedEnv current("KYM_DEPT_DIR", department("Shared").string());
    EXPECT_TRUE(boost::starts_with(out({"apps"}), "Department Shared (Shared settings)\n"));
}

TEST_F(KymCommand, PluginsAreCreatedAndSwitchedPerDepartment) {
    makeDepartments();
    const fs::path external = site.root() / "external";
    fs::create_directories(external);
    ok({{"plugin", "create", "cam", "--type", "Production"}, {"plugin", "create", "pdm"},
        {"site", "set", "unix-external-plugins", external.string()}});
    EXPECT_EQ(out({"plugin", "create", "extra", "--external"}),
              "Created external plugin extra (Site-wide) in " + native(external / "extra") + ".\n");

    ok({{"plugin", "disable", "Design", "cam"}, {"plugin", "disable", "Design", "pdm"},
        {"plugin", "disable", "Design", "extra"}, {"plugin", "set-type", "cam", "Test"}});
    EXPECT_EQ(out({"plugin", "enable", "Design", "cam"}), "Enabled plugin cam in department Design.\n");

    Kym::Configuration design(department("Design"), true);
    EXPECT_EQ(design.settings()->disabledPluginList(), (std::vector<std::string>{"pdm", "extra"}));
    std::string type;
    Base::Unarchiver(site.pluginsPath() / "cam" / "settings.dat").decode(Kym::PluginSettings::PluginTypeKey, type);
    EXPECT_EQ(type, "Test");
}

TEST_F(KymCommand, SiteSettingsAndSystemInformationAreWrittenWhereTheLibraryReadsThem) {
    EXPECT_EQ(out({"site", "set", "unix-install-path", "/opt/nx"}),
              "Set unix-install-path to '/opt/nx' in " + native(site.siteSettingsFile()) + ".\n");
    ok({{"site", "set", "use-registry", "off"}, {"sysinfo", "set", "KymVersionString", "2.0"}});

    EXPECT_EQ(Kym::SystemInformation().KymVersionString, "2.0");
    EXPECT_EQ(Kym::SystemInformation().CadVersionDirectory, "nx4");
    EXPECT_EQ(Kym::SiteInformation().unixNXInstallPath().value, "/opt/nx");
    EXPECT_FALSE(Kym::SiteInformation().useWindowsRegistry());
}

TEST_F(KymCommand, DoctorReportsEveryProblemWithTheFileAtFault) {
    EXPECT_EQ(out({"doctor"}), "No problems found.\n");

    Layer base;
    base.commonVariables = {{"UGII_LANG", "a{b"}};
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
              baseFile + ": Invalid value 'a{b' for variable 'UGII_LANG' in the common list of the base "
                             "settings: a value holds its '%' signs in pairs and closes every '{' with a '}'.\n" +
                  native(department("Design") / ".dirinfo.plist") +
                  ": The common department 'Gone' of department Design does not exist.\n" + baseFile +
                  ": application ghost (Base KYM) in department Design: Program /nowhere/ghost is not found.\n"
                  "  Original string = /nowhere/ghost\n  Maybe a environment variable is set wrong.\n" +
                  native(department("Old")) + ": Department Old is not updated for release nx4 ('kym dept update "
                                              "Old' makes " + native(department("Old") / "nx4") + ").\n"
                  "4 problems found.\n");
}

TEST_F(KymCommand, DoctorNamesTheSettingsFilesThatDoNotLoad) {
    site.addInternalPlugin("cam");
    writeFile(site.pluginsPath() / "cam" / "settings.dat", "not an archive");
    writeFile(site.systemInfoFile(), "<plist><dict><key>CadVersionDirectory</key><integer>4</integer></dict></plist>");
    const Outcome doctor = kym({"doctor"});
    EXPECT_EQ(doctor.status, 1);
    const std::string sysinfo = native(site.systemInfoFile()), plugin = native(site.pluginsPath() / "cam" / "settings.dat");
    EXPECT_EQ(doctor.out, sysinfo + ": the system information does not load, defaults are used: Archive " + sysinfo +
                              ": key 'CadVersionDirectory' holds an integer, expected a string\n" + plugin +
                              ": the plugin settings do not load: Property list " + plugin +
                              ", line 1: text before the plist element\n2 problems found.\n");
}

TEST_F(KymCommand, JsonIsStableAndVerboseLogsGoToStandardError) {
    ASSERT_EQ(kym({"var", "set", "site", "TC_DATA", "/data/tc", "--comment", "tc \"data\""}).status, 0);
    Outcome json = kym({"var", "list", "site", "--json"});
    EXPECT_EQ(json.out, "{\n  \"layer\": \"site\",\n  \"file\": \"" + native(site.siteSettingsFile()) + "\",\n"
                        "  \"variables\": {\n    \"common\": [\n      {\n        \"name\": \"TC_DATA\",\n"
                        "        \"value\": \"/data/tc\",\n        \"comment\": \"tc \\\"data\\\"\"\n      }\n"
                        "    ],\n    \"unix\": [],\n    \"windows\": []\n  }\n}\n");
    EXPECT_EQ(json.err, "");

    Outcome verbose = kym({"-v", "sysinfo", "show"});
    EXPECT_TRUE(boost::contains(verbose.err, "[kym.info] Loading system information: " +
                                                 native(site.systemInfoFile()) + "\n"))
        << verbose.err;
    EXPECT_FALSE(boost::contains(verbose.err, "[kym.verbose]"));
    EXPECT_TRUE(boost::contains(kym({"-vv", "sysinfo", "show"}).err, "[kym.verbose] "));
}

} // namespace
