// One launchable CAD application with its own variable lists, and the table
// model the editor shows a list of applications through.
#pragma once

#include "kym/EnvironmentVariable.h"
#include "kym/KymExport.h"
#include "kym/SettingsProtocol.h"

#include <string>
#include <vector>

namespace Kym {

class KYM_EXPORT ConfigApplication : public SettingsProtocol {
public:
    static constexpr const char* DefaultAppId = "ChangeMyAppID";

    ConfigApplication();
    ConfigApplication(const ConfigApplication&) = default;
    ConfigApplication& operator=(const ConfigApplication&) = default;
    ConfigApplication(ConfigApplication&&) noexcept = default;
    ConfigApplication& operator=(ConfigApplication&&) noexcept = default;
    ~ConfigApplication() override;

    // Stamped by the configuration or plugin that hands out the list; never archived.
    std::string configurationName() const { return mConfigurationName; }
    void setConfigurationName(const std::string& name);

    // True when one of the variable lists was edited; edits of the
    // application's own fields mark the application list instead.
    bool needsSaving() const;

    // Merges the application's variables, then puts the CAD library
    // directory in front of PATH when addUGLibsToPath asks for it.
    void mergeEnvVariables(std::vector<EnvironmentVariable>& list) const;

    void encode(Base::Archiver& archiver);
    void decode(Base::Unarchiver& unarchiver);

    std::string appId;
    std::string description;
    std::string category;
    std::string program;
    std::string arguments;
    bool addUGLibsToPath;
    bool disableCustomization;
    bool disableApplication;
    PlatformType platform;

private:
    std::string mConfigurationName;
};

// By category, then description, byte-wise; for programs that show lists.
KYM_EXPORT bool operator<(const ConfigApplication& left, const ConfigApplication& right);

// Columns "Disable", "AppID", "Category", "Description", "Executable",
// "Arguments", "AddNXLibs", "NoCustom"; booleans read "True"/"False".
class KYM_EXPORT ApplicationListSource : public RecordListSource<ConfigApplication> {
public:
    explicit ApplicationListSource(std::vector<ConfigApplication>* list = nullptr);

    boost::any valueForListColumnRow(const std::string& column, int row) const override;
    bool setValueForListColumnRow(const std::string& column, int row, const boost::any& value) override;

    // Reports an index out of range through the assertion facility, then throws std::out_of_range.
    ConfigApplication& application(int index);
    // The table models of one application's lists; null when no list is shown.
    EnvVariableListSource* commonVariables(int index);
    EnvVariableListSource* unixVariables(int index);
    EnvVariableListSource* winVariables(int index);
};

} // namespace Kym
