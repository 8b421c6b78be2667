#include "kym/OfferedApplications.h"

#include "kym/ApplicationOverlay.h"
#include "kym/BaseSettings.h"
#include "kym/Configuration.h"
#include "kym/PluginsManager.h"
#include "kym/SiteSettings.h"

#include "base/Platform.h"

#include <boost/algorithm/string/join.hpp>
#include <boost/any.hpp>
#include <boost/filesystem/operations.hpp>
#include <algorithm>
#include <stdexcept>

namespace fs = boost::filesystem;

namespace Kym {

namespace {

using Entry = OfferedApplications::Entry;
using Source = OfferedApplications::Source;

std::string native(const fs::path& p) {
    return Base::Platform::current().nativePath(p);
}

std::vector<Entry> collect(Configuration& department, Configuration* common) {
    std::vector<Entry> entries;
    auto add = [&entries](const std::vector<ConfigApplication>& applications, Source source) {
        for (const ConfigApplication& application : applications) entries.push_back({application, source, false});
    };
    // The site registers the external plugins when its settings are first read.
    SiteInformation();
    add(BaseInformation().applicationList(), Source::Base);
    if (common) add(common->applicationList(), Source::Common);
    add(department.applicationList(), Source::Department);
    add(PluginsManagement().applicationList(department), Source::Plugin);

    ConfigurationSettings& settings = *department.settings();
    for (Entry& entry : entries) {
        ConfigApplication& application = entry.application;
        if (!settings.hasOverlay(application.configurationName(), application.appId)) continue;
        const ApplicationOverlay overlay = settings.getOverlay(application.configurationName(), application.appId);
        // An overlay field left empty keeps the application's own text.
        if (!overlay.description.empty()) application.description = overlay.description;
        if (!overlay.category.empty()) application.category = overlay.category;
        application.disableApplication = overlay.disableApplication;
        entry.overlaid = true;
    }
    // Stable: equal texts keep the order of the layers, base first.
    std::stable_sort(entries.begin(), entries.end(),
                     [](const Entry& left, const Entry& right) { return left.application < right.application; });
    return entries;
}

} // namespace

std::unique_ptr<Configuration> OfferedApplications::loadCommonDepartment(const Configuration& department) {
    const fs::path common = department.commonConfigPath();
    if (common == department.path()) return nullptr;
    boost::system::error_code error;
    if (!fs::is_directory(common, error))
        throw std::runtime_error("Department '" + department.name() + "' names the common department '" +
                                 department.commonDepartment + "', which does not exist in " +
                                 native(common.parent_path()) + ".");
    try {
        return std::make_unique<Configuration>(common, true);
    } catch (const boost::bad_any_cast&) {
        throw std::runtime_error("The properties of department '" + common.filename().string() +
                                 "' do not load: " + native(common / Configuration::PropertyFileName) +
                                 " lacks a Description or holds a value of the wrong type.");
    }
}

const char* OfferedApplications::sourceName(Source source) {
    switch (source) {
    case Source::Department: return "department";
    case Source::Common: return "common";
    case Source::Plugin: return "plugin";
    case Source::Base: return "base";
    }
    return "";
}

OfferedApplications::OfferedApplications(Configuration& department)
    : mDepartmentName(department.name()),
      mLoadedCommon(loadCommonDepartment(department)),
      mCommon(mLoadedCommon.get()),
      mEntries(collect(department, mCommon)) {}

OfferedApplications::OfferedApplications(Configuration& department, Configuration* common)
    : mDepartmentName(department.name()), mCommon(common), mEntries(collect(department, common)) {}

OfferedApplications::OfferedApplications(OfferedApplications&& other) noexcept = default;
OfferedApplications& OfferedApplications::operator=(OfferedApplications&& other) noexcept = default;
OfferedApplications::~OfferedApplications() = default;

const OfferedApplications::Entry& OfferedApplications::choose(const std::string& appId, const std::string& from) const {
    std::vector<const Entry*> matches;
    for (const Entry& entry : mEntries)
        if (entry.application.appId == appId && (from.empty() || entry.application.configurationName() == from))
            matches.push_back(&entry);
    if (matches.empty()) {
        std::vector<std::string> ids;
        for (const Entry& entry : mEntries)
            if (std::find(ids.begin(), ids.end(), entry.application.appId) == ids.end())
                ids.push_back(entry.application.appId);
        std::string message = "No application '" + appId + "'";
        if (!from.empty()) message += " of '" + from + "'";
        message += " in department '" + mDepartmentName + "'. ";
        message += ids.empty() ? "It offers no applications." : "It offers: " + boost::algorithm::join(ids, ", ") + ".";
        throw std::runtime_error(message);
    }
    const auto best = std::min_element(matches.begin(), matches.end(), [](const Entry* left, const Entry* right) {
        return left->source < right->source;
    });
    std::vector<std::string> tied;
    for (const Entry* entry : matches)
        if (entry->source == (*best)->source) tied.push_back("'" + entry->application.configurationName() + "'");
    if (tied.size() > 1)
        throw std::runtime_error("Application '" + appId + "' is ambiguous in department '" + mDepartmentName +
                                 "': it is offered by " + boost::algorithm::join(tied, " and ") +
                                 ". Choose one with --from NAME.");
    return **best;
}

const OfferedApplications::Entry* OfferedApplications::find(const std::string& configurationName,
                                                            const std::string& appId) const {
    const EqualOverlayOrApp matches(configurationName, appId);
    for (const Entry& entry : mEntries)
        if (matches(entry.application)) return &entry;
    return nullptr;
}

} // namespace Kym
