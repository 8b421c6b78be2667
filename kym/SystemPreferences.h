// User and site preferences kept in property-list files. Each file is a
// domain of named values, nested dictionaries addressed as "a/b/c"; reads
// look through the domains in search order (user, department, common
// department, installation; per directory the application's file, then
// "global.plist"), writes go to one chosen domain and reach disk with Flush.
#pragma once

#include "kym/KymExport.h"

#include "base/SettingsFile.h"

#include "base/BaseException.h"

#include <boost/any.hpp>
#include <boost/filesystem/path.hpp>
#include <boost/shared_ptr.hpp>
#include <list>
#include <map>
#include <string>

namespace Kym {

// A preference file whose content cannot serve as a domain.
class KYM_EXPORT InvalidPreferenceFile : public Base::BaseException {
public:
    explicit InvalidPreferenceFile(const std::string& message);
};

class KYM_EXPORT SystemPreferences {
public:
    // The department's preferences are in "${KYM_DEPT_DIR}/${UG_VER}/preferences/".
    explicit SystemPreferences(const std::string& applicationName);
    // The department's preferences are in departmentDirectory + "/${UG_VER}/preferences/".
    SystemPreferences(const std::string& departmentDirectory, const std::string& applicationName);
    // Copies share the loaded domains.
    SystemPreferences(const SystemPreferences&) = default;
    SystemPreferences& operator=(const SystemPreferences&) = default;
    ~SystemPreferences();

    // A copy of the value at the key path in the first domain that has it; empty when none has.
    boost::shared_ptr<boost::any> GetPreference(const std::string& key);
    // Stores the value at the key path in the domain directory + fileName,
    // creating the dictionaries on the way; Flush writes that domain.
    void SetPreference(const std::string& key, const boost::any& value, const std::string& fileName,
                       const std::string& directory);
    void SetPreference(const std::string& key, const boost::any& value);
    // Erases the top-level entry named by the whole key. Only a domain that
    // something was set in is written, so a removal alone never reaches disk.
    void RemovePreference(const std::string& key, const std::string& fileName, const std::string& directory);
    void RemovePreference(const std::string& key);
    // Writes the changed domains of the directory, creating it when missing.
    // Failures go to standard error; Flush itself never throws.
    void Flush(const std::string& directory);
    void Flush();

    // Reads the application's file and "global.plist" of an existing
    // directory as two more domains, at the front or the end of the search.
    void addPath(const std::string& directory, bool atFront);

    const std::string& AnyApplication() const { return mGlobalFileName; }
    const std::string& CurrentApplication() const { return mApplicationFileName; }
    const std::string& AnyUser() const { return mGlobalPreferenceDirectory; }
    const std::string& CurrentUser() const { return mUserPreferenceDirectory; }

private:
    using path = boost::filesystem::path;

    void setUserPreferenceDirectory();
    void loadPreferences();
    void ReadInPList(const std::string& fileName, const std::string& directory, bool atFront);
    boost::shared_ptr<boost::any>& domain(const path& file);

    // What each domain's file held when it was read: a flush never writes
    // over one that could not be read or that another writer changed since.
    Base::SettingsFile& fileOf(const path& file);

    std::map<path, boost::shared_ptr<boost::any>> mDomains;
    std::map<path, bool> mChanged;
    std::map<path, Base::SettingsFile> mFiles;
    std::list<path> mSearchList;
    std::string mApplicationFileName;
    std::string mGlobalFileName;
    std::string mUserPreferenceDirectory;
    std::string mGlobalPreferenceDirectory;
    std::string mApplicationName;
};

} // namespace Kym
