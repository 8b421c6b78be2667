// kym apps, env, command, check, launch and run: what an engineer uses to
// start the applications of a department.
#include "Command.h"
#include "SiteAccess.h"

#include "kym/ConfigurationSettings.h"
#include "kym/Launcher.h"
#include "kym/OfferedApplications.h"
#include "kym/WorkDirectory.h"

#include "base/FileManager.h"
#include "base/Platform.h"

#include <boost/algorithm/string/join.hpp>
#include <boost/algorithm/string/split.hpp>
#include <boost/filesystem/operations.hpp>
#include <algorithm>
#include <map>
#include <memory>
#include <optional>
#include <sstream>

namespace KymTool {

namespace {

// The department a command works in, read without scanning the others.
struct Session {
    DepartmentChoice choice;
    std::unique_ptr<Kym::Configuration> department;
    std::unique_ptr<Kym::Configuration> common;

    const std::string& name() const { return choice.name; }
    // A department named on the command line becomes the default of the next command.
    void remember() const {
        if (choice.origin == "named") rememberDepartment(choice.name);
    }
};

Session openSession(const std::string& named) {
    Session session;
    session.choice = chooseDepartment(named);
    session.department = loadDepartmentAt(session.choice.directory);
    requireUpdated(*session.department);
    session.common = Kym::OfferedApplications::loadCommonDepartment(*session.department);
    return session;
}

// [DEPT] APP: one word is the application.
struct Target {
    std::string first;
    std::string second;
    std::string from;

    std::string department() const { return second.empty() ? std::string() : first; }
    std::string application() const {
        if (first.empty()) throw UsageError("Name the application: [DEPT] APP.");
        return second.empty() ? first : second;
    }
};

Json offeredJson(const Kym::OfferedApplications::Entry& entry) {
    const Kym::ConfigApplication& application = entry.application;
    Json value = Json::object();
    value.set("appId", application.appId);
    value.set("description", application.description);
    value.set("category", application.category);
    value.set("configuration", application.configurationName());
    value.set("source", Kym::OfferedApplications::sourceName(entry.source));
    value.set("program", application.program);
    value.set("arguments", application.arguments);
    value.set("disabled", application.disableApplication);
    value.set("overlaid", entry.overlaid);
    return value;
}

int listApplications(Context& context, const std::vector<std::string>& words, bool all) {
    Session session = openSession(words.empty() ? std::string() : words.front());
    const Kym::OfferedApplications offered(*session.department, session.common.get());
    std::vector<const Kym::OfferedApplications::Entry*> shown;
    for (const Kym::OfferedApplications::Entry& entry : offered)
        if (all || !entry.application.disableApplication) shown.push_back(&entry);

    Json value = Json::object();
    value.set("department", session.name());
    value.set("description", session.department->description);
    Json list = Json::array();
    for (const Kym::OfferedApplications::Entry* entry : shown) list.push(offeredJson(*entry));
    value.set("applications", list);
    context.print(value, [&](std::ostream& out) {
        out << "Department " << session.name() << " (" << session.department->description << ")\n";
        if (shown.empty()) {
            out << "  No applications" << (all ? "" : " (--all shows disabled ones too)") << ".\n";
            return;
        }
        Table table;
        for (std::size_t index = 0; index < shown.size(); ++index) {
            const Kym::ConfigApplication& application = shown[index]->application;
            if (index == 0 || application.category != shown[index - 1]->application.category)
                table.addHeading(application.category.empty() ? "(no category)" : application.category);
            table.add({application.appId, application.description, "[" + application.configurationName() + "]",
                       application.disableApplication ? "disabled" : ""});
        }
        table.write(out, "  ");
    });
    session.remember();
    return 0;
}

// Records, for every variable, each layer that set, changed or removed it.
class Explanation : public Kym::Launcher::LayerObserver {
public:
    struct Step {
        std::string layer;
        std::optional<std::string> value;  // none: removed
    };

    void layerMerged(const std::string& layer, const std::vector<Kym::EnvironmentVariable>& vars) override {
        // As the launcher turns the list into the environment: later entries win, an empty value removes.
        std::map<std::string, std::string> now;
        for (const Kym::EnvironmentVariable& variable : vars) {
            if (variable.value.empty())
                now.erase(variable.name);
            else
                now[variable.name] = variable.value;
        }
        for (const auto& [name, value] : now) {
            auto before = mLast.find(name);
            if (before == mLast.end() || before->second != value) record(name, {layer, value});
        }
        for (const auto& [name, value] : mLast)
            if (!now.count(name)) record(name, {layer, std::nullopt});
        mLast = std::move(now);
    }

    const std::map<std::string, std::vector<Step>>& steps() const { return mSteps; }

private:
    void record(const std::string& name, Step step) { mSteps[name].push_back(std::move(step)); }

    std::map<std::string, std::string> mLast;
    std::map<std::string, std::vector<Step>> mSteps;
};

int showEnvironment(Context& context, const Target& target, bool explain) {
    Session session = openSession(target.department());
    const Kym::OfferedApplications offered(*session.department, session.common.get());
    const Kym::ConfigApplication& application = offered.choose(target.application(), target.from).application;
    Kym::Launcher::EnvironmentMap environment;
    Explanation explanation;
    Kym::Launcher().buildEnvVarMap(*session.department, session.common.get(), application, environment,
                                   explain ? &explanation : nullptr);

    Json value = Json::object();
    // A large environment makes the document costly; text output does not need it.
    if (context.json) {
        value.set("department", session.name());
        value.set("application", application.appId);
        value.set("configuration", application.configurationName());
        Json variables = Json::object();
        for (const auto& [name, text] : environment) variables.set(name, text);
        value.set("environment", variables);
        if (explain) {
            Json list = Json::array();
            for (const auto& [name, steps] : explanation.steps()) {
                Json entry = Json::object();
                entry.set("name", name);
                auto final = environment.find(name);
                entry.set("value", final == environment.end() ? Json() : Json(final->second));
                Json layers = Json::array();
                for (const Explanation::Step& step : steps) {
                    Json layer = Json::object();
                    layer.set("layer", step.layer);
                    layer.set("value", step.value ? Json(*step.value) : Json());
                    layers.push(layer);
                }
                entry.set("layers", layers);
                list.push(entry);
            }
            value.set("explanation", list);
        }
    }
    context.print(value, [&](std::ostream& out) {
        if (!explain) {
            // Thousands of lines: one write instead of four stream insertions a line.
            std::string lines;
            for (const auto& [name, text] : environment) lines.append(name).append(1, '=').append(text).append(1, '\n');
            out.write(lines.data(), static_cast<std::streamsize>(lines.size()));
            return;
        }
        for (const auto& [name, steps] : explanation.steps()) {
            auto final = environment.find(name);
            if (final == environment.end())
                out << name << " (not set)\n";
            else
                out << name << "=" << final->second << "\n";
            Table table;
            for (const Explanation::Step& step : steps) table.add({step.layer, step.value ? *step.value : "(removed)"});
            table.write(out, "    ");
        }
    });
    session.remember();
    return 0;
}

int showCommand(Context& context, const Target& target) {
    Session session = openSession(target.department());
    const Kym::OfferedApplications offered(*session.department, session.common.get());
    const Kym::ConfigApplication& application = offered.choose(target.application(), target.from).application;
    const std::string command = Kym::Launcher().commandString(*session.department, session.common.get(), application);
    Json value = Json::object();
    value.set("department", session.name());
    value.set("application", application.appId);
    value.set("command", command);
    context.print(value, [&](std::ostream& out) { out << command << "\n"; });
    session.remember();
    return 0;
}

int checkApplication(Context& context, const Target& target) {
    Session session = openSession(target.department());
    const Kym::OfferedApplications offered(*session.department, session.common.get());
    const Kym::ConfigApplication& application = offered.choose(target.application(), target.from).application;
    Kym::Launcher launcher;
    Kym::Launcher::EnvironmentMap environment;
    launcher.buildEnvVarMap(*session.department, session.common.get(), application, environment);
    Json value = Json::object();
    value.set("department", session.name());
    value.set("application", application.appId);
    try {
        launcher.checkCadEnvironment(environment);
        const fs::path program = launcher.getAndCheckExecutable(application, environment);
        value.set("ok", true);
        value.set("program", native(program));
    } catch (const std::exception& failure) {
        if (context.json) {
            value.set("ok", false);
            value.set("error", failure.what());
            context.print(value, [](std::ostream&) {});
        }
        throw;
    }
    context.print(value, [](std::ostream& out) { out << "OK\n"; });
    session.remember();
    return 0;
}

// kym ends right after a start, and the system adopts the program then.
Kym::Launcher commandLineLauncher() {
    Kym::Launcher launcher;
    launcher.setCallerEndsAfterLaunch(true);
    return launcher;
}

int launch(Context& context, const Target& target, const std::string& workDirectoryName) {
    Session session = openSession(target.department());
    const Kym::OfferedApplications offered(*session.department, session.common.get());
    const Kym::ConfigApplication& application = offered.choose(target.application(), target.from).application;
    if (application.disableApplication)
        throw std::runtime_error("Application '" + application.appId + "' is disabled in department '" +
                                 session.name() + "'.");
    std::optional<Kym::WorkDirectory> workDirectory;
    if (!workDirectoryName.empty()) {
        std::vector<std::string> names;
        for (const Kym::WorkDirectory& candidate : session.department->settings()->workDirectoryList()) {
            if (candidate.name == workDirectoryName) workDirectory = candidate;
            names.push_back(candidate.name);
        }
        if (!workDirectory)
            throw std::runtime_error("Department '" + session.name() + "' has no work directory '" + workDirectoryName +
                                     "'. " +
                                     (names.empty() ? std::string("It has none.")
                                                    : "It has: " + boost::algorithm::join(names, ", ") + "."));
    }
    commandLineLauncher().launchApplication(*session.department, session.common.get(), application,
                                            workDirectory ? &*workDirectory : nullptr);
    Json value = Json::object();
    value.set("started", true);
    value.set("department", session.name());
    value.set("application", application.appId);
    value.set("configuration", application.configurationName());
    if (workDirectory) value.set("workDirectory", workDirectory->name);
    context.print(value, [&](std::ostream& out) {
        out << "Started " << application.appId;
        if (!application.description.empty()) out << " (" << application.description << ")";
        out << " from department " << session.name() << ".\n";
    });
    session.remember();
    return 0;
}

// A program named without a directory is looked for in the PATH it will get.
std::string resolveProgram(const Session& session, const std::string& program, bool addLibraries) {
    if (program.find('/') != std::string::npos || program.find('\\') != std::string::npos ||
        program.find('$') != std::string::npos)
        return program;
    Kym::ConfigApplication probe;
    probe.program = program;
    probe.addUGLibsToPath = addLibraries;
    Kym::Launcher::EnvironmentMap environment;
    Kym::Launcher().buildEnvVarMap(*session.department, session.common.get(), probe, environment);
    auto path = environment.find("PATH");
    if (path == environment.end()) return program;
    std::vector<std::string> directories;
    const char separator = Base::Platform::current().listSeparator();
    boost::algorithm::split(directories, path->second, [separator](char c) { return c == separator; });
    for (const std::string& directory : directories) {
        if (directory.empty()) continue;
        const fs::path candidate = fs::path(directory) / program;
        boost::system::error_code error;
        if (fs::is_regular_file(candidate, error) && Base::FileManager::isExecutable(candidate))
            return candidate.string();
    }
    return program;
}

int run(Context& context, const std::vector<std::string>& words, bool addLibraries) {
    if (words.size() > 1) throw UsageError("kym run takes at most one department before '--'.");
    if (context.programCommand.empty())
        throw UsageError("Give the program after '--': kym run [DEPT] -- PROGRAM [ARGUMENTS...].");
    Session session = openSession(words.empty() ? std::string() : words.front());
    const std::string program = resolveProgram(session, context.programCommand.front(), addLibraries);
    const std::vector<std::string> arguments(context.programCommand.begin() + 1, context.programCommand.end());
    commandLineLauncher().launchProgram(*session.department, session.common.get(), program, arguments, addLibraries);
    Json value = Json::object();
    value.set("started", true);
    value.set("department", session.name());
    value.set("program", program);
    value.set("arguments", Json::strings(arguments));
    context.print(value, [&](std::ostream& out) {
        out << "Started " << program << " from department " << session.name() << ".\n";
    });
    session.remember();
    return 0;
}

// One side of kym diff: a department's environment, that of one of its
// applications or, without one, what kym run gives.
struct DiffSide {
    std::string departmentName;
    std::string application;
    Kym::Launcher::EnvironmentMap environment;
    Explanation explanation;

    std::string label() const { return application.empty() ? departmentName : departmentName + " " + application; }
    // The value and the layer that set it last, if the variable is set.
    std::optional<std::pair<std::string, std::string>> at(const std::string& name) const {
        auto value = environment.find(name);
        if (value == environment.end()) return std::nullopt;
        auto steps = explanation.steps().find(name);
        const std::string layer = steps == explanation.steps().end() ? std::string() : steps->second.back().layer;
        return std::make_pair(value->second, layer);
    }
};

void composeSide(DiffSide& side, const std::string& departmentName, const std::string& appId) {
    Session session = openSession(departmentName);
    side.departmentName = session.name();
    const Kym::OfferedApplications offered(*session.department, session.common.get());
    Kym::ConfigApplication withoutOwnSettings;
    withoutOwnSettings.addUGLibsToPath = false;
    const Kym::ConfigApplication& application = appId.empty() ? withoutOwnSettings : offered.choose(appId).application;
    if (!appId.empty()) side.application = application.appId;
    Kym::Launcher().buildEnvVarMap(*session.department, session.common.get(), application, side.environment,
                                   &side.explanation);
}

bool isDepartmentWord(const std::string& word) {
    boost::system::error_code error;
    try {
        return fs::is_directory(departmentDirectory(word), error);
    } catch (const std::exception&) {
        return false;  // not a department's name at all
    }
}

// [DEPT1] DEPT2 [APP], or [DEPT] APP1 APP2: the departments come first, and
// a left-out department is the one the launcher commands would use.
std::pair<std::pair<std::string, std::string>, std::pair<std::string, std::string>>
diffTargets(const std::vector<std::string>& words) {
    std::vector<std::string> departments;
    std::vector<std::string> applications;
    for (const std::string& word : words) {
        if (applications.empty() && departments.size() < 2 && isDepartmentWord(word))
            departments.push_back(word);
        else
            applications.push_back(word);
    }
    const std::string usage = "Compare two departments or two applications: kym diff [DEPT1] DEPT2 [APP], or "
                              "kym diff [DEPT] APP1 APP2.";
    if (departments.size() == 2 && applications.size() <= 1) {
        const std::string app = applications.empty() ? std::string() : applications.front();
        return {{departments[0], app}, {departments[1], app}};
    }
    if (departments.size() == 1 && applications.empty()) return {{"", ""}, {departments[0], ""}};
    if (departments.size() == 1 && applications.size() == 1)
        return {{"", applications[0]}, {departments[0], applications[0]}};
    if (departments.size() <= 1 && applications.size() == 2) {
        const std::string department = departments.empty() ? std::string() : departments.front();
        return {{department, applications[0]}, {department, applications[1]}};
    }
    if (departments.empty() && applications.size() == 1)
        throw std::runtime_error("No department named '" + applications.front() + "' ('kym departments' lists them). " +
                                 usage);
    throw UsageError(usage);
}

int diffEnvironments(Context& context, const std::vector<std::string>& words) {
    const auto targets = diffTargets(words);
    DiffSide left;
    DiffSide right;
    composeSide(left, targets.first.first, targets.first.second);
    composeSide(right, targets.second.first, targets.second.second);

    std::vector<std::string> names;
    for (const auto& entry : left.environment) names.push_back(entry.first);
    for (const auto& entry : right.environment)
        if (!left.environment.count(entry.first)) names.push_back(entry.first);
    std::sort(names.begin(), names.end());

    auto sideJson = [](const std::optional<std::pair<std::string, std::string>>& at) {
        if (!at) return Json();
        Json value = Json::object();
        value.set("value", at->first);
        value.set("layer", at->second);
        return value;
    };
    auto sideTitle = [](const DiffSide& side) {
        Json value = Json::object();
        value.set("department", side.departmentName);
        value.set("application", side.application.empty() ? Json() : Json(side.application));
        return value;
    };
    Json differences = Json::array();
    std::vector<std::string> lines;
    std::ostringstream text;
    std::size_t count = 0;
    for (const std::string& name : names) {
        const auto one = left.at(name);
        const auto other = right.at(name);
        if (one && other && one->first == other->first) continue;
        ++count;
        Json entry = Json::object();
        entry.set("name", name);
        entry.set("left", sideJson(one));
        entry.set("right", sideJson(other));
        differences.push(entry);
        text << name << "\n";
        Table table;
        table.add({left.label(), one ? one->first : "(not set)", one ? one->second : ""});
        table.add({right.label(), other ? other->first : "(not set)", other ? other->second : ""});
        table.write(text, "    ");
    }
    Json value = Json::object();
    value.set("left", sideTitle(left));
    value.set("right", sideTitle(right));
    value.set("differences", differences);
    context.print(value, [&](std::ostream& out) {
        if (count == 0) {
            out << "The environments of " << left.label() << " and " << right.label() << " are the same.\n";
            return;
        }
        out << count << (count == 1 ? " variable differs" : " variables differ") << " between " << left.label()
            << " and " << right.label() << " (value, then the layer that set it):\n"
            << text.str();
    });
    return 0;
}

const char* const DepartmentRule =
    "DEPT is a department's name; left out, the current department (KYM_DEPT_DIR, set for programs that kym "
    "started) is used, else the last department named to one of these commands.";
const char* const ApplicationRule =
    "APP is an application identifier as 'kym apps DEPT --all' lists it. When several applications share it, the "
    "department's own wins, then its common department's, then a plugin's, then the base one; two of the same rank "
    "need --from.";

void addTargetOptions(CLI::App* command, Target& target) {
    addDepartment(command, "DEPT", target.first, "The department; may be left out");
    command->add_option("APP", target.second, "The application");
    command->add_option("--from", target.from,
                        "Among applications sharing APP, the one of this configuration ('Base KYM', '<plugin> Plugin' "
                        "or a department name)");
}

} // namespace

void addLauncherCommands(Commands& commands) {
    Context& context = commands.context();
    CLI::App* root = &commands.root();
    const std::string rules = std::string(DepartmentRule) + " " + ApplicationRule;

    struct AppsOptions {
        std::vector<std::string> words;
        bool all = false;
    };
    auto apps = std::make_shared<AppsOptions>();
    CLI::App* appsCommand = commands.command(
        root, "apps",
        "List what a department offers to start. These are the base applications, its common department's, its own "
        "and those of the plugins that apply, with the department's overlays, by category. " + std::string(DepartmentRule),
        "  kym apps Design\n  kym apps --all\n  kym apps Design --json\n",
        [&context, apps] { return listApplications(context, apps->words, apps->all); });
    addDepartment(appsCommand, "DEPT", apps->words, "The department")->expected(0, 1);
    appsCommand->add_flag("-a,--all", apps->all, "Also the disabled applications");

    struct EnvOptions {
        Target target;
        bool explain = false;
    };
    auto env = std::make_shared<EnvOptions>();
    CLI::App* envCommand = commands.command(
        root, "env",
        "Print the environment an application gets. One NAME=VALUE a line; --explain shows for each variable the "
        "layers that set, changed or removed it, in order: process, site, base, plugin <name>, common department, "
        "department, application, launcher. " + rules,
        "  kym env Design nx\n  kym env nx --explain\n  kym env Design nx --json\n",
        [&context, env] { return showEnvironment(context, env->target, env->explain); });
    addTargetOptions(envCommand, env->target);
    envCommand->add_flag("--explain", env->explain, "Show the layers behind each variable");

    auto diff = std::make_shared<std::vector<std::string>>();
    CLI::App* diffCommand = commands.command(
        root, "diff",
        "Compare the environments of two departments, or of two applications. Only the variables that differ are "
        "shown, each with the layer that set it. Without APP, a department's environment is what 'kym run' gives; a "
        "left-out department is the current one, as for the other launcher commands.",
        "  kym diff Design Tooling\n  kym diff Design Tooling nx\n  kym diff Tooling nx\n"
        "  kym diff Design nx drafting\n  kym diff Design Tooling --json\n",
        [&context, diff] { return diffEnvironments(context, *diff); });
    addDepartment(diffCommand, "NAMES", *diff, "[DEPT1] DEPT2 [APP], or [DEPT] APP1 APP2")->expected(1, 3)->required();

    auto command = std::make_shared<Target>();
    CLI::App* commandCommand = commands.command(
        root, "command", "Print the command line a launch would run; starts nothing. " + rules,
        "  kym command Design nx\n", [&context, command] { return showCommand(context, *command); });
    addTargetOptions(commandCommand, *command);

    auto check = std::make_shared<Target>();
    CLI::App* checkCommand = commands.command(
        root, "check",
        "Check an application's environment. The CAD installation variable (UGII_BASE_DIR) must name an existing "
        "directory and the program must exist and be executable. Prints OK or the problem. " + rules,
        "  kym check Design nx\n", [&context, check] { return checkApplication(context, *check); });
    addTargetOptions(checkCommand, *check);

    struct LaunchOptions {
        Target target;
        std::string workDirectory;
    };
    auto launchOptions = std::make_shared<LaunchOptions>();
    CLI::App* launchCommand = commands.command(
        root, "launch",
        "Start an application with its environment. kym returns at once; the application runs on by itself. Without --workdir it starts in "
        "the home directory. " + rules,
        "  kym launch Design nx\n  kym launch nx --workdir projects\n",
        [&context, launchOptions] { return launch(context, launchOptions->target, launchOptions->workDirectory); });
    addTargetOptions(launchCommand, launchOptions->target);
    launchCommand->add_option("--workdir", launchOptions->workDirectory,
                              "One of the department's work directories, by name ('kym workdir list DEPT')");

    struct RunOptions {
        std::vector<std::string> words;
        std::optional<bool> libraries;
        bool addLibraries = false;  // the spelling of earlier versions
    };
    auto runOptions = std::make_shared<RunOptions>();
    CLI::App* runCommand = commands.command(
        root, "run",
        "Start any program with a department's environment. It gets the environment of an application without "
        "variables of its own. PROGRAM without a directory is looked for in that PATH. Each argument reaches "
        "the program as given, blanks, quotes and empty ones included. " +
            std::string(DepartmentRule),
        "  kym run Design -- /usr/bin/xterm\n  kym run -- env\n  kym run Design -- sh -c 'echo \"$1\"' x \"a b\"\n"
        "  kym run Design --libraries on -- '${UGII_BASE_DIR}/ugii/refile'\n",
        [&context, runOptions] { return run(context, runOptions->words, runOptions->libraries.value_or(runOptions->addLibraries));
        });
    addDepartment(runCommand, "DEPT", runOptions->words, "The department")->expected(0, 1);
    addSwitch(runCommand, "--libraries", runOptions->libraries, "Put ${UGII_BASE_DIR}/ugii in front of PATH (default off)");
    runCommand->add_flag("--add-libraries", runOptions->addLibraries)->group("");
}

} // namespace KymTool
