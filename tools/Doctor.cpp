// kym doctor: reads a whole site and reports every problem with the file at fault.
#include "Command.h"
#include "SiteAccess.h"

#include "kym/BaseSettings.h"
#include "kym/Configuration.h"
#include "kym/ConfigurationSettings.h"
#include "kym/Launcher.h"
#include "kym/OfferedApplications.h"
#include "kym/PluginsManager.h"
#include "kym/SiteSettings.h"
#include "kym/SystemInfo.h"

#include "base/Platform.h"
#include "base/Unarchiver.h"

#include <boost/filesystem/operations.hpp>
#include <algorithm>
#include <memory>

namespace KymTool {

namespace {

struct Problem {
    std::string file;
    std::string message;
};

class Doctor {
public:
    int run(Context& context);

private:
    void add(const fs::path& file, const std::string& message) { mProblems.push_back({native(file), message}); }
    // Runs one check; a failure is a problem of that file.
    bool attempt(const fs::path& file, const std::string& what, const std::function<void()>& check);

    void checkSystemInfo();
    void checkPlugins(const fs::path& directory);
    void checkSiteFile();
    void checkVariables(Kym::SettingsProtocol& owner, const std::string& where, const fs::path& file);
    void checkLayerVariables(Kym::SettingsProtocol& owner, Kym::ApplicationListSource* applications,
                             const std::string& where, const fs::path& file);
    void checkDepartment(const fs::path& directory);
    void checkApplications(Kym::Configuration& department, Kym::Configuration* common);

    std::vector<Problem> mProblems;
    bool mStoresLoad = true;
};

bool Doctor::attempt(const fs::path& file, const std::string& what, const std::function<void()>& check) {
    try {
        check();
        return true;
    } catch (const std::exception& failure) {
        std::string message = failure.what();
        while (!message.empty() && message.back() == '\n') message.pop_back();
        add(file, what + ": " + message);
        return false;
    }
}

bool pathExists(const fs::path& p) {
    boost::system::error_code error;
    return fs::exists(p, error);
}

std::vector<fs::path> entries(const fs::path& directory) {
    boost::system::error_code error;
    if (directory.empty() || !fs::is_directory(directory, error)) return {};
    std::vector<fs::path> list{fs::directory_iterator(directory), fs::directory_iterator()};
    std::sort(list.begin(), list.end());
    return list;
}

const char* const SystemInfoKeys[] = {
    "KymVersionString", "CadVersionDirectory", "PreviousCadVersionDirectory", "KymConfigPathEnvVarName",
    "KymConfigFallbackDirectoryName", "KymApplicationDataDirectoryName", "BroadcastDirectoryName",
    "BroadcastStartMessage", "SiteSettingsSuffix", "CadWindowsRegistryPath", "CadProductName",
    "CadSupportedVersionString", "CadInstallPathVariable", "CadWebBrowserVariable", "tcEngInstallPathVariable",
    "tcEngDatabaseVariable", "CadVersionDataFilename"};

void Doctor::checkSystemInfo() {
    // The store falls back to its defaults in silence; the file is read here to say so.
    const fs::path file = Kym::SystemInformation().dataFile();
    if (!pathExists(file)) return;
    attempt(file, "the system information does not load, defaults are used", [&file] {
        Base::Unarchiver archive(file);
        for (const char* key : SystemInfoKeys) {
            std::string value;
            archive.decode(key, value);
        }
    });
}

void Doctor::checkPlugins(const fs::path& directory) {
    for (const fs::path& entry : entries(directory)) {
        if (!attempt(entry / Kym::PluginSettings::DataFileName, "the plugin settings do not load",
                     [&entry] { Kym::PluginSettings plugin(entry); }))
            mStoresLoad = false;
    }
}

void Doctor::checkSiteFile() {
    const fs::path file = Kym::SystemInformation().localDepartmentsPath() /
                          ("site_settings" + Kym::SystemInformation().SiteSettingsSuffix + ".dat");
    if (!pathExists(file)) return;
    using S = Kym::SiteSettings;
    std::string external;
    const bool loads = attempt(file, "the site settings do not load", [&] {
        Base::Unarchiver archive(file);
        for (const char* key : {S::UnixNXInstallPathKey, S::WindowsNXInstallPathKey, S::UnixTcEngInstallPathKey,
                                S::WindowsTcEngInstallPathKey, S::UnixPortalInstallPathKey, S::WindowsPortalInstallPathKey,
                                S::BrowserKey, S::CommonVariablesKey, S::UnixVariablesKey, S::WindowsVariablesKey,
                                S::UnixPlotConfBaseKey, S::WindowsPlotConfBaseKey})
            archive.decodeObject(key, nullptr);
        bool registry = true;
        archive.decode(S::UseWindowsRegistryKey, registry);
        std::string unixLocation, windowsLocation;
        archive.decode(S::UnixExternalPluginsLocationKey, unixLocation);
        archive.decode(S::WindowsExternalPluginsLocationKey, windowsLocation);
        external = Base::Platform::current().isWindows() ? windowsLocation : unixLocation;
    });
    if (!loads) mStoresLoad = false;
    checkPlugins(external);
}

void Doctor::checkVariables(Kym::SettingsProtocol& owner, const std::string& where, const fs::path& file) {
    const std::pair<const char*, Kym::EnvVariableListSource*> lists[] = {
        {"common", owner.commonVariables()}, {"unix", owner.unixVariables()}, {"windows", owner.winVariables()}};
    for (const auto& [listName, source] : lists) {
        for (int row = 0; row < source->numberOfRowsInList(); ++row) {
            const std::string name = boost::any_cast<std::string>(source->valueForListColumnRow("Name", row));
            const std::string value = boost::any_cast<std::string>(source->valueForListColumnRow("Value", row));
            const std::string in = std::string("in the ") + listName + " list of " + where;
            if (name.empty())
                add(file, "A variable without a name " + in + ".");
            else if (!source->valueIsValid("Name", row))
                add(file, invalidNameText(name, in));
            if (!source->valueIsValid("Value", row)) add(file, invalidValueText(name, value, in));
        }
    }
}

void Doctor::checkLayerVariables(Kym::SettingsProtocol& owner, Kym::ApplicationListSource* applications,
                                 const std::string& where, const fs::path& file) {
    checkVariables(owner, where, file);
    if (!applications) return;
    for (int row = 0; row < applications->numberOfRowsInList(); ++row) {
        Kym::ConfigApplication& application = applications->application(row);
        checkVariables(application, "application " + application.appId + " of " + where, file);
    }
}

fs::path applicationFile(const Kym::OfferedApplications::Entry& entry, Kym::Configuration& department,
                         Kym::Configuration* common) {
    using Source = Kym::OfferedApplications::Source;
    switch (entry.source) {
    case Source::Base: return Kym::BaseInformation().dataFile();
    case Source::Common: return common->settings()->dataFile();
    case Source::Department: return department.settings()->dataFile();
    case Source::Plugin: break;
    }
    const std::string name = entry.application.configurationName();
    const std::string plugin = name.substr(0, name.size() - std::string(" Plugin").size());
    return findPlugin(plugin).dataFile();
}

void Doctor::checkApplications(Kym::Configuration& department, Kym::Configuration* common) {
    const Kym::OfferedApplications offered(department, common);
    Kym::Launcher launcher;
    for (const Kym::OfferedApplications::Entry& entry : offered) {
        if (entry.application.disableApplication) continue;
        const std::string what = "application " + entry.application.appId + " (" +
                                 entry.application.configurationName() + ") in department " + department.name();
        attempt(applicationFile(entry, department, common), what, [&] {
            Kym::Launcher::EnvironmentMap environment;
            launcher.buildEnvVarMap(department, common, entry.application, environment);
            launcher.getAndCheckExecutable(entry.application, environment);
        });
    }
}

void Doctor::checkDepartment(const fs::path& directory) {
    const fs::path properties = directory / Kym::Configuration::PropertyFileName;
    if (!pathExists(properties)) return;
    std::unique_ptr<Kym::Configuration> department;
    if (!attempt(properties, "the department properties do not load",
                 [&] { department = std::make_unique<Kym::Configuration>(directory, true); }))
        return;
    const std::string name = department->name();
    const std::string release = Kym::SystemInformation().CadVersionDirectory;

    std::unique_ptr<Kym::Configuration> common;
    const std::string& commonName = department->commonDepartment;
    if (!commonName.empty()) {
        if (commonName.find(' ') != std::string::npos) {
            add(properties, "The common department '" + commonName + "' of department " + name +
                                " holds a blank, so it is ignored.");
        } else if (!pathExists(department->commonConfigPath() / Kym::Configuration::PropertyFileName)) {
            add(properties, "The common department '" + commonName + "' of department " + name + " does not exist.");
        } else {
            attempt(department->commonConfigPath() / Kym::Configuration::PropertyFileName,
                    "the common department of department " + name + " does not load",
                    [&] { common = std::make_unique<Kym::Configuration>(department->commonConfigPath(), true); });
        }
    }

    if (!department->isUpdated()) {
        add(directory, "Department " + name + " is not updated for release " + release + " ('kym dept update " + name +
                           "' makes " + native(department->versionPath()) + ").");
        return;
    }
    const fs::path settingsFile = department->settings()->dataFile();
    using C = Kym::ConfigurationSettings;
    // The department's settings fall back to empty lists in silence; the file is read here to say so.
    if (pathExists(settingsFile) &&
        !attempt(settingsFile, "the settings of department " + name + " do not load", [&settingsFile] {
            Base::Unarchiver archive(settingsFile);
            for (const char* key : {C::WorkDirectoryListKey, C::CommonVariablesKey, C::UnixVariablesKey,
                                    C::WindowsVariablesKey, C::ApplicationListKey, C::ApplicationOverlayListKey})
                archive.decodeObject(key, nullptr);
            std::vector<std::string> disabled;
            archive.decode(C::DisabledPluginsKey, disabled);
        }))
        return;
    checkLayerVariables(*department->settings(), department->settings()->applications(), "department " + name,
                        settingsFile);
    if (mStoresLoad) checkApplications(*department, common.get());
}

int Doctor::run(Context& context) {
    const fs::path& installation = Kym::SystemInfo::installPath();
    checkSystemInfo();
    const fs::path baseFile = installation / "config" / "baseSettings.dat";
    if (!attempt(baseFile, "the base settings do not load", [] { Kym::BaseInformation(); })) mStoresLoad = false;
    checkPlugins(installation / "plugins");
    fs::path departments;
    if (attempt(installation, "no departments directory", [&departments] {
            departments = Kym::SystemInformation().localDepartmentsPath();
        })) {
        checkSiteFile();
        if (mStoresLoad) {
            mStoresLoad = attempt(departments, "the site does not load", [] { prepareStores(); });
        }
        if (mStoresLoad) {
            checkLayerVariables(Kym::SiteInformation(), nullptr, "the site settings", Kym::SiteInformation().dataFile());
            checkLayerVariables(Kym::BaseInformation(), Kym::BaseInformation().applications(), "the base settings",
                                baseFile);
            Kym::PluginsManager& plugins = Kym::PluginsManagement();
            for (int index = 0; index < plugins.numberOfPlugins(); ++index) {
                Kym::PluginSettings& plugin = *plugins.plugin(index, false);
                checkLayerVariables(plugin, plugin.applications(), "plugin " + plugin.name(), plugin.dataFile());
            }
            for (const fs::path& entry : entries(departments)) checkDepartment(entry);
        }
    }

    Json list = Json::array();
    for (const Problem& problem : mProblems) {
        Json entry = Json::object();
        entry.set("file", problem.file);
        entry.set("message", problem.message);
        list.push(entry);
    }
    Json value = Json::object();
    value.set("problems", list);
    value.set("count", static_cast<int>(mProblems.size()));
    context.print(value, [&](std::ostream& out) {
        for (const Problem& problem : mProblems) out << problem.file << ": " << problem.message << "\n";
        if (mProblems.empty())
            out << "No problems found.\n";
        else
            out << mProblems.size() << (mProblems.size() == 1 ? " problem" : " problems") << " found.\n";
    });
    return mProblems.empty() ? 0 : 1;
}

} // namespace

void addDoctorCommand(Commands& commands) {
    Context& context = commands.context();
    commands.command(&commands.root(), "doctor",
                     "Check the whole site. Reports every problem with the file at fault: settings files that do "
                     "not load, invalid variable names or values in any layer, common departments that do not exist, "
                     "departments not updated for the release, and applications whose program does not resolve in "
                     "their department's environment. Exit status 1 when it found problems, 0 when none.",
                     "  kym doctor\n  kym doctor --json\n", [&context] { return Doctor().run(context); });
}

} // namespace KymTool
