#include "kym/PluginSettings.h"

#include "base/Archiver.h"
#include "base/Unarchiver.h"
#include "base/log/Logger.h"

#include <boost/filesystem/operations.hpp>
#include <utility>

namespace fs = boost::filesystem;

namespace Kym {

PluginSettings::PluginSettings(const fs::path& dir)
    : mPluginType(SiteWideType), mDataFile(dir / DataFileName), mDirectory(dir), mNeedsSaving(false) {
    load();
}

PluginSettings::PluginSettings(const PluginSettings& other)
    : SettingsProtocol(other),
      mPluginType(other.mPluginType),
      mApplications(other.mApplications),
      mDataFile(other.mDataFile),
      mDirectory(other.mDirectory),
      mApplicationSource(other.mApplicationSource),
      mNeedsSaving(other.mNeedsSaving) {
    mApplicationSource.setList(other.mApplicationSource.isNull() ? nullptr : &mApplications);
}

// The registry keeps plugins in a vector: moved, not copied, when it grows.
PluginSettings::PluginSettings(PluginSettings&& other) noexcept
    : SettingsProtocol(std::move(other)),
      mPluginType(std::move(other.mPluginType)),
      mApplications(std::move(other.mApplications)),
      mDataFile(std::move(other.mDataFile)),
      mDirectory(std::move(other.mDirectory)),
      mApplicationSource(other.mApplicationSource),
      mNeedsSaving(other.mNeedsSaving) {
    mApplicationSource.setList(other.mApplicationSource.isNull() ? nullptr : &mApplications);
}

PluginSettings& PluginSettings::operator=(PluginSettings&& other) noexcept {
    SettingsProtocol::operator=(std::move(other));
    mPluginType = std::move(other.mPluginType);
    mApplications = std::move(other.mApplications);
    mDataFile = std::move(other.mDataFile);
    mDirectory = std::move(other.mDirectory);
    mApplicationSource.setEdited(other.mApplicationSource.isEdited());
    mNeedsSaving = other.mNeedsSaving;
    return *this;
}

PluginSettings& PluginSettings::operator=(const PluginSettings& other) {
    SettingsProtocol::operator=(other);
    mPluginType = other.mPluginType;
    mApplications = other.mApplications;
    mDataFile = other.mDataFile;
    mDirectory = other.mDirectory;
    mApplicationSource.setEdited(other.mApplicationSource.isEdited());
    mNeedsSaving = other.mNeedsSaving;
    return *this;
}

PluginSettings::~PluginSettings() = default;

void PluginSettings::setPath(const fs::path& dir) {
    mDirectory = dir;
    mDataFile.setPath(dir / DataFileName);
}

std::string PluginSettings::name() const {
    return mDirectory.filename().string();
}

void PluginSettings::load() {
    boost::system::error_code error;
    if (!fs::exists(mDataFile.path(), error)) {
        mDataFile.setRead(Base::FileIdentity());
        return;
    }
    try {
        Base::Unarchiver archive(mDataFile.path());
        // Decoded aside first, so a damaged file leaves the plugin as it was.
        std::string type = SiteWideType;
        archive.decode(PluginTypeKey, type);
        auto lists = decodeVariableLists(archive, CommonVariablesKey, UnixVariablesKey, WindowsVariablesKey);
        auto applications = archive.decodeValue<std::vector<ConfigApplication>>(ApplicationListKey);
        mPluginType = std::move(type);
        takeVariableLists(std::move(lists));
        mApplications = std::move(applications);
        mDataFile.setRead(archive.sourceIdentity());
    } catch (const std::exception& failure) {
        mDataFile.setReadFailure(failure.what());
        throw;
    }
}

std::string PluginSettings::encoded() const {
    // Encoding an application clears its marks, so a copy is encoded: a failed write keeps them.
    std::vector<ConfigApplication> applications = mApplications;
    Base::Archiver archive(mDataFile.path());
    archive.encode(PluginTypeKey, mPluginType);
    encodeVariableLists(archive, CommonVariablesKey, UnixVariablesKey, WindowsVariablesKey);
    archive.encodeObject(ApplicationListKey, applications);
    return archive.text();
}

void PluginSettings::clearListMarks() {
    for (ConfigApplication& application : mApplications) application.setVariableListsEdited(false);
    setVariableListsEdited(false);
    mApplicationSource.setEdited(false);
}

void PluginSettings::save() {
    if (!needsSaving()) return;
    mDataFile.write(encoded());
    clearListMarks();
}

fs::path PluginSettings::overwrite() {
    const fs::path copy = mDataFile.overwrite(encoded());
    clearListMarks();
    return copy;
}

bool PluginSettings::needsSaving() const {
    bool result = mNeedsSaving || variableListsEdited() || mApplicationSource.isEdited();
    for (auto application = mApplications.begin(); !result && application != mApplications.end(); ++application)
        result = application->needsSaving();
    BASE_LOG(Base::log::verbose()) << "Plugin: " << name() << " needsSaving = " << (result ? "true" : "false");
    return result;
}

const std::vector<ConfigApplication>& PluginSettings::applicationList() {
    const std::string configurationName = configurationNameFor(name());
    for (ConfigApplication& application : mApplications) application.setConfigurationName(configurationName);
    return mApplications;
}

ApplicationListSource* PluginSettings::applications() {
    mApplicationSource.setList(&mApplications);
    return &mApplicationSource;
}

void PluginSettings::mergeEnvVariables(std::vector<EnvironmentVariable>& vars) const {
    mergeUserEnvVariables(vars);
}

} // namespace Kym
