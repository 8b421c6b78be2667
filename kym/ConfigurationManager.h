// The departments found in the local departments directory: which one the
// running process belongs to, and creating, renaming and deleting them on
// disk. Also the one-column table (the department names) of the editor.
#pragma once

#include "kym/Configuration.h"
#include "kym/KymExport.h"

#include "base/DataSourceInterface.h"
#include "base/NameFilter.h"
#include "base/range/iterator_range.h"

#include <boost/any.hpp>
#include <boost/filesystem/path.hpp>
#include <functional>
#include <string>
#include <vector>

namespace Kym {

class KYM_EXPORT ConfigurationManager : public Base::DataSourceInterface {
public:
    using CommonConfigurationRange =
        Base::range::filtered_range<const std::vector<Configuration>, Base::NameFilter<Configuration>>;

    // Every department starts with this directory name until it is renamed.
    static constexpr const char* NewConfigurationName = "change_me";

    // Scans the local departments directory; throws when there is none.
    ConfigurationManager();
    ConfigurationManager(const ConfigurationManager&) = default;
    ConfigurationManager& operator=(const ConfigurationManager&) = default;
    ~ConfigurationManager();

    // Pointers are valid until the list changes. A bad index or an empty
    // name is reported through the assertion facility; a bad index then throws.
    Configuration* configuration(int index);
    int numberOfConfigurations() const { return static_cast<int>(mConfigurations.size()); }
    Configuration* configurationByName(const std::string& name);
    const Configuration* configurationByName(const std::string& name) const;
    const Configuration* configurationByPath(const boost::filesystem::path& p) const;
    // The department named by KYM_DEPT_DIR; null when it is unset or unknown.
    const Configuration* currentConfiguration() const;

    // Updated departments whose type fully matches the Perl pattern, by description.
    std::vector<Configuration> configurationList(const std::string& typePattern) const;
    // The departments of type "Common", in list order; a view, not a copy.
    CommonConfigurationRange commonConfigurations() const;
    const std::vector<std::string>& availableTypes() const;

    // Makes the department NAME in a hidden work directory of the departments
    // directory: its directory, the version directory of the current release,
    // whatever prepare sets, and its properties and settings saved. Moving it
    // into place is the last step, so other readers see it whole or not at
    // all. Throws when the name is no department name or is taken; on any
    // failure, prepare's included, only the work directory is removed.
    // Returns the new department, the last of the list.
    Configuration& createConfiguration(const std::string& name,
                                       const std::function<void(Configuration&)>& prepare = {});
    // Makes NewConfigurationName as it comes, the same way.
    void createConfiguration();
    // Moves the directory; a failure leaves everything as it was.
    void renameConfiguration(int index, const std::string& newName);
    // Renames the department and makes the departments that name it as their
    // common department name the new one. Their files are locked and checked
    // before anything moves; when a save fails, those already written are put
    // back, the directory moves back, and the save's error is thrown. Returns
    // the names of those departments.
    std::vector<std::string> renameConfigurationWithDependents(int index, const std::string& newName);
    // Renames the plugin of the registry (PluginsManager::renamePlugin) and,
    // in every updated department, its entry among the disabled plugins and
    // the overlays of its applications. Every department's settings file is
    // locked and checked first: one that did not read or that another writer
    // changed stops the rename before anything moves. When a save fails,
    // those already written are put back, the directory moves back, and the
    // save's error is thrown. Returns the names of the departments changed.
    std::vector<std::string> renamePluginWithDependents(const std::string& name, const std::string& newName);
    // Takes the directory out of the departments in one step (into a hidden
    // work directory), then removes it with all releases. A removal that
    // fails is logged and leaves that work directory, which is returned
    // (else an empty path).
    boost::filesystem::path deleteConfiguration(int index);
    // Whether an entry of the departments directory is the work directory of
    // a create or delete, running or interrupted; no scan lists one.
    static bool isWorkDirectoryName(const std::string& name);
    // Throws when the name cannot be a department's: empty, "." or "..", or
    // holding a blank, '/' or '\\'.
    static void checkDepartmentName(const std::string& name);

    bool anyNeedsSaving() const;
    void saveDirty();
    // Whether the departments directory is the installation's fallback one.
    bool usingFallbackConfigurations() const;

    int numberOfRowsInList() const override;
    boost::any valueForListColumnRow(const std::string& column, int row) const override;
    // Renames; a name with whitespace or a failed rename is logged and refused.
    bool setValueForListColumnRow(const std::string& column, int row, const boost::any& value) override;
    // Rows come and go only through create and delete.
    void insertRow(int row) override;
    void deleteRows(const std::vector<int>& rows) override;

private:
    void initialize();
    void addValidConfiguration(const boost::filesystem::path& entry);
    // Reports a bad index for the named operation, then throws std::out_of_range.
    void checkIndex(int index, const char* function) const;

    std::vector<Configuration> mConfigurations;
};

} // namespace Kym
