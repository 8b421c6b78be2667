// kym export and kym import: a whole settings layer as one JSON document and
// back, and the variables of an existing start script into a layer.
#include "Command.h"
#include "LayerJson.h"
#include "SiteAccess.h"
#include "StartScript.h"

#include "kym/ConfigurationSettings.h"
#include "kym/WorkDirectory.h"

#include "base/FileIdentity.h"
#include "base/FileManager.h"
#include "base/SettingsFile.h"

#include <boost/filesystem/operations.hpp>

#include <boost/algorithm/string/case_conv.hpp>
#include <boost/algorithm/string/join.hpp>
#include <boost/json.hpp>

#include <algorithm>
#include <iomanip>
#include <memory>
#include <optional>
#include <set>
#include <sstream>

namespace KymTool {

namespace {

namespace json = boost::json;

const char* const Format = "kym layer";
const int Version = 1;

Json variablesJson(Kym::SettingsProtocol& owner) {
    Json lists = Json::object();
    for (const char* name : VariableListNames) {
        Json list = Json::array();
        for (const Kym::EnvironmentVariable& variable : *variableList(owner, name, "").records)
            list.push(variableJson(variable));
        lists.set(name, list);
    }
    return lists;
}

// A layer's revision is the identity of its file's content: export gives
// that of what it read, and an import given it refuses to replace what
// another writer saved since.
std::string revision(const Base::FileIdentity& identity) {
    if (!identity.exists()) return "none";
    std::ostringstream text;
    text << std::hex << std::setw(16) << std::setfill('0') << identity.contentHash();
    return text.str();
}

const Base::SettingsFile& layerSettingsFile(const Layer* layer) {
    return layer ? *layer->settingsFile : Kym::SystemInformation().settingsFile();
}

Json exportDocument(const std::string& layerName) {
    Json document = Json::object();
    document.set("format", Format);
    document.set("version", Version);
    document.set("layer", layerName);
    if (layerName == "sysinfo") {
        document.set("revision", revision(layerSettingsFile(nullptr).readIdentity()));
        document.set("members", systemInfoJson(Kym::SystemInformation()));
        return document;
    }
    Layer layer = openLayer(layerName, Access::Read);
    document.set("revision", revision(layerSettingsFile(&layer).readIdentity()));
    if (layerName == "site") document.set("settings", siteSettingsJson(Kym::SiteInformation()));
    document.set("variables", variablesJson(*layer.variables));
    if (layer.applications) {
        Json applications = Json::array();
        for (int row = 0; row < layer.applications->numberOfRowsInList(); ++row) {
            Json application = applicationJson(*layer.applications, row);
            application.set("variables", variablesJson(layer.applications->application(row)));
            applications.push(application);
        }
        document.set("applications", applications);
    }
    if (layer.department) {
        Kym::ConfigurationSettings& settings = *layer.department->settings();
        Json directories = Json::array();
        for (const Kym::WorkDirectory& directory : settings.workDirectoryList())
            directories.push(Json::object().set("name", directory.name).set("path", directory.path));
        document.set("workDirectories", directories);
        Json overlays = Json::array();
        for (const Kym::ApplicationOverlay& overlay : settings.overlays()) overlays.push(overlayJson(overlay));
        document.set("overlays", overlays);
        document.set("disabledPlugins", Json::strings(settings.disabledPluginList()));
    }
    return document;
}

int exportLayer(Context& context, const std::string& layerName) {
    exportDocument(layerName).write(*context.out);
    *context.out << '\n';
    return 0;
}

// Reading a document: every field that is missing, of the wrong kind or
// refused by the layer's lists is noted with its place, and nothing is
// written unless none was.
class Problems {
public:
    void add(const std::string& place, const std::string& message) { mList.push_back(place + ": " + message); }
    bool empty() const { return mList.empty(); }
    const std::vector<std::string>& list() const { return mList; }

private:
    std::vector<std::string> mList;
};

class Fields {
public:
    Fields(const json::value& value, std::string place, Problems& problems)
        : mObject(value.if_object()), mPlace(std::move(place)), mProblems(problems) {
        if (!mObject) mProblems.add(mPlace, "an object {...} is needed");
    }

    bool valid() const { return mObject != nullptr; }
    std::string place(const std::string& key) const { return mPlace.empty() ? key : mPlace + "." + key; }

    const json::value* find(const std::string& key) const { return mObject ? mObject->if_contains(key) : nullptr; }

    std::string text(const std::string& key, bool required = false) const {
        const json::value* value = find(key);
        if (!value) {
            if (required && mObject) mProblems.add(place(key), "is missing");
            return std::string();
        }
        if (!value->is_string()) {
            mProblems.add(place(key), "a text \"...\" is needed");
            return std::string();
        }
        return std::string(value->get_string());
    }

    bool flag(const std::string& key, bool otherwise) const {
        const json::value* value = find(key);
        if (!value) return otherwise;
        if (!value->is_bool()) {
            mProblems.add(place(key), "true or false is needed");
            return otherwise;
        }
        return value->get_bool();
    }

    const json::array* list(const std::string& key) const {
        const json::value* value = find(key);
        if (value && !value->is_array()) mProblems.add(place(key), "a list [...] is needed");
        return value ? value->if_array() : nullptr;
    }

    void onlyKeys(const std::vector<std::string>& known, const std::string& why) const {
        if (!mObject) return;
        for (const auto& entry : *mObject)
            if (std::find(known.begin(), known.end(), std::string(entry.key())) == known.end())
                mProblems.add(place(entry.key()), why + boost::algorithm::join(known, ", ") + ".");
    }

private:
    const json::object* mObject;
    std::string mPlace;
    Problems& mProblems;
};

void deleteAllRows(Base::DataSourceInterface& table) {
    std::vector<int> rows(static_cast<std::size_t>(table.numberOfRowsInList()));
    for (std::size_t row = 0; row < rows.size(); ++row) rows[row] = static_cast<int>(row);
    table.deleteRows(rows);
}

std::string itemPlace(const std::string& place, std::size_t index) {
    return place + "[" + std::to_string(index) + "]";
}

// Each list given replaces the one of the owner, through its table.
void importVariables(Kym::SettingsProtocol& owner, const json::value& value, const std::string& place,
                     const std::string& where, Problems& problems) {
    const Fields lists(value, place, problems);
    lists.onlyKeys({"common", "unix", "windows"}, "not a variable list: choose ");
    for (const char* name : VariableListNames) {
        const json::array* entries = lists.list(name);
        if (!entries) continue;
        VariableList list = variableList(owner, name, where);
        deleteAllRows(*list.source);
        for (std::size_t index = 0; index < entries->size(); ++index) {
            const std::string entryPlace = itemPlace(lists.place(name), index);
            const Fields entry((*entries)[index], entryPlace, problems);
            if (!entry.valid()) continue;
            entry.onlyKeys({"name", "value", "comment"}, "not a field of a variable: choose ");
            const std::string variableName = entry.text("name", true);
            const std::string variableValue = entry.text("value");
            list.source->insertRow(-1);
            const int row = list.source->numberOfRowsInList() - 1;
            list.source->setValueForListColumnRow("Name", row, variableName);
            list.source->setValueForListColumnRow("Value", row, variableValue);
            list.records->back().comment = entry.text("comment");
            if (!list.source->valueIsValid("Name", row))
                problems.add(entryPlace, invalidNameText(variableName, "in " + list.description));
            else if (!list.source->valueIsValid("Value", row))
                problems.add(entryPlace, invalidValueText(variableName, variableValue, "in " + list.description));
        }
    }
}

void importApplications(Layer& layer, const json::array& entries, const std::string& place, Problems& problems) {
    Kym::ApplicationListSource& applications = *layer.applications;
    deleteAllRows(applications);
    std::set<std::string> seen;
    for (std::size_t index = 0; index < entries.size(); ++index) {
        const std::string entryPlace = itemPlace(place, index);
        const Fields entry(entries[index], entryPlace, problems);
        if (!entry.valid()) continue;
        entry.onlyKeys({"appId", "category", "description", "executable", "arguments", "addNXLibs", "noCustom",
                        "disable", "variables"},
                       "not a field of an application: choose ");
        const std::string appId = entry.text("appId", true);
        try {
            if (entry.find("appId")) checkAppId(appId);
            if (!seen.insert(appId).second)
                problems.add(entryPlace, "Application '" + appId + "' is given twice.");
        } catch (const std::exception& error) {
            problems.add(entryPlace, error.what());
        }
        applications.insertRow(-1);
        const int row = applications.numberOfRowsInList() - 1;
        applications.setValueForListColumnRow("AppID", row, appId);
        applications.setValueForListColumnRow("Category", row, entry.text("category"));
        applications.setValueForListColumnRow("Description", row, entry.text("description"));
        applications.setValueForListColumnRow("Executable", row, entry.text("executable"));
        applications.setValueForListColumnRow("Arguments", row, entry.text("arguments"));
        const auto onOff = [](bool on) { return std::string(on ? "True" : "False"); };
        applications.setValueForListColumnRow("AddNXLibs", row, onOff(entry.flag("addNXLibs", true)));
        applications.setValueForListColumnRow("NoCustom", row, onOff(entry.flag("noCustom", false)));
        applications.setValueForListColumnRow("Disable", row, onOff(entry.flag("disable", false)));
        if (const json::value* variables = entry.find("variables"))
            importVariables(applications.application(row), *variables, entry.place("variables"),
                            "application " + appId + " of " + layer.description, problems);
    }
}

void importWorkDirectories(Kym::ConfigurationSettings& settings, const json::array& entries, const std::string& place,
                           Problems& problems) {
    Kym::WorkDirectoryListSource& directories = *settings.workDirectories();
    deleteAllRows(directories);
    std::set<std::string> seen;
    for (std::size_t index = 0; index < entries.size(); ++index) {
        const Fields entry(entries[index], itemPlace(place, index), problems);
        if (!entry.valid()) continue;
        entry.onlyKeys({"name", "path"}, "not a field of a work directory: choose ");
        const std::string name = entry.text("name", true);
        if (!seen.insert(name).second)
            problems.add(itemPlace(place, index), "The work directory '" + name + "' is given twice.");
        directories.insertRow(-1);
        const int row = directories.numberOfRowsInList() - 1;
        directories.setValueForListColumnRow("Name", row, name);
        directories.setValueForListColumnRow("Path", row, entry.text("path", true));
    }
}

void importOverlays(Kym::ConfigurationSettings& settings, const json::array& entries, const std::string& place,
                    Problems& problems) {
    const std::vector<Kym::ApplicationOverlay> before = settings.overlays();
    for (const Kym::ApplicationOverlay& overlay : before) settings.removeOverlay(overlay.configurationName, overlay.appId);
    for (std::size_t index = 0; index < entries.size(); ++index) {
        const Fields entry(entries[index], itemPlace(place, index), problems);
        if (!entry.valid()) continue;
        entry.onlyKeys({"configuration", "appId", "description", "category", "disable"},
                       "not a field of an overlay: choose ");
        Kym::ApplicationOverlay overlay = settings.getOverlay(entry.text("configuration", true), entry.text("appId", true));
        overlay.description = entry.text("description");
        overlay.category = entry.text("category");
        overlay.disableApplication = entry.flag("disable", false);
        overlay.settingsChanged();
        settings.setOverlay(overlay);
    }
}

void importDisabledPlugins(Kym::ConfigurationSettings& settings, const json::array& entries, const std::string& place,
                           Problems& problems) {
    Kym::DisablePluginSource& source = *settings.disablePlugins();
    auto rowOf = [&source](const std::string& name) {
        for (int row = 0; row < source.numberOfRowsInList(); ++row)
            if (boost::any_cast<std::string>(source.valueForListColumnRow("Name", row)) == name) return row;
        return -1;
    };
    // Enabling the first disabled plugin enables all that follow it.
    if (!settings.disabledPluginList().empty()) {
        const int first = rowOf(settings.disabledPluginList().front());
        if (first >= 0) source.setValueForListColumnRow("Disabled", first, std::string("False"));
    }
    for (std::size_t index = 0; index < entries.size(); ++index) {
        if (!entries[index].is_string()) {
            problems.add(itemPlace(place, index), "a plugin's name \"...\" is needed");
            continue;
        }
        const std::string name(entries[index].get_string());
        const int row = rowOf(name);
        if (row < 0)
            problems.add(itemPlace(place, index), "No plugin named '" + name + "' ('kym plugin list' lists them).");
        else if (!settings.isPluginDisabled(name))
            source.setValueForListColumnRow("Disabled", row, std::string("True"));
    }
}

void importSettings(Kym::SiteSettings& site, const json::value& value, const std::string& place, Problems& problems) {
    const Fields settings(value, place, problems);
    settings.onlyKeys(siteSettingKeys(), "not a site setting: choose ");
    for (const std::string& key : siteSettingKeys()) {
        const json::value* given = settings.find(key);
        if (!given) continue;
        const std::string text = given->is_bool() ? (given->get_bool() ? "on" : "off") : settings.text(key);
        try {
            setSiteSetting(site, key, text);
        } catch (const std::exception& error) {
            problems.add(settings.place(key), error.what());
        }
    }
    site.settingsChanged();
}

void importMembers(Kym::SystemInfo& info, const json::value& value, const std::string& place, Problems& problems) {
    const Fields members(value, place, problems);
    members.onlyKeys(systemInfoMembers(), "not a member of the system information: choose ");
    for (const std::string& name : systemInfoMembers())
        if (members.find(name)) setSystemInfoMember(info, name, members.text(name));
    info.settingsChanged();
}

json::value parseDocument(const fs::path& file, const std::string& text) {
    json::stream_parser parser;
    boost::system::error_code error;
    const std::size_t used = parser.write(text.data(), text.size(), error);
    if (!error) parser.finish(error);
    if (error) {
        const long line = 1 + std::count(text.begin(), text.begin() + static_cast<long>(std::min(used, text.size())), '\n');
        throw std::runtime_error("Cannot import " + native(file) + ": it is not a JSON document (line " +
                                 std::to_string(line) + ": " + error.message() + ").");
    }
    return parser.release();
}

// The whole document is applied to the layer in memory and saved only when
// every part of it was accepted.
int importDocument(Context& context, const std::string& layerName, const fs::path& file, const std::string& text,
                   const std::string& expectedRevision) {
    const json::value document = parseDocument(file, text);
    Problems problems;
    const Fields top(document, "", problems);
    if (!top.valid() || !top.find("format") || !top.find("format")->is_string() ||
        top.find("format")->get_string() != Format)
        throw std::runtime_error("Cannot import " + native(file) + ": it is not a layer that kym exported (its "
                                 "\"format\" is not \"" + Format + "\").");
    if (const json::value* version = top.find("version"); version && !(version->is_int64() && version->as_int64() == Version))
        throw std::runtime_error("Cannot import " + native(file) + ": it was written by a newer kym (version " +
                                 json::serialize(*version) + "; this kym reads version " + std::to_string(Version) + ").");

    std::vector<std::string> known = {"format", "version", "layer", "revision"};
    std::function<void()> save;
    std::string description;
    std::optional<Layer> layer;
    if (layerName == "sysinfo") {
        Kym::SystemInfo& info = editSystemInfo();
        known.push_back("members");
        if (const json::value* members = top.find("members")) importMembers(info, *members, "members", problems);
        description = "the system information";
        save = [&info] { info.save(); };
    } else {
        layer.emplace(openLayer(layerName, Access::Edit));
        description = layer->description;
        save = layer->save;
        known.push_back("variables");
        if (layerName == "site") known.push_back("settings");
        if (layer->applications) known.push_back("applications");
        if (layer->department)
            known.insert(known.end(), {"workDirectories", "overlays", "disabledPlugins"});
        if (const json::value* variables = top.find("variables"))
            importVariables(*layer->variables, *variables, "variables", layer->description, problems);
        if (layerName == "site" && top.find("settings"))
            importSettings(Kym::SiteInformation(), *top.find("settings"), "settings", problems);
        if (layer->applications)
            if (const json::array* applications = top.list("applications"))
                importApplications(*layer, *applications, "applications", problems);
        if (layer->department) {
            Kym::ConfigurationSettings& settings = *layer->department->settings();
            if (const json::array* list = top.list("workDirectories"))
                importWorkDirectories(settings, *list, "workDirectories", problems);
            if (const json::array* list = top.list("overlays")) importOverlays(settings, *list, "overlays", problems);
            if (const json::array* list = top.list("disabledPlugins"))
                importDisabledPlugins(settings, *list, "disabledPlugins", problems);
        }
    }
    top.onlyKeys(known, "not part of " + description + ": it holds ");
    // Read under the layer's locks: nobody can save between this check and the write.
    const fs::path target = layerSettingsFile(layer ? &*layer : nullptr).path();
    if (!expectedRevision.empty() && revision(Base::FileIdentity::ofFile(target)) != expectedRevision)
        throw LayerChanged("Nothing imported into " + description + ": " + native(target) +
                           " was saved by someone else after revision " + expectedRevision +
                           " was read. Export it again and repeat the changes, or import without --revision to "
                           "replace it.");
    if (!problems.empty())
        throw std::runtime_error("Nothing imported into " + description + ": " + native(file) + " has " +
                                 std::to_string(problems.list().size()) +
                                 (problems.list().size() == 1 ? " problem" : " problems") + ":\n  " +
                                 boost::algorithm::join(problems.list(), "\n  "));
    save();

    Json value = Json::object();
    value.set("layer", layerName);
    value.set("imported", native(file));
    context.print(value, [&](std::ostream& out) {
        out << "Imported " << native(file) << " into " << description << ".\n";
    });
    return 0;
}

enum class ScriptKind { None, Batch, Shell };

ScriptKind scriptKind(const fs::path& file) {
    const std::string extension = boost::algorithm::to_lower_copy(file.extension().string());
    if (extension == ".bat" || extension == ".cmd") return ScriptKind::Batch;
    if (extension == ".sh") return ScriptKind::Shell;
    return ScriptKind::None;
}

// A script's variables are set in one list of the layer, as kym var set sets
// them; a name the script sets twice is added twice, so that the second
// value can build on the first as it did in the script.
int importScript(Context& context, const std::string& layerName, const fs::path& file, const std::string& text,
                 ScriptKind kind, std::string listName) {
    if (layerName == "sysinfo") throw UsageError("The system information holds no variables: choose another layer.");
    const StartScript script = kind == ScriptKind::Batch ? readBatchScript(text) : readShellScript(text);
    if (listName.empty()) listName = kind == ScriptKind::Batch ? "windows" : "unix";
    Layer layer = openLayer(layerName, Access::Edit);
    VariableList list = variableList(*layer.variables, listName, layer.description);

    Problems problems;
    std::set<std::string> seen;
    for (const StartScript::Assignment& assignment : script.assignments) {
        int row = seen.insert(assignment.name).second ? variableRow(list, assignment.name) : -1;
        if (row < 0) {
            list.source->insertRow(-1);
            row = list.source->numberOfRowsInList() - 1;
            list.source->setValueForListColumnRow("Name", row, assignment.name);
        }
        list.source->setValueForListColumnRow("Value", row, assignment.value);
        const std::string place = native(file) + " line " + std::to_string(assignment.line);
        if (!list.source->valueIsValid("Name", row))
            problems.add(place, invalidNameText(assignment.name, ""));
        else if (!list.source->valueIsValid("Value", row))
            problems.add(place, invalidValueText(assignment.name, assignment.value, ""));
    }
    if (!problems.empty())
        throw std::runtime_error("Nothing imported into " + list.description + ":\n  " +
                                 boost::algorithm::join(problems.list(), "\n  "));
    if (!script.assignments.empty()) layer.save();

    Json value = Json::object();
    value.set("layer", layerName);
    value.set("list", listName);
    value.set("imported", native(file));
    Json variables = Json::array();
    for (const StartScript::Assignment& assignment : script.assignments)
        variables.push(Json::object()
                           .set("line", assignment.line)
                           .set("name", assignment.name)
                           .set("value", assignment.value));
    value.set("variables", variables);
    Json skipped = Json::array();
    Table table;
    for (const StartScript::Skipped& line : script.skipped) {
        skipped.push(Json::object().set("line", line.line).set("text", line.text).set("reason", line.reason));
        table.add({"line " + std::to_string(line.line) + ":", line.text, "(" + line.reason + ")"});
    }
    value.set("skipped", skipped);
    context.print(value, [&](std::ostream& out) {
        const std::size_t count = script.assignments.size();
        out << "Imported " << count << (count == 1 ? " variable" : " variables") << " from " << native(file)
            << " into " << list.description << ".\n";
        if (!table.empty()) {
            out << "Left out, not understood (" << script.skipped.size()
                << (script.skipped.size() == 1 ? " line" : " lines") << "):\n";
            table.write(out, "  ");
        }
    });
    return 0;
}

struct ImportOptions {
    std::string layer;
    std::string file;
    std::string list;
    std::string revision;
};

int importFile(Context& context, const ImportOptions& options) {
    const fs::path file(options.file);
    std::string text;
    try {
        text = Base::FileManager::readFile(file);
    } catch (const std::exception& error) {
        throw std::runtime_error("Cannot import " + native(file) + ": " + error.what());
    }
    const ScriptKind kind = scriptKind(file);
    if (kind != ScriptKind::None) {
        if (!options.revision.empty())
            throw UsageError("--revision applies to documents of kym export only, not to start scripts.");
        return importScript(context, options.layer, file, text, kind, options.list);
    }
    if (!options.list.empty()) throw UsageError("--list applies to start scripts (.bat, .cmd, .sh) only.");
    return importDocument(context, options.layer, file, text, options.revision);
}

} // namespace

void addTransferCommands(Commands& commands) {
    Context& context = commands.context();
    const std::string layers = "LAYER is site, base, plugin:NAME, dept:NAME or sysinfo.";

    auto exported = std::make_shared<std::string>();
    CLI::App* exportCommand = commands.command(
        &commands.root(), "export",
        "Print a whole layer as one JSON document. It holds the three variable lists; for base, plugins and "
        "departments the applications with their own variables; for departments the work directories, overlays "
        "and disabled plugins; for the site its settings; for sysinfo every member. 'kym import' reads it back, "
        "into the same layer or another one. " + layers,
        "  kym export dept:Design > design.json\n  kym export site > site.json\n  kym export sysinfo\n",
        [&context, exported] { return exportLayer(context, *exported); });
    exportCommand->add_option("LAYER", *exported, layers)->required();

    auto imported = std::make_shared<ImportOptions>();
    CLI::App* importCommand = commands.command(
        &commands.root(), "import",
        "Read a layer from a file. A JSON document that 'kym export' wrote replaces each list it holds (the lists it "
        "leaves out stay as they are). A start script (.bat or .cmd, .sh) sets the variables of its "
        "set NAME=VALUE, NAME=VALUE and export lines in the layer's windows (.bat) or unix (.sh) list; references "
        "such as %PATH% and $PATH become ${PATH}, and every other line is reported. Everything is checked first: "
        "when anything is refused, nothing is written. " + layers,
        "  kym import dept:Design design.json\n  kym import dept:Tooling design.json    copies Design's settings\n"
        "  kym import dept:Design start_nx.bat\n  kym import site site_env.sh --list common\n",
        [&context, imported] { return importFile(context, *imported); });
    importCommand->add_option("LAYER", imported->layer, layers)->required();
    importCommand->add_option("FILE", imported->file, "A JSON document of kym export, or a .bat, .cmd or .sh script")
        ->required();
    importCommand->add_option("--revision", imported->revision,
                              "Import only if the layer's file is still as at this revision (the \"revision\" that "
                              "'kym export' printed); otherwise fail with status 3 and write nothing");
    importCommand->add_option("--list", imported->list,
                              "For a start script: common, unix or windows (default: windows for .bat and .cmd, "
                              "unix for .sh)");
}

} // namespace KymTool
