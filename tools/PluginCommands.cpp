// kym plugin list|create|rename|delete|set-type|disable|enable.
#include "Command.h"
#include "SiteAccess.h"

#include "kym/ConfigurationSettings.h"
#include "kym/PluginsManager.h"
#include "kym/SiteSettings.h"
#include "kym/SystemInfo.h"

#include "base/FileManager.h"
#include "base/Platform.h"

#include <boost/algorithm/string/join.hpp>
#include <boost/filesystem/operations.hpp>
#include <algorithm>
#include <memory>
#include <optional>

namespace KymTool {

namespace {

int listPlugins(Context& context) {
    prepareStores();
    Kym::PluginsManager& plugins = Kym::PluginsManagement();
    Json list = Json::array();
    Table table({"NAME", "TYPE", "KIND", "PATH"});
    for (int index = 0; index < plugins.numberOfPlugins(); ++index) {
        Kym::PluginSettings& plugin = *plugins.plugin(index, false);
        const bool internal = plugins.isInternalPlugin(plugin);
        Json entry = Json::object();
        entry.set("name", plugin.name());
        entry.set("type", plugin.pluginType());
        entry.set("internal", internal);
        entry.set("path", native(plugin.path()));
        list.push(entry);
        table.add({plugin.name(), plugin.pluginType(), internal ? "internal" : "external", native(plugin.path())});
    }
    Json value = Json::object();
    value.set("plugins", list);
    context.print(value, [&](std::ostream& out) {
        if (table.empty())
            out << "The site has no plugins (create one with 'kym plugin create NAME').\n";
        else
            table.write(out);
    });
    return 0;
}

fs::path externalPluginsLocation() {
    const Kym::SiteSettings& site = Kym::SiteInformation();
    const bool windows = Base::Platform::current().isWindows();
    const std::string location = windows ? site.winExternalPluginsLocation() : site.unixExternalPluginsLocation();
    const std::string key = windows ? "windows-external-plugins" : "unix-external-plugins";
    if (location.empty())
        throw std::runtime_error("The site names no external plugins location for " +
                                 Base::Platform::current().name() + " clients: set one with 'kym site set " + key +
                                 " DIRECTORY'.");
    boost::system::error_code error;
    if (!fs::is_directory(location, error))
        throw std::runtime_error("The external plugins location " + location + " is not a directory.");
    return location;
}

int createPlugin(Context& context, const std::string& name, const std::string& type, bool external) {
    prepareStores();
    Kym::PluginsManager& plugins = Kym::PluginsManagement();
    plugins.checkNewPluginName(name);
    const std::string pluginType = type.empty() ? Kym::PluginSettings::SiteWideType : type;
    checkPluginType(pluginType);
    const fs::path parent = external ? externalPluginsLocation() : Kym::SystemInfo::installPath() / "plugins";
    const fs::path directory = parent / name;
    boost::system::error_code error;
    if (fs::exists(directory, error))
        throw std::runtime_error("Plugin directory " + native(directory) + " already exists.");

    if (!fs::exists(parent, error)) {
        fs::create_directory(parent);
        Base::FileManager::setPermissions(parent, 0775);
    }
    fs::create_directory(directory);
    try {
        Base::FileManager::setPermissions(directory, 0775);
        plugins.addPlugin(directory);
        Kym::PluginSettings& plugin = *plugins.plugin(plugins.numberOfPlugins() - 1, false);
        plugin.setPluginType(pluginType);
        plugin.setNeedsSaving(true);
        plugin.save();
    } catch (...) {
        fs::remove_all(directory, error);
        throw;
    }
    Json value = Json::object();
    value.set("name", name);
    value.set("type", pluginType);
    value.set("internal", !external);
    value.set("path", native(directory));
    context.print(value, [&](std::ostream& out) {
        out << "Created " << (external ? "external" : "internal") << " plugin " << name << " (" << pluginType
            << ") in " << native(directory) << ".\n";
    });
    return 0;
}

int setPluginType(Context& context, const std::string& name, const std::string& type) {
    Kym::PluginSettings& plugin = editPlugin(name);
    checkPluginType(type);
    plugin.setPluginType(type);
    plugin.setNeedsSaving(true);
    plugin.save();
    Json value = Json::object();
    value.set("name", name);
    value.set("type", type);
    value.set("file", native(plugin.dataFile()));
    context.print(value, [&](std::ostream& out) { out << "Plugin " << name << " is now of type " << type << ".\n"; });
    return 0;
}

std::string disableCell(Kym::DisablePluginSource& source, const std::string& column, int row) {
    return boost::any_cast<std::string>(source.valueForListColumnRow(column, row));
}

// The row of the plugin in the department's table, or -1.
int rowOf(Kym::DisablePluginSource& source, const std::string& name) {
    for (int row = 0; row < source.numberOfRowsInList(); ++row)
        if (disableCell(source, "Name", row) == name) return row;
    return -1;
}

int pluginRow(Kym::DisablePluginSource& source, const std::string& name) {
    if (const int row = rowOf(source, name); row >= 0) return row;
    findPlugin(name);  // says which plugins there are
    throw std::runtime_error("No plugin named '" + name + "'.");
}

int switchPlugin(Context& context, const std::string& departmentName, const std::string& name, bool disable) {
    std::unique_ptr<Kym::Configuration> department = editDepartment(departmentName);
    requireUpdated(*department);
    Kym::ConfigurationSettings& settings = *department->settings();
    Kym::DisablePluginSource& source = *settings.disablePlugins();
    const int row = pluginRow(source, name);
    const bool wasDisabled = disableCell(source, "Disabled", row) == "True";
    std::vector<std::string> forgotten;
    if (disable && !wasDisabled) {
        source.setValueForListColumnRow("Disabled", row, std::string("True"));
    } else if (!disable && wasDisabled) {
        const std::vector<std::string> before = settings.disabledPluginList();
        source.setValueForListColumnRow("Disabled", row, std::string("False"));
        // The table enables every plugin listed after this one too; they are disabled again.
        auto at = std::find(before.begin(), before.end(), name);
        for (auto later = at + 1; later < before.end(); ++later) {
            const int laterRow = rowOf(source, *later);
            if (laterRow < 0)
                forgotten.push_back(*later);
            else if (disableCell(source, "Disabled", laterRow) != "True")
                source.setValueForListColumnRow("Disabled", laterRow, std::string("True"));
        }
    }
    const bool changed = disable != wasDisabled;
    if (changed) department->save();

    Json value = Json::object();
    value.set("department", departmentName);
    value.set("plugin", name);
    value.set("disabled", disable);
    value.set("changed", changed);
    value.set("disabledPlugins", Json::strings(settings.disabledPluginList()));
    context.print(value, [&](std::ostream& out) {
        if (!changed)
            out << "Plugin " << name << " is already " << (disable ? "disabled" : "enabled") << " in department "
                << departmentName << ".\n";
        else
            out << (disable ? "Disabled" : "Enabled") << " plugin " << name << " in department " << departmentName
                << ".\n";
        if (!forgotten.empty())
            out << "No longer listed as disabled, since no such plugin exists: " << boost::algorithm::join(forgotten, ", ")
                << ".\n";
    });
    return 0;
}

int renamePlugin(Context& context, const std::string& name, const std::string& newName) {
    const Kym::PluginSettings& plugin = findPlugin(name);
    Kym::ConfigurationManager departments = scanDepartments();
    // The departments that disable it or overlay its applications follow, or nothing changes.
    const std::vector<std::string> updated = departments.renamePluginWithDependents(name, newName);
    const fs::path directory = plugin.path();

    Json value = Json::object();
    value.set("from", name);
    value.set("to", newName);
    value.set("path", native(directory));
    value.set("updatedDepartments", Json::strings(updated));
    context.print(value, [&](std::ostream& out) {
        out << "Renamed plugin " << name << " to " << newName << " (" << native(directory) << ").\n";
        if (!updated.empty())
            out << "Its new name is now in the disabled plugins and overlays of: " << boost::algorithm::join(updated, ", ")
                << ".\n";
    });
    return 0;
}

// The directory is first moved out of the plugins directory, where every
// entry counts as a plugin, so that no command ever reads half a plugin.
int deletePlugin(Context& context, const std::string& name, bool yes) {
    const fs::path directory = findPlugin(name).path();
    confirmDeletion(context, "plugin '" + name + "'", "removes " + native(directory) + " with all it holds", yes);
    const fs::path aside =
        directory.parent_path().parent_path() / fs::unique_path(".kym deleting plugin " + name + " %%%%%%%%");
    Base::FileManager::moveDirectory(directory, aside);
    boost::system::error_code error;
    fs::remove_all(aside, error);

    Json value = Json::object();
    value.set("deleted", name);
    value.set("path", native(directory));
    if (error) value.set("leftover", native(aside));
    context.print(value, [&](std::ostream& out) {
        out << "Deleted plugin " << name << " (" << native(directory) << ").\n";
        if (error)
            out << "Warning: not all of its files could be removed (" << error.message() << "); what is left is in "
                << native(aside) << ", which no plugin list shows: remove it by hand.\n";
    });
    return 0;
}

} // namespace

void addPluginCommands(Commands& commands) {
    Context& context = commands.context();
    CLI::App* plugin = commands.group(
        &commands.root(), "plugin", "",
        "Manage plugins. Plugins add variables and applications to the departments of their type (Site-wide: to all). Internal "
        "plugins live in the installation's plugins directory, external ones in the site's external plugins "
        "location. Their variables and applications are edited with 'kym var ... plugin:NAME' and "
        "'kym app ... plugin:NAME'.",
        "  kym plugin create cam --type Production\n  kym plugin create tools --external\n"
        "  kym plugin disable Design cam\n  kym plugin list\n");

    commands.command(plugin, "list", "List the plugins: name, type, internal or external, directory.",
                     "  kym plugin list\n", [&context] { return listPlugins(context); });

    struct CreateOptions {
        std::string name;
        std::string type;
        std::optional<bool> external;
    };
    auto create = std::make_shared<CreateOptions>();
    CLI::App* createCommand = commands.command(
        plugin, "create",
        "Create a plugin directory with its settings.dat, in the installation's plugins directory or, with "
        "--external, in the site's external plugins location for the active launch conventions.",
        "  kym plugin create cam --type Production\n  kym plugin create tools --external\n",
        [&context, create] { return createPlugin(context, create->name, create->type, create->external.value_or(false)); });
    addPlugin(createCommand, "NAME", create->name, "The plugin's directory name")->required();
    createCommand->add_option("--type", create->type, "Site-wide (the default), Common, Development, Production or Test");
    addSwitch(createCommand, "--external", create->external,
              "Create it in the site's external plugins location (default off)");

    struct DeleteOptions {
        std::string name;
        bool yes = false;
    };
    auto deleted = std::make_shared<DeleteOptions>();
    CLI::App* deleteCommand = commands.command(
        plugin, "delete",
        "Delete a plugin with its directory. Asks on a terminal; elsewhere --yes is required. Departments that "
        "disabled it keep its name in their list, which does no harm.",
        "  kym plugin delete cam\n  kym plugin delete plugin:tools --yes\n",
        [&context, deleted] { return deletePlugin(context, deleted->name, deleted->yes); });
    addPlugin(deleteCommand, "NAME", deleted->name, "The plugin")->required();
    deleteCommand->add_flag("-y,--yes", deleted->yes, "Do not ask");

    auto renameNames = std::make_shared<std::pair<std::string, std::string>>();
    CLI::App* renameCommand = commands.command(
        plugin, "rename",
        "Rename a plugin's directory. The departments that disable it or overlay its applications are changed to "
        "the new name with it, or, when one of them cannot be, nothing changes.",
        "  kym plugin rename cam cam2\n",
        [&context, renameNames] { return renamePlugin(context, renameNames->first, renameNames->second); });
    addPlugin(renameCommand, "OLD", renameNames->first, "The plugin")->required();
    renameCommand->add_option("NEW", renameNames->second, "Its new name")->required();

    auto setType = std::make_shared<std::pair<std::string, std::string>>();
    CLI::App* setTypeCommand = commands.command(
        plugin, "set-type", "Change which departments a plugin applies to.", "  kym plugin set-type cam Development\n",
        [&context, setType] { return setPluginType(context, setType->first, setType->second); });
    addPlugin(setTypeCommand, "NAME", setType->first, "The plugin")->required();
    setTypeCommand->add_option("TYPE", setType->second, "Site-wide, Common, Development, Production or Test")->required();

    auto disable = std::make_shared<std::pair<std::string, std::string>>();
    CLI::App* disableCommand = commands.command(
        plugin, "disable", "Switch a plugin off for one department.", "  kym plugin disable Design cam\n",
        [&context, disable] { return switchPlugin(context, disable->first, disable->second, true); });
    addDepartment(disableCommand, "DEPT", disable->first, "The department")->required();
    addPlugin(disableCommand, "PLUGIN", disable->second, "The plugin")->required();

    auto enable = std::make_shared<std::pair<std::string, std::string>>();
    CLI::App* enableCommand = commands.command(
        plugin, "enable", "Switch a plugin on again for one department.", "  kym plugin enable Design cam\n",
        [&context, enable] { return switchPlugin(context, enable->first, enable->second, false); });
    addDepartment(enableCommand, "DEPT", enable->first, "The department")->required();
    addPlugin(enableCommand, "PLUGIN", enable->second, "The plugin")->required();
}

} // namespace KymTool
