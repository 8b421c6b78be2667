// What a department offers to start: the base applications, its common
// department's, its own and those of the plugins that apply to it, each with
// the department's overlay applied, ordered by category and description.
// Every front end lists and chooses through it, so all show the same.
#pragma once

#include "kym/ConfigApplication.h"
#include "kym/KymExport.h"

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace Kym {

class Configuration;

class KYM_EXPORT OfferedApplications {
public:
    // Where an application comes from, highest rank first: of several sharing
    // an identifier the department's own wins, then its common department's,
    // then a plugin's, then the base one.
    enum class Source { Department, Common, Plugin, Base };
    // "department", "common", "plugin" or "base".
    static const char* sourceName(Source source);
    // The department's common department, loaded; null when it names none.
    // Throws naming it when it does not exist or its properties do not load.
    static std::unique_ptr<Configuration> loadCommonDepartment(const Configuration& department);

    struct Entry {
        // Stamped with the configuration that offers it ("Base KYM", "cam Plugin", a department's name).
        ConfigApplication application;
        Source source;
        // The department holds an overlay for it.
        bool overlaid;
    };

    // Loads the common department the department names itself; throws when
    // that one does not exist or its properties do not load.
    explicit OfferedApplications(Configuration& department);
    // With the department's common department loaded by the caller; null when it names none.
    OfferedApplications(Configuration& department, Configuration* common);
    OfferedApplications(OfferedApplications&& other) noexcept;
    OfferedApplications& operator=(OfferedApplications&& other) noexcept;
    ~OfferedApplications();

    const std::vector<Entry>& entries() const { return mEntries; }
    std::vector<Entry>::const_iterator begin() const { return mEntries.begin(); }
    std::vector<Entry>::const_iterator end() const { return mEntries.end(); }
    std::size_t size() const { return mEntries.size(); }
    bool empty() const { return mEntries.empty(); }

    const std::string& departmentName() const { return mDepartmentName; }
    // The common department given or loaded; null when the department names none.
    Configuration* commonDepartment() const { return mCommon; }

    // The application with that identifier, by rank; with `from`, only among
    // those of that configuration. Throws when none matches, naming what the
    // department offers, and when two of the best rank match.
    const Entry& choose(const std::string& appId, const std::string& from = std::string()) const;
    // The application of that configuration and identifier, as an overlay names it; null when not offered.
    const Entry* find(const std::string& configurationName, const std::string& appId) const;

private:
    std::string mDepartmentName;
    std::unique_ptr<Configuration> mLoadedCommon;
    Configuration* mCommon;
    std::vector<Entry> mEntries;
};

} // namespace Kym
