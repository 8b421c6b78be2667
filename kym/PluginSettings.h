// One plugin: a directory whose settings.dat contributes variables and
// applications to the departments of its type ("Site-wide": to all).
#pragma once

#include "kym/ConfigApplication.h"
#include "kym/EnvironmentVariable.h"
#include "kym/KymExport.h"
#include "kym/SettingsProtocol.h"

#include "base/SettingsFile.h"

#include <boost/filesystem/path.hpp>
#include <string>
#include <vector>

namespace Kym {

class KYM_EXPORT PluginSettings : public SettingsProtocol {
public:
    // The archive keys, in the order they are written.
    static constexpr const char* PluginTypeKey = "Plugin Type";
    static constexpr const char* CommonVariablesKey = "Common Variables";
    static constexpr const char* UnixVariablesKey = "Unix Variables";
    static constexpr const char* WindowsVariablesKey = "Windows Variables";
    static constexpr const char* ApplicationListKey = "Application List";
    // Kept by the department settings, not by a plugin.
    static constexpr const char* DisabledPluginsKey = "Disabled Plugins";
    static constexpr const char* SiteWideType = "Site-wide";
    static constexpr const char* DataFileName = "settings.dat";

    // Defaults, then the directory's settings.dat loaded (a damaged one throws).
    explicit PluginSettings(const boost::filesystem::path& dir);
    PluginSettings(const PluginSettings& other);
    PluginSettings(PluginSettings&& other) noexcept;
    PluginSettings& operator=(const PluginSettings& other);
    PluginSettings& operator=(PluginSettings&& other) noexcept;
    ~PluginSettings() override;

    // The directory's leaf name and the directory.
    std::string name() const;
    boost::filesystem::path path() const { return mDirectory; }
    const boost::filesystem::path& dataFile() const { return mDataFile.path(); }
    const Base::SettingsFile& settingsFile() const { return mDataFile; }

    const std::string& pluginType() const { return mPluginType; }
    void setPluginType(const std::string& type) { mPluginType = type; }

    // A damaged settings.dat throws, leaves the plugin as it was and is never saved over.
    void load();
    // Rewrites settings.dat when needsSaving(). The mark of setNeedsSaving
    // survives: such a plugin is written again at every save until it is
    // cleared. Refused, with nothing written and the marks kept, when the
    // file failed to load (Base::SettingsFileDamaged) or another writer
    // changed it since it was loaded (Base::SettingsFileChanged).
    void save();
    // Rewrites settings.dat whatever it holds now, keeping a copy of a file
    // that failed to load or was changed; returns that copy (or an empty path).
    boost::filesystem::path overwrite();
    bool needsSaving() const;
    void setNeedsSaving(bool needsSaving) { mNeedsSaving = needsSaving; }

    // The configuration name of a plugin's applications and of the overlays of them.
    static std::string configurationNameFor(const std::string& pluginName) { return pluginName + " Plugin"; }
    // Every application stamped with configurationNameFor(name()).
    const std::vector<ConfigApplication>& applicationList();
    ApplicationListSource* applications();

    void mergeEnvVariables(std::vector<EnvironmentVariable>& vars) const;

private:
    // The registry moves a plugin's directory and points the plugin there.
    friend class PluginsManager;
    void setPath(const boost::filesystem::path& dir);

    std::string encoded() const;
    void clearListMarks();

    std::string mPluginType;
    std::vector<ConfigApplication> mApplications;
    Base::SettingsFile mDataFile;
    boost::filesystem::path mDirectory;
    ApplicationListSource mApplicationSource;
    bool mNeedsSaving;
};

} // namespace Kym
