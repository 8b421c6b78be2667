// What one department keeps per CAD release (config/configSettings.dat in
// its version directory): variables, work directories, applications,
// overlays for applications it does not own, and the plugins it switches
// off; with the table models the editor edits them through.
#pragma once

#include "kym/ApplicationOverlay.h"
#include "kym/ConfigApplication.h"
#include "kym/EnvironmentVariable.h"
#include "kym/KymExport.h"
#include "kym/SettingsProtocol.h"

#include "base/SettingsFile.h"
#include "kym/WorkDirectory.h"

#include "base/DataSourceInterface.h"

#include <boost/any.hpp>
#include <boost/filesystem/path.hpp>
#include <string>
#include <vector>

namespace Kym {

// One row per plugin known when the table was made, and a check column that
// tells whether the department switches the plugin off.
class KYM_EXPORT DisablePluginSource : public Base::DataSourceInterface {
public:
    explicit DisablePluginSource(std::vector<std::string>* list = nullptr);
    DisablePluginSource(const DisablePluginSource&) = default;
    DisablePluginSource& operator=(const DisablePluginSource&) = default;

    void setList(std::vector<std::string>* list) { mList = list; }
    bool isNull() const { return mList == nullptr; }
    bool isEdited() const { return mEdited; }
    void setEdited(bool edited) { mEdited = edited; }

    int numberOfRowsInList() const override;
    boost::any valueForListColumnRow(const std::string& column, int row) const override;
    bool setValueForListColumnRow(const std::string& column, int row, const boost::any& value) override;

private:
    std::vector<std::string>* mList;
    std::vector<boost::filesystem::path> mPluginPaths;
    bool mEdited;
};

class KYM_EXPORT ConfigurationSettings : public SettingsProtocol {
public:
    // The archive keys, in the order they are written.
    static constexpr const char* WorkDirectoryListKey = "Work Directory List";
    static constexpr const char* CommonVariablesKey = "Common Variables";
    static constexpr const char* UnixVariablesKey = "Unix Variables";
    static constexpr const char* WindowsVariablesKey = "Windows Variables";
    static constexpr const char* DisabledPluginsKey = "Disabled Plugins";
    static constexpr const char* ApplicationListKey = "Application List";
    static constexpr const char* ApplicationOverlayListKey = "Application Overlay List";

    ConfigurationSettings();
    ConfigurationSettings(const ConfigurationSettings& other);
    ConfigurationSettings& operator=(const ConfigurationSettings& other);
    ~ConfigurationSettings() override;

    void setDataFile(const boost::filesystem::path& file) { mDataFile.setPath(file); }
    const boost::filesystem::path& dataFile() const { return mDataFile.path(); }
    const Base::SettingsFile& settingsFile() const { return mDataFile; }

    // Quiet: a damaged file leaves what was read before the fault and the
    // rest as it was, and the department opens; such a file, or one that is
    // not readable, is never saved over.
    void load();
    // Rewrites the file when something was edited. Refused, with nothing
    // written and the marks kept, when the file failed to load
    // (Base::SettingsFileDamaged) or another writer changed it since it was
    // loaded (Base::SettingsFileChanged).
    void save();
    // Rewrites the file whatever it holds now, keeping a copy of a file that
    // failed to load or was changed; returns that copy (or an empty path).
    boost::filesystem::path overwrite();
    bool needsSaving() const;
    void setNeedsSaving(bool needsSaving) { mNeedsSaving = needsSaving; }

    // Every application stamped with the given configuration name.
    const std::vector<ConfigApplication>& applicationList(const std::string& configurationName);
    // Table models bound afresh to this object's lists at every call.
    ApplicationListSource* applications();
    WorkDirectoryListSource* workDirectories();
    DisablePluginSource* disablePlugins();

    const std::vector<WorkDirectory>& workDirectoryList() const { return mWorkDirectories; }
    const std::vector<ApplicationOverlay>& overlays() const { return mOverlays; }
    const std::vector<std::string>& disabledPluginList() const { return mDisabledPlugins; }

    bool isPluginDisabled(const std::string& plugin) const;
    bool hasOverlay(const std::string& configurationName, const std::string& applicationId);
    ApplicationOverlay getOverlay(const std::string& configurationName, const std::string& applicationId);
    void setOverlay(const ApplicationOverlay& overlay);
    void removeOverlay(const std::string& configurationName, const std::string& applicationId);
    // Whether the plugin is among the disabled ones or an overlay is of one of its applications.
    bool namesPlugin(const std::string& plugin) const;
    // Makes the plugin's entry among the disabled plugins and the overlays of
    // its applications name it by its new name; whether anything changed.
    bool renamePluginReferences(const std::string& from, const std::string& to);

    void mergeEnvVariables(std::vector<EnvironmentVariable>& vars) const;

private:
    std::string encoded() const;
    void clearMarks();

    std::vector<WorkDirectory> mWorkDirectories;
    std::vector<ConfigApplication> mApplications;
    std::vector<ApplicationOverlay> mOverlays;
    std::vector<std::string> mDisabledPlugins;
    Base::SettingsFile mDataFile;
    WorkDirectoryListSource mWorkDirectorySource;
    DisablePluginSource mDisablePluginSource;
    ApplicationListSource mApplicationSource;
    bool mNeedsSaving;
};

} // namespace Kym
