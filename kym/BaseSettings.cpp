#include "kym/BaseSettings.h"

#include "kym/SystemInfo.h"

#include "base/Archiver.h"
#include "base/ProcessWide.h"
#include "base/Unarchiver.h"
#include "base/log/Logger.h"

#include <boost/filesystem/operations.hpp>
#include <utility>

namespace fs = boost::filesystem;

namespace Kym {

namespace {

const char* const BaseConfigurationName = "Base KYM";

Base::ProcessWide<BaseSettings> baseInformation;

} // namespace

fs::path BaseSettings::standardDataFile() {
    return SystemInformation().installPath() / "config" / "baseSettings.dat";
}

BaseSettings::BaseSettings() : mDataFile(standardDataFile()) {
    load();
}

BaseSettings::BaseSettings(const BaseSettings& other)
    : SettingsProtocol(other),
      mApplications(other.mApplications),
      mDataFile(other.mDataFile),
      mApplicationSource(other.mApplicationSource) {
    mApplicationSource.setList(other.mApplicationSource.isNull() ? nullptr : &mApplications);
}

BaseSettings& BaseSettings::operator=(const BaseSettings& other) {
    SettingsProtocol::operator=(other);
    mApplications = other.mApplications;
    mDataFile = other.mDataFile;
    mApplicationSource.setEdited(other.mApplicationSource.isEdited());
    return *this;
}

BaseSettings::~BaseSettings() = default;

void BaseSettings::load() {
    boost::system::error_code error;
    if (!fs::exists(mDataFile.path(), error)) {
        mDataFile.setRead(Base::FileIdentity());
        return;
    }
    try {
        Base::Unarchiver archive(mDataFile.path());
        // Decoded aside first, so a damaged file leaves the store as it was.
        auto lists = decodeVariableLists(archive, CommonVariablesKey, UnixVariablesKey, WindowsVariablesKey);
        auto applications = archive.decodeValue<std::vector<ConfigApplication>>(ApplicationListKey);
        takeVariableLists(std::move(lists));
        mApplications = std::move(applications);
        mDataFile.setRead(archive.sourceIdentity());
    } catch (const std::exception& failure) {
        mDataFile.setReadFailure(failure.what());
        throw;
    }
}

std::string BaseSettings::encoded() const {
    // Encoding an application clears its marks, so a copy is encoded: a failed write keeps them.
    std::vector<ConfigApplication> applications = mApplications;
    Base::Archiver archive(mDataFile.path());
    encodeVariableLists(archive, CommonVariablesKey, UnixVariablesKey, WindowsVariablesKey);
    archive.encodeObject(ApplicationListKey, applications);
    return archive.text();
}

void BaseSettings::clearMarks() {
    for (ConfigApplication& application : mApplications) application.setVariableListsEdited(false);
    setVariableListsEdited(false);
    mApplicationSource.setEdited(false);
}

void BaseSettings::save() {
    if (!needsSaving()) return;
    mDataFile.write(encoded());
    clearMarks();
}

fs::path BaseSettings::overwrite() {
    const fs::path copy = mDataFile.overwrite(encoded());
    clearMarks();
    return copy;
}

bool BaseSettings::needsSaving() const {
    if (variableListsEdited() || mApplicationSource.isEdited()) return true;
    for (const ConfigApplication& application : mApplications)
        if (application.needsSaving()) return true;
    return false;
}

void BaseSettings::mergeEnvVariables(std::vector<EnvironmentVariable>& vars) const {
    BASE_LOG(Base::log::info()) << "  merging core KYM envirnment variables";
    mergeUserEnvVariables(vars);
}

const std::vector<ConfigApplication>& BaseSettings::applicationList() {
    for (ConfigApplication& application : mApplications) application.setConfigurationName(BaseConfigurationName);
    return mApplications;
}

ApplicationListSource* BaseSettings::applications() {
    mApplicationSource.setList(&mApplications);
    return &mApplicationSource;
}

BaseSettings& BaseInformation() {
    return baseInformation.instance();
}

} // namespace Kym
