#include "kym/ConfigurationManager.h"

#include "kym/PluginsManager.h"
#include "kym/SystemInfo.h"

#include "base/BaseException.h"
#include "base/Environment.h"
#include "base/FileLock.h"
#include "base/FileManager.h"
#include "base/Platform.h"
#include "base/SmartAssert.h"
#include "base/log/Logger.h"

#include <boost/filesystem/operations.hpp>
#include <boost/regex.hpp>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <random>
#include <stdexcept>

namespace fs = boost::filesystem;

namespace Kym {

namespace {

const char* const AssertFile = "ConfigurationManager";
const char* const CurrentDepartmentVariable = "KYM_DEPT_DIR";

std::string native(const fs::path& p) {
    return Base::Platform::current().nativePath(p);
}

std::string configurationType(const Configuration& config) {
    return config.type;
}

// Hidden, and with a blank, which no department name holds.
const char* const WorkDirectoryPrefix = ".kym ";

// A new, empty work directory in the folder for one operation on the named department.
fs::path makeWorkDirectory(const fs::path& folder, const std::string& operation, const std::string& name) {
    // Seeded with the clock too: some hosts' random devices give the same numbers in every process.
    std::random_device device;
    std::mt19937 numbers(device() ^ static_cast<unsigned>(std::chrono::steady_clock::now().time_since_epoch().count()));
    boost::system::error_code error;
    fs::path candidate;
    for (int attempt = 0; attempt < 100; ++attempt) {
        char suffix[16];
        std::snprintf(suffix, sizeof(suffix), "%08lx", static_cast<unsigned long>(numbers() & 0xFFFFFFFFul));
        candidate = folder / (WorkDirectoryPrefix + operation + " " + name + " " + suffix);
        // Made here or not at all: one that exists belongs to another operation.
        if (fs::create_directory(candidate, error)) return candidate;
        if (error) break;
    }
    throw Base::BaseException("Cannot create the work directory " + native(candidate) + " for department " + name +
                              ": " + (error ? error.message() : std::string("every name tried is taken")));
}

// Removes a work directory with what it holds; whether it is gone (a failure is logged).
bool removeWorkDirectory(const fs::path& work) {
    boost::system::error_code error;
    fs::remove_all(work, error);
    if (!error) return true;
    BASE_LOG(Base::log::info()) << "Could not remove the work directory " << native(work) << ": " << error.message()
                                << ". No department list shows it; remove it by hand.";
    return false;
}

// What a file held before an operation wrote it, to put back when the operation fails.
struct FileSnapshot {
    fs::path file;
    bool existed = false;
    std::string content;

    static FileSnapshot of(const fs::path& file) {
        FileSnapshot snapshot;
        snapshot.file = file;
        boost::system::error_code error;
        snapshot.existed = fs::exists(file, error);
        if (snapshot.existed) snapshot.content = Base::FileManager::readFile(file);
        return snapshot;
    }

    // Writes only a file that differs: a write that failed left its file as it was.
    void restore() const {
        boost::system::error_code error;
        const bool exists = fs::exists(file, error);
        if (!existed) {
            if (exists) fs::remove(file);
        } else if (!exists || Base::FileManager::readFile(file) != content) {
            Base::FileManager::writeFileAtomically(file, content);
        }
    }
};

// The files as they were before an operation that failed half-way; a file that cannot be put back is logged.
void putBack(const std::vector<FileSnapshot>& snapshots) {
    for (const FileSnapshot& snapshot : snapshots) {
        try {
            snapshot.restore();
        } catch (const std::exception& failure) {
            BASE_LOG(Base::log::info()) << "Could not put back " << native(snapshot.file) << ": " << failure.what();
        }
    }
}

} // namespace

void ConfigurationManager::checkDepartmentName(const std::string& name) {
    if (!Base::FileManager::isPlainName(name))
        throw std::runtime_error("Invalid department name '" + name +
                                 "': a department is a directory of the departments directory, named without "
                                 "blanks and without '/' or '\\'.");
}

bool ConfigurationManager::isWorkDirectoryName(const std::string& name) {
    return name.compare(0, std::char_traits<char>::length(WorkDirectoryPrefix), WorkDirectoryPrefix) == 0;
}

ConfigurationManager::ConfigurationManager() {
    initialize();
}

ConfigurationManager::~ConfigurationManager() = default;

void ConfigurationManager::initialize() {
    const fs::path& departments = SystemInformation().localDepartmentsPath();
    if (departments.empty()) throw std::runtime_error("KYM_UGSITE_DIR is undefined.");
    boost::system::error_code error;
    if (!fs::exists(departments, error)) throw std::runtime_error("KYM_UGSITE_DIR is invalid.");

    mConfigurations.clear();
    const fs::directory_iterator first(departments), last;
    std::vector<fs::path> entries(first, last);
    // Sorted by name: the same order on every file system.
    std::sort(entries.begin(), entries.end());
    for (const fs::path& entry : entries) addValidConfiguration(entry);
    BASE_LOG(Base::log::info()) << "Found " << mConfigurations.size() << " configurations.";
}

void ConfigurationManager::addValidConfiguration(const fs::path& entry) {
    if (isWorkDirectoryName(entry.filename().string())) return;
    if (!Base::FileManager::isReadable(entry) || !Base::FileManager::isExecutable(entry)) return;
    try {
        mConfigurations.push_back(Configuration(entry, true));
    } catch (const InvalidConfiguration&) {
        return;
    }
    BASE_LOG(Base::log::info()) << "Adding configuration: " << native(entry);
}

void ConfigurationManager::checkIndex(int index, const char* function) const {
    if (index >= 0 && static_cast<std::size_t>(index) < mConfigurations.size()) return;
    Base::smart_assert(300, "index >= 0 && index < mConfigurations.size()", AssertFile, function,
                       {{"index", Base::assertValue(index)}}, "configuration index is out of range");
    throw std::out_of_range("configuration index " + std::to_string(index) + " is out of range of " +
                            std::to_string(mConfigurations.size()) + " configurations");
}

Configuration* ConfigurationManager::configuration(int index) {
    checkIndex(index, __func__);
    return &mConfigurations[static_cast<std::size_t>(index)];
}

Configuration* ConfigurationManager::configurationByName(const std::string& name) {
    return const_cast<Configuration*>(static_cast<const ConfigurationManager*>(this)->configurationByName(name));
}

const Configuration* ConfigurationManager::configurationByName(const std::string& name) const {
    if (name.empty())
        Base::smart_assert(300, "!name.empty()", AssertFile, __func__, {{"name", name}}, "Configuration name is empty");
    for (const Configuration& config : mConfigurations)
        if (config.name() == name) return &config;
    return nullptr;
}

const Configuration* ConfigurationManager::configurationByPath(const fs::path& p) const {
    if (p.empty())
        Base::smart_assert(300, "!p.empty()", AssertFile, __func__, {{"p", p.string()}}, "Configuration path is empty");
    for (const Configuration& config : mConfigurations)
        if (config.path() == p) return &config;
    return nullptr;
}

const Configuration* ConfigurationManager::currentConfiguration() const {
    const std::string directory = Base::Environment::getEnvVariable(CurrentDepartmentVariable);
    return directory.empty() ? nullptr : configurationByPath(directory);
}

std::vector<Configuration> ConfigurationManager::configurationList(const std::string& typePattern) const {
    const boost::regex pattern(typePattern, boost::regex::perl);
    std::vector<Configuration> result;
    for (const Configuration& config : mConfigurations)
        if (config.isUpdated() && boost::regex_match(config.type, pattern)) result.push_back(config);
    std::stable_sort(result.begin(), result.end());
    return result;
}

ConfigurationManager::CommonConfigurationRange ConfigurationManager::commonConfigurations() const {
    return CommonConfigurationRange(mConfigurations, Base::NameFilter<Configuration>(configurationType, "Common"));
}

const std::vector<std::string>& ConfigurationManager::availableTypes() const {
    static const std::vector<std::string> types{"Common", "Development", "Production", "Test"};
    return types;
}

void ConfigurationManager::createConfiguration() {
    createConfiguration(NewConfigurationName);
}

Configuration& ConfigurationManager::createConfiguration(const std::string& name,
                                                         const std::function<void(Configuration&)>& prepare) {
    checkDepartmentName(name);
    BASE_LOG(Base::log::info()) << "Creating new configuration";
    const fs::path departments = SystemInformation().localDepartmentsPath();
    const fs::path directory = departments / name;
    boost::system::error_code error;
    if (fs::exists(directory, error)) {
        const std::string message = "Directory " + native(directory) + " already exists.";
        BASE_LOG(Base::log::info()) << "Error: " << message;
        throw std::runtime_error(message);
    }
    BASE_LOG(Base::log::info()) << "Creating directory: " << native(directory);
    const fs::path work = makeWorkDirectory(departments, "creating", name);
    try {
        // Under its own name, so that prepare sees the department as it will be.
        const fs::path built = work / name;
        fs::create_directory(built);
        Base::FileManager::setPermissions(built, 0775);
        Configuration config(built, false);
        config.createNXVersionDirectory();
        if (prepare) prepare(config);
        // Written one by one: until the move, nobody else sees them.
        BASE_LOG(Base::log::info()) << "saving configuration settings: " << native(directory);
        config.saveProperties();
        if (config.settings()->needsSaving()) config.settings()->save();
        config.setNeedsSaving(false);
        // POSIX would silently replace an empty directory made meanwhile.
        if (fs::exists(directory, error))
            throw std::runtime_error("Directory " + native(directory) + " already exists.");
        mConfigurations.reserve(mConfigurations.size() + 1);
        Base::FileManager::moveDirectory(built, directory);
        config.setPath(directory);
        mConfigurations.push_back(config);
    } catch (...) {
        removeWorkDirectory(work);
        throw;
    }
    removeWorkDirectory(work);
    return mConfigurations.back();
}

void ConfigurationManager::renameConfiguration(int index, const std::string& newName) {
    checkIndex(index, __func__);
    Configuration& config = mConfigurations[static_cast<std::size_t>(index)];
    const fs::path directory = SystemInformation().localDepartmentsPath() / newName;
    boost::system::error_code error;
    // POSIX would silently replace an empty directory; refuse any that stands there.
    if (directory != config.path() && fs::exists(directory, error))
        throw std::runtime_error("Directory " + native(directory) + " already exists.");
    Base::FileManager::moveDirectory(config.path(), directory);
    config.setPath(directory);
}

std::vector<std::string> ConfigurationManager::renameConfigurationWithDependents(int index,
                                                                                const std::string& newName) {
    checkIndex(index, __func__);
    checkDepartmentName(newName);
    const std::size_t renamed = static_cast<std::size_t>(index);
    const std::string oldName = mConfigurations[renamed].name();
    const fs::path from = mConfigurations[renamed].path();
    const fs::path to = from.parent_path() / newName;
    if (newName == oldName) return {};

    std::vector<std::size_t> dependents;
    for (std::size_t other = 0; other < mConfigurations.size(); ++other)
        if (other != renamed && mConfigurations[other].commonDepartment == oldName) dependents.push_back(other);

    // Every file a dependent's save writes is held and checked before anything moves.
    std::vector<std::unique_ptr<Base::FileLock>> locks;
    std::vector<FileSnapshot> snapshots;
    for (std::size_t dependent : dependents) {
        Configuration& config = mConfigurations[dependent];
        locks.push_back(std::make_unique<Base::FileLock>(config.propertiesFile().path()));
        locks.push_back(std::make_unique<Base::FileLock>(config.settings()->dataFile()));
        config.propertiesFile().checkWritable();
        snapshots.push_back(FileSnapshot::of(config.propertiesFile().path()));
        if (config.isUpdated() && config.settings()->needsSaving()) {
            config.settings()->settingsFile().checkWritable();
            snapshots.push_back(FileSnapshot::of(config.settings()->dataFile()));
        }
    }

    // POSIX would silently replace an empty directory; refuse any that stands there.
    boost::system::error_code error;
    if (fs::exists(to, error)) throw std::runtime_error("Directory " + native(to) + " already exists.");
    const std::vector<Configuration> before = mConfigurations;
    Base::FileManager::moveDirectory(from, to);
    mConfigurations[renamed].setPath(to);
    try {
        for (std::size_t dependent : dependents) {
            Configuration& config = mConfigurations[dependent];
            config.commonDepartment = newName;
            config.setNeedsSaving(true);
            config.save();
        }
    } catch (...) {
        putBack(snapshots);
        mConfigurations = before;
        try {
            Base::FileManager::moveDirectory(to, from);
        } catch (const std::exception& failure) {
            BASE_LOG(Base::log::info()) << "Could not rename department " << newName << " back to " << oldName
                                        << ": " << failure.what();
            mConfigurations[renamed].setPath(to);
        }
        throw;
    }

    std::vector<std::string> names;
    for (std::size_t dependent : dependents) names.push_back(mConfigurations[dependent].name());
    return names;
}

std::vector<std::string> ConfigurationManager::renamePluginWithDependents(const std::string& name,
                                                                         const std::string& newName) {
    PluginsManager& plugins = PluginsManagement();
    const int index = plugins.indexOfPlugin(name);
    if (index < 0) throw std::runtime_error("No plugin named '" + name + "'.");
    if (newName == name) return {};
    // Refused before the departments are locked.
    plugins.checkNewPluginName(newName);

    // Every department is held and checked, so that none names the plugin unseen.
    std::vector<std::unique_ptr<Base::FileLock>> locks;
    std::vector<std::size_t> dependents;
    std::vector<FileSnapshot> snapshots;
    for (std::size_t at = 0; at < mConfigurations.size(); ++at) {
        const ConfigurationSettings& settings = *mConfigurations[at].settings();
        if (!mConfigurations[at].isUpdated()) continue;
        locks.push_back(std::make_unique<Base::FileLock>(settings.dataFile()));
        const std::string refusal =
            "Plugin '" + name + "' is not renamed, as department '" + mConfigurations[at].name() + "' may name it: ";
        try {
            settings.settingsFile().checkWritable();
        } catch (const Base::SettingsFileDamaged& damaged) {
            throw Base::SettingsFileDamaged(refusal + damaged.what());
        } catch (const Base::SettingsFileChanged& changed) {
            throw Base::SettingsFileChanged(refusal + changed.what());
        }
        if (settings.namesPlugin(name)) {
            dependents.push_back(at);
            snapshots.push_back(FileSnapshot::of(settings.dataFile()));
        }
    }

    const std::vector<Configuration> before = mConfigurations;
    plugins.renamePlugin(index, newName);
    try {
        for (std::size_t dependent : dependents) {
            ConfigurationSettings& settings = *mConfigurations[dependent].settings();
            settings.renamePluginReferences(name, newName);
            settings.save();
        }
    } catch (...) {
        putBack(snapshots);
        mConfigurations = before;
        try {
            plugins.renamePlugin(index, name);
        } catch (const std::exception& failure) {
            BASE_LOG(Base::log::info()) << "Could not rename plugin " << newName << " back to " << name << ": "
                                        << failure.what();
        }
        throw;
    }

    std::vector<std::string> names;
    for (std::size_t dependent : dependents) names.push_back(mConfigurations[dependent].name());
    return names;
}

fs::path ConfigurationManager::deleteConfiguration(int index) {
    checkIndex(index, __func__);
    const Configuration& config = mConfigurations[static_cast<std::size_t>(index)];
    const fs::path directory = config.path();
    const std::string name = config.name();
    // A save another writer has begun in it ends before the department goes.
    const Base::FileLock propertiesLock(config.propertiesFile().path());
    const Base::FileLock settingsLock(config.settings()->dataFile());
    const fs::path work = makeWorkDirectory(directory.parent_path(), "deleting", name);
    try {
        Base::FileManager::moveDirectory(directory, work / name);
    } catch (...) {
        removeWorkDirectory(work);
        throw;
    }
    mConfigurations.erase(mConfigurations.begin() + index);
    BASE_LOG(Base::log::info()) << "Removing department " << name << " from " << native(work);
    return removeWorkDirectory(work) ? fs::path() : work;
}

bool ConfigurationManager::anyNeedsSaving() const {
    return std::any_of(mConfigurations.begin(), mConfigurations.end(),
                       [](const Configuration& config) { return config.needsSaving(); });
}

void ConfigurationManager::saveDirty() {
    for (Configuration& config : mConfigurations) config.save();
}

bool ConfigurationManager::usingFallbackConfigurations() const {
    const SystemInfo& system = SystemInformation();
    const std::string& fallback = system.KymConfigFallbackDirectoryName;
    // By name only: a site directory whose path holds the name counts too.
    return fallback.empty() || native(system.localDepartmentsPath()).find(fallback) != std::string::npos;
}

int ConfigurationManager::numberOfRowsInList() const {
    return numberOfConfigurations();
}

boost::any ConfigurationManager::valueForListColumnRow(const std::string&, int row) const {
    checkIndex(row, __func__);
    return mConfigurations[static_cast<std::size_t>(row)].name();
}

bool ConfigurationManager::setValueForListColumnRow(const std::string&, int row, const boost::any& value) {
    const std::string newName = boost::any_cast<std::string>(value);
    static const boost::regex whitespace("\\s", boost::regex::perl);
    if (boost::regex_search(newName, whitespace)) {
        BASE_LOG(Base::log::info()) << "ERROR: configuration names must not contain spaces.";
        return false;
    }
    try {
        renameConfiguration(row, newName);
    } catch (const std::exception& failure) {
        BASE_LOG(Base::log::info()) << "ERROR: " << failure.what();
        return false;
    }
    return true;
}

void ConfigurationManager::insertRow(int) {}

void ConfigurationManager::deleteRows(const std::vector<int>&) {}

} // namespace Kym
