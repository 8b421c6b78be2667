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

    // Makes NewConfigurationName with its version directory; nothing is left on failure.
    void createConfiguration();
    // Moves the directory; a failure leaves everything as it was.
    void renameConfiguration(int index, const std::string& newName);
    // Removes the directory with all releases.
    void deleteConfiguration(int index);

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
