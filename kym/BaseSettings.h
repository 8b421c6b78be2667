// The installation's own settings layer: the variables and applications
// that every site, department and user gets, kept in config/baseSettings.dat
// of the installation.
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

class KYM_EXPORT BaseSettings : public SettingsProtocol {
public:
    // The archive keys, in the order they are written.
    static constexpr const char* CommonVariablesKey = "Common Variables";
    static constexpr const char* UnixVariablesKey = "Unix Variables";
    static constexpr const char* WindowsVariablesKey = "Windows Variables";
    static constexpr const char* ApplicationListKey = "Application List";

    // Empty lists, then the file loaded; brings SystemInformation() into existence.
    BaseSettings();
    BaseSettings(const BaseSettings& other);
    BaseSettings& operator=(const BaseSettings& other);
    ~BaseSettings() override;

    // Replaces the lists from the file; a missing file changes nothing, a
    // damaged one throws and leaves the lists as they were (and no save
    // writes over it).
    void load();
    // Rewrites the whole file when something was edited. Refused, with
    // nothing written and every mark kept, when the file failed to load
    // (Base::SettingsFileDamaged) or another writer changed it since it was
    // loaded (Base::SettingsFileChanged): load again and repeat the edits, or
    // overwrite.
    void save();
    // Rewrites the whole file whatever it holds now, keeping a copy of a file
    // that failed to load or was changed; returns that copy (or an empty path).
    boost::filesystem::path overwrite();
    bool needsSaving() const;
    const boost::filesystem::path& dataFile() const { return mDataFile.path(); }
    // Where the base settings are kept: config/baseSettings.dat of the installation.
    static boost::filesystem::path standardDataFile();
    const Base::SettingsFile& settingsFile() const { return mDataFile; }

    void mergeEnvVariables(std::vector<EnvironmentVariable>& vars) const;

    // Every application stamped with the configuration name "Base KYM".
    const std::vector<ConfigApplication>& applicationList();
    ApplicationListSource* applications();

private:
    std::string encoded() const;
    void clearMarks();

    std::vector<ConfigApplication> mApplications;
    Base::SettingsFile mDataFile;
    ApplicationListSource mApplicationSource;
};

// The process-wide store, created and loaded at the first call.
KYM_EXPORT BaseSettings& BaseInformation();

} // namespace Kym
