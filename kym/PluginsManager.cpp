#include "kym/PluginsManager.h"

#include "kym/Configuration.h"
#include "kym/SystemInfo.h"

#include "base/FileManager.h"
#include "base/Platform.h"
#include "base/ProcessWide.h"
#include "base/SmartAssert.h"
#include "base/log/Logger.h"

#include <boost/filesystem/operations.hpp>
#include <algorithm>
#include <stdexcept>

namespace fs = boost::filesystem;

namespace Kym {

namespace {

Base::ProcessWide<PluginsManager> pluginsManagement;

fs::path internalPluginsDirectory() {
    return SystemInfo::installPath() / "plugins";
}

} // namespace

PluginsManager::PluginsManager() : mExternalOnly(false), mInternalCount(0) {
    initialize();
}

PluginsManager::~PluginsManager() = default;

void PluginsManager::initialize() {
    const fs::path directory = internalPluginsDirectory();
    mPlugins.clear();
    boost::system::error_code error;
    if (fs::is_directory(directory, error)) {
        const fs::directory_iterator first(directory), last;
        std::vector<fs::path> entries(first, last);
        // Sorted by name: the same order on every file system.
        std::sort(entries.begin(), entries.end());
        for (const fs::path& entry : entries) addPlugin(entry);
    }
    BASE_LOG(Base::log::info()) << "Found " << mPlugins.size() << " plugins.";
    mInternalCount = static_cast<std::int32_t>(mPlugins.size());
}

void PluginsManager::addPlugin(const fs::path& dir) {
    mPlugins.push_back(PluginSettings(dir));
    BASE_LOG(Base::log::info()) << "Adding plugin: " << Base::Platform::current().nativePath(dir);
}

void PluginsManager::removePlugin(const fs::path& dir) {
    mPlugins.erase(std::remove_if(mPlugins.begin(), mPlugins.end(),
                                  [&dir](const PluginSettings& plugin) { return plugin.path() == dir; }),
                   mPlugins.end());
}

void PluginsManager::checkNewPluginName(const std::string& name) const {
    if (!Base::FileManager::isPlainName(name))
        throw std::runtime_error("Invalid plugin name '" + name +
                                 "': a plugin is a directory, named without blanks and without '/' or '\\'.");
    const int other = indexOfPlugin(name);
    if (other >= 0)
        throw std::runtime_error("A plugin named '" + name + "' already exists: " +
                                 Base::Platform::current().nativePath(mPlugins[static_cast<std::size_t>(other)].path()) +
                                 ".");
}

int PluginsManager::indexOfPlugin(const std::string& name) const {
    for (std::size_t index = 0; index < mPlugins.size(); ++index)
        if (mPlugins[index].name() == name) return static_cast<int>(index);
    return -1;
}

void PluginsManager::renamePlugin(int index, const std::string& newName) {
    PluginSettings& renamed = *plugin(index, false);
    if (renamed.name() == newName) return;
    checkNewPluginName(newName);
    const fs::path to = renamed.path().parent_path() / newName;
    Base::FileManager::moveDirectory(renamed.path(), to);
    renamed.setPath(to);
}

PluginSettings* PluginsManager::plugin(int index, bool external) {
    BASE_SMART_ASSERT(300, index >= 0 && index < numberOfPlugins(), "plugin index is out of range",
                      {"index", Base::assertValue(index)}, {"numberOfPlugins()", Base::assertValue(numberOfPlugins())});
    if (external && mExternalOnly) index += mInternalCount;
    if (index < 0 || index >= numberOfPlugins())
        throw std::out_of_range("plugin index " + std::to_string(index) + " is out of range of " +
                                std::to_string(numberOfPlugins()) + " plugins");
    return &mPlugins[static_cast<std::size_t>(index)];
}

bool PluginsManager::isInternalPlugin(const PluginSettings& plugin) const {
    return plugin.path().parent_path() == internalPluginsDirectory();
}

bool PluginsManager::sameType(const Configuration& config, const PluginSettings& plugin) const {
    return plugin.pluginType() == PluginSettings::SiteWideType || plugin.pluginType() == config.type;
}

bool PluginsManager::appliesTo(const Configuration& config, const PluginSettings& plugin) const {
    return !config.isPluginDisabled(plugin.name()) && sameType(config, plugin);
}

std::vector<const PluginSettings*> PluginsManager::pluginsFor(const Configuration& config) const {
    std::vector<const PluginSettings*> plugins;
    for (const PluginSettings& plugin : mPlugins)
        if (appliesTo(config, plugin)) plugins.push_back(&plugin);
    return plugins;
}

std::vector<ConfigApplication> PluginsManager::applicationList(const Configuration& config) {
    std::vector<ConfigApplication> applications;
    for (PluginSettings& plugin : mPlugins) {
        if (!appliesTo(config, plugin)) continue;
        const std::vector<ConfigApplication>& list = plugin.applicationList();
        applications.insert(applications.end(), list.begin(), list.end());
    }
    return applications;
}

void PluginsManager::mergeEnvVariables(const Configuration& config, std::vector<EnvironmentVariable>& vars) const {
    for (const PluginSettings* plugin : pluginsFor(config)) plugin->mergeEnvVariables(vars);
}

void PluginsManager::mergeEnvVariables(const Configuration* config, std::vector<EnvironmentVariable>& vars) const {
    if (config) mergeEnvVariables(*config, vars);
}

void PluginsManager::saveSettings() {
    for (PluginSettings& plugin : mPlugins) plugin.save();
}

bool PluginsManager::anyNeedsSaving() const {
    return std::any_of(mPlugins.begin(), mPlugins.end(),
                       [](const PluginSettings& plugin) { return plugin.needsSaving(); });
}

int PluginsManager::numberOfRowsInList() const {
    return numberOfPlugins() - (mExternalOnly ? mInternalCount : 0);
}

boost::any PluginsManager::valueForListColumnRow(const std::string&, int row) const {
    const int index = mExternalOnly ? row + mInternalCount : row;
    if (row < 0 || index >= numberOfPlugins())
        throw std::out_of_range("row " + std::to_string(row) + " is out of range of a list of " +
                                std::to_string(numberOfRowsInList()) + " rows");
    return mPlugins[static_cast<std::size_t>(index)].name();
}

PluginsManager& PluginsManagement() {
    return pluginsManagement.instance();
}

} // namespace Kym
