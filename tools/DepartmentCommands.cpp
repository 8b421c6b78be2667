// kym departments, kym dept list|show|create|rename|delete|set|update.
#include "Command.h"
#include "SiteAccess.h"

#include "kym/ConfigurationManager.h"
#include "kym/SystemInfo.h"
#include "kym/WorkDirectory.h"

#include <boost/algorithm/string/join.hpp>
#include <boost/filesystem/operations.hpp>
#include <iostream>
#include <limits>
#include <memory>
#include <optional>

namespace KymTool {

namespace {

Json departmentJson(const Kym::Configuration& department, bool current) {
    Json value = Json::object();
    value.set("name", department.name());
    value.set("description", department.description);
    value.set("type", department.type);
    value.set("commonDepartment", department.commonDepartment);
    value.set("updated", department.isUpdated());
    value.set("current", current);
    value.set("path", native(department.path()));
    return value;
}

int listDepartments(Context& context) {
    Kym::ConfigurationManager manager = scanDepartments();
    std::optional<DepartmentChoice> current = defaultDepartment();
    auto isCurrent = [&current](const Kym::Configuration& department) {
        return current && department.name() == current->name;
    };
    const fs::path& directory = Kym::SystemInformation().localDepartmentsPath();

    Json value = Json::object();
    value.set("departmentsDirectory", native(directory));
    value.set("fallback", manager.usingFallbackConfigurations());
    value.set("release", Kym::SystemInformation().CadVersionDirectory);
    Json list = Json::array();
    for (int index = 0; index < manager.numberOfConfigurations(); ++index) {
        const Kym::Configuration& department = *manager.configuration(index);
        list.push(departmentJson(department, isCurrent(department)));
    }
    value.set("departments", list);

    context.print(value, [&](std::ostream& out) {
        if (manager.numberOfConfigurations() == 0) {
            out << "No departments in " << native(directory) << " (create one with 'kym dept create NAME').\n";
            return;
        }
        Table table({"", "NAME", "TYPE", "UPDATED", "DESCRIPTION"});
        bool marked = false;
        for (int index = 0; index < manager.numberOfConfigurations(); ++index) {
            const Kym::Configuration& department = *manager.configuration(index);
            marked = marked || isCurrent(department);
            table.add({isCurrent(department) ? "*" : " ", department.name(), department.type,
                       yesNo(department.isUpdated()), department.description});
        }
        table.write(out);
        if (marked) out << "* current department (" << current->origin << ")\n";
        if (manager.usingFallbackConfigurations())
            out << "Using the installation's fallback departments directory " << native(directory) << ".\n";
    });
    return 0;
}

std::string cleanupText(const Kym::Configuration& department) {
    return department.doFileCleanup ? "on, files older than " + std::to_string(department.cleanupDays) + " days"
                                    : "off";
}

int showDepartment(Context& context, const std::string& name) {
    std::unique_ptr<Kym::Configuration> department = loadDepartment(name);
    Kym::ConfigurationSettings& settings = *department->settings();
    const std::string release = Kym::SystemInformation().CadVersionDirectory;

    Json value = departmentJson(*department, false);
    value.set("doFileCleanup", department->doFileCleanup);
    value.set("cleanupDays", static_cast<unsigned>(department->cleanupDays));
    value.set("release", release);
    value.set("settingsFile", native(settings.dataFile()));
    Json variables = Json::object();
    variables.set("common", static_cast<int>(settings.commonVariableList().size()));
    variables.set("unix", static_cast<int>(settings.unixVariableList().size()));
    variables.set("windows", static_cast<int>(settings.winVariableList().size()));
    value.set("variables", variables);
    value.set("applications", static_cast<int>(department->applicationList().size()));
    value.set("workDirectories", static_cast<int>(settings.workDirectoryList().size()));
    value.set("overlays", static_cast<int>(settings.overlays().size()));
    value.set("disabledPlugins", Json::strings(settings.disabledPluginList()));

    context.print(value, [&](std::ostream& out) {
        Table table;
        table.add({"directory:", native(department->path())});
        table.add({"description:", department->description});
        table.add({"type:", department->type});
        table.add({"common department:", department->commonDepartment.empty() ? "(none)" : department->commonDepartment});
        table.add({"file cleanup:", cleanupText(*department)});
        table.add({"updated for " + release + ":", yesNo(department->isUpdated())});
        if (department->isUpdated()) {
            table.add({"settings file:", native(settings.dataFile())});
            table.add({"variables:", std::to_string(settings.commonVariableList().size()) + " common, " +
                                         std::to_string(settings.unixVariableList().size()) + " unix, " +
                                         std::to_string(settings.winVariableList().size()) + " windows"});
            table.add({"applications:", std::to_string(department->applicationList().size())});
            table.add({"work directories:", std::to_string(settings.workDirectoryList().size())});
            table.add({"overlays:", std::to_string(settings.overlays().size())});
            table.add({"disabled plugins:", settings.disabledPluginList().empty()
                                                ? "(none)"
                                                : boost::algorithm::join(settings.disabledPluginList(), ", ")});
        }
        out << "Department " << department->name() << "\n";
        table.write(out, "  ");
    });
    return 0;
}

const char* const PropertyNames = "description, type, common, cleanup, cleanup-days";

std::uint32_t parseDays(const std::string& text) {
    const bool digits = !text.empty() && text.size() <= 10 &&
                        std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isdigit(c); });
    if (!digits || std::stoull(text) > std::numeric_limits<std::uint32_t>::max())
        throw std::runtime_error("Invalid number of cleanup days '" + text + "': give a whole number from 0 to " +
                                 std::to_string(std::numeric_limits<std::uint32_t>::max()) + ".");
    return static_cast<std::uint32_t>(std::stoull(text));
}

void checkCommonDepartment(const std::string& department, const std::string& common) {
    if (common.empty()) return;
    if (common == department)
        throw std::runtime_error("Department '" + department + "' cannot be its own common department.");
    const fs::path directory = departmentDirectory(common);
    boost::system::error_code error;
    if (!fs::exists(directory / Kym::Configuration::PropertyFileName, error))
        throw std::runtime_error("Department '" + common + "' does not exist in " +
                                 native(directory.parent_path()) + ", so it cannot be a common department.");
}

void setProperty(Kym::Configuration& department, const std::string& property, const std::string& value) {
    if (property == "description") {
        department.description = value;
    } else if (property == "type") {
        checkDepartmentType(value);
        department.type = value;
    } else if (property == "common") {
        checkCommonDepartment(department.name(), value);
        department.commonDepartment = value;
    } else if (property == "cleanup") {
        department.doFileCleanup = parseSwitch(value, "cleanup");
    } else if (property == "cleanup-days") {
        department.cleanupDays = parseDays(value);
    } else {
        throw UsageError("Unknown department property '" + property + "': choose " + PropertyNames + ".");
    }
    department.setNeedsSaving(true);
}

int indexOf(Kym::ConfigurationManager& manager, const std::string& name) {
    for (int index = 0; index < manager.numberOfConfigurations(); ++index)
        if (manager.configuration(index)->name() == name) return index;
    throw std::runtime_error("Department '" + name + "' does not exist in " +
                             native(Kym::SystemInformation().localDepartmentsPath()) + ".");
}

std::vector<std::string> dependents(Kym::ConfigurationManager& manager, const std::string& name) {
    std::vector<std::string> names;
    for (int index = 0; index < manager.numberOfConfigurations(); ++index)
        if (manager.configuration(index)->commonDepartment == name) names.push_back(manager.configuration(index)->name());
    return names;
}

struct CreateOptions {
    std::string name;
    std::string description;
    std::string type;
    std::string common;
    std::optional<bool> cleanup;
    std::string cleanupDays;
};

int createDepartment(Context& context, const CreateOptions& options) {
    const fs::path directory = departmentDirectory(options.name);
    Kym::ConfigurationManager manager = scanDepartments();
    boost::system::error_code error;
    if (fs::exists(directory, error))
        throw std::runtime_error("Department '" + options.name + "' already exists: " + native(directory) + ".");
    if (!options.type.empty()) checkDepartmentType(options.type);
    checkCommonDepartment(options.name, options.common);
    if (!options.cleanupDays.empty()) parseDays(options.cleanupDays);

    context.progress("Creating department " + options.name + ": unpacking release files...");
    const Kym::Configuration* department = nullptr;
    try {
        // The properties are saved with the rest before the department appears.
        department = &manager.createConfiguration(options.name, [&options](Kym::Configuration& created) {
            if (!options.description.empty()) setProperty(created, "description", options.description);
            if (!options.type.empty()) setProperty(created, "type", options.type);
            if (!options.common.empty()) setProperty(created, "common", options.common);
            if (options.cleanup) created.doFileCleanup = *options.cleanup;
            if (!options.cleanupDays.empty()) setProperty(created, "cleanup-days", options.cleanupDays);
        });
    } catch (...) {
        context.progress("failed");
        throw;
    }
    context.progress("done");
    context.print(departmentJson(*department, false), [&](std::ostream& out) {
        out << "Created department " << department->name() << " in " << native(department->path()) << ".\n";
    });
    return 0;
}

int renameDepartment(Context& context, const std::string& oldName, const std::string& newName) {
    Kym::ConfigurationManager::checkDepartmentName(oldName);
    const fs::path target = departmentDirectory(newName);
    Kym::ConfigurationManager manager = scanDepartments();
    const int index = indexOf(manager, oldName);
    boost::system::error_code error;
    if (fs::exists(target, error))
        throw std::runtime_error("Department '" + newName + "' already exists: " + native(target) + ".");
    // Those that share it follow, or nothing changes.
    const std::vector<std::string> updated = manager.renameConfigurationWithDependents(index, newName);

    Json value = Json::object();
    value.set("from", oldName);
    value.set("to", newName);
    value.set("path", native(target));
    value.set("updatedCommonDepartmentOf", Json::strings(updated));
    context.print(value, [&](std::ostream& out) {
        out << "Renamed department " << oldName << " to " << newName << ".\n";
        if (!updated.empty())
            out << "Now naming " << newName << " as their common department: " << boost::algorithm::join(updated, ", ")
                << ".\n";
    });
    return 0;
}

int deleteDepartment(Context& context, const std::string& name, bool yes, bool force) {
    Kym::ConfigurationManager::checkDepartmentName(name);
    Kym::ConfigurationManager manager = scanDepartments();
    const int index = indexOf(manager, name);
    // Those departments would start their applications without the settings they share through it.
    std::vector<std::string> users;
    for (const std::string& user : dependents(manager, name))
        if (user != name) users.push_back(user);
    if (!users.empty() && !force)
        throw std::runtime_error("Department '" + name + "' is the common department of " +
                                 boost::algorithm::join(users, ", ") +
                                 ", which would lose the settings they share through it; nothing was deleted. "
                                 "Name another common department for them first ('kym dept set DEPT common NAME'), "
                                 "or delete it anyway with --force.");
    confirmDeletion(context, "department '" + name + "'", "removes all its releases", yes);
    const fs::path leftover = manager.deleteConfiguration(index);
    const std::vector<std::string> orphans = dependents(manager, name);

    Json value = Json::object();
    value.set("deleted", name);
    value.set("commonDepartmentOf", Json::strings(orphans));
    if (!leftover.empty()) value.set("leftover", native(leftover));
    context.print(value, [&](std::ostream& out) {
        out << "Deleted department " << name << ".\n";
        if (!leftover.empty())
            out << "Warning: not all of its files could be removed; what is left is in " << native(leftover)
                << ", which no department list shows: remove it by hand.\n";
        if (!orphans.empty())
            out << "Warning: these departments still name " << name
                << " as their common department: " << boost::algorithm::join(orphans, ", ") << ".\n";
    });
    return 0;
}

int setDepartmentProperty(Context& context, const std::string& name, const std::string& property,
                          const std::string& value) {
    std::unique_ptr<Kym::Configuration> department = editDepartment(name);
    setProperty(*department, property, value);
    department->save();
    return showDepartment(context, name);
}

int updateDepartment(Context& context, const std::string& name) {
    std::unique_ptr<Kym::Configuration> department = editDepartment(name);
    const std::string release = Kym::SystemInformation().CadVersionDirectory;
    if (department->isUpdated())
        throw std::runtime_error("Department '" + name + "' is already updated for release " + release + ".");
    context.progress("Updating department " + name + " for release " + release + ": unpacking release files...");
    try {
        department->createNXVersionDirectory();
    } catch (...) {
        context.progress("failed");
        throw;
    }
    context.progress("done");
    Json value = departmentJson(*department, false);
    context.print(value, [&](std::ostream& out) {
        out << "Updated department " << name << " for release " << release << ".\n";
    });
    return 0;
}

// Work directories.

std::string workDirectoryCell(Kym::WorkDirectoryListSource& directories, const std::string& column, int row) {
    return boost::any_cast<std::string>(directories.valueForListColumnRow(column, row));
}

int workDirectoryRow(Kym::WorkDirectoryListSource& directories, const std::string& name) {
    for (int row = 0; row < directories.numberOfRowsInList(); ++row)
        if (workDirectoryCell(directories, "Name", row) == name) return row;
    return -1;
}

int listWorkDirectories(Context& context, const std::string& name) {
    std::unique_ptr<Kym::Configuration> department = loadDepartment(name);
    requireUpdated(*department);
    Kym::WorkDirectoryListSource& directories = *department->settings()->workDirectories();
    Json list = Json::array();
    Table table({"NAME", "PATH"});
    for (int row = 0; row < directories.numberOfRowsInList(); ++row) {
        Json entry = Json::object();
        entry.set("name", workDirectoryCell(directories, "Name", row));
        entry.set("path", workDirectoryCell(directories, "Path", row));
        list.push(entry);
        table.add({workDirectoryCell(directories, "Name", row), workDirectoryCell(directories, "Path", row)});
    }
    Json value = Json::object();
    value.set("department", name);
    value.set("workDirectories", list);
    context.print(value, [&](std::ostream& out) {
        if (table.empty())
            out << "Department " << name << " has no work directories.\n";
        else
            table.write(out);
    });
    return 0;
}

int addWorkDirectory(Context& context, const std::string& name, const std::string& directoryName,
                     const std::string& path) {
    if (directoryName.empty()) throw std::runtime_error("A work directory needs a name.");
    std::unique_ptr<Kym::Configuration> department = editDepartment(name);
    requireUpdated(*department);
    Kym::WorkDirectoryListSource& directories = *department->settings()->workDirectories();
    if (workDirectoryRow(directories, directoryName) >= 0)
        throw std::runtime_error("Department '" + name + "' already has a work directory '" + directoryName + "'.");
    directories.insertRow(-1);
    const int row = directories.numberOfRowsInList() - 1;
    directories.setValueForListColumnRow("Name", row, directoryName);
    directories.setValueForListColumnRow("Path", row, path);
    department->save();
    Json value = Json::object();
    value.set("department", name);
    value.set("name", directoryName);
    value.set("path", path);
    context.print(value, [&](std::ostream& out) {
        out << "Added work directory " << directoryName << " (" << path << ") to department " << name << ".\n";
    });
    return 0;
}

int removeWorkDirectory(Context& context, const std::string& name, const std::string& directoryName) {
    std::unique_ptr<Kym::Configuration> department = editDepartment(name);
    requireUpdated(*department);
    Kym::WorkDirectoryListSource& directories = *department->settings()->workDirectories();
    const int row = workDirectoryRow(directories, directoryName);
    if (row < 0)
        throw std::runtime_error("Department '" + name + "' has no work directory '" + directoryName + "'.");
    directories.deleteRows({row});
    department->save();
    Json value = Json::object();
    value.set("department", name);
    value.set("removed", directoryName);
    context.print(value, [&](std::ostream& out) {
        out << "Removed work directory " << directoryName << " from department " << name << ".\n";
    });
    return 0;
}

} // namespace

void addDepartmentCommands(Commands& commands) {
    Context& context = commands.context();
    CLI::App* root = &commands.root();

    commands.command(root, "departments", "List the departments. Shows name, type, whether updated for the "
                                          "current release and description; the current one is marked.",
                     "  kym departments\n  kym departments --json\n",
                     [&context] { return listDepartments(context); });

    CLI::App* dept = commands.group(root, "dept", "department", "Create, rename, delete, show and edit departments.",
                                    "  kym dept create Design --description \"Design office\" --common Shared\n"
                                    "  kym dept set Design cleanup-days 7\n  kym dept delete Old --yes\n");

    commands.command(dept, "list", "The same as 'kym departments'.", "  kym dept list\n",
                     [&context] { return listDepartments(context); });

    auto showName = std::make_shared<std::string>();
    CLI::App* show = commands.command(dept, "show", "Show a department's properties and what its settings hold.",
                                      "  kym dept show Design\n",
                                      [&context, showName] { return showDepartment(context, *showName); });
    addDepartment(show, "NAME", *showName, "The department")->required();

    auto create = std::make_shared<CreateOptions>();
    CLI::App* createCommand = commands.command(
        dept, "create",
        "Create a department. It gets its version directory for the current release, unpacked from the "
        "installation's data/install/versionFiles.tar.gz, and the properties given.",
        "  kym dept create Shared --type Common --description \"Shared settings\"\n"
        "  kym dept create Design --description \"Design office\" --common Shared --cleanup-days 7\n",
        [&context, create] { return createDepartment(context, *create); });
    addDepartment(createCommand, "NAME", create->name, "Directory name of the new department")->required();
    createCommand->add_option("--description", create->description, "Free text shown to users");
    createCommand->add_option("--type", create->type, "Common, Development, Production (the default) or Test");
    createCommand->add_option("--common", create->common, "The department whose settings it shares");
    addSwitch(createCommand, "--cleanup", create->cleanup, "Remove stale temporary files at launch (default on)");
    createCommand->add_option("--cleanup-days", create->cleanupDays, "Age in days of the files removed (default 2)");

    auto renameNames = std::make_shared<std::pair<std::string, std::string>>();
    CLI::App* rename = commands.command(
        dept, "rename",
        "Rename a department. Departments that name it as their common department follow.",
        "  kym dept rename Design Design2\n",
        [&context, renameNames] { return renameDepartment(context, renameNames->first, renameNames->second); });
    addDepartment(rename, "OLD", renameNames->first, "The department")->required();
    addDepartment(rename, "NEW", renameNames->second, "Its new name")->required();

    auto deleteName = std::make_shared<std::string>();
    auto deleteYes = std::make_shared<bool>(false);
    auto deleteForce = std::make_shared<bool>(false);
    CLI::App* remove = commands.command(
        dept, "delete",
        "Delete a department with all its releases. Asks on a terminal; elsewhere --yes is required. A department "
        "that others name as their common department is not deleted unless --force is given.",
        "  kym dept delete Old\n  kym dept delete Old --yes\n  kym dept delete Shared --yes --force\n",
        [&context, deleteName, deleteYes, deleteForce] {
            return deleteDepartment(context, *deleteName, *deleteYes, *deleteForce);
        });
    addDepartment(remove, "NAME", *deleteName, "The department")->required();
    remove->add_flag("-y,--yes", *deleteYes, "Do not ask");
    remove->add_flag("--force", *deleteForce,
                     "Delete it even when other departments name it as their common department");

    auto setArguments = std::make_shared<std::vector<std::string>>(3);
    CLI::App* set = commands.command(
        dept, "set",
        std::string("Set a property of a department. PROPERTY is one of: ") + PropertyNames +
            ". cleanup takes on/off; common takes a department name or \"\" for none.",
        "  kym dept set Design description \"Design office\"\n  kym dept set Design type Development\n"
        "  kym dept set Design common Shared\n  kym dept set Design cleanup off\n  kym dept set Design cleanup-days 7\n",
        [&context, setArguments] {
            return setDepartmentProperty(context, (*setArguments)[0], (*setArguments)[1], (*setArguments)[2]);
        });
    addDepartment(set, "NAME", (*setArguments)[0], "The department")->required();
    set->add_option("PROPERTY", (*setArguments)[1], PropertyNames)->required();
    set->add_option("VALUE", (*setArguments)[2], "The new value")->required();

    auto updateName = std::make_shared<std::string>();
    CLI::App* update = commands.command(
        dept, "update",
        "Update a department for the current release. Makes its version directory; the settings of the previous "
        "release are carried over.",
        "  kym dept update Design\n", [&context, updateName] { return updateDepartment(context, *updateName); });
    addDepartment(update, "NAME", *updateName, "The department")->required();

    CLI::App* workdir = commands.group(
        root, "workdir", "", "Manage the work directories of a department. A launch can start in one of them (kym launch --workdir NAME).",
        "  kym workdir add Design projects '${HOME}/projects'\n  kym workdir list Design\n"
        "  kym workdir remove Design projects\n");
    auto listName = std::make_shared<std::string>();
    CLI::App* listCommand =
        commands.command(workdir, "list", "List a department's work directories.", "  kym workdir list Design\n",
                         [&context, listName] { return listWorkDirectories(context, *listName); });
    addDepartment(listCommand, "DEPT", *listName, "The department")->required();
    auto add = std::make_shared<std::vector<std::string>>(3);
    CLI::App* addCommand = commands.command(
        workdir, "add", "Add a work directory; PATH may refer to variables (${HOME}), expanded at launch.",
        "  kym workdir add Design projects '${HOME}/projects'\n",
        [&context, add] { return addWorkDirectory(context, (*add)[0], (*add)[1], (*add)[2]); });
    addDepartment(addCommand, "DEPT", (*add)[0], "The department")->required();
    addCommand->add_option("NAME", (*add)[1], "The name users choose it by")->required();
    addCommand->add_option("PATH", (*add)[2], "The directory")->required();
    auto removeNames = std::make_shared<std::pair<std::string, std::string>>();
    CLI::App* removeWorkdir = commands.command(
        workdir, "remove", "Remove a work directory.", "  kym workdir remove Design projects\n",
        [&context, removeNames] { return removeWorkDirectory(context, removeNames->first, removeNames->second); });
    addDepartment(removeWorkdir, "DEPT", removeNames->first, "The department")->required();
    removeWorkdir->add_option("NAME", removeNames->second, "The work directory")->required();
}

} // namespace KymTool
