// The site's settings layer: where the CAD system, Teamcenter, the portal
// and the plot configuration are installed (for Unix and for Windows
// clients), whether the CAD install path comes from the registry, the
// site's own variables and the directories of external plugins. Kept in
// site_settings<suffix>.dat in the local departments directory.
#pragma once

#include "kym/EnvironmentVariable.h"
#include "kym/KymExport.h"
#include "kym/SettingsProtocol.h"

#include "base/SettingsFile.h"

#include <boost/filesystem/path.hpp>
#include <string>
#include <vector>

namespace Kym {

class KYM_EXPORT SiteSettings : public SettingsProtocol {
public:
    // The archive keys, in the order they are written.
    static constexpr const char* UnixNXInstallPathKey = "UNIX NX Install Path Key";
    static constexpr const char* WindowsNXInstallPathKey = "Windows NX Install Path Key";
    static constexpr const char* UnixTcEngInstallPathKey = "UNIX TcEng Install Path Key";
    static constexpr const char* WindowsTcEngInstallPathKey = "Windows TcEng Install Path Key";
    static constexpr const char* UnixPortalInstallPathKey = "UNIX Portal Install Path Key";
    static constexpr const char* WindowsPortalInstallPathKey = "Windows Portal Install Path Key";
    static constexpr const char* BrowserKey = "UNIX Browser Key";
    static constexpr const char* UseWindowsRegistryKey = "Use Windows Registry Key";
    static constexpr const char* CommonVariablesKey = "Common Environment Variables Key";
    static constexpr const char* UnixVariablesKey = "Unix Environment Variables Key";
    static constexpr const char* WindowsVariablesKey = "Windows Environment Variables Key";
    static constexpr const char* UnixPlotConfBaseKey = "Unix NX Plot Conf Directory Base Key";
    static constexpr const char* WindowsPlotConfBaseKey = "Windows NX Plot Conf Directory Base Key";
    static constexpr const char* UnixExternalPluginsLocationKey = "Unix External Plugins Location Key";
    static constexpr const char* WindowsExternalPluginsLocationKey = "Windows External Plugins Location Key";

    // Defaults, then the file loaded and the external plugins of the active
    // launch conventions' location registered with PluginsManagement().
    SiteSettings();
    SiteSettings(const SiteSettings&) = default;
    SiteSettings& operator=(const SiteSettings&) = default;
    ~SiteSettings() override;

    // A missing file keeps the defaults; a damaged one throws, changes
    // nothing and is never saved over.
    void load();
    // Rewrites the whole file when something was edited. Refused, with
    // nothing written and the marks kept, when the file failed to load
    // (Base::SettingsFileDamaged) or another writer changed it since it was
    // loaded (Base::SettingsFileChanged).
    void save();
    // Rewrites the file whatever it holds now, keeping a copy of a file that
    // failed to load or was changed; returns that copy (or an empty path).
    boost::filesystem::path overwrite();
    bool needsSaving() const;
    // To be called after any edit outside the three variable lists.
    void settingsChanged() { mSettingsChanged = true; }
    boost::filesystem::path dataFile() const { return standardDataFile(); }
    // Where the site settings are kept, named by the system information.
    static boost::filesystem::path standardDataFile();
    const Base::SettingsFile& settingsFile() const { return mDataFile; }

    // The site's variables for a launch, after the process environment.
    void mergeEnvVariables(std::vector<EnvironmentVariable>& vars) const;

    // The browser handed to the CAD application. Windows conventions: the
    // short form of "${PROGRAMFILES}\Internet Explorer\iexplore.exe", or its
    // long form when it has no short one (the file is missing). POSIX
    // conventions: the browser member, expanded, or "/usr/bin/xdg-open".
    std::string getWebBrowser() const;

    // The stored values. The variable names are fixed by the system
    // information; setting a value does not mark the store: call settingsChanged().
    const EnvironmentVariable& unixNXInstallPath() const { return mUnixNXInstallPath; }
    const EnvironmentVariable& winNXInstallPath() const { return mWinNXInstallPath; }
    const EnvironmentVariable& unixTcEngInstallPath() const { return mUnixTcEngInstallPath; }
    const EnvironmentVariable& winTcEngInstallPath() const { return mWinTcEngInstallPath; }
    const EnvironmentVariable& unixPortalInstallPath() const { return mUnixPortalInstallPath; }
    const EnvironmentVariable& winPortalInstallPath() const { return mWinPortalInstallPath; }
    const EnvironmentVariable& browser() const { return mBrowser; }
    const EnvironmentVariable& unixPlotConfBase() const { return mUnixPlotConfBase; }
    const EnvironmentVariable& winPlotConfBase() const { return mWinPlotConfBase; }
    bool useWindowsRegistry() const { return mUseWindowsRegistry; }
    const std::string& unixExternalPluginsLocation() const { return mUnixExternalPluginsLocation; }
    const std::string& winExternalPluginsLocation() const { return mWinExternalPluginsLocation; }

    void setUnixNXInstallPath(const std::string& value) { mUnixNXInstallPath.value = value; }
    void setWinNXInstallPath(const std::string& value) { mWinNXInstallPath.value = value; }
    void setUnixTcEngInstallPath(const std::string& value) { mUnixTcEngInstallPath.value = value; }
    void setWinTcEngInstallPath(const std::string& value) { mWinTcEngInstallPath.value = value; }
    void setUnixPortalInstallPath(const std::string& value) { mUnixPortalInstallPath.value = value; }
    void setWinPortalInstallPath(const std::string& value) { mWinPortalInstallPath.value = value; }
    void setBrowser(const std::string& value) { mBrowser.value = value; }
    void setUnixPlotConfBase(const std::string& value) { mUnixPlotConfBase.value = value; }
    void setWinPlotConfBase(const std::string& value) { mWinPlotConfBase.value = value; }
    void setUseWindowsRegistry(bool use) { mUseWindowsRegistry = use; }
    void setUnixExternalPluginsLocation(const std::string& location) { mUnixExternalPluginsLocation = location; }
    void setWinExternalPluginsLocation(const std::string& location) { mWinExternalPluginsLocation = location; }

private:
    std::string datafilename() const;
    void updateVarNames();
    void initializeExternalPlugins();
    void addExternalPlugin(const boost::filesystem::path& dir);
    std::string registryInstallPath() const;
    void decodeFrom(const boost::filesystem::path& file);
    std::string encoded() const;

    EnvironmentVariable mUnixNXInstallPath;
    EnvironmentVariable mWinNXInstallPath;
    EnvironmentVariable mUnixTcEngInstallPath;
    EnvironmentVariable mWinTcEngInstallPath;
    EnvironmentVariable mUnixPortalInstallPath;
    EnvironmentVariable mWinPortalInstallPath;
    EnvironmentVariable mBrowser;
    EnvironmentVariable mUnixPlotConfBase;
    EnvironmentVariable mWinPlotConfBase;
    bool mUseWindowsRegistry;
    std::string mUnixExternalPluginsLocation;
    std::string mWinExternalPluginsLocation;
    bool mSettingsChanged;
    Base::SettingsFile mDataFile;
};

// The process-wide store, created and loaded at the first call.
KYM_EXPORT SiteSettings& SiteInformation();

} // namespace Kym
