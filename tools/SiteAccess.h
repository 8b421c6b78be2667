// How the commands reach a site through the library: one department at a
// time without scanning the others, and the layers that hold variables and
// applications.
#pragma once

#include "kym/BaseSettings.h"
#include "kym/ConfigApplication.h"
#include "kym/Configuration.h"
#include "kym/ConfigurationManager.h"
#include "kym/PluginSettings.h"
#include "kym/SettingsProtocol.h"
#include "kym/SiteSettings.h"
#include "kym/SystemInfo.h"

#include "base/SettingsFile.h"

#include <boost/filesystem/path.hpp>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace KymTool {

namespace fs = boost::filesystem;

// A path as the active launch conventions write it.
std::string native(const fs::path& p);

// The system information first, then the site settings, which register the
// external plugins: every department table made afterwards knows them.
void prepareStores();

// A department name names a directory of the local departments directory.
fs::path departmentDirectory(const std::string& name);
// The department, read from its directory alone.
std::unique_ptr<Kym::Configuration> loadDepartment(const std::string& name);
std::unique_ptr<Kym::Configuration> loadDepartmentAt(const fs::path& directory);
// A command that edits settings holds the lock of each file it writes from
// before it reads the file until the command ends: commands that edit one
// layer run one after the other, and none loses another's edit.
void lockForEditing(const fs::path& file);
// The stores a command edits, read afresh under their files' locks.
std::unique_ptr<Kym::Configuration> editDepartment(const std::string& name);
Kym::PluginSettings& editPlugin(const std::string& name);
Kym::SiteSettings& editSite();
Kym::BaseSettings& editBase();
Kym::SystemInfo& editSystemInfo();
// Every department of the departments directory (for the commands that need them all).
Kym::ConfigurationManager scanDepartments();
// Its settings live in the version directory, which must exist to keep an edit.
void requireUpdated(const Kym::Configuration& department);

// The department a launcher command works in: the one named, else the
// current one (KYM_DEPT_DIR, set in programs that kym started), else the last
// one named, kept in the user's preferences.
struct DepartmentChoice {
    std::string name;
    fs::path directory;
    std::string origin;  // "named", "KYM_DEPT_DIR" or "last used"
};
std::optional<DepartmentChoice> defaultDepartment();
DepartmentChoice chooseDepartment(const std::string& named);
// Keeps the name for the next command that names none.
void rememberDepartment(const std::string& name);
extern const char* const LastDepartmentKey;

// The plugin of that directory name, internal or external.
Kym::PluginSettings& findPlugin(const std::string& name);
std::string pluginTypeList();
void checkPluginType(const std::string& type);
void checkDepartmentType(const std::string& type);

// A settings layer named on the command line: "site", "base",
// "plugin:NAME" or "dept:NAME".
struct Layer {
    std::string description;  // "base settings", "plugin cam", "department Design"
    fs::path file;
    // What was read of the file: its content's identity.
    const Base::SettingsFile* settingsFile = nullptr;
    Kym::SettingsProtocol* variables = nullptr;
    Kym::ApplicationListSource* applications = nullptr;  // null for the site
    std::function<void()> save;
    std::unique_ptr<Kym::Configuration> department;
};
// A layer opened for editing is read under its files' locks (see lockForEditing).
enum class Access { Read, Edit };
Layer openLayer(const std::string& layerName, Access access);
extern const char* const LayerHelp;

// Why a variable cannot be kept; `where` ("in the common list of ...") may be empty.
std::string invalidNameText(const std::string& name, const std::string& where);
std::string invalidValueText(const std::string& name, const std::string& value, const std::string& where);

// The row of the application with that identifier in a layer's table, or -1.
int applicationRow(Kym::ApplicationListSource& applications, const std::string& appId);
int requireApplicationRow(Layer& layer, const std::string& appId);

} // namespace KymTool
