#include "support/Site.h"

#include "kym/BaseSettings.h"
#include "kym/Configuration.h"
#include "kym/ConfigurationSettings.h"
#include "kym/PluginSettings.h"
#include "kym/PluginsManager.h"
#include "kym/SiteSettings.h"

#include "base/Archiver.h"
#include "base/FileManager.h"
#include "base/PropertyList.h"

#include <boost/regex.hpp>

namespace KymTest {

std::vector<std::string> variableTexts(const std::vector<Kym::EnvironmentVariable>& variables) {
    std::vector<std::string> texts;
    for (const auto& variable : variables) texts.push_back(variable.name + "=" + variable.value);
    return texts;
}

void appendVariable(Kym::EnvVariableListSource* table, const std::string& name, const std::string& value) {
    table->insertRow(-1);
    table->setValueForListColumnRow("Name", table->numberOfRowsInList() - 1, name);
    table->setValueForListColumnRow("Value", table->numberOfRowsInList() - 1, value);
}

std::vector<std::string> columnTexts(const Base::DataSourceInterface& table, const std::string& column) {
    std::vector<std::string> texts;
    for (int row = 0; row < table.numberOfRowsInList(); ++row)
        texts.push_back(boost::any_cast<std::string>(table.valueForListColumnRow(column, row)));
    return texts;
}

std::vector<std::string> pluginNames() {
    Kym::PluginsManager& plugins = Kym::PluginsManagement();
    std::vector<std::string> names;
    for (int index = 0; index < plugins.numberOfPlugins(); ++index)
        names.push_back(plugins.plugin(index, false)->name() + " " + plugins.plugin(index, false)->pluginType());
    return names;
}

std::vector<std::string> archiveTopLevelKeys(const fs::path& file) {
    static const boost::regex element("<(/?)(?:dict|array)(/?)>|<key>([^<]*)</key>");
    const std::string text = readFile(file);
    std::vector<std::string> keys;
    int depth = 0;
    for (boost::sregex_iterator match(text.begin(), text.end(), element), end; match != end; ++match) {
        if ((*match)[3].matched) {
            if (depth == 1) keys.push_back((*match)[3].str());
        } else if ((*match)[2].length() == 0) {
            depth += (*match)[1].length() == 0 ? 1 : -1;
        }
    }
    return keys;
}

Kym::ConfigApplication makeApplication(const std::string& appId, const std::string& program,
                                       const std::string& description) {
    Kym::ConfigApplication application;
    application.appId = appId, application.program = program, application.description = description;
    return application;
}

Site::Site(Departments departments) : mInstallPath(mRoot / "kym") {
    for (const fs::path& directory : {configPath(), pluginsPath(), dataInstallPath(), applicationDataFolder()})
        fs::create_directories(directory);

    switch (departments) {
    case Departments::Sibling: mDepartmentsPath = root() / "ugsite"; break;
    case Departments::Variable: mDepartmentsPath = root() / "local" / "departments"; break;
    case Departments::None: break;
    }
    if (!mDepartmentsPath.empty()) fs::create_directories(mDepartmentsPath);

    mEnvironment.push_back(std::make_unique<ScopedEnv>("KYM_BASE_DIR", mInstallPath.string()));
    mEnvironment.push_back(std::make_unique<ScopedEnv>(
        "KYM_UGSITE_DIR",
        departments == Departments::Variable ? std::optional<std::string>(mDepartmentsPath.string()) : std::nullopt));
    mEnvironment.push_back(std::make_unique<ScopedEnv>("XDG_CONFIG_HOME", applicationDataFolder().string()));

#ifdef _WIN32
    // Each site its own, so that tests running side by side, and the user's own data, stay apart.
    mUserDataDirectory = Base::FileManager::applicationDataFolder() / fs::unique_path("kymtest-%%%%-%%%%-%%%%");
    writeSystemInfo({});
#else
    mUserDataDirectory = applicationDataFolder() / "nxkym";
#endif
}

Site::~Site() {
#ifdef _WIN32
    boost::system::error_code ignored;
    fs::remove_all(mUserDataDirectory, ignored);
#endif
}

fs::path Site::siteSettingsFile(const std::string& suffix) const {
    return mDepartmentsPath / ("site_settings" + suffix + ".dat");
}

void Site::writeSystemInfo(const std::vector<std::pair<std::string, std::string>>& values) const {
    Base::Archiver archive(systemInfoFile());
    bool userDataNamed = false;
    for (const auto& value : values) {
        archive.encode(value.first, value.second);
        userDataNamed = userDataNamed || value.first == "KymApplicationDataDirectoryName";
    }
#ifdef _WIN32
    if (!userDataNamed) archive.encode("KymApplicationDataDirectoryName", mUserDataDirectory.filename().string());
#else
    (void)userDataNamed;
#endif
    archive.finishEncoding();
}

void Site::writeBaseSettings(const Layer& layer) const {
    // Encoding marks the records saved, so copies are encoded.
    std::vector<Kym::ConfigApplication> applications = layer.applications;
    Base::Archiver archive(baseSettingsFile());
    archive.encodeObject(Kym::BaseSettings::CommonVariablesKey, layer.commonVariables);
    archive.encodeObject(Kym::BaseSettings::UnixVariablesKey, layer.unixVariables);
    archive.encodeObject(Kym::BaseSettings::WindowsVariablesKey, layer.windowsVariables);
    archive.encodeObject(Kym::BaseSettings::ApplicationListKey, applications);
    archive.finishEncoding();
}

void Site::writeSiteSettings(const SiteFile& site, const std::string& suffix) const {
    using Kym::SiteSettings;
    Base::Archiver archive(siteSettingsFile(suffix));
    archive.encodeObject(SiteSettings::UnixNXInstallPathKey, site.unixNXInstallPath);
    archive.encodeObject(SiteSettings::WindowsNXInstallPathKey, site.winNXInstallPath);
    archive.encodeObject(SiteSettings::UnixTcEngInstallPathKey, site.unixTcEngInstallPath);
    archive.encodeObject(SiteSettings::WindowsTcEngInstallPathKey, site.winTcEngInstallPath);
    archive.encodeObject(SiteSettings::UnixPortalInstallPathKey, site.unixPortalInstallPath);
    archive.encodeObject(SiteSettings::WindowsPortalInstallPathKey, site.winPortalInstallPath);
    archive.encodeObject(SiteSettings::BrowserKey, site.browser);
    archive.encode(SiteSettings::UseWindowsRegistryKey, site.useWindowsRegistry);
    archive.encodeObject(SiteSettings::CommonVariablesKey, site.commonVariables);
    archive.encodeObject(SiteSettings::UnixVariablesKey, site.unixVariables);
    archive.encodeObject(SiteSettings::WindowsVariablesKey, site.windowsVariables);
    archive.encodeObject(SiteSettings::UnixPlotConfBaseKey, site.unixPlotConfBase);
    archive.encodeObject(SiteSettings::WindowsPlotConfBaseKey, site.winPlotConfBase);
    archive.encode(SiteSettings::UnixExternalPluginsLocationKey, site.unixExternalPluginsLocation);
    archive.encode(SiteSettings::WindowsExternalPluginsLocationKey, site.winExternalPluginsLocation);
    archive.finishEncoding();
}

fs::path Site::writePlugin(const fs::path& directory, const std::string& type, const Layer& layer) const {
    using Kym::PluginSettings;
    fs::create_directories(directory);
    std::vector<Kym::ConfigApplication> applications = layer.applications;
    Base::Archiver archive(directory / PluginSettings::DataFileName);
    archive.encode(PluginSettings::PluginTypeKey, type);
    archive.encodeObject(PluginSettings::CommonVariablesKey, layer.commonVariables);
    archive.encodeObject(PluginSettings::UnixVariablesKey, layer.unixVariables);
    archive.encodeObject(PluginSettings::WindowsVariablesKey, layer.windowsVariables);
    archive.encodeObject(PluginSettings::ApplicationListKey, applications);
    archive.finishEncoding();
    return directory;
}

fs::path Site::addInternalPlugin(const std::string& name, const std::string& type, const Layer& layer) const {
    return writePlugin(pluginsPath() / name, type, layer);
}

void Site::writeReleaseNames() const {
    writeSystemInfo({{"CadVersionDirectory", "nx4"}, {"PreviousCadVersionDirectory", "nx3"}});
}

void Site::writeVersionFiles(const std::vector<std::pair<std::string, std::string>>& files) const {
    TempDir content;
    for (const auto& file : files) writeFile(content / file.first, file.second);
    makeTarGz(versionFilesArchive(), content.path());
}

fs::path Site::addDepartment(const std::string& name, const DepartmentProperties& properties) const {
    const fs::path department = mDepartmentsPath / name;
    fs::create_directories(department);
    using Kym::Configuration;
    Base::PropertyList list;
    list.setFile(department / Configuration::PropertyFileName);
    list.setProperty(Configuration::DescriptionKey, properties.description);
    list.setProperty(Configuration::TypeKey, properties.type);
    list.setProperty(Configuration::CommonDepartmentKey, properties.commonDepartment);
    list.setProperty(Configuration::DoFileCleanupKey, properties.doFileCleanup);
    list.setProperty(Configuration::CleanupDaysKey, properties.cleanupDays);
    list.saveList();
    return department;
}

fs::path Site::writeDepartmentSettings(const fs::path& department, const DepartmentSettings& settings,
                                       const std::string& release) const {
    using Kym::ConfigurationSettings;
    const fs::path file = department / release / "config" / "configSettings.dat";
    fs::create_directories(file.parent_path());
    std::vector<Kym::ConfigApplication> applications = settings.layer.applications;
    Base::Archiver archive(file);
    archive.encodeObject(ConfigurationSettings::WorkDirectoryListKey, settings.workDirectories);
    archive.encodeObject(ConfigurationSettings::CommonVariablesKey, settings.layer.commonVariables);
    archive.encodeObject(ConfigurationSettings::UnixVariablesKey, settings.layer.unixVariables);
    archive.encodeObject(ConfigurationSettings::WindowsVariablesKey, settings.layer.windowsVariables);
    archive.encode(ConfigurationSettings::DisabledPluginsKey, settings.disabledPlugins);
    archive.encodeObject(ConfigurationSettings::ApplicationListKey, applications);
    archive.encodeObject(ConfigurationSettings::ApplicationOverlayListKey, settings.overlays);
    archive.finishEncoding();
    return file;
}

fs::path Site::addUpdatedDepartment(const std::string& name, const DepartmentProperties& properties,
                                    const DepartmentSettings& settings) const {
    const fs::path department = addDepartment(name, properties);
    writeDepartmentSettings(department, settings);
    return department;
}

} // namespace KymTest
