// The kym command run as a user runs it: the built program in a child
// process, against a real site in a temporary folder, its output and exit
// status compared whole, and what it wrote read back through the library.
#include "kym/BaseSettings.h"
#include "kym/Configuration.h"
#include "kym/ConfigurationSettings.h"

#include "support/Processes.h"
#include "support/Site.h"

#include "base/FileManager.h"
#include "base/Platform.h"

#include <gtest/gtest.h>

#include <boost/algorithm/string/predicate.hpp>
#include <boost/algorithm/string/replace.hpp>
#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>
#include <boost/locale/utf.hpp>
#include <chrono>
#include <fstream>
#include <memory>
#include <regex>
#include <set>
#include <sstream>
#include <thread>

namespace {

using namespace KymTest;

const bool orphansReaped = KymTest::reapOrphansOfTheTests();

// Runs kym with the test's environment; standard input is empty, not a terminal.
Outcome kym(const std::vector<std::string>& arguments) { return runProgram(KYM_COMMAND, arguments); }

// The lines as kym prints them on this host.
std::string text(const std::string& lines) { return printedText(lines); }

// A path as kym writes it: in the native form of this host's conventions.
std::string native(const fs::path& path) { return Base::Platform::current().nativePath(path); }

// What kym printed on its one expected stream and nothing on the other; otherwise everything it did.
std::string printed(int expected, const std::vector<std::string>& arguments) {
    const Outcome outcome = kym(arguments);
    if (outcome.status == expected && (expected == 0 ? outcome.err : outcome.out).empty())
        return expected == 0 ? outcome.out : outcome.err;
    return "status " + std::to_string(outcome.status) + "\nout: " + outcome.out + "\nerr: " + outcome.err;
}
std::string out(const std::vector<std::string>& arguments) { return printed(0, arguments); }
std::string failure(const std::vector<std::string>& arguments) { return printed(1, arguments); }

// Runs command lines that must succeed, in order.
void ok(const std::vector<std::vector<std::string>>& commands) {
    for (const std::vector<std::string>& command : commands) {
        const Outcome outcome = kym(command);
        EXPECT_EQ(outcome.status, 0) << command.at(0) << " failed: " << outcome.err;
    }
}

// The launch conventions kym follows on this host, and the site setting that names their external plugins.
struct HostConventions {
    Base::Platform::Kind kind;
    std::string externalPluginsSetting;
};
#ifdef _WIN32
const HostConventions host{Base::Platform::Windows, "windows-external-plugins"};
#else
const HostConventions host{Base::Platform::Posix, "unix-external-plugins"};
#endif

class KymCommand : public ::testing::Test {
protected:
    KymCommand() {
        Base::Platform::setCurrent(host.kind);
        site.writeReleaseNames();
        site.writeVersionFiles({{"config/readme", "release files\n"}});
        fs::create_directories(home);
    }

    fs::path department(const std::string& name) const { return site.departmentsPath() / name; }

    // Shared (type Common) and Design, which uses it, both updated for the release.
    void makeDepartments() {
        ok({{"dept", "create", "Shared", "--type", "Common", "--description", "Shared settings"},
            {"dept", "create", "Design", "--description", "Design office", "--common", "Shared"}});
    }

    Site site;
    fs::path home = site.root() / "home";
    ScopedEnv homeVariable{"HOME", home.string()};
    ScopedEnv unset[4]{{"KYM_DEPT_DIR", std::nullopt}, {"KYM_LOG", std::nullopt}, {"KYM_LOG_FILE", std::nullopt},
                       {"KYM_PLATFORM", std::nullopt}};
#ifdef _WIN32
    // There the cache folder is the user's own and cannot be moved: only the test of the cache uses it.
    ScopedEnv noCache{"KYM_CACHE", std::string("off")};
#endif
};

TEST_F(KymCommand, WrongCommandLinesShowTheUsageWithStatusTwo) {
    ASSERT_TRUE(orphansReaped);
    EXPECT_EQ(printed(2, {}),
              text("kym: no command given.\nUsage: kym [OPTIONS] [SUBCOMMAND]\nRun 'kym --help' for more.\n"));
    EXPECT_EQ(printed(2, {"var", "list", "elsewhere"}),
              text("kym: Unknown layer 'elsewhere': LAYER is one of: site, base, plugin:NAME, dept:NAME "
                   "(a department).\nUsage: kym var list [OPTIONS] LAYER\nRun 'kym help var list' for more.\n"));
}

TEST_F(KymCommand, VariablesAreSetReplacedAndUnsetWhereTheLibraryReadsThem) {
    ok({{"var", "set", "base", "SCRATCH", "x"}});
    EXPECT_EQ(out({"var", "set", "base", "UGII_LANG", "english"}),
              text("Set UGII_LANG=english in the common list of the base settings.\n"));
    EXPECT_EQ(out({"var", "set", "base", "UGII_LANG", "german", "--comment", "for design"}),
              text("Replaced UGII_LANG=german in the common list of the base settings.\n"));
    EXPECT_EQ(out({"var", "unset", "base", "SCRATCH"}),
              text("Removed SCRATCH from the common list of the base settings.\n"));
    const std::string saved = readFile(site.baseSettingsFile());
    EXPECT_EQ(failure({"var", "set", "base", "UGII_LANG", "a{b"}),
              text("kym: Invalid value 'a{b' for variable 'UGII_LANG': a value holds its '%' signs in pairs "
                   "and closes every '{' with a '}'.\n"));
    EXPECT_EQ(readFile(site.baseSettingsFile()), saved);
    EXPECT_EQ(variableTexts(Kym::BaseInformation().commonVariableList()), std::vector<std::string>{"UGII_LANG=german"});
}

TEST_F(KymCommand, DepartmentsAreCreatedRenamedAndACommonOneThatOthersNameIsDeletedOnlyWithForce) {
    EXPECT_EQ(out({"dept", "create", "Shared", "--type", "Common", "--description", "Shared settings"}),
              text("Created department Shared in " + native(department("Shared")) + ".\n"));
    ok({{"dept", "create", "Design", "--description", "Design office", "--common", "Shared", "--cleanup", "off"},
        {"dept", "create", "Paint", "--description", "Paint shop", "--common", "Shared"}});

    EXPECT_EQ(out({"dept", "rename", "Shared", "Common"}),
              text("Renamed department Shared to Common.\n"
                   "Now naming Common as their common department: Design, Paint.\n"));
    const Kym::Configuration design(department("Design"), true);
    EXPECT_EQ(design.commonDepartment, "Common");
    EXPECT_FALSE(design.doFileCleanup);
    EXPECT_EQ(failure({"dept", "delete", "Common", "--force"}),
              text("kym: Deleting department 'Common' removes all its releases; "
                   "without a terminal to ask on, confirm with --yes.\n"));
    EXPECT_EQ(failure({"dept", "delete", "Common", "--yes"}),
              text("kym: Department 'Common' is the common department of Design, Paint, which would lose the settings "
                   "they share through it; nothing was deleted. Name another common department for them first "
                   "('kym dept set DEPT common NAME'), or delete it anyway with --force.\n"));
    EXPECT_EQ(Kym::Configuration(department("Common"), true).description, "Shared settings");
    EXPECT_TRUE(fs::is_directory(department("Common") / "nx4"));

    // One that no department names goes without --force.
    EXPECT_EQ(out({"dept", "delete", "Paint", "--yes"}), text("Deleted department Paint.\n"));
    EXPECT_EQ(out({"dept", "delete", "Common", "--yes", "--force"}),
              text("Deleted department Common.\n"
                   "Warning: these departments still name Common as their common department: Design.\n"));
    EXPECT_FALSE(fs::exists(department("Common")));
    EXPECT_EQ(Kym::Configuration(department("Design"), true).commonDepartment, "Common");
}

TEST_F(KymCommand, AppsMergeEveryLayerWithOverlaysAndAnApplicationOfferedTwiceNeedsFrom) {
    makeDepartments();
    ok({{"app", "add", "base", "nx", "--description", "NX", "--category", "CAD", "--program", "/bin/true"},
        {"plugin", "create", "cam", "--type", "Production"},
        {"app", "add", "plugin:cam", "mill", "--description", "Milling", "--category", "CAM"},
        {"app", "add", "dept:Design", "own", "--description", "Design tool", "--category", "CAD"}});
    EXPECT_EQ(out({"overlay", "set", "Design", "cam Plugin", "mill", "--category", "CAD"}),
              text("Added the overlay of application mill of 'cam Plugin' in department Design.\n"));

    EXPECT_EQ(out({"apps", "Design"}), text("Department Design (Design office)\n"
                                            "CAD\n"
                                            "  own   Design tool  [Design]\n"
                                            "  mill  Milling      [cam Plugin]\n"
                                            "  nx    NX           [Base KYM]\n"));

    // Executable by its mode on POSIX, by its extension on Windows.
    const fs::path program = writeExecutable(site.root() / "bin" / "mill.exe", "#!/bin/sh\n");
    ok({{"plugin", "create", "milling"},
        {"app", "add", "plugin:milling", "mill", "--program", program.string(), "--arguments", "-n"}});
    EXPECT_EQ(failure({"command", "Design", "mill"}),
              text("kym: Application 'mill' is ambiguous in department 'Design': it is offered by "
                   "'milling Plugin' and 'cam Plugin'. Choose one with --from NAME.\n"));
    EXPECT_EQ(out({"command", "Design", "mill", "--from", "milling Plugin"}), text(native(program) + " -n\n"));
}

TEST_F(KymCommand, EnvAppliesTheListsOfTheChosenConventionsAndExplainsEveryLayerThatSetAVariable) {
    makeDepartments();
    ok({{"app", "add", "base", "nx", "--program", "/bin/true", "--no-libraries"},
        {"plugin", "create", "cam"},
        {"var", "set", "base", "CAD_HOME", "/opt/cad", "--list", "unix"},
        {"var", "set", "base", "CAD_HOME", "C:/cad", "--list", "windows"},
        {"var", "set", "site", "UGII_LANG", "site"},
        {"var", "set", "plugin:cam", "UGII_LANG", "${UGII_LANG}_cam"},
        {"var", "set", "dept:Shared", "UGII_LANG", "${UGII_LANG}_shared"},
        {"var", "set", "base", "UGII_LANG", "${UGII_LANG}_nx", "--app", "nx"}});
    const std::string explained = out({"env", "Design", "nx", "--explain"});
    EXPECT_TRUE(boost::contains(explained, text("\nUGII_LANG=site_cam_shared_nx\n"
                                                "    site               site\n"
                                                "    plugin cam         site_cam\n"
                                                "    common department  site_cam_shared\n"
                                                "    application        site_cam_shared_nx\n")))
        << explained;
    ScopedEnv windows("KYM_PLATFORM", std::string("windows"));
    EXPECT_TRUE(boost::contains(out({"env", "Design", "nx"}), text("\nCAD_HOME=C:\\cad\n")));
    EXPECT_TRUE(boost::contains(out({"--platform", "posix", "env", "Design", "nx"}), text("\nCAD_HOME=/opt/cad\n")));
}

TEST_F(KymCommand, SettledSettingsAreReadFromTheirKeptTablesAndAnEditIsSeenAtOnce) {
    ScopedEnv cacheHome("XDG_CACHE_HOME", std::nullopt), cacheOn("KYM_CACHE", std::nullopt);
#ifdef _WIN32
    const fs::path cache = Base::FileManager::userCacheFolder() / "kym";
    // The user's own cache folder: the tables this test makes go again, the others stay.
    const auto tables = [&cache] {
        boost::system::error_code none;
        std::set<fs::path> found;
        for (fs::directory_iterator entry(cache, none), end; !none && entry != end; ++entry)
            found.insert(entry->path());
        return found;
    };
    const std::set<fs::path> before = tables();
    const std::shared_ptr<void> removeOwnTables(nullptr, [&](void*) {
        boost::system::error_code none;
        for (const fs::path& table : tables())
            if (!before.count(table)) fs::remove(table, none);
    });
#else
    const fs::path cache = home / ".cache" / "kym";
#endif
    makeDepartments();
    ok({{"app", "add", "dept:Design", "nx", "--program", "/bin/true", "--no-libraries"},
        {"var", "set", "base", "UGII_LANG", "english"}});
    // Only files that have not changed for a moment are kept.
    std::this_thread::sleep_for(std::chrono::milliseconds(2100));
    const std::string first = out({"env", "Design", "nx"});
    EXPECT_TRUE(boost::contains(first, text("\nUGII_LANG=english\n"))) << first;
    EXPECT_FALSE(fs::is_empty(cache));
    const Outcome again = kym({"-vv", "env", "Design", "nx"});
    EXPECT_EQ(again.out, first);
    EXPECT_TRUE(boost::contains(again.err, "baseSettings.dat as kept in " + native(cache))) << again.err;

    ok({{"var", "set", "base", "UGII_LANG", "german"}});
    EXPECT_TRUE(boost::contains(out({"env", "Design", "nx"}), text("\nUGII_LANG=german\n")));
    ScopedEnv off("KYM_CACHE", std::string("off"));
    EXPECT_FALSE(boost::contains(kym({"-vv", "env", "Design", "nx"}).err, "as kept in"));
}

TEST_F(KymCommand, LaunchStartsTheProgramWithTheAssembledEnvironmentAndRemembersTheDepartment) {
    ASSERT_TRUE(orphansReaped);
    makeDepartments();
    EXPECT_EQ(failure({"apps"}), text("kym: No department given and none used before: name one, for example "
                                      "'kym apps DEPT' ('kym departments' lists them).\n"));
    const Probe probe(KYM_PROBE);
    ok({{"app", "add", "dept:Design", "probe", "--program", probe.program().string(), "--arguments",
         "one \"two words\" ${PROBE_VAR}", "--no-libraries"},
        {"var", "set", "dept:Shared", "PROBE_VAR", "shared"},
        {"workdir", "add", "Design", "projects", "${HOME}"}});

    EXPECT_EQ(out({"launch", "Design", "probe", "--workdir", "projects"}),
              text("Started probe from department Design.\n"));
    const Probe::Record started = probe.record();
    EXPECT_EQ(started.arguments, probe.argumentsFor({"one", "\"two words\"", "shared"}));
    EXPECT_EQ(started.directory, home.string());
    using Texts = std::vector<std::string>;
    EXPECT_EQ((Texts{started.value("PROBE_VAR"), started.value("KYM_DEPT_DIR"), started.value("KYM_COMMONDEPT_DIR"),
                     started.value("UGII_LOCAL_USER_DEFAULTS")}),
              (Texts{"shared", native(department("Design")), native(department("Shared")),
                     native(home / "nx90_user.dpv")}));

    EXPECT_TRUE(boost::starts_with(out({"apps"}), text("Department Design (Design office)\n")));

    // Any program gets exactly the arguments given.
    const std::vector<std::string> given{"-c", "echo \"$1\"", "x", "a b", "", "${PROBE_VAR}"};
    std::vector<std::string> command{"run", "Design", "--", probe.program().string()};
    command.insert(command.end(), given.begin(), given.end());
    const Outcome run = kym(command);
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(probe.record().arguments, probe.argumentsFor(given));
}

TEST_F(KymCommand, PluginsAreCreatedSwitchedPerDepartmentRenamedAndDeleted) {
    makeDepartments();
    const fs::path external = site.root() / "external";
    fs::create_directories(external);
    ok({{"plugin", "create", "cam", "--type", "Production"}, {"plugin", "create", "pdm"},
        {"site", "set", host.externalPluginsSetting, external.string()}});
    EXPECT_EQ(out({"plugin", "create", "extra", "--external"}),
              text("Created external plugin extra (Site-wide) in " + native(external / "extra") + ".\n"));

    ok({{"plugin", "disable", "Design", "cam"}, {"plugin", "disable", "Design", "pdm"},
        {"plugin", "disable", "Design", "extra"}});
    EXPECT_EQ(out({"plugin", "enable", "Design", "cam"}), text("Enabled plugin cam in department Design.\n"));
    EXPECT_EQ(out({"plugin", "rename", "pdm", "vault"}),
              text("Renamed plugin pdm to vault (" + native(site.pluginsPath() / "vault") +
                   ").\nIts new name is now in the disabled plugins and overlays of: Design.\n"));

    EXPECT_EQ(Kym::Configuration(department("Design"), true).settings()->disabledPluginList(),
              (std::vector<std::string>{"vault", "extra"}));

    EXPECT_EQ(out({"plugin", "delete", "extra", "--yes"}),
              text("Deleted plugin extra (" + native(external / "extra") + ").\n"));
    EXPECT_TRUE(fs::is_empty(external));
    EXPECT_FALSE(boost::contains(out({"plugin", "list"}), "extra"));
}

TEST_F(KymCommand, DoctorReportsEveryProblemWithTheFileAtFault) {
    EXPECT_EQ(out({"doctor"}), text("No problems found.\n"));

    Layer base{{{"UGII_LANG", "a{b"}}, {}, {}, {makeApplication("ghost", "/nowhere/ghost")}};
    base.applications.back().addUGLibsToPath = false;
    site.writeBaseSettings(base);
    site.addUpdatedDepartment("Design", DepartmentProperties{"None", "Production", "Gone", true, 2});
    site.addDepartment("Old");

    Outcome doctor = kym({"doctor"});
    EXPECT_EQ(doctor.status, 1);
    const std::string baseFile = native(site.baseSettingsFile());
    EXPECT_EQ(doctor.out,
              text(baseFile + ": Invalid value 'a{b' for variable 'UGII_LANG' in the common list of the base "
                              "settings: a value holds its '%' signs in pairs and closes every '{' with a '}'.\n" +
                   native(department("Design") / ".dirinfo.plist") +
                   ": The common department 'Gone' of department Design does not exist.\n" + baseFile +
                   ": application ghost (Base KYM) in department Design: Program " + native("/nowhere/ghost") +
                   " is not found.\n  Original string = /nowhere/ghost\n"
                   "  Maybe a environment variable is set wrong.\n" +
                   native(department("Old")) + ": Department Old is not updated for release nx4 ('kym dept update "
                                               "Old' makes " + native(department("Old") / "nx4") + ").\n"
                   "4 problems found.\n"));
}

TEST_F(KymCommand, JsonIsStableAndVerboseLogsGoToStandardError) {
    ASSERT_EQ(kym({"var", "set", "site", "TC_DATA", "/data/tc", "--comment", "tc \"data\""}).status, 0);
    Outcome json = kym({"var", "list", "site", "--json"});
    const std::string file = boost::replace_all_copy(native(site.siteSettingsFile()), "\\", "\\\\");
    EXPECT_EQ(json.out, text("{\n  \"layer\": \"site\",\n  \"file\": \"" + file + "\",\n"
                             "  \"variables\": {\n    \"common\": [\n      {\n        \"name\": \"TC_DATA\",\n"
                             "        \"value\": \"/data/tc\",\n        \"comment\": \"tc \\\"data\\\"\"\n      }\n"
                             "    ],\n    \"unix\": [],\n    \"windows\": []\n  }\n}\n"));
    EXPECT_EQ(json.err, "");

    EXPECT_TRUE(boost::contains(kym({"-v", "sysinfo", "show"}).err,
                                text("[kym.info] Loading system information: " + native(site.systemInfoFile()) +
                                     "\n")));
}

TEST_F(KymCommand, WhatAnInterruptedCreateOrDeleteLeftIsNoDepartment) {
    makeDepartments();
    // Whole departments in the hidden work directories of a creation and a deletion whose process died.
    site.addUpdatedDepartment(".kym creating Paint 0000abcd/Paint",
                              DepartmentProperties{"Paint", "Production", "Gone", true, 2});
    site.addDepartment(".kym deleting Old 1234abcd/Old");

    EXPECT_EQ(out({"doctor"}), text("No problems found.\n"));
    const std::string listed = out({"departments"});
    EXPECT_TRUE(boost::contains(listed, "Design")) << listed;
    EXPECT_FALSE(boost::contains(listed, "Paint")) << listed;
    EXPECT_FALSE(boost::contains(listed, "Old")) << listed;
    EXPECT_EQ(out({"dept", "create", "Paint", "--common", "Shared"}),
              text("Created department Paint in " + native(department("Paint")) + ".\n"));
    EXPECT_EQ(Kym::Configuration(department("Paint"), true).commonDepartment, "Shared");
}

} // namespace

// What --json prints, read back with Boost.JSON as a script reads it.
namespace {

// The document, or the parse error as a failure of the test.
boost::json::value parsedJson(const std::string& text) {
    boost::system::error_code error;
    boost::json::value value = boost::json::parse(text, error);
    EXPECT_FALSE(error) << error.message() << " in:\n" << text;
    return value;
}

// The bytes of a string that --json read as Latin-1: one byte for each code point.
std::string latin1Bytes(boost::json::string_view text) {
    std::string bytes;
    for (auto at = text.begin(); at != text.end();) {
        const auto point = boost::locale::utf::utf_traits<char>::decode(at, text.end());
        EXPECT_LE(point, 0xFFu) << "not read as Latin-1: " << text;
        bytes += static_cast<char>(point);
    }
    return bytes;
}

} // namespace

TEST_F(KymCommand, JsonStaysValidForBytesThatAreNotUtf8AndGivesThemBackAsLatin1) {
    makeDepartments();
    ok({{"app", "add", "base", "nx", "--program", "/bin/true", "--no-libraries"}});
    // Settings files hold UTF-8 only; code-page text comes in with the environment. A code-page e acute
    // next to a UTF-8 euro sign: the whole value is read as Latin-1.
    const std::string bytes = "caf\xE9 \xE2\x82\xAC";
    ScopedEnv label("CAD_LABEL", bytes);
    EXPECT_TRUE(boost::contains(out({"env", "Design", "nx"}), text("\nCAD_LABEL=" + bytes + "\n")));

    const boost::json::value json = parsedJson(out({"env", "Design", "nx", "--json"}));
    EXPECT_EQ(latin1Bytes(json.at_pointer("/environment/CAD_LABEL").as_string()), bytes);
    EXPECT_EQ(json.at_pointer("/environment/CAD_LABEL"), "caf\xC3\xA9 \xC3\xA2\xC2\x82\xC2\xAC");
}

TEST_F(KymCommand, VersionIsTheProjectVersion) {
    std::ifstream file(std::string(KYM_SOURCE_DIR) + "/CMakeLists.txt");
    std::stringstream project;
    project << file.rdbuf();
    std::smatch match;
    const std::string cmake = project.str();
    ASSERT_TRUE(std::regex_search(cmake, match, std::regex(R"(project\(\w+ VERSION ([0-9.]+))")));
    const std::string version = match[1];

    EXPECT_EQ(out({"--version"}), text("kym " + version + "\n"));
    const boost::json::value json = parsedJson(out({"--version", "--json"}));
    EXPECT_EQ(json, (boost::json::object{{"name", "kym"}, {"version", version}}));
}

TEST_F(KymCommand, AFailureWithJsonIsOneJsonObjectOnStandardErrorWithTheStatus) {
    // The status, what went to standard output, and the error document.
    const auto failed = [this](const std::vector<std::string>& arguments) {
        const Outcome outcome = kym(arguments);
        EXPECT_EQ(outcome.out, "");
        EXPECT_EQ(std::count(outcome.err.begin(), outcome.err.end(), '\n'), 1) << outcome.err;
        return std::make_pair(outcome.status, parsedJson(outcome.err));
    };
    using Failure = std::pair<int, boost::json::value>;
    EXPECT_EQ(failed({"--json", "apps"}),
              (Failure{1, {{"error", "No department given and none used before: name one, for example 'kym apps "
                                     "DEPT' ('kym departments' lists them)."},
                           {"status", 1}}}));
    EXPECT_EQ(failed({"var", "list", "elsewhere", "--json"}),
              (Failure{2, {{"error", "Unknown layer 'elsewhere': LAYER is one of: site, base, plugin:NAME, "
                                     "dept:NAME (a department)."},
                           {"status", 2}}}));
    EXPECT_EQ(failed({"--json", "no-such-command"}),
              (Failure{2, {{"error", "The following argument was not expected: no-such-command"}, {"status", 2}}}));

    // A department file cut off in its middle: read in part, and never saved over.
    makeDepartments();
    ok({{"app", "add", "dept:Design", "drafting", "--program", "draft"}, {"var", "set", "dept:Design", "KEEP", "1"}});
    const fs::path file = Kym::Configuration(department("Design"), true).settings()->dataFile();
    const std::string whole = readFile(file);
    ASSERT_NE(whole.find("Application List"), std::string::npos);
    writeFile(file, whole.substr(0, whole.find("Application List")));
    const auto [status, damaged] = failed({"var", "set", "dept:Design", "NEW", "1", "--json"});
    EXPECT_EQ(status, 1);
    EXPECT_TRUE(boost::contains(damaged.at("error").as_string(), "is not saved over")) << damaged;
    EXPECT_EQ(damaged.at("hint"), "'kym repair LAYER' replaces it deliberately, keeping a copy.");
    EXPECT_EQ(damaged.at("status"), 1);
}

TEST_F(KymCommand, TableColumnsAreAlignedByTheWidthTheTextTakesOnScreen) {
    makeDepartments();
    ok({{"app", "add", "base", "nx", "--description", "NX", "--category", "CAD"},
        {"app", "add", "dept:Design", "b\xC3\xBCro", "--description", "B\xC3\xBCro \xC3\x98", "--category", "CAD"},
        {"app", "add", "dept:Design", "kanji", "--description", "\xE8\xA8\xAD\xE8\xA8\x88", "--category", "CAD"}});
    EXPECT_EQ(out({"apps", "Design"}), text("Department Design (Design office)\n"
                                            "CAD\n"
                                            "  b\xC3\xBCro   B\xC3\xBCro \xC3\x98  [Design]\n"
                                            "  nx     NX      [Base KYM]\n"
                                            "  kanji  \xE8\xA8\xAD\xE8\xA8\x88    [Design]\n"));
}

TEST_F(KymCommand, LayersAndSwitchesHaveOneSpellingInEveryCommandAndTheEarlierOnesStillWork) {
    makeDepartments();
    ok({{"plugin", "create", "plugin:cam"},
        {"app", "add", "base", "nx", "--program", "/bin/true"},
        {"app", "add", "dept:Design", "now", "--libraries", "off", "--custom", "off", "--disabled"},
        {"app", "add", "dept:Design", "before", "--no-libraries", "--no-custom", "--disabled", "on"},
        {"workdir", "add", "dept:Design", "projects", "${HOME}"},
        {"plugin", "disable", "dept:Design", "plugin:cam"},
        {"overlay", "set", "Design", "Base KYM", "nx", "--disable"}});
    const boost::json::value apps = parsedJson(out({"app", "list", "dept:Design", "--json"}));
    boost::json::object now = apps.at_pointer("/applications/0").as_object();
    boost::json::object before = apps.at_pointer("/applications/1").as_object();
    now.erase("appId");
    before.erase("appId");
    EXPECT_EQ(now, before);
    EXPECT_EQ(now.at("addNXLibs"), false);
    EXPECT_EQ(now.at("noCustom"), true);
    EXPECT_EQ(now.at("disable"), true);

    const auto overlayDisabled = [this] {
        return Kym::Configuration(department("Design"), true).settings()->getOverlay("Base KYM", "nx").disableApplication;
    };
    EXPECT_TRUE(overlayDisabled());
    ok({{"overlay", "set", "dept:Design", "Base KYM", "nx", "--disabled", "off"}});
    EXPECT_FALSE(overlayDisabled());
    EXPECT_EQ(out({"workdir", "list", "Design"}), text("NAME      PATH\nprojects  ${HOME}\n"));
    EXPECT_EQ(Kym::Configuration(department("Design"), true).settings()->disabledPluginList(),
              std::vector<std::string>{"cam"});

    ok({{"var", "set", "dept:Design", "A", "1"}, {"var", "set", "dept:Design", "B", "2"},
        {"var", "remove", "dept:Design", "A"}, {"var", "unset", "dept:Design", "B"}});
    EXPECT_EQ(out({"var", "list", "dept:Design"}), text("No variables in department Design.\n"));
    EXPECT_EQ(printed(2, {"app", "add", "base", "x", "--custom", "maybe"}),
              text("kym: Invalid value 'maybe' for --custom: give on or off.\n"
                   "Usage: kym app add [OPTIONS] LAYER APPID\nRun 'kym help app add' for more.\n"));
}

TEST_F(KymCommand, ALayerExportedAndImportedElsewhereHoldsTheSameSettings) {
    makeDepartments();
    ok({{"dept", "create", "Tooling"},
        {"plugin", "create", "cam"},
        {"app", "add", "base", "nx", "--program", "/bin/true"},
        {"var", "set", "dept:Design", "PROJECT", "/projects/design", "--comment", "project data"},
        {"var", "set", "dept:Design", "PATH", "${PATH}:${PROJECT}/bin", "--list", "unix"},
        {"app", "add", "dept:Design", "draft", "--program", "draft", "--libraries", "off", "--category", "CAD"},
        {"var", "set", "dept:Design", "STANDARD", "ISO", "--app", "draft", "--list", "windows"},
        {"workdir", "add", "Design", "projects", "${PROJECT}"},
        {"overlay", "set", "Design", "Base KYM", "nx", "--category", "Design"},
        {"plugin", "disable", "Design", "cam"},
        {"var", "set", "dept:Tooling", "GONE", "1"}});
    const std::string design = out({"export", "dept:Design"});
    const fs::path file = site.root() / "design.json";
    writeFile(file, design);
    EXPECT_EQ(out({"import", "dept:Tooling", file.string()}),
              text("Imported " + native(file) + " into department Tooling.\n"));

    boost::json::value exported = parsedJson(design);
    boost::json::value copied = parsedJson(out({"export", "dept:Tooling"}));
    EXPECT_EQ(exported.as_object().erase("layer") + copied.as_object().erase("layer"), 2u);
    EXPECT_EQ(copied, exported);
    EXPECT_EQ(exported.at_pointer("/applications/0/variables/windows/0/name"), "STANDARD");
    EXPECT_EQ(exported.at_pointer("/disabledPlugins/0"), "cam");
    EXPECT_EQ(exported.at_pointer("/overlays/0/category"), "Design");

    // The system information, changed in its document and read back.
    boost::json::value info = parsedJson(out({"export", "sysinfo"}));
    info.at_pointer("/members/PreviousCadVersionDirectory") = "NX3";
    writeFile(file, boost::json::serialize(info));
    ok({{"import", "sysinfo", file.string()}});
    EXPECT_EQ(parsedJson(out({"sysinfo", "show", "--json"})).at_pointer("/members/PreviousCadVersionDirectory"), "NX3");
}

TEST_F(KymCommand, AnImportWithAnyProblemWritesNothingAndNamesEachProblem) {
    makeDepartments();
    ok({{"var", "set", "dept:Design", "KEEP", "1"}});
    const fs::path settings = Kym::Configuration(department("Design"), true).settings()->dataFile();
    const std::string before = readFile(settings);
    const fs::path file = site.root() / "bad.json";
    writeFile(file, R"({"format": "kym layer", "version": 1,
        "variables": {"common": [{"name": "GOOD", "value": "1"}, {"name": "1BAD", "value": "x"}],
                      "unix": [{"name": "ODD", "value": "50%"}]},
        "applications": [{"appId": "two words"}, {"description": "no id"}],
        "disabledPlugins": ["nosuch"], "workDirectories": [{"name": "w", "path": 7}], "colour": "red"})");
    EXPECT_EQ(failure({"import", "dept:Design", file.string()}),
              text("kym: Nothing imported into department Design: " + native(file) + " has 7 problems:\n"
                   "  variables.common[1]: Invalid variable name '1BAD' in the common list of department Design: a name "
                   "holds letters, digits and '_' (a '#' only first) and starts with neither a digit nor '_'.\n"
                   "  variables.unix[0]: Invalid value '50%' for variable 'ODD' in the unix list of department Design: "
                   "a value holds its '%' signs in pairs and closes every '{' with a '}'.\n"
                   "  applications[0]: Invalid application identifier 'two words': give a word without blanks.\n"
                   "  applications[1].appId: is missing\n"
                   "  workDirectories[0].path: a text \"...\" is needed\n"
                   "  disabledPlugins[0]: No plugin named 'nosuch' ('kym plugin list' lists them).\n"
                   "  colour: not part of department Design: it holds format, version, layer, revision, variables, "
                   "applications, workDirectories, overlays, disabledPlugins.\n"));
    EXPECT_EQ(readFile(settings), before);

    writeFile(file, "{\"format\": \"kym layer\",\n\"variables\": [");
    EXPECT_EQ(failure({"import", "dept:Design", file.string()}),
              text("kym: Cannot import " + native(file) + ": it is not a JSON document (line 2: incomplete JSON).\n"));
    writeFile(file, "{\"variables\": {}}");
    EXPECT_EQ(failure({"import", "base", file.string()}),
              text("kym: Cannot import " + native(file) + ": it is not a layer that kym exported (its \"format\" is "
                   "not \"kym layer\").\n"));
    EXPECT_EQ(readFile(settings), before);
}

TEST_F(KymCommand, StartScriptsBecomeTheLayersVariablesAndEveryOtherLineIsReported) {
    makeDepartments();
    ok({{"var", "set", "dept:Design", "UGII_LANG", "english", "--list", "windows"}});
    const fs::path batch = site.root() / "start_nx.bat";
    writeFile(batch, "@echo off\r\n"
                     "rem Design's NX\r\n"
                     "set UGII_LANG=german\r\n"
                     "set \"PROJECT=D:\\projects\\design\"\r\n"
                     "SET PATH=%UGII_BASE_DIR%\\ugii;%PATH%\r\n"
                     "set PATH=%PATH%;%PROJECT%\\bin\r\n"
                     "set SHARE=100%%%%\r\n"
                     "set HERE=%~dp0\r\n"
                     "start \"\" \"%UGII_BASE_DIR%\\ugii\\ugraf.exe\"\r\n");
    EXPECT_EQ(out({"import", "dept:Design", batch.string()}),
              text("Imported 5 variables from " + native(batch) + " into the windows list of department Design.\n"
                   "Left out, not understood (2 lines):\n"
                   "  line 8:  set HERE=%~dp0                             (the reference %~dp0 has no counterpart in kym)\n"
                   "  line 9:  start \"\" \"%UGII_BASE_DIR%\\ugii\\ugraf.exe\"  (not a set NAME=VALUE line)\n"));
    const fs::path shell = site.root() / "start_nx.sh";
    writeFile(shell, "#!/bin/sh\n"
                     "export UGII_LANG=german\n"
                     "PROJECT=\"/projects/design\"; export PROJECT\n"
                     "export PATH=$UGII_BASE_DIR/ugii:${PATH} # the CAD system first\n"
                     "unset UGII_TRACE\n"
                     "export UGII_HOST=`hostname`\n"
                     "exec \"$UGII_BASE_DIR/ugii/ugraf\" \"$@\"\n");
    EXPECT_EQ(out({"import", "dept:Design", shell.string()}),
              text("Imported 4 variables from " + native(shell) + " into the unix list of department Design.\n"
                   "Left out, not understood (2 lines):\n"
                   "  line 6:  export UGII_HOST=`hostname`            (command substitution has no counterpart in kym)\n"
                   "  line 7:  exec \"$UGII_BASE_DIR/ugii/ugraf\" \"$@\"  (not a NAME=VALUE or export line)\n"));

    const Kym::Configuration design(department("Design"), true);
    EXPECT_EQ(variableTexts(design.settings()->winVariableList()),
              (std::vector<std::string>{"UGII_LANG=german", "PROJECT=D:\\projects\\design",
                                        "PATH=${UGII_BASE_DIR}\\ugii;${PATH}", "PATH=${PATH};${PROJECT}\\bin",
                                        "SHARE=100%%"}));
    EXPECT_EQ(variableTexts(design.settings()->unixVariableList()),
              (std::vector<std::string>{"UGII_LANG=german", "PROJECT=/projects/design",
                                        "PATH=${UGII_BASE_DIR}/ugii:${PATH}", "UGII_TRACE="}));

    // A value kym would refuse stops the whole script.
    const std::string saved = readFile(design.settings()->dataFile());
    writeFile(batch, "set FIRST=1\r\nset RATE=50%%\r\n");
    EXPECT_EQ(failure({"import", "dept:Design", batch.string()}),
              text("kym: Nothing imported into the windows list of department Design:\n  " + native(batch) +
                   " line 2: Invalid value '50%' for variable 'RATE': a value holds its '%' signs in pairs and closes "
                   "every '{' with a '}'.\n"));
    EXPECT_EQ(readFile(design.settings()->dataFile()), saved);
}

TEST_F(KymCommand, DiffShowsOnlyWhatDiffersBetweenTwoDepartmentsOrApplicationsWithTheLayerThatSetIt) {
    makeDepartments();
    ok({{"dept", "create", "Tooling"},
        {"app", "add", "base", "nx", "--program", "/bin/true"},
        {"app", "add", "base", "viewer", "--program", "/bin/true"},
        {"var", "set", "base", "UGII_LANG", "english"},
        {"var", "set", "dept:Design", "UGII_LANG", "german"},
        {"var", "set", "dept:Tooling", "ONLY_TOOLING", "1"},
        {"var", "set", "base", "VIEW_MODE", "fast", "--app", "viewer"}});
    const std::string departments = out({"diff", "Design", "Tooling"});
    EXPECT_TRUE(boost::contains(departments, text("UGII_LANG\n    Design   german   department\n"
                                                  "    Tooling  english  base\n")))
        << departments;
    EXPECT_TRUE(boost::contains(departments, text("ONLY_TOOLING\n    Design   (not set)\n    Tooling  1          department\n")))
        << departments;
    EXPECT_FALSE(boost::contains(departments, "UGII_BASE_DIR")) << departments;

    // The application's own variables, and a left-out department: the one named last.
    ok({{"apps", "Tooling"}});
    EXPECT_EQ(out({"diff", "nx", "viewer"}),
              text("1 variable differs between Tooling nx and Tooling viewer (value, then the layer that set it):\n"
                   "VIEW_MODE\n    Tooling nx      (not set)\n    Tooling viewer  fast       application\n"));
    const boost::json::value json = parsedJson(out({"diff", "Design", "Tooling", "nx", "--json"}));
    EXPECT_EQ(json.at("left"), (boost::json::object{{"department", "Design"}, {"application", "nx"}}));
    const boost::json::array& differences = json.at("differences").as_array();
    const auto lang = std::find_if(differences.begin(), differences.end(),
                                   [](const boost::json::value& entry) { return entry.at("name") == "UGII_LANG"; });
    ASSERT_NE(lang, differences.end());
    EXPECT_EQ(*lang, (boost::json::object{{"name", "UGII_LANG"},
                                          {"left", {{"value", "german"}, {"layer", "department"}}},
                                          {"right", {{"value", "english"}, {"layer", "base"}}}}));
}
