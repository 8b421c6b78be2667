#include "kym/SystemPreferences.h"

#include "kym/SystemInfo.h"

#include "base/Environment.h"
#include "base/FileManager.h"
#include "base/Platform.h"
#include "base/PropertyList.h"
#include "base/log/Logger.h"

#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>
#include <boost/filesystem/operations.hpp>
#include <boost/make_shared.hpp>
#include <iostream>
#include <stdexcept>
#include <vector>

namespace fs = boost::filesystem;

namespace Kym {

namespace {

using Dictionary = Base::PropertyList::Dictionary;

const char* const GlobalFileName = "global.plist";

std::string native(const fs::path& p) {
    return Base::Platform::current().nativePath(p);
}

std::vector<std::string> keyPath(const std::string& key) {
    std::vector<std::string> names;
    boost::algorithm::split(names, key, boost::algorithm::is_any_of("/"));
    return names;
}

} // namespace

InvalidPreferenceFile::InvalidPreferenceFile(const std::string& message) : Base::BaseException(message) {}

SystemPreferences::SystemPreferences(const std::string& applicationName)
    : mApplicationFileName(applicationName + ".plist"),
      mGlobalFileName(GlobalFileName),
      mGlobalPreferenceDirectory("${KYM_DEPT_DIR}/${UG_VER}/preferences/"),
      mApplicationName(applicationName) {
    BASE_LOG(Base::log::info()) << "(1) SystemPreferences KYM_DEPT_DIR 1 param " << mApplicationName;
    BASE_LOG(Base::log::info()) << "(1) Current 1app plist = " << mApplicationFileName;
    const fs::path& applicationData = SystemInformation().applicationDataPath();
    BASE_LOG(Base::log::info()) << "(1) after Base::Path path() path = " << native(applicationData);
    setUserPreferenceDirectory();
    BASE_LOG(Base::log::info()) << "(1) Current user pref dir = " << mUserPreferenceDirectory;
    Base::Environment::expandEnvVariables(mGlobalPreferenceDirectory);
    BASE_LOG(Base::log::info()) << "(1) after expandEnvVariables " << mGlobalPreferenceDirectory;
    BASE_LOG(Base::log::info()) << "(1) Global pref dir = " << mGlobalPreferenceDirectory;
    loadPreferences();
}

SystemPreferences::SystemPreferences(const std::string& departmentDirectory, const std::string& applicationName)
    : mApplicationFileName(applicationName + ".plist"),
      mGlobalFileName(GlobalFileName),
      mGlobalPreferenceDirectory(departmentDirectory + "/${UG_VER}/preferences/"),
      mApplicationName(applicationName) {
    BASE_LOG(Base::log::info()) << "(2) SystemPreferences DEPT 2 param " << departmentDirectory;
    BASE_LOG(Base::log::info()) << "Current 2app plist = " << mApplicationFileName;
    setUserPreferenceDirectory();
    BASE_LOG(Base::log::info()) << "Current user pref dir = " << mUserPreferenceDirectory;
    Base::Environment::expandEnvVariables(mGlobalPreferenceDirectory);
    BASE_LOG(Base::log::info()) << "Global pref dir = " << mGlobalPreferenceDirectory;
    loadPreferences();
}

SystemPreferences::~SystemPreferences() = default;

void SystemPreferences::setUserPreferenceDirectory() {
    const fs::path& applicationData = SystemInformation().applicationDataPath();
    // No data folder, no user domains: loadPreferences and Flush() skip an empty directory.
    mUserPreferenceDirectory = applicationData.empty() ? std::string() : (applicationData / "preferences/").string();
}

void SystemPreferences::loadPreferences() {
    mSearchList.clear();
    mDomains.clear();
    auto read = [this](int row, const std::string& fileName, const std::string& directory) {
        BASE_LOG(Base::log::info()) << "ReadInPlist: " << row << " " << directory;
        ReadInPList(fileName, directory, false);
    };
    if (!mUserPreferenceDirectory.empty()) {
        read(1, mApplicationFileName, mUserPreferenceDirectory);
        read(2, mGlobalFileName, mUserPreferenceDirectory);
    }
    read(3, mApplicationFileName, mGlobalPreferenceDirectory);
    read(4, mGlobalFileName, mGlobalPreferenceDirectory);
    // Kept as they always were: not expanded here, and "$UG_VER" without
    // braces. A property list that does not expand its path leaves these empty.
    read(5, mApplicationFileName, "${KYM_COMMONDEPT_DIR}/$UG_VER/preferences/");
    read(6, mGlobalFileName, "${KYM_COMMONDEPT_DIR}/$UG_VER/preferences/");
    read(7, mApplicationFileName, "${KYM_BASE_DIR}/preferences/");
    read(8, mGlobalFileName, "${KYM_BASE_DIR}/preferences/");
}

void SystemPreferences::ReadInPList(const std::string& fileName, const std::string& directory, bool atFront) {
    const fs::path file = fs::path(directory) / fileName;
    BASE_LOG(Base::log::info()) << "Reading in preference file " << native(file);
    try {
        boost::system::error_code error;
        const bool exists = fs::status(file, error).type() != fs::file_not_found;
        const std::string text = exists ? Base::FileManager::readFile(file) : std::string();
        Base::PropertyList list(file, exists ? Base::PropertyList::parse(text, native(file)) : boost::any());
        fileOf(file).setRead(exists ? Base::FileIdentity::ofContent(text) : Base::FileIdentity());
        if (!list.hasRoot()) list.setList(Dictionary());
        if (!boost::any_cast<Dictionary>(&list.root()))
            throw InvalidPreferenceFile("Invalid preference file: " + native(file) + "  Root object was not dictionary");
        mDomains[file] = boost::make_shared<boost::any>(list.root());
        mChanged[file] = false;
        if (atFront)
            mSearchList.push_front(file);
        else
            mSearchList.push_back(file);
    } catch (const Base::BaseException& failure) {
        mDomains[file] = boost::make_shared<boost::any>(Dictionary());
        mChanged[file] = false;
        fileOf(file).setReadFailure(failure.what());
        BASE_LOG(Base::log::info()) << failure.what();
    }
}

Base::SettingsFile& SystemPreferences::fileOf(const path& file) {
    const auto found = mFiles.find(file);
    return found != mFiles.end() ? found->second : mFiles.emplace(file, Base::SettingsFile(file)).first->second;
}

boost::shared_ptr<boost::any>& SystemPreferences::domain(const path& file) {
    boost::shared_ptr<boost::any>& root = mDomains[file];
    if (!root) root = boost::make_shared<boost::any>(Dictionary());
    return root;
}

void SystemPreferences::addPath(const std::string& directory, bool atFront) {
    BASE_LOG(Base::log::info()) << "in addPath()";
    if (!Base::FileManager::exists(directory)) return;
    ReadInPList(mApplicationFileName, directory, atFront);
    ReadInPList(mGlobalFileName, directory, atFront);
}

boost::shared_ptr<boost::any> SystemPreferences::GetPreference(const std::string& key) {
    const std::vector<std::string> names = keyPath(key);
    for (const path& file : mSearchList) {
        auto found = mDomains.find(file);
        if (found == mDomains.end() || !found->second) continue;
        const boost::any* node = found->second.get();
        for (const std::string& name : names) {
            const auto* dictionary = boost::any_cast<Dictionary>(node);
            auto entry = dictionary ? dictionary->find(name) : Dictionary::const_iterator();
            node = dictionary && entry != dictionary->end() ? &entry->second : nullptr;
            if (!node) break;
        }
        if (node) return boost::make_shared<boost::any>(*node);
    }
    return boost::shared_ptr<boost::any>();
}

void SystemPreferences::SetPreference(const std::string& key, const boost::any& value, const std::string& fileName,
                                      const std::string& directory) {
    const fs::path file = fs::path(directory) / fileName;
    BASE_LOG(Base::log::info()) << "Setting Preference '" << key << "' and placing it in " << native(file);
    const std::vector<std::string> names = keyPath(key);
    auto* dictionary = boost::any_cast<Dictionary>(domain(file).get());
    for (std::size_t i = 0; i + 1 < names.size(); ++i) {
        boost::any& child = (*dictionary)[names[i]];
        // A value standing where the path needs a dictionary gives way to one.
        if (!boost::any_cast<Dictionary>(&child)) child = Dictionary();
        dictionary = boost::any_cast<Dictionary>(&child);
    }
    (*dictionary)[names.back()] = value;
    mChanged[file] = true;
}

void SystemPreferences::SetPreference(const std::string& key, const boost::any& value) {
    SetPreference(key, value, CurrentApplication(), CurrentUser());
}

void SystemPreferences::RemovePreference(const std::string& key, const std::string& fileName,
                                         const std::string& directory) {
    if (key.empty()) return;
    boost::any_cast<Dictionary&>(*domain(fs::path(directory) / fileName)).erase(key);
}

void SystemPreferences::RemovePreference(const std::string& key) {
    RemovePreference(key, CurrentApplication(), CurrentUser());
}

void SystemPreferences::Flush(const std::string& directory) {
    if (directory.empty()) return;
    BASE_LOG(Base::log::info()) << "Flushing " << directory << " preferences";
    BASE_LOG(Base::log::info()) << "Preparing user's preference directory";
    const fs::path folder(directory);
    auto save = [this](const fs::path& file) {
        auto changed = mChanged.find(file);
        auto found = mDomains.find(file);
        if (found == mDomains.end() || !found->second || changed == mChanged.end() || !changed->second) return;
        BASE_LOG(Base::log::info()) << "Writing property list " << native(file);
        fileOf(file).write(Base::PropertyList::serialize(*found->second));
        changed->second = false;
    };
    try {
        boost::system::error_code error;
        const fs::file_status status = fs::status(folder, error);
        if (fs::exists(status) && !fs::is_directory(status))
            throw std::runtime_error("The path " + native(folder) + " is not a directory.\n");
        if (!fs::exists(status)) {
            fs::create_directory(folder);
            Base::FileManager::setPermissions(folder, 0775);
        }
        BASE_LOG(Base::log::info()) << "Checking to save global preferences";
        save(folder / mGlobalFileName);
        BASE_LOG(Base::log::info()) << "Checking to save application preferences";
        save(folder / mApplicationFileName);
    } catch (const std::exception& failure) {
        std::cerr << "Unable to save preferences\n" << failure.what() << std::endl;
    }
}

void SystemPreferences::Flush() {
    Flush(CurrentUser());
}

} // namespace Kym
