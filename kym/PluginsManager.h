// The process-wide list of plugins: the internal ones found in the
// installation's plugins directory, then the external ones the site adds.
// It is also the table the editor lists the plugins in.
#pragma once

#include "kym/KymExport.h"
#include "kym/PluginSettings.h"

#include "base/DataSourceInterface.h"

#include <boost/any.hpp>
#include <boost/filesystem/path.hpp>
#include <cstdint>
#include <string>
#include <vector>

namespace Kym {

class Configuration;

class KYM_EXPORT PluginsManager : public Base::DataSourceInterface {
public:
    // Scans the installation's plugins directory at once.
    PluginsManager();
    PluginsManager(const PluginsManager&) = default;
    PluginsManager& operator=(const PluginsManager&) = default;
    ~PluginsManager();

    // Loads the plugin in the directory and appends it; a damaged settings.dat throws.
    void addPlugin(const boost::filesystem::path& dir);
    // Removes every plugin of that directory; the internal count stays.
    void removePlugin(const boost::filesystem::path& dir);
    // Throws when the name cannot be a plugin's (empty, "." or "..", or
    // holding a blank, '/' or '\\') or another plugin has it.
    void checkNewPluginName(const std::string& name) const;
    // The index among all plugins (internal first) of the one of that name, or -1.
    int indexOfPlugin(const std::string& name) const;
    // Moves the directory of the plugin at that index (among all plugins) to
    // newName beside it and points the plugin there. A name that another
    // plugin has or a directory standing there is refused; a failure leaves
    // everything as it was. The departments that name the plugin follow
    // with ConfigurationManager::renamePluginWithDependents.
    void renamePlugin(int index, const std::string& newName);
    // With external set while only external plugins are edited, index counts
    // the external ones. The index is checked before that offset is added.
    // The pointer is valid until the list changes.
    PluginSettings* plugin(int index, bool external);
    int numberOfPlugins() const { return static_cast<int>(mPlugins.size()); }
    // The number of plugins the scan of the plugins directory found.
    int internalCount() const { return mInternalCount; }
    bool isInternalPlugin(const PluginSettings& plugin) const;

    // From now on the table shows the external plugins only; there is no way back.
    void editExternalPluginsOnly() { mExternalOnly = true; }
    bool externalPluginsOnly() const { return mExternalOnly; }

    // A plugin applies to a department that does not disable it (by its
    // directory name, exactly) and whose type is the plugin's, unless the
    // plugin is "Site-wide". The walks below go in registry order, internal
    // plugins first.
    bool sameType(const Configuration& config, const PluginSettings& plugin) const;
    bool appliesTo(const Configuration& config, const PluginSettings& plugin) const;
    // The plugins that apply; valid until the list changes.
    std::vector<const PluginSettings*> pluginsFor(const Configuration& config) const;
    // The applications of the plugins that apply, each stamped "<plugin> Plugin".
    std::vector<ConfigApplication> applicationList(const Configuration& config);
    // Merges the variables of the plugins that apply; a later plugin's
    // self-reference extends what an earlier one set. Without a department
    // (null) no plugin applies.
    void mergeEnvVariables(const Configuration& config, std::vector<EnvironmentVariable>& vars) const;
    void mergeEnvVariables(const Configuration* config, std::vector<EnvironmentVariable>& vars) const;

    void saveSettings();
    bool anyNeedsSaving() const;

    // One row per plugin shown; every column holds the plugin's name.
    int numberOfRowsInList() const override;
    boost::any valueForListColumnRow(const std::string& column, int row) const override;

private:
    // The site registers the external plugins, all or none.
    friend class SiteSettings;

    void initialize();

    std::vector<PluginSettings> mPlugins;
    bool mExternalOnly;
    std::int32_t mInternalCount;
};

// The process-wide registry, created (and the plugins directory scanned) at the first call.
KYM_EXPORT PluginsManager& PluginsManagement();

} // namespace Kym
