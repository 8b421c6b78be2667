// kym app list|add|set|remove: the applications of a layer (base, plugin,
// department); kym overlay list|set|remove: a department's local changes to
// applications it does not own.
#include "Command.h"
#include "LayerJson.h"
#include "SiteAccess.h"

#include "kym/ApplicationOverlay.h"
#include "kym/ConfigurationSettings.h"
#include "kym/OfferedApplications.h"

#include <boost/algorithm/string/case_conv.hpp>
#include <boost/algorithm/string/join.hpp>
#include <algorithm>
#include <cctype>
#include <memory>
#include <optional>

namespace KymTool {

namespace {

std::string cell(Kym::ApplicationListSource& applications, const std::string& column, int row) {
    return boost::any_cast<std::string>(applications.valueForListColumnRow(column, row));
}

} // namespace

void checkAppId(const std::string& appId) {
    const bool blank = std::any_of(appId.begin(), appId.end(), [](unsigned char c) { return std::isspace(c); });
    if (appId.empty() || blank)
        throw std::runtime_error("Invalid application identifier '" + appId + "': give a word without blanks.");
}

Json applicationJson(Kym::ApplicationListSource& applications, int row) {
    Json value = Json::object();
    value.set("appId", cell(applications, "AppID", row));
    value.set("category", cell(applications, "Category", row));
    value.set("description", cell(applications, "Description", row));
    value.set("executable", cell(applications, "Executable", row));
    value.set("arguments", cell(applications, "Arguments", row));
    value.set("addNXLibs", cell(applications, "AddNXLibs", row) == "True");
    value.set("noCustom", cell(applications, "NoCustom", row) == "True");
    value.set("disable", cell(applications, "Disable", row) == "True");
    return value;
}

Json overlayJson(const Kym::ApplicationOverlay& overlay) {
    Json value = Json::object();
    value.set("configuration", overlay.configurationName);
    value.set("appId", overlay.appId);
    value.set("description", overlay.description);
    value.set("category", overlay.category);
    value.set("disable", overlay.disableApplication);
    return value;
}

namespace {

const std::vector<std::string> Columns = {"Disable", "AppID",     "Category",  "Description",
                                          "Executable", "Arguments", "AddNXLibs", "NoCustom"};
const std::vector<std::string> SwitchColumns = {"Disable", "AddNXLibs", "NoCustom"};

bool isSwitchColumn(const std::string& column) {
    return std::find(SwitchColumns.begin(), SwitchColumns.end(), column) != SwitchColumns.end();
}

std::string canonicalColumn(const std::string& given) {
    for (const std::string& column : Columns)
        if (boost::algorithm::to_lower_copy(column) == boost::algorithm::to_lower_copy(given)) return column;
    throw UsageError("Unknown application column '" + given + "': choose " + boost::algorithm::join(Columns, ", ") + ".");
}

std::string flagsText(Kym::ApplicationListSource& applications, int row) {
    std::vector<std::string> flags;
    if (cell(applications, "Disable", row) == "True") flags.push_back("disabled");
    if (cell(applications, "AddNXLibs", row) != "True") flags.push_back("no-libraries");
    if (cell(applications, "NoCustom", row) == "True") flags.push_back("no-custom");
    return boost::algorithm::join(flags, ",");
}

Layer openApplicationLayer(const std::string& layerName, Access access) {
    Layer layer = openLayer(layerName, access);
    if (!layer.applications)
        throw UsageError("The site settings hold no applications: choose base, plugin:NAME or dept:NAME.");
    return layer;
}

int listApplications(Context& context, const std::string& layerName) {
    Layer layer = openApplicationLayer(layerName, Access::Read);
    Kym::ApplicationListSource& applications = *layer.applications;
    Json value = Json::object();
    value.set("layer", layerName);
    value.set("file", native(layer.file));
    Json list = Json::array();
    Table table({"APPID", "CATEGORY", "DESCRIPTION", "EXECUTABLE", "ARGUMENTS", "FLAGS"});
    for (int row = 0; row < applications.numberOfRowsInList(); ++row) {
        list.push(applicationJson(applications, row));
        table.add({cell(applications, "AppID", row), cell(applications, "Category", row),
                   cell(applications, "Description", row), cell(applications, "Executable", row),
                   cell(applications, "Arguments", row), flagsText(applications, row)});
    }
    value.set("applications", list);
    context.print(value, [&](std::ostream& out) {
        if (table.empty())
            out << "No applications in " << layer.description << ".\n";
        else
            table.write(out);
    });
    return 0;
}

struct AddOptions {
    std::string layer;
    std::string appId;
    std::string description;
    std::string category;
    std::string program;
    std::string arguments;
    std::optional<bool> libraries;
    std::optional<bool> custom;
    std::optional<bool> disabled;
    // The spellings of earlier versions.
    bool noLibraries = false;
    bool noCustom = false;
};

int addApplication(Context& context, const AddOptions& options) {
    checkAppId(options.appId);
    Layer layer = openApplicationLayer(options.layer, Access::Edit);
    Kym::ApplicationListSource& applications = *layer.applications;
    if (applicationRow(applications, options.appId) >= 0)
        throw std::runtime_error("Application '" + options.appId + "' already exists in " + layer.description + ".");
    applications.insertRow(-1);
    const int row = applications.numberOfRowsInList() - 1;
    applications.setValueForListColumnRow("AppID", row, options.appId);
    applications.setValueForListColumnRow("Description", row, options.description);
    applications.setValueForListColumnRow("Category", row, options.category);
    applications.setValueForListColumnRow("Executable", row, options.program);
    applications.setValueForListColumnRow("Arguments", row, options.arguments);
    const bool libraries = options.libraries.value_or(!options.noLibraries);
    const bool custom = options.custom.value_or(!options.noCustom);
    applications.setValueForListColumnRow("AddNXLibs", row, std::string(libraries ? "True" : "False"));
    applications.setValueForListColumnRow("NoCustom", row, std::string(custom ? "False" : "True"));
    applications.setValueForListColumnRow("Disable", row, std::string(options.disabled.value_or(false) ? "True" : "False"));
    layer.save();

    Json value = applicationJson(applications, row);
    value.set("layer", options.layer);
    value.set("file", native(layer.file));
    context.print(value, [&](std::ostream& out) {
        out << "Added application " << options.appId << " to " << layer.description << ".\n";
    });
    return 0;
}

int setApplication(Context& context, const std::string& layerName, const std::string& appId, const std::string& givenColumn,
                   const std::string& text) {
    const std::string column = canonicalColumn(givenColumn);
    Layer layer = openApplicationLayer(layerName, Access::Edit);
    Kym::ApplicationListSource& applications = *layer.applications;
    const int row = requireApplicationRow(layer, appId);
    std::string newValue = text;
    if (isSwitchColumn(column)) newValue = parseSwitch(text, column) ? "True" : "False";
    if (column == "AppID") {
        checkAppId(newValue);
        if (newValue != appId && applicationRow(applications, newValue) >= 0)
            throw std::runtime_error("Application '" + newValue + "' already exists in " + layer.description + ".");
    }
    applications.setValueForListColumnRow(column, row, newValue);
    layer.save();

    Json value = applicationJson(applications, row);
    value.set("layer", layerName);
    value.set("file", native(layer.file));
    context.print(value, [&](std::ostream& out) {
        out << "Set " << column << " of application " << appId << " in " << layer.description << " to '" << newValue
            << "'.\n";
    });
    return 0;
}

int removeApplication(Context& context, const std::string& layerName, const std::string& appId) {
    Layer layer = openApplicationLayer(layerName, Access::Edit);
    const int row = requireApplicationRow(layer, appId);
    layer.applications->deleteRows({row});
    layer.save();
    Json value = Json::object();
    value.set("layer", layerName);
    value.set("removed", appId);
    value.set("file", native(layer.file));
    context.print(value, [&](std::ostream& out) {
        out << "Removed application " << appId << " from " << layer.description << ".\n";
    });
    return 0;
}

// Overlays.

int listOverlays(Context& context, const std::string& name) {
    std::unique_ptr<Kym::Configuration> department = loadDepartment(name);
    requireUpdated(*department);
    const std::vector<Kym::ApplicationOverlay>& overlays = department->settings()->overlays();
    Json list = Json::array();
    Table table({"CONFIGURATION", "APPID", "CATEGORY", "DESCRIPTION", "DISABLED"});
    for (const Kym::ApplicationOverlay& overlay : overlays) {
        list.push(overlayJson(overlay));
        table.add({overlay.configurationName, overlay.appId, overlay.category, overlay.description,
                   yesNo(overlay.disableApplication)});
    }
    Json value = Json::object();
    value.set("department", name);
    value.set("overlays", list);
    context.print(value, [&](std::ostream& out) {
        if (table.empty())
            out << "Department " << name << " has no overlays.\n";
        else
            table.write(out);
    });
    return 0;
}

struct OverlayOptions {
    std::string department;
    std::string configuration;
    std::string appId;
    std::string description;
    std::string category;
    bool hasDescription = false;
    bool hasCategory = false;
    std::optional<bool> disabled;
    // The spellings of earlier versions.
    bool disable = false;
    bool enable = false;
};

int setOverlay(Context& context, const OverlayOptions& options) {
    std::unique_ptr<Kym::Configuration> department = editDepartment(options.department);
    requireUpdated(*department);
    std::unique_ptr<Kym::Configuration> common = Kym::OfferedApplications::loadCommonDepartment(*department);
    Kym::ConfigurationSettings& settings = *department->settings();

    const bool existing = settings.hasOverlay(options.configuration, options.appId);
    Kym::ApplicationOverlay overlay = settings.getOverlay(options.configuration, options.appId);
    if (!existing) {
        // Starts from what the application shows, so an overlay that changes one field keeps the others.
        const Kym::OfferedApplications offered(*department, common.get());
        const Kym::OfferedApplications::Entry* found = offered.find(options.configuration, options.appId);
        if (!found)
            throw std::runtime_error("Department '" + options.department + "' is offered no application '" +
                                     options.appId + "' of '" + options.configuration +
                                     "' ('kym apps " + options.department + " --all' lists them).");
        overlay.description = found->application.description;
        overlay.category = found->application.category;
        overlay.disableApplication = found->application.disableApplication;
    }
    if (options.hasDescription) overlay.description = options.description;
    if (options.hasCategory) overlay.category = options.category;
    if (options.disable != options.enable) overlay.disableApplication = options.disable;
    if (options.disabled) overlay.disableApplication = *options.disabled;
    overlay.settingsChanged();
    settings.setOverlay(overlay);
    department->save();

    Json value = overlayJson(overlay);
    value.set("department", options.department);
    context.print(value, [&](std::ostream& out) {
        out << (existing ? "Changed" : "Added") << " the overlay of application " << options.appId << " of '"
            << options.configuration << "' in department " << options.department << ".\n";
    });
    return 0;
}

int removeOverlay(Context& context, const std::string& name, const std::string& configuration,
                  const std::string& appId) {
    std::unique_ptr<Kym::Configuration> department = editDepartment(name);
    requireUpdated(*department);
    Kym::ConfigurationSettings& settings = *department->settings();
    if (!settings.hasOverlay(configuration, appId))
        throw std::runtime_error("Department '" + name + "' has no overlay for application '" + appId + "' of '" +
                                 configuration + "'.");
    settings.removeOverlay(configuration, appId);
    department->save();
    Json value = Json::object();
    value.set("department", name);
    value.set("configuration", configuration);
    value.set("removed", appId);
    context.print(value, [&](std::ostream& out) {
        out << "Removed the overlay of application " << appId << " of '" << configuration << "' from department "
            << name << ".\n";
    });
    return 0;
}

} // namespace

void addApplicationCommands(Commands& commands) {
    Context& context = commands.context();
    const std::string layers = "LAYER is base, plugin:NAME or dept:NAME.";
    CLI::App* app = commands.group(
        &commands.root(), "app", "application", "List, add, change and remove the applications of a layer. " + layers,
        "  kym app add base nx --description \"NX\" --category CAD --program '${UGII_BASE_DIR}/ugii/ugraf'\n"
        "  kym app set dept:Design nx Arguments '-nx -lang=${UGII_LANG}'\n"
        "  kym app remove plugin:cam mill\n  kym app list base\n");

    auto listLayer = std::make_shared<std::string>();
    commands
        .command(app, "list", "List the applications a layer holds, with all their columns. " + layers,
                 "  kym app list base\n  kym app list dept:Design --json\n",
                 [&context, listLayer] { return listApplications(context, *listLayer); })
        ->add_option("LAYER", *listLayer, layers)
        ->required();

    auto add = std::make_shared<AddOptions>();
    CLI::App* addCommand = commands.command(
        app, "add",
        "Add an application to a layer. The program and arguments may refer to variables (${UGII_BASE_DIR}); they "
        "are expanded against the application's environment at launch. " + layers,
        "  kym app add base nx --description \"NX\" --category CAD --program '${UGII_BASE_DIR}/ugii/ugraf'\n"
        "  kym app add dept:Design viewer --program /usr/bin/viewer --arguments '-q \"${PROJECT_DIR}\"' --libraries off\n",
        [&context, add] { return addApplication(context, *add); });
    addCommand->add_option("LAYER", add->layer, layers)->required();
    addCommand->add_option("APPID", add->appId, "The application's identifier, unique in the layer")->required();
    addCommand->add_option("--description", add->description, "The name users see");
    addCommand->add_option("--category", add->category, "The group it is listed under");
    addCommand->add_option("--program", add->program, "The executable (column Executable)");
    addCommand->add_option("--arguments", add->arguments, "The argument text; \"...\" keeps blanks inside one argument");
    addSwitch(addCommand, "--libraries", add->libraries,
              "Put ${UGII_BASE_DIR}/ugii in front of PATH (column AddNXLibs; default on)");
    addSwitch(addCommand, "--custom", add->custom,
              "Give it the base, plugin and department variables (column NoCustom, inverted; default on)");
    addSwitch(addCommand, "--disabled", add->disabled, "Hide it from users (column Disable; default off)");
    addCommand->add_flag("--no-libraries", add->noLibraries)->group("");
    addCommand->add_flag("--no-custom", add->noCustom)->group("");

    auto set = std::make_shared<std::vector<std::string>>(4);
    CLI::App* setCommand = commands.command(
        app, "set",
        "Change one column of an application: " + boost::algorithm::join(Columns, ", ") +
            " (any case). Disable, AddNXLibs and NoCustom take on/off. " + layers,
        "  kym app set base nx Description \"NX 4\"\n  kym app set base nx executable '${UGII_BASE_DIR}/ugii/ugraf'\n"
        "  kym app set dept:Design nx Disable on\n",
        [&context, set] { return setApplication(context, (*set)[0], (*set)[1], (*set)[2], (*set)[3]); });
    setCommand->add_option("LAYER", (*set)[0], layers)->required();
    setCommand->add_option("APPID", (*set)[1], "The application")->required();
    setCommand->add_option("COLUMN", (*set)[2], boost::algorithm::join(Columns, ", "))->required();
    setCommand->add_option("VALUE", (*set)[3], "The new value")->required();

    auto remove = std::make_shared<std::pair<std::string, std::string>>();
    CLI::App* removeCommand = commands.command(
        app, "remove", "Remove an application from a layer. " + layers, "  kym app remove base oldapp\n",
        [&context, remove] { return removeApplication(context, remove->first, remove->second); });
    removeCommand->add_option("LAYER", remove->first, layers)->required();
    removeCommand->add_option("APPID", remove->second, "The application")->required();

    CLI::App* overlay = commands.group(
        &commands.root(), "overlay", "",
        "Change how a department shows applications it does not own. An overlay changes the category, description "
        "and disabled state of a base, plugin or common department application for the department's users. "
        "CONFIGNAME is the configuration that holds the "
        "application: 'Base KYM', '<plugin> Plugin' or a department name ('kym apps DEPT --all --json' shows it).",
        "  kym overlay set Design 'Base KYM' nx --category Design --description \"NX for design\"\n"
        "  kym overlay set dept:Design 'cam Plugin' mill --disabled on\n  kym overlay remove Design 'cam Plugin' mill\n");

    auto listDepartment = std::make_shared<std::string>();
    CLI::App* listOverlaysCommand =
        commands.command(overlay, "list", "List a department's overlays.", "  kym overlay list Design\n",
                         [&context, listDepartment] { return listOverlays(context, *listDepartment); });
    addDepartment(listOverlaysCommand, "DEPT", *listDepartment, "The department")->required();

    auto setOptions = std::make_shared<OverlayOptions>();
    CLI::App* setOverlayCommand = commands.command(
        overlay, "set",
        "Add or change a department's overlay of an application. A new overlay starts from the application's own "
        "texts; the options change what they name.",
        "  kym overlay set Design 'Base KYM' nx --category Design\n  kym overlay set Design 'cam Plugin' mill --disabled on\n"
        "  kym overlay set Design Shared viewer --disabled off\n",
        [&context, setOptions] { return setOverlay(context, *setOptions); });
    addDepartment(setOverlayCommand, "DEPT", setOptions->department, "The department")->required();
    setOverlayCommand->add_option("CONFIGNAME", setOptions->configuration, "The configuration holding the application")
        ->required();
    setOverlayCommand->add_option("APPID", setOptions->appId, "The application")->required();
    setOverlayCommand->add_option("--description", setOptions->description, "The name the department's users see")
        ->each([setOptions](const std::string&) { setOptions->hasDescription = true; });
    setOverlayCommand->add_option("--category", setOptions->category, "The group it is listed under")
        ->each([setOptions](const std::string&) { setOptions->hasCategory = true; });
    addSwitch(setOverlayCommand, "--disabled", setOptions->disabled, "Hide it from the department's users");
    setOverlayCommand->add_flag("--disable", setOptions->disable)->group("");
    setOverlayCommand->add_flag("--enable", setOptions->enable)->group("");

    auto removeOptions = std::make_shared<std::vector<std::string>>(3);
    CLI::App* removeOverlayCommand = commands.command(
        overlay, "remove", "Remove a department's overlay of an application.",
        "  kym overlay remove Design 'cam Plugin' mill\n",
        [&context, removeOptions] {
            return removeOverlay(context, (*removeOptions)[0], (*removeOptions)[1], (*removeOptions)[2]);
        });
    addDepartment(removeOverlayCommand, "DEPT", (*removeOptions)[0], "The department")->required();
    removeOverlayCommand->add_option("CONFIGNAME", (*removeOptions)[1], "The configuration holding the application")
        ->required();
    removeOverlayCommand->add_option("APPID", (*removeOptions)[2], "The application")->required();
}

} // namespace KymTool
