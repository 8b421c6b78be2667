#include "kym/SystemInfo.h"

#include "base/Archiver.h"
#include "base/Environment.h"
#include "base/FileManager.h"
#include "base/Platform.h"
#include "base/ProcessWide.h"
#include "base/Unarchiver.h"
#include "base/log/Logger.h"

#include <boost/filesystem/operations.hpp>
#include <stdexcept>

namespace fs = boost::filesystem;

namespace Kym {

namespace {

const char* const BaseDirVariable = "KYM_BASE_DIR";

// The persisted constants in the order they are read and written; each key is the member's name.
struct PersistedConstant {
    const char* key;
    std::string SystemInfo::*member;
};

const PersistedConstant persistedConstants[] = {
    {"KymVersionString", &SystemInfo::KymVersionString},
    {"CadVersionDirectory", &SystemInfo::CadVersionDirectory},
    {"PreviousCadVersionDirectory", &SystemInfo::PreviousCadVersionDirectory},
    {"KymConfigPathEnvVarName", &SystemInfo::KymConfigPathEnvVarName},
    {"KymConfigFallbackDirectoryName", &SystemInfo::KymConfigFallbackDirectoryName},
    {"KymApplicationDataDirectoryName", &SystemInfo::KymApplicationDataDirectoryName},
    {"BroadcastDirectoryName", &SystemInfo::BroadcastDirectoryName},
    {"BroadcastStartMessage", &SystemInfo::BroadcastStartMessage},
    {"SiteSettingsSuffix", &SystemInfo::SiteSettingsSuffix},
    {"CadWindowsRegistryPath", &SystemInfo::CadWindowsRegistryPath},
    {"CadProductName", &SystemInfo::CadProductName},
    {"CadSupportedVersionString", &SystemInfo::CadSupportedVersionString},
    {"CadInstallPathVariable", &SystemInfo::CadInstallPathVariable},
    {"CadWebBrowserVariable", &SystemInfo::CadWebBrowserVariable},
    {"tcEngInstallPathVariable", &SystemInfo::tcEngInstallPathVariable},
    {"tcEngDatabaseVariable", &SystemInfo::tcEngDatabaseVariable},
    {"CadVersionDataFilename", &SystemInfo::CadVersionDataFilename},
};

// Determined once for the whole process, whichever object asks.
struct Locations {
    bool installPathRead = false;
    fs::path installPath;
    bool applicationDataComputed = false;
    fs::path applicationDataPath;
    bool departmentsDiscovered = false;
    fs::path departmentsPath;
};

Locations& locations() {
    static Locations* values = new Locations;
    return *values;
}

Base::ProcessWide<SystemInfo> systemInformation;

std::string native(const fs::path& p) {
    return Base::Platform::current().nativePath(p);
}

bool isDirectory(const fs::path& p) {
    boost::system::error_code error;
    return fs::is_directory(p, error);
}

// A trailing separator would put the sibling "ugsite" inside the installation.
std::string withoutTrailingSeparator(std::string text) {
    auto isSeparator = [](char c) { return c == '/' || c == fs::path::preferred_separator; };
    while (text.size() > 1 && isSeparator(text.back()) && text[text.size() - 2] != ':') text.pop_back();
    return text;
}

} // namespace

SystemInfo::SystemInfo()
    : CadProductName("NX"),
      CadSupportedVersionString("4.0.x.x"),
      KymVersionString("No Version Specified"),
      CadVersionDirectory("Need to Specify"),
      PreviousCadVersionDirectory("Need to Specify"),
      KymConfigPathEnvVarName("KYM_UGSITE_DIR"),
      KymConfigFallbackDirectoryName("fb_ugsite"),
      KymApplicationDataDirectoryName("nxkym"),
      BroadcastDirectoryName("broadcast"),
      BroadcastStartMessage("startup"),
      SiteSettingsSuffix("Nx4"),
      CadWindowsRegistryPath("SOFTWARE\\Unigraphics Solutions\\NX\\4.0"),
      CadInstallPathVariable("UGII_BASE_DIR"),
      CadWebBrowserVariable("UGII_HTML_BROWSER"),
      tcEngInstallPathVariable("TC_ROOT"),
      tcEngDatabaseVariable("TC_DATA"),
      CadVersionDataFilename("versionFiles.tar.gz"),
      mSettingsChanged(false),
      mDataFile(installPath() / "config" / "sysinfo.dat") {
    load();
}

void SystemInfo::load() {
    BASE_LOG(Base::log::info()) << "Loading system information: " << native(mDataFile.path());
    boost::system::error_code error;
    const bool exists = fs::exists(mDataFile.path(), error);
    if (!exists || !Base::FileManager::isReadable(mDataFile.path())) {
        BASE_LOG(Base::log::info()) << "  Data file was not found or not readable. " << "Using default settings.";
        if (exists)
            mDataFile.setReadFailure("it is not readable");
        else
            mDataFile.setRead(Base::FileIdentity());
        return;
    }
    try {
        Base::Unarchiver archive(mDataFile.path());
        for (const PersistedConstant& constant : persistedConstants) archive.decode(constant.key, this->*constant.member);
        mDataFile.setRead(archive.sourceIdentity());
    } catch (const std::exception& failure) {
        BASE_LOG(Base::log::info()) << "  Could not read data file for some reason. " << "Using default settings.";
        BASE_LOG(Base::log::verbose()) << "    " << failure.what();
        mDataFile.setReadFailure(failure.what());
    }
}

std::string SystemInfo::encoded() const {
    Base::Archiver archive(mDataFile.path());
    for (const PersistedConstant& constant : persistedConstants) archive.encode(constant.key, this->*constant.member);
    return archive.text();
}

void SystemInfo::save() {
    if (!mSettingsChanged) return;
    BASE_LOG(Base::log::info()) << "saving system information: " << native(mDataFile.path());
    mDataFile.write(encoded());
    mSettingsChanged = false;
}

fs::path SystemInfo::overwrite() {
    const fs::path copy = mDataFile.overwrite(encoded());
    mSettingsChanged = false;
    return copy;
}

const fs::path& SystemInfo::installPath() {
    Locations& values = locations();
    if (!values.installPathRead) {
        std::string value = Base::Environment::getEnvVariable(BaseDirVariable);
        Base::Environment::expandEnvVariables(value);
        values.installPath = withoutTrailingSeparator(value);
        values.installPathRead = true;
    }
    if (values.installPath.empty()) throw std::runtime_error(std::string(BaseDirVariable) + " is not set.");
    if (isDirectory(values.installPath)) return values.installPath;
    throw std::runtime_error(std::string(BaseDirVariable) + " is set to a invalid directory:\n  " +
                             native(values.installPath));
}

const fs::path& SystemInfo::applicationDataPath() const {
    Locations& values = locations();
    if (values.applicationDataComputed) return values.applicationDataPath;
    // Marked before asking: after a failure later calls get the empty path and do not ask again.
    values.applicationDataComputed = true;
    const fs::path folder = Base::FileManager::applicationDataFolder();
    if (folder.empty()) throw std::runtime_error("ERROR: Problem getting user's application data folder.");

    const fs::path directory = folder / KymApplicationDataDirectoryName;
    boost::system::error_code error;
    if (!fs::exists(directory, error)) {
        // The folder itself may be missing on a fresh POSIX account.
        fs::create_directories(directory, error);
        if (error) {
            values.applicationDataComputed = false;
            throw std::runtime_error("Cannot create the directory " + native(directory) + ": " + error.message());
        }
        Base::FileManager::setPermissions(directory, 0775);
    } else if (!isDirectory(directory)) {
        values.applicationDataComputed = false;
        throw std::runtime_error("The path " + native(directory) + " is not a directory.\n");
    }
    values.applicationDataPath = directory;
    return values.applicationDataPath;
}

const fs::path& SystemInfo::localDepartmentsPath() const {
    Locations& values = locations();
    const std::string& variable = KymConfigPathEnvVarName;
    if (!values.departmentsDiscovered) {
        values.departmentsDiscovered = true;

        std::string value = Base::Environment::getEnvVariable(variable);
        if (!value.empty()) {
            BASE_LOG(Base::log::info()) << "Checking if variable" << value << " can is a valid ugsite";
            Base::Environment::expandEnvVariables(value);
            const fs::path candidate(value);
            if (isDirectory(candidate)) {
                BASE_LOG(Base::log::verbose()) << "Using " << native(candidate) << " as ugsite";
                values.departmentsPath = candidate;
            }
        }

        if (values.departmentsPath.empty()) {
            BASE_LOG(Base::log::info()) << "Checking for ugsite as sibling of " << native(installPath());
            const fs::path candidate = installPath().parent_path() / "ugsite";
            BASE_LOG(Base::log::verbose()) << "  does this exist? " << native(candidate);
            if (isDirectory(candidate)) {
                BASE_LOG(Base::log::verbose()) << "Using " << native(candidate) << " as ugsite";
                values.departmentsPath = candidate;
            }
        }

        if (values.departmentsPath.empty()) {
            const fs::path candidate = installPath() / KymConfigFallbackDirectoryName;
            BASE_LOG(Base::log::info()) << "Using fallback ugsite: " << native(candidate);
            if (isDirectory(candidate)) values.departmentsPath = candidate;
        }
    }
    if (values.departmentsPath.empty())
        throw std::runtime_error("Problem determining where local department directory is "
                                 "located.\nUsually defined by " + variable + " environment variable.");
    return values.departmentsPath;
}

const std::string& SystemInfo::osDirectoryName() {
    return Base::Platform::current().osDirectoryName();
}

const std::string& SystemInfo::osaDirectoryName() {
    return Base::Platform::current().osaDirectoryName();
}

const std::string& SystemInfo::scriptExtension() {
    return Base::Platform::current().scriptExtension();
}

SystemInfo& SystemInformation() {
    return systemInformation.instance();
}

} // namespace Kym
