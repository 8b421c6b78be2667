// The frame every kym command runs in: the global options, where output
// goes, and the registry that ties a CLI11 subcommand to the code it runs.
#pragma once

#include "Output.h"

#include <CLI/CLI.hpp>

#include <functional>
#include <iostream>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace KymTool {

struct Context {
    bool json = false;
    int verbosity = 0;
    std::string platform;
    // What follows "--" on the command line of `kym run`.
    std::vector<std::string> programCommand;
    std::ostream* out = &std::cout;
    std::ostream* err = &std::cerr;
    // Run for another program's answer (kym --request): no progress lines.
    bool answering = false;

    bool inputIsTerminal() const;
    bool errorIsTerminal() const;

    // Prints the value as JSON or, without --json, runs the text printer.
    void print(const Json& value, const std::function<void(std::ostream&)>& text) const;
    // A line of progress on standard error, shown only on a terminal.
    void progress(const std::string& text) const;
};

// The command line itself is wrong: reported with the usage and status 2.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// What a command was to change was saved by someone else since it was read: status 3.
class LayerChanged : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// A command's result; doctor answers 1 when it found problems.
using Action = std::function<int()>;

class Commands {
public:
    Commands(CLI::App& root, Context& context) : mRoot(root), mContext(context) {}

    CLI::App& root() { return mRoot; }
    Context& context() { return mContext; }

    // A command that only groups others, such as `kym dept`.
    CLI::App* group(CLI::App* parent, const std::string& name, const std::string& alias,
                    const std::string& description, const std::string& examples);
    // A command that runs the action once the command line is parsed.
    CLI::App* command(CLI::App* parent, const std::string& name, const std::string& description,
                      const std::string& examples, Action action);

    // The action of the deepest command chosen, or null.
    const Action* chosen(CLI::App*& leaf) const;

private:
    CLI::App& mRoot;
    Context& mContext;
    std::map<const CLI::App*, Action> mActions;
};

void addLauncherCommands(Commands& commands);
void addDepartmentCommands(Commands& commands);
void addVariableCommands(Commands& commands);
void addApplicationCommands(Commands& commands);
void addPluginCommands(Commands& commands);
void addSiteCommands(Commands& commands);
void addDoctorCommand(Commands& commands);
void addRepairCommand(Commands& commands);
void addTransferCommands(Commands& commands);
void addServeCommand(Commands& commands);

// Asks on a terminal whether to delete `what` ("department Design"); without
// one, --yes (`yes`) must have been given. Throws when not confirmed.
void confirmDeletion(const Context& context, const std::string& what, const std::string& consequence, bool yes);

// Text of a yes/no setting: on/off, true/false, yes/no, 1/0, any case.
bool parseSwitch(const std::string& text, const std::string& what);

// A setting that is on or off: --NAME on|off, and --NAME alone for on.
CLI::Option* addSwitch(CLI::App* command, const std::string& name, std::optional<bool>& into, const std::string& help);

// A department where only a department fits: its name, or dept:NAME as a
// LAYER names it.
CLI::Option* addDepartment(CLI::App* command, const std::string& name, std::string& into, const std::string& help);
CLI::Option* addDepartment(CLI::App* command, const std::string& name, std::vector<std::string>& into,
                           const std::string& help);
// A plugin where only a plugin fits: its name, or plugin:NAME.
CLI::Option* addPlugin(CLI::App* command, const std::string& name, std::string& into, const std::string& help);

} // namespace KymTool
