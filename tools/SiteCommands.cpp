// kym site show|set and kym sysinfo show|set.
#include "Command.h"
#include "LayerJson.h"
#include "SiteAccess.h"

#include "kym/SiteSettings.h"
#include "kym/SystemInfo.h"

#include <boost/algorithm/string/join.hpp>
#include <functional>
#include <memory>

namespace KymTool {

namespace {

struct SiteKey {
    const char* key;
    const char* help;
    std::function<std::string(const Kym::SiteSettings&)> get;
    std::function<void(Kym::SiteSettings&, const std::string&)> set;
    bool isSwitch;
};

SiteKey pathKey(const char* key, const char* help, const Kym::EnvironmentVariable& (Kym::SiteSettings::*get)() const,
                void (Kym::SiteSettings::*set)(const std::string&)) {
    return {key, help, [get](const Kym::SiteSettings& site) { return (site.*get)().value; },
            [set](Kym::SiteSettings& site, const std::string& value) { (site.*set)(value); }, false};
}

const std::vector<SiteKey>& siteKeys() {
    using S = Kym::SiteSettings;
    static const std::vector<SiteKey> keys = {
        pathKey("unix-install-path", "CAD installation for Unix clients (UGII_BASE_DIR)", &S::unixNXInstallPath,
                &S::setUnixNXInstallPath),
        pathKey("windows-install-path", "CAD installation for Windows clients when use-registry is off",
                &S::winNXInstallPath, &S::setWinNXInstallPath),
        pathKey("unix-tceng", "Teamcenter installation for Unix clients (TC_ROOT)", &S::unixTcEngInstallPath,
                &S::setUnixTcEngInstallPath),
        pathKey("windows-tceng", "Teamcenter installation for Windows clients", &S::winTcEngInstallPath,
                &S::setWinTcEngInstallPath),
        pathKey("unix-portal", "Portal installation for Unix clients (TC_PORTAL_ROOT)", &S::unixPortalInstallPath,
                &S::setUnixPortalInstallPath),
        pathKey("windows-portal", "Portal installation for Windows clients", &S::winPortalInstallPath,
                &S::setWinPortalInstallPath),
        pathKey("unix-plot-base", "Plot configuration base for Unix clients (SDI_SERVER_CFG_BASE)",
                &S::unixPlotConfBase, &S::setUnixPlotConfBase),
        pathKey("windows-plot-base", "Plot configuration base for Windows clients", &S::winPlotConfBase,
                &S::setWinPlotConfBase),
        pathKey("browser", "Web browser for Unix clients (UGII_HTML_BROWSER)", &S::browser, &S::setBrowser),
        {"use-registry", "Windows clients take the CAD installation from the registry (on/off)",
         [](const S& site) { return std::string(site.useWindowsRegistry() ? "on" : "off"); },
         [](S& site, const std::string& value) { site.setUseWindowsRegistry(parseSwitch(value, "use-registry")); },
         true},
        {"unix-external-plugins", "Directory of external plugins for Unix clients",
         [](const S& site) { return site.unixExternalPluginsLocation(); },
         [](S& site, const std::string& value) { site.setUnixExternalPluginsLocation(value); }, false},
        {"windows-external-plugins", "Directory of external plugins for Windows clients",
         [](const S& site) { return site.winExternalPluginsLocation(); },
         [](S& site, const std::string& value) { site.setWinExternalPluginsLocation(value); }, false},
    };
    return keys;
}

std::string siteKeyNames() {
    return boost::algorithm::join(siteSettingKeys(), ", ");
}

int showSite(Context& context) {
    prepareStores();
    Kym::SiteSettings& site = Kym::SiteInformation();
    Json value = siteSettingsJson(site);
    Table table;
    for (const SiteKey& key : siteKeys()) table.add({std::string(key.key) + ":", key.get(site)});
    value.set("file", native(site.dataFile()));
    context.print(value, [&](std::ostream& out) {
        out << "Site settings " << native(site.dataFile()) << "\n";
        table.write(out, "  ");
        out << "Variables: kym var list site\n";
    });
    return 0;
}

const SiteKey& siteKey(const std::string& name) {
    const auto& keys = siteKeys();
    auto key = std::find_if(keys.begin(), keys.end(), [&name](const SiteKey& candidate) { return name == candidate.key; });
    if (key == keys.end()) throw UsageError("Unknown site setting '" + name + "': choose " + siteKeyNames() + ".");
    return *key;
}

int setSite(Context& context, const std::string& name, const std::string& text) {
    const SiteKey* key = &siteKey(name);
    Kym::SiteSettings& site = editSite();
    key->set(site, text);
    site.settingsChanged();
    site.save();
    Json value = Json::object();
    value.set("key", name);
    value.set("value", key->isSwitch ? Json(key->get(site) == "on") : Json(key->get(site)));
    value.set("file", native(site.dataFile()));
    context.print(value, [&](std::ostream& out) {
        out << "Set " << name << " to '" << key->get(site) << "' in " << native(site.dataFile()) << ".\n";
    });
    return 0;
}

// System information.

struct Member {
    const char* name;
    std::string Kym::SystemInfo::*member;
};

const std::vector<Member>& members() {
    using I = Kym::SystemInfo;
    static const std::vector<Member> list = {
        {"CadProductName", &I::CadProductName},
        {"CadSupportedVersionString", &I::CadSupportedVersionString},
        {"KymVersionString", &I::KymVersionString},
        {"CadVersionDirectory", &I::CadVersionDirectory},
        {"PreviousCadVersionDirectory", &I::PreviousCadVersionDirectory},
        {"KymConfigPathEnvVarName", &I::KymConfigPathEnvVarName},
        {"KymConfigFallbackDirectoryName", &I::KymConfigFallbackDirectoryName},
        {"KymApplicationDataDirectoryName", &I::KymApplicationDataDirectoryName},
        {"BroadcastDirectoryName", &I::BroadcastDirectoryName},
        {"BroadcastStartMessage", &I::BroadcastStartMessage},
        {"SiteSettingsSuffix", &I::SiteSettingsSuffix},
        {"CadWindowsRegistryPath", &I::CadWindowsRegistryPath},
        {"CadInstallPathVariable", &I::CadInstallPathVariable},
        {"CadWebBrowserVariable", &I::CadWebBrowserVariable},
        {"tcEngInstallPathVariable", &I::tcEngInstallPathVariable},
        {"tcEngDatabaseVariable", &I::tcEngDatabaseVariable},
        {"CadVersionDataFilename", &I::CadVersionDataFilename},
    };
    return list;
}

std::string memberNames() {
    return boost::algorithm::join(systemInfoMembers(), ", ");
}

const Member& member(const std::string& name) {
    const auto& list = members();
    auto found = std::find_if(list.begin(), list.end(), [&name](const Member& candidate) { return name == candidate.name; });
    if (found == list.end())
        throw UsageError("Unknown system information member '" + name + "': choose " + memberNames() + ".");
    return *found;
}

// A location that cannot be determined is shown with the reason.
std::string location(const std::function<fs::path()>& find) {
    try {
        return native(find());
    } catch (const std::exception& failure) {
        return std::string("(unknown: ") + failure.what() + ")";
    }
}

int showSystemInfo(Context& context) {
    Kym::SystemInfo& info = Kym::SystemInformation();
    Json value = Json::object();
    Table table;
    for (const Member& member : members()) table.add({std::string(member.name) + ":", info.*member.member});
    const Json values = systemInfoJson(info);
    value.set("members", values);
    value.set("file", native(info.dataFile()));
    const std::string install = location([] { return Kym::SystemInfo::installPath(); });
    const std::string departments = location([&info] { return info.localDepartmentsPath(); });
    const std::string data = location([&info] { return info.applicationDataPath(); });
    value.set("installPath", install);
    value.set("departmentsPath", departments);
    value.set("applicationDataPath", data);
    context.print(value, [&](std::ostream& out) {
        out << "System information " << native(info.dataFile()) << "\n";
        table.write(out, "  ");
        out << "Locations\n";
        Table locations;
        locations.add({"installation:", install});
        locations.add({"departments:", departments});
        locations.add({"user data:", data});
        locations.write(out, "  ");
    });
    return 0;
}

int setSystemInfo(Context& context, const std::string& name, const std::string& text) {
    const Member& chosen = member(name);
    Kym::SystemInfo& info = editSystemInfo();
    info.*chosen.member = text;
    info.settingsChanged();
    info.save();
    Json value = Json::object();
    value.set("member", name);
    value.set("value", text);
    value.set("file", native(info.dataFile()));
    context.print(value, [&](std::ostream& out) {
        out << "Set " << name << " to '" << text << "' in " << native(info.dataFile()) << ".\n";
    });
    return 0;
}

} // namespace

Json siteSettingsJson(const Kym::SiteSettings& site) {
    Json value = Json::object();
    for (const SiteKey& key : siteKeys()) {
        const std::string text = key.get(site);
        value.set(key.key, key.isSwitch ? Json(text == "on") : Json(text));
    }
    return value;
}

std::vector<std::string> siteSettingKeys() {
    std::vector<std::string> names;
    for (const SiteKey& key : siteKeys()) names.push_back(key.key);
    return names;
}

void setSiteSetting(Kym::SiteSettings& site, const std::string& key, const std::string& text) {
    siteKey(key).set(site, text);
}

Json systemInfoJson(const Kym::SystemInfo& info) {
    Json values = Json::object();
    for (const Member& member : members()) values.set(member.name, info.*member.member);
    return values;
}

std::vector<std::string> systemInfoMembers() {
    std::vector<std::string> names;
    for (const Member& member : members()) names.push_back(member.name);
    return names;
}

void setSystemInfoMember(Kym::SystemInfo& info, const std::string& name, const std::string& text) {
    info.*member(name).member = text;
}

void addSiteCommands(Commands& commands) {
    Context& context = commands.context();
    CLI::App* site = commands.group(
        &commands.root(), "site", "",
        "Show and change the site settings. They say where the CAD system, Teamcenter, the portal and the plot configuration are installed for "
        "Unix and Windows clients, the registry use, the browser and the external plugins locations. The site's "
        "variables: kym var ... site.",
        "  kym site set unix-install-path /opt/nx\n  kym site set use-registry off\n  kym site show\n");
    commands.command(site, "show", "Show the site settings.", "  kym site show\n  kym site show --json\n",
                     [&context] { return showSite(context); });
    auto set = std::make_shared<std::pair<std::string, std::string>>();
    std::string keyHelp;
    for (const SiteKey& key : siteKeys()) keyHelp += std::string("  ") + key.key + ": " + key.help + "\n";
    CLI::App* setCommand = commands.command(
        site, "set", "Change one site setting. KEY is one of:\n" + keyHelp,
        "  kym site set unix-install-path /opt/nx\n  kym site set windows-install-path 'C:\\Program Files\\NX'\n"
        "  kym site set use-registry off\n  kym site set unix-external-plugins /net/kym/plugins\n",
        [&context, set] { return setSite(context, set->first, set->second); });
    setCommand->add_option("KEY", set->first, "The setting")->required();
    setCommand->add_option("VALUE", set->second, "Its new value")->required();

    CLI::App* sysinfo = commands.group(
        &commands.root(), "sysinfo", "",
        "Show and change the system information. It is kept in the installation's config/sysinfo.dat: the named "
        "constants of the CAD release, and the locations found from them.",
        "  kym sysinfo show\n  kym sysinfo set CadVersionDirectory NX4\n");
    commands.command(sysinfo, "show", "Show every member and the installation, departments and user data locations.",
                     "  kym sysinfo show\n", [&context] { return showSystemInfo(context); });
    auto setMember = std::make_shared<std::pair<std::string, std::string>>();
    CLI::App* setMemberCommand = commands.command(
        sysinfo, "set", "Change one member. MEMBER is one of: " + memberNames() + ".",
        "  kym sysinfo set CadVersionDirectory NX4\n  kym sysinfo set PreviousCadVersionDirectory NX3\n",
        [&context, setMember] { return setSystemInfo(context, setMember->first, setMember->second); });
    setMemberCommand->add_option("MEMBER", setMember->first, "The member, by its exact name")->required();
    setMemberCommand->add_option("VALUE", setMember->second, "Its new value")->required();
}

} // namespace KymTool
