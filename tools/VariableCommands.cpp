// kym var list|set|remove: the variable lists of every layer and of the
// applications a layer holds.
#include "Command.h"
#include "LayerJson.h"
#include "SiteAccess.h"

#include <memory>

namespace KymTool {

const char* const VariableListNames[3] = {"common", "unix", "windows"};

VariableList variableList(Kym::SettingsProtocol& owner, const std::string& listName, const std::string& where) {
    VariableList list;
    list.name = listName;
    const std::vector<Kym::EnvironmentVariable>* records = nullptr;
    if (listName == "common") {
        list.source = owner.commonVariables();
        records = &owner.commonVariableList();
    } else if (listName == "unix") {
        list.source = owner.unixVariables();
        records = &owner.unixVariableList();
    } else if (listName == "windows") {
        list.source = owner.winVariables();
        records = &owner.winVariableList();
    } else {
        throw UsageError("Unknown variable list '" + listName + "': choose common, unix or windows.");
    }
    // The owner is not const; only its accessor is.
    list.records = const_cast<std::vector<Kym::EnvironmentVariable>*>(records);
    list.description = "the " + listName + " list of " + where;
    return list;
}

int variableRow(const VariableList& list, const std::string& name) {
    for (int row = 0; row < list.source->numberOfRowsInList(); ++row)
        if (boost::any_cast<std::string>(list.source->valueForListColumnRow("Name", row)) == name) return row;
    return -1;
}

Json variableJson(const Kym::EnvironmentVariable& variable) {
    Json value = Json::object();
    value.set("name", variable.name);
    value.set("value", variable.value);
    value.set("comment", variable.comment);
    return value;
}

namespace {

VariableList layerVariableList(Layer& layer, const std::string& appId, const std::string& listName) {
    if (appId.empty()) return variableList(*layer.variables, listName, layer.description);
    const int row = requireApplicationRow(layer, appId);
    return variableList(layer.applications->application(row), listName,
                        "application " + appId + " of " + layer.description);
}

struct Options {
    std::string layer;
    std::string name;
    std::string value;
    std::string comment;
    bool hasComment = false;
    std::string app;
    std::string list;
};

int listVariables(Context& context, const Options& options) {
    Layer layer = openLayer(options.layer, Access::Read);
    std::vector<VariableList> lists;
    if (options.list.empty()) {
        for (const char* name : VariableListNames) lists.push_back(layerVariableList(layer, options.app, name));
    } else {
        lists.push_back(layerVariableList(layer, options.app, options.list));
    }
    Json value = Json::object();
    value.set("layer", options.layer);
    if (!options.app.empty()) value.set("application", options.app);
    value.set("file", native(layer.file));
    Json all = Json::object();
    Table table({"LIST", "NAME", "VALUE", "COMMENT"});
    for (const VariableList& list : lists) {
        Json variables = Json::array();
        for (const Kym::EnvironmentVariable& variable : *list.records) {
            variables.push(variableJson(variable));
            table.add({list.name, variable.name, variable.value, variable.comment});
        }
        all.set(list.name, variables);
    }
    value.set("variables", all);
    context.print(value, [&](std::ostream& out) {
        if (table.empty()) {
            out << "No variables in " << (lists.size() == 1 ? lists.front().description : layer.description) << ".\n";
            return;
        }
        table.write(out);
    });
    return 0;
}

int setVariable(Context& context, const Options& options) {
    if (options.name.empty()) throw std::runtime_error("A variable needs a name.");
    Layer layer = openLayer(options.layer, Access::Edit);
    VariableList list = layerVariableList(layer, options.app, options.list.empty() ? "common" : options.list);
    int row = variableRow(list, options.name);
    const bool replaced = row >= 0;
    if (!replaced) {
        list.source->insertRow(-1);
        row = list.source->numberOfRowsInList() - 1;
        list.source->setValueForListColumnRow("Name", row, options.name);
    }
    list.source->setValueForListColumnRow("Value", row, options.value);
    if (options.hasComment) list.records->at(static_cast<std::size_t>(row)).comment = options.comment;

    // Checked before anything is saved: a refused edit leaves the file as it was.
    if (!list.source->valueIsValid("Name", row))
        throw std::runtime_error(invalidNameText(options.name, ""));
    if (!list.source->valueIsValid("Value", row))
        throw std::runtime_error(invalidValueText(options.name, options.value, ""));
    layer.save();

    const Kym::EnvironmentVariable& variable = list.records->at(static_cast<std::size_t>(row));
    Json value = variableJson(variable);
    value.set("layer", options.layer);
    if (!options.app.empty()) value.set("application", options.app);
    value.set("list", list.name);
    value.set("replaced", replaced);
    value.set("file", native(layer.file));
    context.print(value, [&](std::ostream& out) {
        out << (replaced ? "Replaced " : "Set ") << variable.name << "=" << variable.value << " in " << list.description
            << ".\n";
    });
    return 0;
}

int unsetVariable(Context& context, const Options& options) {
    Layer layer = openLayer(options.layer, Access::Edit);
    VariableList list = layerVariableList(layer, options.app, options.list.empty() ? "common" : options.list);
    const int row = variableRow(list, options.name);
    if (row < 0) throw std::runtime_error("Variable '" + options.name + "' is not in " + list.description + ".");
    list.source->deleteRows({row});
    layer.save();

    Json value = Json::object();
    value.set("layer", options.layer);
    if (!options.app.empty()) value.set("application", options.app);
    value.set("list", list.name);
    value.set("removed", options.name);
    value.set("file", native(layer.file));
    context.print(value, [&](std::ostream& out) {
        out << "Removed " << options.name << " from " << list.description << ".\n";
    });
    return 0;
}

void addCommonOptions(CLI::App* command, Options& options, bool listDefaultsToAll) {
    command->add_option("--app", options.app, "An application of the layer (its AppID): edit its own lists");
    command->add_option("--list", options.list,
                        listDefaultsToAll ? "common, unix or windows (default: all three)"
                                          : "common (the default), unix or windows");
}

} // namespace

void addVariableCommands(Commands& commands) {
    Context& context = commands.context();
    const std::string layerHelp = std::string(LayerHelp) +
                                  " With --app, the variables of that application of the layer. Each layer has "
                                  "three lists: common (all clients), unix and windows.";
    CLI::App* var = commands.group(&commands.root(), "var", "variable",
                                   "List, set and remove the variables of a layer. " + layerHelp,
                                   "  kym var set site TC_DATA /data/tc\n"
                                   "  kym var set base PATH '$PATH:/opt/tools/bin' --list unix --comment \"site tools\"\n"
                                   "  kym var set dept:Design UGII_LANG german\n"
                                   "  kym var set plugin:cam CAM_DIR /opt/cam\n"
                                   "  kym var set base UGII_OPTION 1 --app nx\n"
                                   "  kym var remove dept:Design UGII_LANG\n  kym var list base\n");

    auto list = std::make_shared<Options>();
    CLI::App* listCommand = commands.command(var, "list", "List a layer's variables. " + layerHelp,
                                             "  kym var list site\n  kym var list dept:Design --list windows\n"
                                             "  kym var list base --app nx\n",
                                             [&context, list] { return listVariables(context, *list); });
    listCommand->add_option("LAYER", list->layer, LayerHelp)->required();
    addCommonOptions(listCommand, *list, true);

    auto set = std::make_shared<Options>();
    CLI::App* setCommand = commands.command(
        var, "set",
        "Set a variable: its value is replaced when the list has the name, else it is added at the end. A value may "
        "refer to other variables ($NAME, ${NAME}) and to its own earlier value. An empty value unsets the variable "
        "for launches. " + layerHelp,
        "  kym var set base UGII_LANG english\n  kym var set site PATH '${PATH}:/opt/site/bin' --list unix\n"
        "  kym var set dept:Design PROJECT_DIR /projects/design --comment \"project data\"\n",
        [&context, set] { return setVariable(context, *set); });
    setCommand->add_option("LAYER", set->layer, LayerHelp)->required();
    setCommand->add_option("NAME", set->name, "Letters, digits and '_'; not starting with a digit or '_'")->required();
    setCommand->add_option("VALUE", set->value, "The value")->required();
    setCommand->add_option("--comment", set->comment, "A comment kept with the variable")
        ->each([set](const std::string&) { set->hasComment = true; });
    addCommonOptions(setCommand, *set, false);

    auto unset = std::make_shared<Options>();
    CLI::App* unsetCommand = commands.command(var, "remove", "Remove a variable from a list; 'unset' is the same. " + layerHelp,
                                              "  kym var remove dept:Design UGII_LANG\n"
                                              "  kym var remove base PATH --list unix\n",
                                              [&context, unset] { return unsetVariable(context, *unset); });
    unsetCommand->alias("unset");
    unsetCommand->add_option("LAYER", unset->layer, LayerHelp)->required();
    unsetCommand->add_option("NAME", unset->name, "The variable")->required();
    addCommonOptions(unsetCommand, *unset, false);
}

} // namespace KymTool
