// kym repair LAYER: replaces a settings file that cannot be read, which no
// save writes over, deliberately and keeping a copy of it.
#include "Command.h"
#include "SiteAccess.h"

#include "kym/App.h"
#include "kym/BaseSettings.h"
#include "kym/Configuration.h"
#include "kym/PluginSettings.h"
#include "kym/SiteSettings.h"
#include "kym/SystemInfo.h"
#include "kym/SystemPreferences.h"

#include "base/Platform.h"
#include "base/PropertyList.h"
#include "base/SettingsFile.h"

#include <boost/filesystem/operations.hpp>
#include <functional>
#include <vector>

namespace KymTool {

namespace {

struct Replaced {
    enum How { Rewritten, Reset, SetAside };
    fs::path file;
    fs::path copy;
    How how;
};

// A store that reads its file whole or not at all: under the file's lock, a
// file it cannot read is set aside, and the layer starts from its defaults.
void setAsideUnlessReadable(const fs::path& file, const std::function<void()>& read, std::vector<Replaced>& replaced) {
    lockForEditing(file);
    try {
        read();
        return;
    } catch (const std::exception&) {
        boost::system::error_code error;
        if (!fs::exists(file, error)) throw;  // the trouble is elsewhere
    }
    replaced.push_back({file, Base::SettingsFile::setAside(file), Replaced::SetAside});
}

// A store that keeps what it could read: rewritten from that.
void rewriteWhenDamaged(const Base::SettingsFile& file, const std::function<fs::path()>& overwrite,
                        std::vector<Replaced>& replaced) {
    if (file.readFailed()) replaced.push_back({file.path(), overwrite(), Replaced::Rewritten});
}

fs::path pluginDirectory(const std::string& name) {
    const fs::path internal = Kym::SystemInfo::installPath() / "plugins" / name;
    boost::system::error_code error;
    if (fs::is_directory(internal, error)) return internal;
    const Kym::SiteSettings& site = Kym::SiteInformation();
    const fs::path external = Base::Platform::current().isWindows() ? site.winExternalPluginsLocation()
                                                                     : site.unixExternalPluginsLocation();
    if (!external.empty() && fs::is_directory(external / name, error)) return external / name;
    throw std::runtime_error("No plugin named '" + name + "' in " + native(internal.parent_path()) +
                             (external.empty() ? std::string() : " or " + native(external)) + ".");
}

std::vector<Replaced> repair(const std::string& layerName) {
    std::vector<Replaced> replaced;
    const std::size_t colon = layerName.find(':');
    const std::string kind = layerName.substr(0, colon);
    const std::string name = colon == std::string::npos ? std::string() : layerName.substr(colon + 1);
    if (layerName == "sysinfo") {
        Kym::SystemInfo& info = editSystemInfo();
        rewriteWhenDamaged(info.settingsFile(), [&info] { return info.overwrite(); }, replaced);
    } else if (layerName == "site") {
        setAsideUnlessReadable(Kym::SiteSettings::standardDataFile(), [] { Kym::SiteInformation().load(); }, replaced);
    } else if (layerName == "base") {
        setAsideUnlessReadable(Kym::BaseSettings::standardDataFile(), [] { Kym::BaseInformation().load(); }, replaced);
    } else if (kind == "plugin" && !name.empty()) {
        const fs::path directory = pluginDirectory(name);
        setAsideUnlessReadable(directory / Kym::PluginSettings::DataFileName,
                               [&directory] { Kym::PluginSettings plugin(directory); }, replaced);
    } else if ((kind == "dept" || kind == "department") && !name.empty()) {
        const fs::path directory = departmentDirectory(name);
        const fs::path properties = directory / Kym::Configuration::PropertyFileName;
        lockForEditing(properties);
        try {
            Kym::Configuration(directory, false).loadProperties();
        } catch (const std::exception&) {
            boost::system::error_code error;
            if (!fs::is_regular_file(properties, error)) throw;
            replaced.push_back({properties, Kym::Configuration::replaceProperties(directory), Replaced::Reset});
        }
        std::unique_ptr<Kym::Configuration> department = editDepartment(name);
        Kym::ConfigurationSettings& settings = *department->settings();
        rewriteWhenDamaged(settings.settingsFile(), [&settings] { return settings.overwrite(); }, replaced);
    } else if (layerName == "prefs") {
        Kym::SystemPreferences* preferences = Kym::App::instance()->getPreferenceDB();
        const fs::path file = fs::path(preferences->CurrentUser()) / preferences->CurrentApplication();
        setAsideUnlessReadable(file, [&file] { Base::PropertyList list(file); }, replaced);
    } else {
        throw UsageError("Unknown layer '" + layerName + "': " + LayerHelp + " Also: sysinfo, prefs.");
    }
    return replaced;
}

int runRepair(Context& context, const std::string& layerName) {
    const std::vector<Replaced> replaced = repair(layerName);
    Json files = Json::array();
    for (const Replaced& entry : replaced) {
        Json file = Json::object();
        file.set("file", native(entry.file));
        file.set("keptAs", native(entry.copy));
        file.set("how", entry.how == Replaced::SetAside ? "set aside" : entry.how == Replaced::Reset ? "reset" : "rewritten");
        files.push(file);
    }
    Json value = Json::object();
    value.set("layer", layerName);
    value.set("replaced", files);
    context.print(value, [&](std::ostream& out) {
        if (replaced.empty()) out << "The settings files of " << layerName << " read whole; nothing was changed.\n";
        for (const Replaced& entry : replaced) {
            if (entry.how == Replaced::SetAside)
                out << "Set " << native(entry.file) << " aside as " << native(entry.copy)
                    << ": nothing of it could be read, so " << layerName << " starts again from its defaults.\n";
            else if (entry.how == Replaced::Reset)
                out << "Replaced " << native(entry.file) << " with the properties of a new department (its name as "
                    << "description); the damaged file is kept as " << native(entry.copy) << ".\n";
            else
                out << "Rewrote " << native(entry.file) << " with what could be read of it (nothing, when it did not "
                    << "parse at all); the damaged file is kept as " << native(entry.copy) << ".\n";
        }
    });
    return 0;
}

} // namespace

void addRepairCommand(Commands& commands) {
    Context& context = commands.context();
    auto layer = std::make_shared<std::string>();
    CLI::App* repairCommand = commands.command(
        &commands.root(), "repair",
        "Replace a damaged settings file of a layer, which no command saves over, keeping a copy of it. A file "
        "that kept some settings readable is rewritten from them; one that kept none is set aside, and the layer "
        "starts again from its defaults. LAYER is one of: site, base, plugin:NAME, dept:NAME, sysinfo, prefs (your "
        "own preferences).",
        "  kym repair dept:Design\n  kym repair base\n", [&context, layer] { return runRepair(context, *layer); });
    repairCommand->add_option("LAYER", *layer, "The layer whose file to replace")->required();
}

} // namespace KymTool
