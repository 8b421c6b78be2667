#include "kym/Configuration.h"

#include "kym/SystemInfo.h"

#include "base/ArchiveExtractor.h"
#include "base/FileLock.h"
#include "base/FileManager.h"
#include "base/Platform.h"
#include "base/PropertyList.h"
#include "base/log/Logger.h"

#include <boost/any.hpp>
#include <boost/filesystem/operations.hpp>
#include <limits>
#include <stdexcept>

namespace fs = boost::filesystem;

namespace Kym {

namespace {

const char* const SettingsDirectoryName = "config";
const char* const SettingsFileName = "configSettings.dat";
const unsigned DirectoryPermissions = 0775;

std::string native(const fs::path& p) {
    return Base::Platform::current().nativePath(p);
}

const char* text(bool flag) {
    return flag ? "true" : "false";
}

// Property lists hold integers as 64-bit; a value outside the unsigned
// 32-bit range is as unusable as one of the wrong type and fails the same way.
std::uint32_t unsignedValue(const boost::any& value) {
    const std::int64_t number = boost::any_cast<std::int64_t>(value);
    if (number < 0 || number > std::numeric_limits<std::uint32_t>::max()) throw boost::bad_any_cast();
    return static_cast<std::uint32_t>(number);
}

void makeDirectory(const fs::path& directory) {
    fs::create_directory(directory);
    Base::FileManager::setPermissions(directory, DirectoryPermissions);
}

} // namespace

Configuration::Configuration(const fs::path& dir, bool load)
    : description("None"),
      type("Production"),
      doFileCleanup(true),
      cleanupDays(2),
      mNeedsSaving(true) {
    BASE_LOG(Base::log::verbose()) << "instancing configuration: " << native(dir);
    setPath(dir);
    if (load) {
        this->load();
        mNeedsSaving = false;
    }
    BASE_LOG(Base::log::verbose()) << "config: " << name() << " mNeedsSaving = " << text(mNeedsSaving);
}

Configuration::~Configuration() = default;

std::string Configuration::name() const {
    return mPath.filename().string();
}

void Configuration::setPath(const fs::path& dir) {
    mPath = dir;
    mProperties.setPath(mPath / PropertyFileName);
    mSettings.setDataFile(versionPath() / SettingsDirectoryName / SettingsFileName);
}

fs::path Configuration::versionPath() const {
    return mPath / SystemInformation().CadVersionDirectory;
}

bool Configuration::isUpdated() const {
    boost::system::error_code error;
    return fs::exists(versionPath(), error);
}

bool Configuration::isWin64Updated() const {
    boost::system::error_code error;
    return fs::exists(versionPath() / "win64" / "udo", error);
}

fs::path Configuration::commonConfigPath() const {
    // A name with a blank can never be a department's directory.
    if (commonDepartment.empty() || commonDepartment.find(' ') != std::string::npos) return mPath;
    return SystemInformation().localDepartmentsPath() / commonDepartment;
}

fs::path Configuration::commonConfigVersionPath() const {
    return commonConfigPath() / SystemInformation().CadVersionDirectory;
}

void Configuration::load() {
    loadProperties();
    if (isUpdated()) mSettings.load();
}

void Configuration::save() {
    BASE_LOG(Base::log::info()) << "saving configuration settings: " << native(mPath);
    if (!needsSaving()) return;
    const bool withSettings = isUpdated() && mSettings.needsSaving();
    const Base::FileLock propertiesLock(mProperties.path());
    const Base::FileLock settingsLock(mSettings.dataFile());
    // Both checked before either is written.
    mProperties.checkWritable();
    if (withSettings) mSettings.settingsFile().checkWritable();
    const Base::SettingsFile before = mProperties;
    boost::system::error_code error;
    const std::string previous =
        fs::exists(mProperties.path(), error) ? Base::FileManager::readFile(mProperties.path()) : std::string();
    saveProperties();
    if (withSettings) {
        try {
            mSettings.save();
        } catch (...) {
            // The properties go back to what they were, so the department is as it was.
            try {
                if (before.readIdentity().exists())
                    Base::FileManager::writeFileAtomically(mProperties.path(), previous);
                else
                    fs::remove(mProperties.path(), error);
                mProperties = before;
            } catch (const std::exception& failure) {
                BASE_LOG(Base::log::info()) << "  Could not put back " << native(mProperties.path()) << ": "
                                            << failure.what();
            }
            throw;
        }
    }
    mNeedsSaving = false;
}

std::vector<fs::path> Configuration::overwrite() {
    std::vector<fs::path> copies;
    const fs::path propertiesCopy = mProperties.overwrite(encodedProperties());
    if (!propertiesCopy.empty()) copies.push_back(propertiesCopy);
    if (isUpdated()) {
        const fs::path settingsCopy = mSettings.overwrite();
        if (!settingsCopy.empty()) copies.push_back(settingsCopy);
    }
    mNeedsSaving = false;
    return copies;
}

fs::path Configuration::replaceProperties(const fs::path& dir) {
    Configuration fresh(dir, false);
    fresh.description = fresh.name();
    fresh.mProperties.setReadFailure("it is replaced deliberately");
    return fresh.mProperties.overwrite(fresh.encodedProperties());
}

bool Configuration::needsSaving() const {
    return mNeedsSaving || mSettings.needsSaving();
}

bool Configuration::isPluginDisabled(const std::string& plugin) const {
    return mSettings.isPluginDisabled(plugin);
}

void Configuration::mergeEnvVariables(std::vector<EnvironmentVariable>& vars) const {
    mSettings.mergeEnvVariables(vars);
}

const std::vector<ConfigApplication>& Configuration::applicationList() {
    return mSettings.applicationList(name());
}

void Configuration::loadProperties() {
    const fs::path file = mPath / PropertyFileName;
    boost::system::error_code error;
    if (!fs::exists(file, error) || !Base::FileManager::isReadable(file))
        throw InvalidConfiguration("Directory " + native(mPath) + " is not valid department.");

    std::string text;
    try {
        text = Base::FileManager::readFile(file);
        readProperties(Base::PropertyList(file, Base::PropertyList::parse(text, native(file))));
    } catch (const std::exception& failure) {
        mProperties.setReadFailure(failure.what());
        throw;
    }
    mProperties.setRead(Base::FileIdentity::ofContent(text));
}

void Configuration::readProperties(const Base::PropertyList& properties) {
    BASE_LOG(Base::log::verbose()) << "  Loading configuration's properties";
    // A wrong type or a missing description ends the load with boost::bad_any_cast.
    description = boost::any_cast<std::string>(properties.getProperty(DescriptionKey));
    if (properties.hasProperty(TypeKey)) type = boost::any_cast<std::string>(properties.getProperty(TypeKey));
    if (properties.hasProperty(CommonDepartmentKey))
        commonDepartment = boost::any_cast<std::string>(properties.getProperty(CommonDepartmentKey));
    if (properties.hasProperty(DoFileCleanupKey))
        doFileCleanup = boost::any_cast<bool>(properties.getProperty(DoFileCleanupKey));
    if (properties.hasProperty(CleanupDaysKey)) cleanupDays = unsignedValue(properties.getProperty(CleanupDaysKey));
    BASE_LOG(Base::log::verbose()) << "  Loaded the configuration's properties";
}

std::string Configuration::encodedProperties() const {
    Base::PropertyList properties;
    properties.setProperty(DescriptionKey, description);
    properties.setProperty(TypeKey, type);
    properties.setProperty(CommonDepartmentKey,
                           commonDepartment.find(' ') == std::string::npos ? commonDepartment : std::string());
    properties.setProperty(DoFileCleanupKey, doFileCleanup);
    properties.setProperty(CleanupDaysKey, cleanupDays);
    return Base::PropertyList::serialize(properties.root());
}

void Configuration::saveProperties() {
    BASE_LOG(Base::log::verbose()) << "  Saving configuration's properties";
    mProperties.write(encodedProperties());
}

void Configuration::createNXVersionDirectory() {
    const fs::path archive = SystemInfo::installPath() / "data" / "install" / "versionFiles.tar.gz";
    boost::system::error_code error;
    if (!fs::exists(archive, error)) throw std::runtime_error("Data file " + native(archive) + " was not found.");

    const fs::path directory = versionPath();
    // Failing here keeps an existing version directory from being removed below.
    if (fs::exists(directory, error))
        throw std::runtime_error("Directory " + native(directory) + " already exists.");
    const fs::path workDirectory = Base::FileManager::workDirectory();
    fs::create_directory(directory);
    try {
        Base::FileManager::setPermissions(directory, DirectoryPermissions);
        Base::FileManager::changeWorkDirectory(directory);
        Base::ArchiveExtractor::extractAll(archive);
        Base::FileManager::changeWorkDirectory(workDirectory);

        const fs::path previousSettings =
            mPath / SystemInformation().PreviousCadVersionDirectory / SettingsDirectoryName / SettingsFileName;
        if (fs::exists(previousSettings)) {
            const fs::path settingsDirectory = directory / SettingsDirectoryName;
            if (!fs::exists(settingsDirectory)) makeDirectory(settingsDirectory);
            fs::copy_file(previousSettings, settingsDirectory / SettingsFileName, fs::copy_options::overwrite_existing);
        }
        // Settings the release files or the previous release brought are what this department now holds.
        mSettings.load();
    } catch (...) {
        // A half-made version directory never survives.
        try {
            Base::FileManager::changeWorkDirectory(workDirectory);
        } catch (const std::exception&) {
        }
        fs::remove_all(directory, error);
        throw;
    }
}

void Configuration::createWin64VersionDirectory() {
    const fs::path version = versionPath();
    const fs::path directories[] = {version / "lib" / "win64", version / "win64", version / "win64" / "application",
                                    version / "win64" / "startup", version / "win64" / "udo"};
    for (const fs::path& directory : directories) fs::create_directory(directory);
    for (const fs::path& directory : directories) Base::FileManager::setPermissions(directory, DirectoryPermissions);
}

bool operator<(const Configuration& left, const Configuration& right) {
    return left.description.compare(right.description) < 0;
}

} // namespace Kym
