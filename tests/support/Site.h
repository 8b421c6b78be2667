// A real site in a temporary folder (installation, departments directory, application data folder) and
// writers for its settings files through the library's own coders. Build the Site before the first call
// of a store accessor: the stores read the environment and their files when they are created.
#pragma once

#include "support/TestSupport.h"

#include "kym/ApplicationOverlay.h"
#include "kym/ConfigApplication.h"
#include "kym/EnvironmentVariable.h"
#include "kym/WorkDirectory.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace KymTest {

// Where the local departments directory is, and so how it is found.
enum class Departments {
    Sibling,   // <root>/ugsite beside the installation; KYM_UGSITE_DIR unset
    Variable,  // <root>/local/departments, named by KYM_UGSITE_DIR
    None,      // none at all; KYM_UGSITE_DIR unset
};

// The variable lists and applications of a layer (base settings, a plugin).
struct Layer {
    std::vector<Kym::EnvironmentVariable> commonVariables;
    std::vector<Kym::EnvironmentVariable> unixVariables;
    std::vector<Kym::EnvironmentVariable> windowsVariables;
    std::vector<Kym::ConfigApplication> applications;
};

// The content of a site settings file. The variable members carry the
// system's default names; a test may give one another name.
struct SiteFile {
    Kym::EnvironmentVariable unixNXInstallPath{"UGII_BASE_DIR", ""};
    Kym::EnvironmentVariable winNXInstallPath{"UGII_BASE_DIR", ""};
    Kym::EnvironmentVariable unixTcEngInstallPath{"TC_ROOT", ""};
    Kym::EnvironmentVariable winTcEngInstallPath{"TC_ROOT", ""};
    Kym::EnvironmentVariable unixPortalInstallPath{"TC_PORTAL_ROOT", ""};
    Kym::EnvironmentVariable winPortalInstallPath{"TC_PORTAL_ROOT", ""};
    Kym::EnvironmentVariable browser{"UGII_HTML_BROWSER", ""};
    bool useWindowsRegistry = true;
    std::vector<Kym::EnvironmentVariable> commonVariables;
    std::vector<Kym::EnvironmentVariable> unixVariables;
    std::vector<Kym::EnvironmentVariable> windowsVariables;
    Kym::EnvironmentVariable unixPlotConfBase{"SDI_SERVER_CFG_BASE", ""};
    Kym::EnvironmentVariable winPlotConfBase{"SDI_SERVER_CFG_BASE", ""};
    std::string unixExternalPluginsLocation;
    std::string winExternalPluginsLocation;
};

// The properties of a department (.dirinfo.plist), defaults as the library's.
struct DepartmentProperties {
    std::string description = "None";
    std::string type = "Production";
    std::string commonDepartment;
    bool doFileCleanup = true;
    std::uint32_t cleanupDays = 2;
};

// The settings of a department for one release (config/configSettings.dat).
struct DepartmentSettings {
    std::vector<Kym::WorkDirectory> workDirectories;
    Layer layer;
    std::vector<std::string> disabledPlugins;
    std::vector<Kym::ApplicationOverlay> overlays;
};

// "NAME=value" for each variable, in order, so whole lists compare in one assertion.
std::vector<std::string> variableTexts(const std::vector<Kym::EnvironmentVariable>& variables);
// Appends a row to a variable table as the editor does, and fills in its name and value.
void appendVariable(Kym::EnvVariableListSource* table, const std::string& name, const std::string& value);
// The texts of a table's column, row by row.
std::vector<std::string> columnTexts(const Base::DataSourceInterface& table, const std::string& column);
// "name type" of each plugin of the registry, in its order.
std::vector<std::string> pluginNames();
// The keys of an archive file's top level, in the order they stand in the file.
std::vector<std::string> archiveTopLevelKeys(const fs::path& file);

// An application record with the fields a test usually cares about.
Kym::ConfigApplication makeApplication(const std::string& appId, const std::string& program,
                                       const std::string& description = "");

class Site {
public:
    // Makes <root>/kym (the installation) with config/, plugins/ and
    // data/install/, the departments directory as asked, and <root>/appdata;
    // sets KYM_BASE_DIR and XDG_CONFIG_HOME and sets or unsets KYM_UGSITE_DIR.
    // Everything is restored and removed when the Site goes.
    explicit Site(Departments departments = Departments::Sibling);
    ~Site();
    Site(const Site&) = delete;
    Site& operator=(const Site&) = delete;

    const fs::path& root() const { return mRoot.path(); }
    const fs::path& installPath() const { return mInstallPath; }
    // Empty with Departments::None.
    const fs::path& departmentsPath() const { return mDepartmentsPath; }
    fs::path configPath() const { return mInstallPath / "config"; }
    fs::path pluginsPath() const { return mInstallPath / "plugins"; }
    fs::path dataInstallPath() const { return mInstallPath / "data" / "install"; }
    // What XDG_CONFIG_HOME names: the user's application data folder of a POSIX host.
    fs::path applicationDataFolder() const { return root() / "appdata"; }
    // Where the library keeps the user's own data: in that folder on POSIX; on Windows, whose application data
    // folder is the shell's and cannot be moved, in a directory of this site's own there, named in sysinfo.dat.
    const fs::path& userDataDirectory() const { return mUserDataDirectory; }

    fs::path systemInfoFile() const { return configPath() / "sysinfo.dat"; }
    fs::path baseSettingsFile() const { return configPath() / "baseSettings.dat"; }
    fs::path siteSettingsFile(const std::string& suffix = "Nx4") const;

    // sysinfo.dat holding these keys (member names) and values, in this order; on Windows also the name of
    // the user data directory, unless given.
    void writeSystemInfo(const std::vector<std::pair<std::string, std::string>>& values) const;
    void writeBaseSettings(const Layer& layer) const;
    // The site settings file in the departments directory.
    void writeSiteSettings(const SiteFile& site, const std::string& suffix = "Nx4") const;
    // Makes the directory and writes its settings.dat; returns the directory.
    fs::path writePlugin(const fs::path& directory, const std::string& type, const Layer& layer = {}) const;
    // A plugin in the installation's plugins directory.
    fs::path addInternalPlugin(const std::string& name, const std::string& type = "Site-wide",
                               const Layer& layer = {}) const;

    // sysinfo.dat naming the current (nx4) and the previous (nx3) release directory.
    void writeReleaseNames() const;

    // The installation's version-files archive.
    fs::path versionFilesArchive() const { return dataInstallPath() / "versionFiles.tar.gz"; }
    // Makes it from these files (relative path, content).
    void writeVersionFiles(const std::vector<std::pair<std::string, std::string>>& files) const;

    // A department directory with its .dirinfo.plist; returns the directory.
    fs::path addDepartment(const std::string& name, const DepartmentProperties& properties = {}) const;
    // <department>/<release>/config/configSettings.dat, making the directories; returns the file.
    fs::path writeDepartmentSettings(const fs::path& department, const DepartmentSettings& settings,
                                     const std::string& release = "nx4") const;
    // An updated department: properties and settings of the current release.
    fs::path addUpdatedDepartment(const std::string& name, const DepartmentProperties& properties = {},
                                  const DepartmentSettings& settings = {}) const;

private:
    TempDir mRoot;
    fs::path mInstallPath;
    fs::path mDepartmentsPath;
    fs::path mUserDataDirectory;
    std::vector<std::unique_ptr<ScopedEnv>> mEnvironment;
};

} // namespace KymTest
