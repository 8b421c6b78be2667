// kym: starts CAD applications of a department with their assembled
// environment, and edits every settings layer of a site.
#include "Command.h"

#include "kym/App.h"

#include "base/Environment.h"
#include "base/FileManager.h"
#include "base/Platform.h"
#include "base/SettingsFile.h"
#include "base/log/Logger.h"
#include "base/plist/DocumentCache.h"

#include <boost/algorithm/string/case_conv.hpp>
#include <boost/json/parse.hpp>
#include <algorithm>
#include <cctype>
#include <fstream>
#include <iostream>

namespace KymTool {

bool Context::inputIsTerminal() const {
    return Base::FileManager::isTerminal(0);
}

bool Context::errorIsTerminal() const {
    return Base::FileManager::isTerminal(2);
}

void Context::print(const Json& value, const std::function<void(std::ostream&)>& text) const {
    if (json) {
        value.write(*out);
        *out << '\n';
    } else {
        text(*out);
    }
    out->flush();
}

void Context::progress(const std::string& text) const {
    if (!answering && errorIsTerminal()) *err << text << std::endl;
}

namespace {

// The first sentence is the summary in the list of commands; the rest and
// the examples follow the options in the command's own help.
CLI::App* addCommand(CLI::App* parent, const std::string& name, const std::string& description,
                     const std::string& examples) {
    const std::size_t end = description.find(". ");
    const std::string summary = end == std::string::npos ? description : description.substr(0, end + 1);
    std::string footer = end == std::string::npos ? std::string() : description.substr(end + 2) + "\n";
    if (!examples.empty()) footer += (footer.empty() ? "" : "\n") + std::string("Examples:\n") + examples;
    CLI::App* command = parent->add_subcommand(name, summary);
    if (!footer.empty()) command->footer(footer);
    return command;
}

} // namespace

CLI::App* Commands::group(CLI::App* parent, const std::string& name, const std::string& alias,
                          const std::string& description, const std::string& examples) {
    CLI::App* group = addCommand(parent, name, description, examples);
    if (!alias.empty()) group->alias(alias);
    group->require_subcommand(1);
    return group;
}

CLI::App* Commands::command(CLI::App* parent, const std::string& name, const std::string& description,
                            const std::string& examples, Action action) {
    CLI::App* command = addCommand(parent, name, description, examples);
    mActions[command] = std::move(action);
    return command;
}

const Action* Commands::chosen(CLI::App*& leaf) const {
    leaf = &mRoot;
    while (!leaf->get_subcommands().empty()) leaf = leaf->get_subcommands().front();
    auto found = mActions.find(leaf);
    return found == mActions.end() ? nullptr : &found->second;
}

void confirmDeletion(const Context& context, const std::string& what, const std::string& consequence, bool yes) {
    if (yes) return;
    if (!context.inputIsTerminal())
        throw std::runtime_error("Deleting " + what + " " + consequence + "; without a terminal to ask on, confirm with --yes.");
    *context.err << "Delete " << what << "? It " << consequence << ". [y/N] " << std::flush;
    std::string answer;
    const bool agreed = std::getline(std::cin, answer) &&
                        (answer == "y" || answer == "Y" || answer == "yes" || answer == "Yes" || answer == "YES");
    if (agreed) return;
    std::string sentence = what + " was not deleted.";
    sentence[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(sentence[0])));
    throw std::runtime_error(sentence);
}

bool parseSwitch(const std::string& text, const std::string& what) {
    const std::string lower = boost::algorithm::to_lower_copy(text);
    if (lower == "on" || lower == "true" || lower == "yes" || lower == "1") return true;
    if (lower == "off" || lower == "false" || lower == "no" || lower == "0") return false;
    throw UsageError("Invalid value '" + text + "' for " + what + ": give on or off.");
}

namespace {

// Leaves a word that names a layer of another kind as it is, for the command's own message.
CLI::Validator withoutPrefix(const std::string& prefix, const std::string& alias) {
    return CLI::Validator(
        [prefix, alias](std::string& word) {
            for (const std::string& kind : {prefix, alias})
                if (!kind.empty() && word.size() > kind.size() + 1 && word.compare(0, kind.size() + 1, kind + ":") == 0) {
                    word.erase(0, kind.size() + 1);
                    break;
                }
            return std::string();
        },
        "", "");
}

} // namespace

CLI::Option* addSwitch(CLI::App* command, const std::string& name, std::optional<bool>& into, const std::string& help) {
    const std::string what = name.substr(name.rfind(',') + 1);
    auto take = [&into, what](const CLI::results_t& results) {
        const std::string text = results.empty() ? std::string() : results.front();
        try {
            into = text.empty() || parseSwitch(text, what);
        } catch (const UsageError& error) {
            throw CLI::ValidationError(error.what());
        }
        return true;
    };
    return command->add_option(name, CLI::callback_t(take), help)->expected(0, 1)->type_name("on|off");
}

CLI::Option* addDepartment(CLI::App* command, const std::string& name, std::string& into, const std::string& help) {
    return command->add_option(name, into, help)->transform(withoutPrefix("dept", "department"));
}

CLI::Option* addDepartment(CLI::App* command, const std::string& name, std::vector<std::string>& into,
                           const std::string& help) {
    return command->add_option(name, into, help)->transform(withoutPrefix("dept", "department"));
}

CLI::Option* addPlugin(CLI::App* command, const std::string& name, std::string& into, const std::string& help) {
    return command->add_option(name, into, help)->transform(withoutPrefix("plugin", ""));
}

namespace {

const char* const Overview =
    "kym starts the CAD applications of a department with the environment that the site, base, plugin, "
    "common department, department and application settings make together, and edits each of these layers.";

const char* const Examples =
    "Launching (engineers):\n"
    "  kym departments                  the departments of the site\n"
    "  kym apps Design                  what department Design offers to start\n"
    "  kym env Design nx --explain      the environment of application nx, and which layer set what\n"
    "  kym launch Design nx             start it (DEPT may be left out once named)\n"
    "  kym run Design -- xterm          start any program with the department's environment\n"
    "Configuring (administrators):\n"
    "  kym dept create Design --description \"Design office\" --common Shared\n"
    "  kym var set base UGII_LANG english\n"
    "  kym app add dept:Design nx --program '${UGII_BASE_DIR}/ugii/ugraf' --category CAD\n"
    "  kym site set unix-install-path /opt/nx\n"
    "  kym doctor                       check the whole site\n"
    "  kym export dept:Design > design.json    and back: kym import dept:Design design.json\n"
    "  kym serve --open                 launching and configuring in a browser\n"
    "Conventions of every command:\n"
    "  LAYER is site, base, plugin:NAME or dept:NAME (sysinfo too for export, import and repair);\n"
    "    where only a department fits (DEPT) its bare name does too, and so for a plugin.\n"
    "  A setting that is on or off is --NAME on|off (--NAME alone is on); a table column takes on or off.\n"
    "  'remove' (and 'unset') takes an entry out of a list; 'delete' deletes a department or a plugin with\n"
    "    its directory, and asks first (--yes where nobody can be asked); 'rename' renames one together\n"
    "    with the settings that name it, or changes nothing.\n"
    "  --json prints the result as JSON for scripts; -v/-vv log to standard error;\n"
    "  --platform windows|posix chooses the launch conventions (default: this machine's).\n"
    "'kym help COMMAND' explains one. Exit status: 0 success, 1 failure (message on standard error),\n"
    "2 wrong command line, 3 the settings changed since they were read (kym import --revision).";

std::string commandPath(const CLI::App* app) {
    std::string path;
    for (const CLI::App* at = app; at; at = at->get_parent())
        path = at->get_name() + (path.empty() ? "" : " " + path);
    return path;
}

void printUsage(std::ostream& out, const CLI::App* app) {
    out << CLI::Formatter().make_usage(app, commandPath(app));
    out << "Run '" << (app->get_parent() ? "kym help " + commandPath(app).substr(4) : std::string("kym --help"))
        << "' for more.\n";
}

std::string withoutTrailingNewlines(std::string text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
    return text;
}

// The position of the command word: after the global options, whose only
// value is that of --platform.
std::size_t commandWordIndex(const std::vector<std::string>& arguments) {
    std::size_t index = 0;
    while (index < arguments.size()) {
        const std::string& word = arguments[index];
        if (word == "--platform") {
            index += 2;
        } else if (!word.empty() && word[0] == '-' && word != "--") {
            ++index;
        } else {
            break;
        }
    }
    return index;
}

// `kym run` takes the program after "--" verbatim, options and all.
std::vector<std::string> splitProgramCommand(std::vector<std::string>& arguments) {
    const std::size_t index = commandWordIndex(arguments);
    if (index >= arguments.size() || arguments[index] != "run") return {};
    auto separator = std::find(arguments.begin() + static_cast<long>(index), arguments.end(), "--");
    if (separator == arguments.end()) return {};
    std::vector<std::string> command(separator + 1, arguments.end());
    arguments.erase(separator, arguments.end());
    return command;
}

// The top-level commands (aliases included) that each registration adds.
struct CommandFamily {
    std::vector<std::string> words;
    void (*add)(Commands&);
};

const std::vector<CommandFamily>& commandFamilies() {
    static const std::vector<CommandFamily> families = {
        {{"apps", "env", "diff", "command", "check", "launch", "run"}, addLauncherCommands},
        {{"departments", "dept", "department", "workdir"}, addDepartmentCommands},
        {{"var", "variable"}, addVariableCommands},
        {{"app", "application", "overlay"}, addApplicationCommands},
        {{"plugin"}, addPluginCommands},
        {{"site", "sysinfo"}, addSiteCommands},
        {{"doctor"}, addDoctorCommand},
        {{"repair"}, addRepairCommand},
        {{"export", "import"}, addTransferCommands},
        {{"serve"}, addServeCommand},
    };
    return families;
}

// Building every command costs more than most commands take to run, so only
// the family of the command given is built. Help, a misspelt or a missing
// command see them all.
void addCommandsFor(Commands& commands, const std::vector<std::string>& arguments) {
    const std::size_t index = commandWordIndex(arguments);
    const bool helpAsked = std::any_of(arguments.begin(), arguments.end(),
                                       [](const std::string& word) { return word == "-h" || word == "--help"; });
    if (!helpAsked && index < arguments.size()) {
        for (const CommandFamily& family : commandFamilies()) {
            if (std::find(family.words.begin(), family.words.end(), arguments[index]) != family.words.end()) {
                family.add(commands);
                return;
            }
        }
    }
    for (const CommandFamily& family : commandFamilies()) family.add(commands);
}

// Engineers start applications many times a day from settings that rarely
// change: the checked tables of the settings files are kept in the user's
// cache folder, so that only a changed file is parsed again. KYM_CACHE=off
// reads every file afresh.
void keepSettingsTables() {
    if (boost::algorithm::to_lower_copy(Base::Environment::getEnvVariable("KYM_CACHE")) == "off") return;
    const boost::filesystem::path folder = Base::FileManager::userCacheFolder();
    if (!folder.empty()) Base::plist::DocumentCache::enable(folder / "kym");
}

const char* const RepairHint = "'kym repair LAYER' replaces it deliberately, keeping a copy.";

// Where a failure is reported: standard error, or the result file of a
// program that runs kym for its answer (kym serve).
std::ostream* errorOutput = &std::cerr;

// A failure, with --json, is one JSON object on standard error, so that a
// script finds it on its own line after any log lines.
int printError(const std::string& message, int status, const std::string& hint = "") {
    Json error = Json::object();
    error.set("error", withoutTrailingNewlines(message));
    if (!hint.empty()) error.set("hint", hint);
    error.set("status", status);
    *errorOutput << error.line() << std::endl;
    return status;
}

// kym --request FILE --result FILE: the command line is the JSON array of
// strings in the request, and what the command prints, its error included,
// goes to the result file. A program that runs kym so passes any text
// unchanged on every system, and whatever a started application prints
// stays on the terminal, apart from the answer.
bool takeRequest(std::vector<std::string>& arguments, std::ofstream& result, Context& context) {
    if (arguments.size() != 4 || arguments[0] != "--request" || arguments[2] != "--result") return false;
    const std::string request = Base::FileManager::readFile(arguments[1]);
    const boost::json::value words = boost::json::parse(request);
    result.open(arguments[3], std::ios::binary | std::ios::trunc);
    if (!result) throw std::runtime_error("Cannot write the result file " + arguments[3] + ".");
    arguments.clear();
    for (const boost::json::value& word : words.as_array()) arguments.emplace_back(word.as_string());
    context.out = &result;
    context.err = &result;
    context.answering = true;
    errorOutput = &result;
    return true;
}

// Whether --json was given, also when the command line failed to parse before reaching it.
bool jsonAsked(const Context& context, const std::vector<std::string>& arguments) {
    return context.json || std::find(arguments.begin(), arguments.end(), "--json") != arguments.end();
}

int runHelp(CLI::App& root, const std::vector<std::string>& words) {
    CLI::App* app = &root;
    for (const std::string& word : words) {
        CLI::App* next = nullptr;
        try {
            next = app->get_subcommand(word);
        } catch (const CLI::OptionNotFound&) {
            throw UsageError("No command '" + commandPath(app).substr(3) + (app == &root ? "" : " ") + word +
                             "'. 'kym --help' lists the commands.");
        }
        app = next;
    }
    std::cout << app->get_formatter()->make_help(app, commandPath(app), CLI::AppFormatMode::Normal);
    return 0;
}

} // namespace

} // namespace KymTool

int main(int argc, char** argv) {
    using namespace KymTool;
    Context context;
    std::vector<std::string> arguments(argv + 1, argv + argc);
    std::ofstream result;
    try {
        takeRequest(arguments, result, context);
    } catch (const std::exception& error) {
        std::cerr << "kym: the request cannot be read: " << error.what() << std::endl;
        return 2;
    }
    context.programCommand = splitProgramCommand(arguments);

    CLI::App root(Overview, "kym");
    root.footer(Examples);
    root.fallthrough();
    // Values such as /opt/cad or /dir=X stay values on Windows too; options are -x and --name alone.
    root.allow_windows_style_options(false);
    // One command per call, so a department or application named like a command stays a value.
    root.require_subcommand(0, 1);
    root.set_help_flag("-h,--help", "Show this help, or the help of the command given");
    root.add_flag("--json", context.json,
                  "Print results as JSON for scripts. Text that is not UTF-8 is read as Latin-1, byte for byte "
                  "(byte E9 becomes U+00E9): encoding it as Latin-1 gives the bytes back. A failure prints "
                  "{\"error\": MESSAGE, \"status\": N} on the last line of standard error");
    root.set_version_flag("--version", std::string("kym ") + KYM_VERSION, "Show the version of kym");
    root.add_flag("-v,--verbose", context.verbosity, "Log the main steps (kym.info) to standard error; -vv adds detail (kym.verbose)");
    root.add_option("--platform", context.platform, "Launch conventions: windows or posix (default: this machine's, or KYM_PLATFORM)")
        ->check(CLI::IsMember({"windows", "posix"}));

    Commands commands(root, context);
    addCommandsFor(commands, arguments);
    std::vector<std::string> helpWords;
    CLI::App* help = commands.command(&root, "help", "Explain a command: kym help COMMAND [SUBCOMMAND]",
                                      "  kym help\n  kym help env\n  kym help var set\n",
                                      [&root, &helpWords] { return runHelp(root, helpWords); });
    help->add_option("COMMAND", helpWords, "The command to explain");

    CLI::App* leaf = &root;
    try {
        std::vector<std::string> reversed(arguments.rbegin(), arguments.rend());
        root.parse(reversed);
    } catch (const CLI::CallForVersion&) {
        // --version ends the parse wherever it stands, perhaps before a --json.
        if (jsonAsked(context, arguments)) {
            Json::object().set("name", "kym").set("version", KYM_VERSION).write(std::cout);
            std::cout << '\n';
        } else {
            std::cout << "kym " << KYM_VERSION << '\n';
        }
        return 0;
    } catch (const CLI::CallForHelp&) {
        commands.chosen(leaf);
        std::cout << leaf->get_formatter()->make_help(leaf, commandPath(leaf), CLI::AppFormatMode::Normal);
        return 0;
    } catch (const CLI::ParseError& error) {
        commands.chosen(leaf);
        if (jsonAsked(context, arguments)) return printError(error.what(), 2);
        std::cerr << "kym: " << error.what() << "\n";
        printUsage(std::cerr, leaf);
        return 2;
    }

    const Action* action = commands.chosen(leaf);
    if (!action) {
        if (context.json) return printError("no command given.", 2);
        std::cerr << "kym: no command given.\n";
        printUsage(std::cerr, &root);
        return 2;
    }
    try {
        if (leaf == help) return (*action)();
        if (!context.platform.empty()) Base::Platform::setCurrent(Base::Platform::kindFromName(context.platform));
        if (leaf->get_name() != "run" && !context.programCommand.empty())
            throw UsageError("Only 'kym run' takes a program after '--'.");
        if (context.verbosity >= 1) Base::log::enableLoggers("kym.info");
        if (context.verbosity >= 2) Base::log::enableLoggers("kym.verbose");
        keepSettingsTables();
        Kym::App application("kym");
        application.initialize(nullptr);
        return (*action)();
    } catch (const UsageError& error) {
        if (context.json) return printError(error.what(), 2);
        std::cerr << "kym: " << error.what() << "\n";
        printUsage(std::cerr, leaf);
        return 2;
    } catch (const LayerChanged& error) {
        std::cout.flush();
        if (context.json) return printError(error.what(), 3);
        std::cerr << "kym: " << error.what() << std::endl;
        return 3;
    } catch (const Base::SettingsFileDamaged& error) {
        std::cout.flush();
        if (context.json) return printError(error.what(), 1, RepairHint);
        std::cerr << "kym: " << withoutTrailingNewlines(error.what())
                  << "\n" << RepairHint << std::endl;
        return 1;
    } catch (const std::exception& error) {
        std::cout.flush();
        if (context.json) return printError(error.what(), 1);
        std::cerr << "kym: " << withoutTrailingNewlines(error.what()) << std::endl;
        return 1;
    }
}
