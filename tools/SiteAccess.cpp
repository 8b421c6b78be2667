#include "SiteAccess.h"

#include "Command.h"

#include "kym/App.h"
#include "kym/BaseSettings.h"
#include "kym/ConfigurationManager.h"
#include "kym/PluginsManager.h"
#include "kym/SiteSettings.h"
#include "kym/SystemInfo.h"
#include "kym/SystemPreferences.h"

#include "base/Environment.h"
#include "base/FileLock.h"
#include "base/Platform.h"

#include <boost/algorithm/string/join.hpp>
#include <boost/filesystem/operations.hpp>
#include <algorithm>
#include <cctype>
#include <stdexcept>

namespace KymTool {

std::string native(const fs::path& p) {
    return Base::Platform::current().nativePath(p);
}

void prepareStores() {
    Kym::SystemInformation();
    Kym::SiteInformation();
}

fs::path departmentDirectory(const std::string& name) {
    Kym::ConfigurationManager::checkDepartmentName(name);
    return Kym::SystemInformation().localDepartmentsPath() / name;
}

std::unique_ptr<Kym::Configuration> loadDepartmentAt(const fs::path& directory) {
    prepareStores();
    boost::system::error_code error;
    if (!fs::is_directory(directory, error))
        throw std::runtime_error("Department '" + directory.filename().string() + "' does not exist in " +
                                 native(directory.parent_path()) + ".");
    try {
        return std::make_unique<Kym::Configuration>(directory, true);
    } catch (const boost::bad_any_cast&) {
        throw std::runtime_error("The properties of department '" + directory.filename().string() +
                                 "' do not load: " + native(directory / Kym::Configuration::PropertyFileName) +
                                 " lacks a Description or holds a value of the wrong type.");
    }
}

Kym::ConfigurationManager scanDepartments() {
    prepareStores();
    try {
        return Kym::ConfigurationManager();
    } catch (const boost::bad_any_cast&) {
        throw std::runtime_error("A department of " + native(Kym::SystemInformation().localDepartmentsPath()) +
                                 " does not load: its .dirinfo.plist lacks a Description or holds a value of the "
                                 "wrong type ('kym doctor' names it).");
    }
}

std::unique_ptr<Kym::Configuration> loadDepartment(const std::string& name) {
    return loadDepartmentAt(departmentDirectory(name));
}

void lockForEditing(const fs::path& file) {
    // Released when the process ends, after the last write.
    static auto* locks = new std::vector<std::unique_ptr<Base::FileLock>>;
    static const bool releasedAtExit = [] {
        std::atexit([] { locks->clear(); });
        return true;
    }();
    (void)releasedAtExit;
    locks->push_back(std::make_unique<Base::FileLock>(file));
}

std::unique_ptr<Kym::Configuration> editDepartment(const std::string& name) {
    std::unique_ptr<Kym::Configuration> department = loadDepartment(name);
    lockForEditing(department->propertiesFile().path());
    lockForEditing(department->settings()->dataFile());
    department->load();
    return department;
}

Kym::PluginSettings& editPlugin(const std::string& name) {
    Kym::PluginSettings& plugin = findPlugin(name);
    lockForEditing(plugin.dataFile());
    plugin.load();
    return plugin;
}

Kym::SiteSettings& editSite() {
    prepareStores();
    Kym::SiteSettings& site = Kym::SiteInformation();
    lockForEditing(site.dataFile());
    site.load();
    return site;
}

Kym::BaseSettings& editBase() {
    Kym::BaseSettings& base = Kym::BaseInformation();
    lockForEditing(base.dataFile());
    base.load();
    return base;
}

Kym::SystemInfo& editSystemInfo() {
    Kym::SystemInfo& info = Kym::SystemInformation();
    lockForEditing(info.dataFile());
    info.load();
    return info;
}

void requireUpdated(const Kym::Configuration& department) {
    if (department.isUpdated()) return;
    throw std::runtime_error("Department '" + department.name() + "' is not updated for release " +
                             Kym::SystemInformation().CadVersionDirectory + " (" + native(department.versionPath()) +
                             " is missing): run 'kym dept update " + department.name() + "' first.");
}

const char* const LastDepartmentKey = "kym/lastDepartment";

std::optional<DepartmentChoice> defaultDepartment() {
    const std::string current = Base::Environment::getEnvVariable("KYM_DEPT_DIR");
    if (!current.empty()) {
        const fs::path directory(current);
        return DepartmentChoice{directory.filename().string(), directory, "KYM_DEPT_DIR"};
    }
    Kym::App* app = Kym::App::instance();
    Kym::SystemPreferences* preferences = app ? app->getPreferenceDB() : nullptr;
    if (!preferences) return std::nullopt;
    const boost::shared_ptr<boost::any> last = preferences->GetPreference(LastDepartmentKey);
    const std::string* name = last ? boost::any_cast<std::string>(last.get()) : nullptr;
    if (!name || name->empty()) return std::nullopt;
    return DepartmentChoice{*name, Kym::SystemInformation().localDepartmentsPath() / *name, "last used"};
}

DepartmentChoice chooseDepartment(const std::string& named) {
    if (!named.empty()) return DepartmentChoice{named, departmentDirectory(named), "named"};
    std::optional<DepartmentChoice> choice = defaultDepartment();
    if (!choice)
        throw std::runtime_error("No department given and none used before: name one, for example "
                                 "'kym apps DEPT' ('kym departments' lists them).");
    boost::system::error_code error;
    if (!fs::is_directory(choice->directory, error)) {
        if (choice->origin == "KYM_DEPT_DIR")
            throw std::runtime_error("KYM_DEPT_DIR names " + native(choice->directory) +
                                     ", which is not a directory: name a department instead.");
        throw std::runtime_error("The department used last, '" + choice->name +
                                 "', no longer exists: name one ('kym departments' lists them).");
    }
    return *choice;
}

void rememberDepartment(const std::string& name) {
    Kym::App* app = Kym::App::instance();
    Kym::SystemPreferences* preferences = app ? app->getPreferenceDB() : nullptr;
    if (!preferences) return;
    // Most launches name the department used last: rewriting the file then would only cost time.
    const boost::shared_ptr<boost::any> last = preferences->GetPreference(LastDepartmentKey);
    const std::string* lastName = last ? boost::any_cast<std::string>(last.get()) : nullptr;
    if (lastName && *lastName == name) return;
    preferences->SetPreference(LastDepartmentKey, name);
    preferences->Flush();
}

Kym::PluginSettings& findPlugin(const std::string& name) {
    prepareStores();
    Kym::PluginsManager& plugins = Kym::PluginsManagement();
    std::vector<std::string> names;
    for (int index = 0; index < plugins.numberOfPlugins(); ++index) {
        Kym::PluginSettings* plugin = plugins.plugin(index, false);
        if (plugin->name() == name) return *plugin;
        names.push_back(plugin->name());
    }
    throw std::runtime_error("No plugin named '" + name + "'. " +
                             (names.empty() ? std::string("The site has no plugins.")
                                            : "Plugins: " + boost::algorithm::join(names, ", ") + "."));
}

namespace {

// The offered types are the manager's; it is only asked when a type is set.
std::vector<std::string> departmentTypes() {
    return scanDepartments().availableTypes();
}

} // namespace

void checkDepartmentType(const std::string& type) {
    const std::vector<std::string> types = departmentTypes();
    if (std::find(types.begin(), types.end(), type) == types.end())
        throw std::runtime_error("Unknown department type '" + type + "': choose " +
                                 boost::algorithm::join(types, ", ") + ".");
}

std::string pluginTypeList() {
    std::vector<std::string> types = departmentTypes();
    types.insert(types.begin(), Kym::PluginSettings::SiteWideType);
    return boost::algorithm::join(types, ", ");
}

void checkPluginType(const std::string& type) {
    std::vector<std::string> types = departmentTypes();
    types.push_back(Kym::PluginSettings::SiteWideType);
    if (std::find(types.begin(), types.end(), type) == types.end())
        throw std::runtime_error("Unknown plugin type '" + type + "': choose " + pluginTypeList() + ".");
}

const char* const LayerHelp =
    "LAYER is one of: site, base, plugin:NAME, dept:NAME (a department).";

Layer openLayer(const std::string& layerName, Access access) {
    Layer layer;
    const bool edit = access == Access::Edit;
    const std::size_t colon = layerName.find(':');
    const std::string kind = layerName.substr(0, colon);
    const std::string name = colon == std::string::npos ? std::string() : layerName.substr(colon + 1);
    if (layerName == "site") {
        prepareStores();
        Kym::SiteSettings& site = edit ? editSite() : Kym::SiteInformation();
        layer.description = "the site settings";
        layer.file = site.dataFile();
        layer.variables = &site;
        layer.settingsFile = &site.settingsFile();
        layer.save = [&site] { site.save(); };
    } else if (layerName == "base") {
        Kym::BaseSettings& base = edit ? editBase() : Kym::BaseInformation();
        layer.description = "the base settings";
        layer.file = base.dataFile();
        layer.variables = &base;
        layer.applications = base.applications();
        layer.settingsFile = &base.settingsFile();
        layer.save = [&base] { base.save(); };
    } else if (kind == "plugin" && !name.empty()) {
        Kym::PluginSettings& plugin = edit ? editPlugin(name) : findPlugin(name);
        layer.description = "plugin " + name;
        layer.file = plugin.dataFile();
        layer.variables = &plugin;
        layer.applications = plugin.applications();
        layer.settingsFile = &plugin.settingsFile();
        layer.save = [&plugin] { plugin.save(); };
    } else if ((kind == "dept" || kind == "department") && !name.empty()) {
        layer.department = edit ? editDepartment(name) : loadDepartment(name);
        requireUpdated(*layer.department);
        Kym::Configuration* department = layer.department.get();
        layer.description = "department " + name;
        layer.file = department->settings()->dataFile();
        layer.variables = department->settings();
        layer.applications = department->settings()->applications();
        layer.settingsFile = &department->settings()->settingsFile();
        layer.save = [department] { department->save(); };
    } else {
        throw UsageError("Unknown layer '" + layerName + "': " + LayerHelp);
    }
    return layer;
}

std::string invalidNameText(const std::string& name, const std::string& where) {
    return "Invalid variable name '" + name + "'" + (where.empty() ? "" : " " + where) +
           ": a name holds letters, digits and '_' (a '#' only first) and starts with neither a digit nor '_'.";
}

std::string invalidValueText(const std::string& name, const std::string& value, const std::string& where) {
    return "Invalid value '" + value + "' for variable '" + name + "'" + (where.empty() ? "" : " " + where) +
           ": a value holds its '%' signs in pairs and closes every '{' with a '}'.";
}

int applicationRow(Kym::ApplicationListSource& applications, const std::string& appId) {
    for (int row = 0; row < applications.numberOfRowsInList(); ++row)
        if (boost::any_cast<std::string>(applications.valueForListColumnRow("AppID", row)) == appId) return row;
    return -1;
}

int requireApplicationRow(Layer& layer, const std::string& appId) {
    if (!layer.applications) throw std::runtime_error("The site settings hold no applications.");
    const int row = applicationRow(*layer.applications, appId);
    if (row < 0) throw std::runtime_error("No application '" + appId + "' in " + layer.description + ".");
    return row;
}

} // namespace KymTool
