#include "kym/ConfigurationManager.h"

#include "kym/SystemInfo.h"

#include "base/Environment.h"
#include "base/FileManager.h"
#include "base/Platform.h"
#include "base/SmartAssert.h"
#include "base/log/Logger.h"

#include <boost/filesystem/operations.hpp>
#include <boost/regex.hpp>
#include <algorithm>
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

} // namespace

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
    BASE_LOG(Base::log::info()) << "Creating new configuration";
    const fs::path directory = SystemInformation().localDepartmentsPath() / NewConfigurationName;
    boost::system::error_code error;
    if (fs::exists(directory, error)) {
        const std::string message = "Directory " + native(directory) + " already exists.";
        BASE_LOG(Base::log::info()) << "Error: " << message;
        throw std::runtime_error(message);
    }
    BASE_LOG(Base::log::info()) << "Creating directory: " << native(directory);
    fs::create_directory(directory);
    try {
        Base::FileManager::setPermissions(directory, 0775);
        Configuration config(directory, false);
        config.save();
        config.createNXVersionDirectory();
        mConfigurations.push_back(config);
    } catch (...) {
        fs::remove_all(directory, error);
        throw;
    }
}

void ConfigurationManager::renameConfiguration(int index, const std::string& newName) {
    checkIndex(index, __func__);
    Configuration& config = mConfigurations[static_cast<std::size_t>(index)];
    const fs::path directory = SystemInformation().localDepartmentsPath() / newName;
    boost::system::error_code error;
    // POSIX would silently replace an empty directory; refuse any that stands there.
    if (directory != config.path() && fs::exists(directory, error))
        throw std::runtime_error("Directory " + native(directory) + " already exists.");
    fs::rename(config.path(), directory);
    config.setPath(directory);
}

void ConfigurationManager::deleteConfiguration(int index) {
    checkIndex(index, __func__);
    Configuration& config = mConfigurations[static_cast<std::size_t>(index)];
    fs::remove_all(config.path());
    mConfigurations.erase(mConfigurations.begin() + index);
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
