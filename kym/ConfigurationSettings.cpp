#include "kym/ConfigurationSettings.h"

#include "kym/PluginsManager.h"

#include "base/Archiver.h"
#include "base/FileManager.h"
#include "base/Unarchiver.h"
#include "base/log/Logger.h"

#include <boost/algorithm/string/case_conv.hpp>
#include <boost/filesystem/operations.hpp>
#include <algorithm>
#include <utility>

namespace fs = boost::filesystem;

namespace Kym {

namespace {

// Replaces the member with the archived list; an absent key leaves it as it is.
template <class T>
void decodeList(Base::Unarchiver& archive, const char* key, std::vector<T>& member) {
    if (!archive.containsKey(key)) return;
    std::vector<T> value;
    std::vector<T>* decoded = archive.decodeObject(key, &value);
    member = decoded == &value ? std::move(value) : *decoded;
}

template <class Source, class List>
void copySource(Source& target, const Source& source, List& ownList) {
    target = source;
    target.setList(source.isNull() ? nullptr : &ownList);
}

} // namespace

// DisablePluginSource

DisablePluginSource::DisablePluginSource(std::vector<std::string>* list) : mList(list), mEdited(false) {
    PluginsManager& plugins = PluginsManagement();
    for (int index = 0; index < plugins.numberOfPlugins(); ++index)
        mPluginPaths.push_back(plugins.plugin(index, false)->path());
}

int DisablePluginSource::numberOfRowsInList() const {
    return static_cast<int>(mPluginPaths.size());
}

boost::any DisablePluginSource::valueForListColumnRow(const std::string& column, int row) const {
    if (!mList) return boost::any();
    const std::string leaf = mPluginPaths.at(static_cast<std::size_t>(row)).filename().string();
    if (column == "Name") return leaf;
    const bool disabled = std::find(mList->begin(), mList->end(), leaf) != mList->end();
    return std::string(disabled ? "True" : "False");
}

bool DisablePluginSource::setValueForListColumnRow(const std::string&, int row, const boost::any& value) {
    if (!mList) return false;
    const bool disable = boost::algorithm::to_lower_copy(boost::any_cast<std::string>(value)) == "true";
    const std::string leaf = mPluginPaths.at(static_cast<std::size_t>(row)).filename().string();
    const auto found = std::find(mList->begin(), mList->end(), leaf);
    if (disable && found == mList->end()) {
        mList->push_back(leaf);
    } else {
        // Drops every name after it too, and "true" on a disabled plugin
        // enables it: the editor has always behaved so.
        mList->erase(found, mList->end());
    }
    mEdited = true;
    return true;
}

// ConfigurationSettings

ConfigurationSettings::ConfigurationSettings() : mNeedsSaving(false) {
    BASE_LOG(Base::log::verbose()) << "  instancing configuration settings";
}

ConfigurationSettings::ConfigurationSettings(const ConfigurationSettings& other)
    : SettingsProtocol(other),
      mWorkDirectories(other.mWorkDirectories),
      mApplications(other.mApplications),
      mOverlays(other.mOverlays),
      mDisabledPlugins(other.mDisabledPlugins),
      mDataFile(other.mDataFile),
      mWorkDirectorySource(other.mWorkDirectorySource),
      mDisablePluginSource(other.mDisablePluginSource),
      mApplicationSource(other.mApplicationSource),
      mNeedsSaving(other.mNeedsSaving) {
    // A copy's table models show the copy's lists, never the original's.
    mWorkDirectorySource.setList(other.mWorkDirectorySource.isNull() ? nullptr : &mWorkDirectories);
    mDisablePluginSource.setList(other.mDisablePluginSource.isNull() ? nullptr : &mDisabledPlugins);
    mApplicationSource.setList(other.mApplicationSource.isNull() ? nullptr : &mApplications);
}

ConfigurationSettings& ConfigurationSettings::operator=(const ConfigurationSettings& other) {
    if (this == &other) return *this;
    SettingsProtocol::operator=(other);
    mWorkDirectories = other.mWorkDirectories;
    mApplications = other.mApplications;
    mOverlays = other.mOverlays;
    mDisabledPlugins = other.mDisabledPlugins;
    mDataFile = other.mDataFile;
    copySource(mWorkDirectorySource, other.mWorkDirectorySource, mWorkDirectories);
    copySource(mDisablePluginSource, other.mDisablePluginSource, mDisabledPlugins);
    copySource(mApplicationSource, other.mApplicationSource, mApplications);
    mNeedsSaving = other.mNeedsSaving;
    return *this;
}

ConfigurationSettings::~ConfigurationSettings() = default;

void ConfigurationSettings::load() {
    boost::system::error_code error;
    const fs::path& file = mDataFile.path();
    if (!fs::exists(file, error)) {
        mDataFile.setRead(Base::FileIdentity());
        return;
    }
    if (!Base::FileManager::isReadable(file)) {
        mDataFile.setReadFailure("it is not readable");
        return;
    }
    // Deliberately quiet: the keys read before a fault keep their new values,
    // the rest keep the old ones, and the department still opens.
    try {
        Base::Unarchiver archive(file);
        decodeList(archive, WorkDirectoryListKey, mWorkDirectories);
        decodeList(archive, CommonVariablesKey, mCommonVariables);
        decodeList(archive, UnixVariablesKey, mUnixVariables);
        decodeList(archive, WindowsVariablesKey, mWinVariables);
        archive.decode(DisabledPluginsKey, mDisabledPlugins);
        decodeList(archive, ApplicationListKey, mApplications);
        decodeList(archive, ApplicationOverlayListKey, mOverlays);
        mDataFile.setRead(archive.sourceIdentity());
    } catch (const std::exception& failure) {
        mDataFile.setReadFailure(failure.what());
    }
}

std::string ConfigurationSettings::encoded() const {
    // Encoding an application clears its marks, so a copy is encoded: a failed write keeps them.
    std::vector<ConfigApplication> applications = mApplications;
    Base::Archiver archive(mDataFile.path());
    archive.encodeObject(WorkDirectoryListKey, mWorkDirectories);
    encodeVariableLists(archive, CommonVariablesKey, UnixVariablesKey, WindowsVariablesKey);
    archive.encode(DisabledPluginsKey, mDisabledPlugins);
    archive.encodeObject(ApplicationListKey, applications);
    archive.encodeObject(ApplicationOverlayListKey, mOverlays);
    return archive.text();
}

void ConfigurationSettings::clearMarks() {
    mWorkDirectorySource.setEdited(false);
    setVariableListsEdited(false);
    mDisablePluginSource.setEdited(false);
    mApplicationSource.setEdited(false);
    for (ConfigApplication& application : mApplications) application.setVariableListsEdited(false);
    mNeedsSaving = false;
}

void ConfigurationSettings::save() {
    if (!needsSaving()) return;
    const fs::path directory = mDataFile.path().parent_path();
    if (!directory.empty() && !fs::exists(directory)) {
        fs::create_directory(directory);
        Base::FileManager::setPermissions(directory, 0775);
    }
    mDataFile.write(encoded());
    clearMarks();
}

fs::path ConfigurationSettings::overwrite() {
    const fs::path copy = mDataFile.overwrite(encoded());
    clearMarks();
    return copy;
}

bool ConfigurationSettings::needsSaving() const {
    if (mNeedsSaving || variableListsEdited() || mWorkDirectorySource.isEdited() || mDisablePluginSource.isEdited() ||
        mApplicationSource.isEdited())
        return true;
    return std::any_of(mApplications.begin(), mApplications.end(),
                       [](const ConfigApplication& application) { return application.needsSaving(); });
}

const std::vector<ConfigApplication>& ConfigurationSettings::applicationList(const std::string& configurationName) {
    for (ConfigApplication& application : mApplications) application.setConfigurationName(configurationName);
    return mApplications;
}

ApplicationListSource* ConfigurationSettings::applications() {
    mApplicationSource.setList(&mApplications);
    return &mApplicationSource;
}

WorkDirectoryListSource* ConfigurationSettings::workDirectories() {
    mWorkDirectorySource.setList(&mWorkDirectories);
    return &mWorkDirectorySource;
}

DisablePluginSource* ConfigurationSettings::disablePlugins() {
    mDisablePluginSource.setList(&mDisabledPlugins);
    return &mDisablePluginSource;
}

bool ConfigurationSettings::isPluginDisabled(const std::string& plugin) const {
    return std::find(mDisabledPlugins.begin(), mDisabledPlugins.end(), plugin) != mDisabledPlugins.end();
}

bool ConfigurationSettings::hasOverlay(const std::string& configurationName, const std::string& applicationId) {
    return std::any_of(mOverlays.begin(), mOverlays.end(), EqualOverlayOrApp(configurationName, applicationId));
}

ApplicationOverlay ConfigurationSettings::getOverlay(const std::string& configurationName,
                                                     const std::string& applicationId) {
    const auto found = std::find_if(mOverlays.begin(), mOverlays.end(), EqualOverlayOrApp(configurationName, applicationId));
    if (found != mOverlays.end()) return *found;
    ApplicationOverlay overlay;
    overlay.configurationName = configurationName;
    overlay.appId = applicationId;
    return overlay;
}

void ConfigurationSettings::setOverlay(const ApplicationOverlay& overlay) {
    mNeedsSaving = true;
    const auto found =
        std::find_if(mOverlays.begin(), mOverlays.end(), EqualOverlayOrApp(overlay.configurationName, overlay.appId));
    if (found == mOverlays.end()) {
        BASE_LOG(Base::log::verbose()) << "adding overlay for app " << overlay.appId;
        mOverlays.push_back(overlay);
    } else {
        BASE_LOG(Base::log::verbose()) << "editing overlay for app " << overlay.appId;
        *found = overlay;
    }
}

void ConfigurationSettings::removeOverlay(const std::string& configurationName, const std::string& applicationId) {
    const auto found = std::find_if(mOverlays.begin(), mOverlays.end(), EqualOverlayOrApp(configurationName, applicationId));
    if (found == mOverlays.end()) return;
    mOverlays.erase(found);
    mNeedsSaving = true;
}

bool ConfigurationSettings::namesPlugin(const std::string& plugin) const {
    const std::string owner = PluginSettings::configurationNameFor(plugin);
    return isPluginDisabled(plugin) || std::any_of(mOverlays.begin(), mOverlays.end(), [&](const ApplicationOverlay& overlay) {
               return overlay.configurationName == owner;
           });
}

bool ConfigurationSettings::renamePluginReferences(const std::string& from, const std::string& to) {
    bool changed = false;
    for (std::string& plugin : mDisabledPlugins)
        if (plugin == from) {
            plugin = to;
            changed = true;
        }
    const std::string owner = PluginSettings::configurationNameFor(from);
    for (ApplicationOverlay& overlay : mOverlays)
        if (overlay.configurationName == owner) {
            overlay.configurationName = PluginSettings::configurationNameFor(to);
            changed = true;
        }
    if (changed) mNeedsSaving = true;
    return changed;
}

void ConfigurationSettings::mergeEnvVariables(std::vector<EnvironmentVariable>& vars) const {
    mergeUserEnvVariables(vars);
}

} // namespace Kym
