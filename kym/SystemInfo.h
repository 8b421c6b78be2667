// What the library must know about the machine and the CAD release it
// serves: the release's named constants (persisted in config/sysinfo.dat of
// the installation, each under its own member name) and three discovered
// locations: the installation, the user's data directory and the local
// departments directory ("ugsite").
#pragma once

#include "kym/KymExport.h"

#include "base/SettingsFile.h"

#include <boost/filesystem/path.hpp>
#include <string>

namespace Kym {

class KYM_EXPORT SystemInfo {
public:
    // Every member set to its default, then sysinfo.dat loaded; throws when
    // KYM_BASE_DIR is unset or names no directory.
    SystemInfo();
    SystemInfo(const SystemInfo&) = default;
    SystemInfo& operator=(const SystemInfo&) = default;
    ~SystemInfo() = default;

    // A missing, unreadable or damaged file leaves the defaults (a damaged
    // one: the members read before the fault keep what was read); an
    // unreadable or damaged one is never saved over.
    void load();
    // Writes the file when settingsChanged() was called since the last save.
    // Refused, with nothing written and the mark kept, when the file failed
    // to load (Base::SettingsFileDamaged) or another writer changed it since
    // it was loaded (Base::SettingsFileChanged).
    void save();
    // Writes the file whatever it holds now, keeping a copy of a file that
    // failed to load or was changed; returns that copy (or an empty path).
    boost::filesystem::path overwrite();
    bool needsSaving() const { return mSettingsChanged; }
    void settingsChanged() { mSettingsChanged = true; }
    const boost::filesystem::path& dataFile() const { return mDataFile.path(); }
    const Base::SettingsFile& settingsFile() const { return mDataFile; }

    // The locations, each determined once per process.
    // The expanded KYM_BASE_DIR, read at the first call.
    static const boost::filesystem::path& installPath();
    // The user's application data folder / KymApplicationDataDirectoryName, created when missing.
    const boost::filesystem::path& applicationDataPath() const;
    // KymConfigPathEnvVarName's directory, else "ugsite" beside the
    // installation, else KymConfigFallbackDirectoryName inside it.
    const boost::filesystem::path& localDepartmentsPath() const;
    // Names of the active launch conventions ("win64"/"bat" or "lnx64"/"sh").
    static const std::string& osDirectoryName();
    static const std::string& osaDirectoryName();
    static const std::string& scriptExtension();

    std::string CadProductName;
    std::string CadSupportedVersionString;
    std::string KymVersionString;
    std::string CadVersionDirectory;
    std::string PreviousCadVersionDirectory;
    std::string KymConfigPathEnvVarName;
    std::string KymConfigFallbackDirectoryName;
    std::string KymApplicationDataDirectoryName;
    std::string BroadcastDirectoryName;
    std::string BroadcastStartMessage;
    std::string SiteSettingsSuffix;
    std::string CadWindowsRegistryPath;
    std::string CadInstallPathVariable;
    std::string CadWebBrowserVariable;
    std::string tcEngInstallPathVariable;
    std::string tcEngDatabaseVariable;
    std::string CadVersionDataFilename;

private:
    bool mSettingsChanged;
    std::string encoded() const;

    Base::SettingsFile mDataFile;
};

// The process-wide store, created and loaded at the first call.
KYM_EXPORT SystemInfo& SystemInformation();

} // namespace Kym
