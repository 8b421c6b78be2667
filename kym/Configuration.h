// One department: a directory with its properties (.dirinfo.plist) and, per
// CAD release, a version directory holding the department's settings and
// the files unpacked from the installation's version-files archive.
#pragma once

#include "kym/ConfigApplication.h"
#include "kym/ConfigurationSettings.h"
#include "kym/EnvironmentVariable.h"
#include "kym/KymExport.h"

#include "base/BaseException.h"
#include "base/SettingsFile.h"

#include <boost/filesystem/path.hpp>
#include <cstdint>
#include <string>
#include <vector>

namespace Base {
class PropertyList;
}

namespace Kym {

// A directory that is not a department (no readable .dirinfo.plist).
class KYM_EXPORT InvalidConfiguration : public Base::BaseException {
public:
    explicit InvalidConfiguration(const std::string& message) : Base::BaseException(message) {}
};

class KYM_EXPORT Configuration {
public:
    // The property file and its keys.
    static constexpr const char* PropertyFileName = ".dirinfo.plist";
    static constexpr const char* DescriptionKey = "Description";
    static constexpr const char* TypeKey = "Type";
    static constexpr const char* CommonDepartmentKey = "Common Department";
    static constexpr const char* DoFileCleanupKey = "Do File Cleanup Key";
    static constexpr const char* CleanupDaysKey = "Cleanup Days Key";
    // Reserved: neither read nor written.
    static constexpr const char* EnvironmentSettingsKey = "Environment Settings Key";

    // With load, reads the properties (and the settings of an updated
    // department); without, a new department that needs saving.
    Configuration(const boost::filesystem::path& dir, bool load);
    Configuration(const Configuration&) = default;
    Configuration& operator=(const Configuration&) = default;
    ~Configuration();

    // The directory's leaf name.
    std::string name() const;
    boost::filesystem::path path() const { return mPath; }
    void setPath(const boost::filesystem::path& dir);
    boost::filesystem::path versionPath() const;
    bool isUpdated() const;
    bool isWin64Updated() const;
    // The common department's directory; this department's own when it names none.
    boost::filesystem::path commonConfigPath() const;
    boost::filesystem::path commonConfigVersionPath() const;

    void load();
    // Writes the properties and, in an updated department, the settings:
    // both or neither. Refused, with nothing written and the marks kept, when
    // either file failed to load (Base::SettingsFileDamaged) or another
    // writer changed it since it was loaded (Base::SettingsFileChanged).
    void save();
    // Writes both whatever they hold now, keeping a copy of each that failed
    // to load or was changed; returns those copies.
    std::vector<boost::filesystem::path> overwrite();
    bool needsSaving() const;
    const Base::SettingsFile& propertiesFile() const { return mProperties; }
    // Replaces a property file that cannot be read with the default
    // properties, the directory's name as description, keeping a copy of it;
    // returns the copy.
    static boost::filesystem::path replaceProperties(const boost::filesystem::path& dir);
    void setNeedsSaving(bool needsSaving) { mNeedsSaving = needsSaving; }

    bool isPluginDisabled(const std::string& plugin) const;
    void mergeEnvVariables(std::vector<EnvironmentVariable>& vars) const;
    const std::vector<ConfigApplication>& applicationList();

    void loadProperties();
    void saveProperties();
    // Makes the version directory of the current release from the
    // installation's version-files archive; nothing is left of it on failure.
    void createNXVersionDirectory();
    void createWin64VersionDirectory();

    ConfigurationSettings* settings() { return &mSettings; }
    const ConfigurationSettings* settings() const { return &mSettings; }

    // The persisted properties; a writer calls setNeedsSaving(true).
    std::string description;
    std::string type;
    std::string commonDepartment;
    bool doFileCleanup;
    std::uint32_t cleanupDays;

private:
    void readProperties(const Base::PropertyList& properties);
    std::string encodedProperties() const;

    boost::filesystem::path mPath;
    Base::SettingsFile mProperties;
    ConfigurationSettings mSettings;
    bool mNeedsSaving;
};

// By description, byte-wise.
KYM_EXPORT bool operator<(const Configuration& left, const Configuration& right);

} // namespace Kym
