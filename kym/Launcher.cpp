#include "kym/Launcher.h"

#include "kym/BaseSettings.h"
#include "kym/ConfigApplication.h"
#include "kym/Configuration.h"
#include "kym/PluginsManager.h"
#include "kym/SettingsProtocol.h"
#include "kym/SiteSettings.h"
#include "kym/SystemInfo.h"
#include "kym/Time.h"
#include "kym/WorkDirectory.h"

#include "base/Environment.h"
#include "base/FileManager.h"
#include "base/Platform.h"
#include "base/Task.h"
#include "base/log/Logger.h"

#include <boost/algorithm/string/case_conv.hpp>
#include <boost/algorithm/string/join.hpp>
#include <boost/algorithm/string/replace.hpp>
#include <boost/filesystem/operations.hpp>
#include <boost/regex.hpp>

#include <algorithm>
#include <locale>
#include <stdexcept>
#include <string_view>
#include <tuple>
#include <unordered_set>
#include <utility>

namespace fs = boost::filesystem;

namespace Kym {

namespace {

using Variables = std::vector<EnvironmentVariable>;

const char* const DepartmentDirVariable = "KYM_DEPT_DIR";
const char* const CommonDepartmentDirVariable = "KYM_COMMONDEPT_DIR";
const char* const VersionVariable = "UG_VER";
const char* const SymbolLibraryDirVariable = "UGII_SYMBOL_LIBRARY_DIR";
const char* const SiteDirVariable = "UGII_SITE_DIR";
const char* const GroupDirVariable = "UGII_GROUP_DIR";
const char* const RootDirVariable = "UGII_ROOT_DIR";
const char* const LibraryVariable = "UGII_LIB1";
const char* const UserDefaultsVariable = "UGII_LOCAL_USER_DEFAULTS";
const char* const UserDefaultsFileName = "nx90_user.dpv";
// The variables the launcher appends after the layers, and PATH, which the application may add.
constexpr std::size_t LauncherVariableCount = 11;

const Base::Platform& conventions() {
    return Base::Platform::current();
}

std::string native(const fs::path& p) {
    return conventions().nativePath(p);
}

// A separator doubled after a word character; a leading "\\" of a network path is kept.
const boost::regex& doubledSeparator() {
    static const boost::regex pattern("(\\w(\\\\|/))(\\\\|/)", boost::regex::perl);
    return pattern;
}

bool isSeparator(char c) {
    return c == '\\' || c == '/';
}

std::string collapseDoubledSeparators(const std::string& text) {
    // Without two separators in a row the pattern cannot match; most values have none.
    const auto doubled = std::adjacent_find(text.begin(), text.end(),
                                            [](char a, char b) { return isSeparator(a) && isSeparator(b); });
    if (doubled == text.end()) return text;
    return boost::regex_replace(text, doubledSeparator(), "$1");
}

bool isLetter(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

// Splits at the separator, drops empty pieces and exact repeats (the first
// wins), collapses "//" in each kept piece and joins them again.
std::string joinDistinctPieces(const std::string& text, char separator, bool nativeForm) {
    std::unordered_set<std::string_view> seen;
    std::string result;
    std::string::size_type start = 0;
    while (start <= text.size()) {
        std::string::size_type end = text.find(separator, start);
        if (end == std::string::npos) end = text.size();
        const std::string_view piece(text.data() + start, end - start);
        start = end + 1;
        if (piece.empty() || !seen.insert(piece).second) continue;
        std::string kept = boost::algorithm::replace_all_copy(std::string(piece), "//", "/");
        BASE_LOG(Base::log::verbose()) << "  " << kept;
        if (!result.empty()) result += separator;
        result += nativeForm ? conventions().nativePath(kept) : kept;
    }
    return result;
}

} // namespace

bool Launcher::isValidVariableName(const std::string& name) {
    if (!name.empty() && !isLetter(name[0])) return false;
    if (std::all_of(name.begin(), name.end(), Base::Environment::isNameCharacter)) return true;
    // Lets COMMONPROGRAMFILES(X86) and its kind through, parentheses and all.
    return name.find("X86") != std::string::npos;
}

bool Launcher::isPathVariable(const std::string& name) {
    const std::string_view view(name);
    return view.find("PATH") != std::string_view::npos && view.find("CLASSPATH") == std::string_view::npos;
}

void Launcher::normalizeSeparators(std::string& value) {
    const bool windows = conventions().isWindows();
    const char foreign = windows ? '/' : '\\';
    // Most values hold no foreign separator, and then there is nothing to look for.
    const std::size_t first = std::string_view(value).find(foreign);
    if (first == std::string_view::npos || value.find("http:") != std::string::npos) return;
    std::replace(value.begin() + static_cast<std::ptrdiff_t>(first), value.end(), foreign, windows ? '\\' : '/');
}

std::string Launcher::cleanPathList(const std::string& value) {
    BASE_LOG(Base::log::verbose()) << "  PATH string = " << value;
    std::string text = collapseDoubledSeparators(value);
    text.erase(std::remove(text.begin(), text.end(), '"'), text.end());
    if (!conventions().isWindows()) return joinDistinctPieces(text, ':', false);

    // Unix list separators become Windows ones; the drive letters get their colons back.
    static const boost::regex driveLetter("((^|;)\\w);", boost::regex::perl);
    std::replace(text.begin(), text.end(), ':', ';');
    text = boost::regex_replace(text, driveLetter, "$1:");
    BASE_LOG(Base::log::verbose()) << "  PATH string = " << text;
    return joinDistinctPieces(text, ';', true);
}

std::vector<std::string> Launcher::splitArguments(const std::string& text) {
    // The quoted alternative is greedy: two quoted arguments on one line become one.
    static const boost::regex argument("(\".*\"|[^\\s]+)", boost::regex::perl);
    std::vector<std::string> arguments;
    for (boost::sregex_iterator match(text.begin(), text.end(), argument), end; match != end; ++match)
        arguments.push_back(match->str());
    return arguments;
}

void Launcher::addCurrentEnvVarsToMap(Variables& vars) const {
    BASE_LOG(Base::log::info()) << "Adding the current environment variables";
    const bool upperCase = conventions().upperCaseProcessNames();
    const std::locale locale;
    for (std::string& entry : Base::Environment::environmentStrings()) {
        BASE_LOG(Base::log::verbose()) << "Processing variable: " << entry;
        const std::string::size_type equals = entry.find('=');
        if (equals == std::string::npos) continue;
        EnvironmentVariable& variable = vars.emplace_back();
        variable.name.assign(entry, 0, equals);
        if (upperCase) boost::algorithm::to_upper(variable.name, locale);
        // The entry is ours: what follows the "=" becomes the value without a copy.
        variable.value = std::move(entry.erase(0, equals + 1));
        BASE_LOG(Base::log::verbose()) << "Setting " << variable.name << "=" << variable.value;
    }
}

void Launcher::addKymSystemEnvVarsToMap(const Configuration& config, Variables& vars) const {
    BASE_LOG(Base::log::info()) << "Setting KYM system variables";
    const SystemInfo& system = SystemInformation();
    vars.emplace_back(DepartmentDirVariable, native(config.path()));
    vars.emplace_back(CommonDepartmentDirVariable, native(config.commonConfigPath()));
    vars.emplace_back(system.KymConfigPathEnvVarName, native(system.localDepartmentsPath()));
    vars.emplace_back(VersionVariable, system.CadVersionDirectory);
    vars.emplace_back("OS", SystemInfo::osDirectoryName());
    vars.emplace_back("OSA", SystemInfo::osaDirectoryName());
    vars.emplace_back("SCRIPTx", SystemInfo::scriptExtension());
}

void Launcher::setSymbolDirVariable(const Configuration& config, Variables& vars) const {
    BASE_LOG(Base::log::info()) << "Setting " << SymbolLibraryDirVariable;
    for (const fs::path& directory : {config.versionPath(), config.commonConfigVersionPath(), SystemInfo::installPath()}) {
        const fs::path candidate = directory / "symbol" / "symbol_library.txt";
        boost::system::error_code error;
        if (fs::exists(candidate, error)) {
            vars.emplace_back(SymbolLibraryDirVariable, native(candidate.parent_path()));
            return;
        }
    }
}

void Launcher::setCustomerDefaultVariables(const Configuration& config, Variables& vars) const {
    if (!config.commonDepartment.empty()) {
        vars.emplace_back(SiteDirVariable, "${KYM_COMMONDEPT_DIR}/${UG_VER}");
        BASE_LOG(Base::log::verbose()) << "dpv found in CONFIG: setCustomerDefaultVariables setting UGII_SITE_DIR to COMMON";
        BASE_LOG(Base::log::info()) << "dpv found in CONFIG: setCustomerDefaultVariables setting UGII_SITE_DIR  to COMMON";
    } else {
        vars.emplace_back(SiteDirVariable, "$KYM_BASE_DIR");
        BASE_LOG(Base::log::verbose()) << "dpv not found in CONFIG: setCustomerDefaultVariables setting UGII_SITE_DIR to BASE";
        BASE_LOG(Base::log::info()) << "dpv not found in CONFIG: setCustomerDefaultVariables setting UGII_SITE_DIR to BASE";
    }
    vars.emplace_back(GroupDirVariable, "${KYM_DEPT_DIR}/${UG_VER}");
}

void Launcher::mergeLayers(const Configuration& config, const Configuration* commonConfig, const ConfigApplication& app,
                           Variables& vars, LayerObserver* observer) const {
    auto merged = [&vars, observer](const std::string& layer) {
        if (observer) observer->layerMerged(layer, vars);
    };
    const SettingsProtocol::SharedNameIndex names(vars);
    addCurrentEnvVarsToMap(vars);
    merged("process");
    SiteInformation().mergeEnvVariables(vars);
    merged("site");

    const bool customized = !app.disableCustomization;
    if (customized) {
        BaseInformation().mergeEnvVariables(vars);
        merged("base");
        // Plugin by plugin, so that the observer is told of each.
        const std::vector<const PluginSettings*> plugins = PluginsManagement().pluginsFor(config);
        // Room at once for what the remaining layers can add.
        std::size_t remaining = app.mergedVariableCount() + config.settings()->mergedVariableCount() + LauncherVariableCount;
        if (commonConfig) remaining += commonConfig->settings()->mergedVariableCount();
        for (const PluginSettings* plugin : plugins) remaining += plugin->mergedVariableCount();
        vars.reserve(vars.size() + remaining);

        for (const PluginSettings* plugin : plugins) {
            plugin->mergeEnvVariables(vars);
            if (observer) merged("plugin " + plugin->name());
        }
        if (commonConfig) {
            BASE_LOG(Base::log::info()) << "Merging common configuration variables";
            commonConfig->mergeEnvVariables(vars);
            merged("common department");
        }
        BASE_LOG(Base::log::info()) << "Merging configuration variables";
        config.mergeEnvVariables(vars);
        merged("department");
    }

    BASE_LOG(Base::log::info()) << "Merging application variables";
    app.mergeEnvVariables(vars);
    merged("application");

    BASE_LOG(Base::log::info()) << "Merging KYM system variables";
    addKymSystemEnvVarsToMap(config, vars);
    if (customized) {
        setSymbolDirVariable(config, vars);
        setCustomerDefaultVariables(config, vars);
    }
    merged("launcher");
}

void Launcher::buildEnvVarMap(const Configuration& config, const Configuration* commonConfig,
                              const ConfigApplication& app, EnvironmentMap& env, LayerObserver* observer) const {
    Variables vars;
    mergeLayers(config, commonConfig, app, vars, observer);

    // Checked in list order for the log; the map is built from the end.
    Base::log::Logger& verbose = Base::log::verbose();
    if (verbose.isEnabled()) {
        for (const EnvironmentVariable& variable : vars) {
            BASE_LOG(verbose) << "variable name = " << variable.name;
            BASE_LOG(verbose) << (isValidVariableName(variable.name) ? "VALID" : "INVALID");
        }
    }
    // Later entries win: walked from the end, the first entry of a name
    // decides it, so no entry is ever overwritten. An empty value unsets the
    // name; its entry keeps the earlier ones and the caller's out until the
    // walk is over.
    EnvironmentMap given;
    given.swap(env);
    std::vector<EnvironmentMap::iterator> unset;
    for (auto variable = vars.rbegin(); variable != vars.rend(); ++variable) {
        if (!isValidVariableName(variable->name)) continue;
        const bool empty = variable->value.empty();
        // Piecewise, the node takes the moved strings first and one search places it.
        const auto [entry, added] = env.emplace(std::piecewise_construct, std::forward_as_tuple(std::move(variable->name)),
                                                std::forward_as_tuple(std::move(variable->value)));
        if (added && empty) unset.push_back(entry);
    }
    env.merge(given);
    for (const auto& entry : unset) env.erase(entry);
    // Released before the expansion allocates its results.
    Variables().swap(vars);

    BASE_LOG(Base::log::info()) << "Evaluating the completed environment";
    for (auto& [name, value] : env) {
        BASE_LOG(verbose) << "  Expanding variable " << name << "=" << value;
        try {
            // Entries expanded before are seen expanded by the later ones.
            Base::Environment::expandEnvVariables(value, env);
        } catch (const std::exception& failure) {
            throw std::runtime_error("Error expanding variable '" + name + "'.\n" + failure.what());
        }
        normalizeSeparators(value);
    }

    BASE_LOG(Base::log::info()) << "Removing duplicate paths from PATH variables";
    for (auto& [name, value] : env)
        if (isPathVariable(name)) value = cleanPathList(value);
}

fs::path Launcher::getAndCheckExecutable(const ConfigApplication& app, const EnvironmentMap& env) const {
    std::string text = app.program;
    Base::Environment::expandEnvVariables(text, env);
    text = collapseDoubledSeparators(text);
    BASE_LOG(Base::log::verbose()) << "expanded executable string = " << text;

    const fs::path program(text);
    boost::system::error_code error;
    if (!fs::exists(program, error))
        throw std::runtime_error("Program " + native(program) + " is not found.\n" + "  Original string = " +
                                 app.program + "\n  Maybe a environment variable is set wrong.");
    // A directory may be entered, which the executable test counts as executing it.
    if (fs::is_directory(program, error) || !Base::FileManager::isExecutable(program))
        throw std::runtime_error("Program " + native(program) + " is not executable.\n");
    return program;
}

void Launcher::checkCadEnvironment(EnvironmentMap& env) const {
    const std::string& variable = SystemInformation().CadInstallPathVariable;
    if (variable.empty())
        throw std::runtime_error(std::string("The system has not defined the environment variable for ") +
                                 "the install path of the CAD system. Cannot verify it is installed.");
    const auto installPath = env.find(variable);
    if (installPath == env.end()) throw std::runtime_error(variable + " is not set.");
    boost::system::error_code error;
    if (!fs::exists(fs::path(installPath->second), error))
        throw std::runtime_error(variable + " is set to " + installPath->second + ". Invalid directory.");

    installPath->second = Base::FileManager::shortPathName(installPath->second);
    std::string& rootDir = env[RootDirVariable];
    rootDir = Base::FileManager::shortPathName(rootDir);

    const auto library = env.find(LibraryVariable);
    if (library != env.end()) {
        BASE_LOG(Base::log::verbose()) << "UGII_LIB1 = " << library->second;
        if (!fs::exists(fs::path(library->second), error)) env.erase(library);
    }
}

std::vector<std::string> Launcher::buildArgList(const ConfigApplication& app, const EnvironmentMap& env) const {
    BASE_LOG(Base::log::info()) << "Building argument list...";
    std::vector<std::string> arguments;
    if (!app.arguments.empty()) {
        std::string text = app.arguments;
        Base::Environment::expandEnvVariables(text, env);
        arguments = splitArguments(collapseDoubledSeparators(text));
    }
    BASE_LOG(Base::log::info()) << "Argument list size is " << arguments.size();
    return arguments;
}

std::string Launcher::commandString(const Configuration& config, const Configuration* commonConfig,
                                    const ConfigApplication& app) const {
    EnvironmentMap env;
    buildEnvVarMap(config, commonConfig, app, env);
    const fs::path program = getAndCheckExecutable(app, env);
    std::string command = native(program);
    for (const std::string& argument : buildArgList(app, env)) command += " " + argument;
    return command;
}

void Launcher::removeLogFiles(const Configuration& config) const {
    if (!config.doFileCleanup) return;
    const std::uint32_t days = config.cleanupDays;
    BASE_LOG(Base::log::info()) << "Removing tmp files greater than " << days << " days old:";
    const Time now = Time::currentLocalTime();
    // The dots are not escaped and match any character; kept as it always was.
    static const boost::regex staleExtension("^(.syslog|.jnl|.rol_bin|.log|.mon|.tmp|.dlg|.prt|.pax|.c|.h|.qaf)$",
                                             boost::regex::perl);
    const bool ownFilesOnly = conventions().cleanupOwnFilesOnly();

    const std::string& locations = conventions().cleanupDirectories();
    std::string::size_type start = 0;
    while (start <= locations.size()) {
        std::string::size_type end = locations.find(';', start);
        if (end == std::string::npos) end = locations.size();
        std::string text = locations.substr(start, end - start);
        start = end + 1;

        Base::Environment::expandEnvVariables(text);
        const fs::path directory(text);
        BASE_LOG(Base::log::verbose()) << "  looking in " << native(directory);
        boost::system::error_code error;
        if (!fs::is_directory(directory, error)) continue;

        for (fs::directory_iterator entry(directory), last; entry != last; ++entry) {
            const fs::path& file = entry->path();
            if (fs::is_directory(file, error)) continue;
            if (!boost::regex_match(file.extension().string(), staleExtension)) continue;
            if (ownFilesOnly && !Base::FileManager::isOwnedByCurrentUser(file)) continue;
            Time modified;
            modified.setTime(static_cast<Time::Int64>(fs::last_write_time(file)));
            const long age = static_cast<long>(now.diffDay(modified));
            if (age <= static_cast<long>(days)) continue;
            BASE_LOG(Base::log::info()) << "  Removing " << native(file) << " which is " << age << " days old.";
            fs::remove(file);
        }
    }
}

void Launcher::launchApplication(const Configuration& config, const Configuration* commonConfig,
                                 const ConfigApplication& app, const WorkDirectory* workDir) const {
    start(config, commonConfig, app, workDir, nullptr);
}

void Launcher::start(const Configuration& config, const Configuration* commonConfig, const ConfigApplication& app,
                     const WorkDirectory* workDir, const std::vector<std::string>* givenArguments) const {
    BASE_LOG(Base::log::info()) << "Building environment...";
    EnvironmentMap env;
    buildEnvVarMap(config, commonConfig, app, env);
    BASE_LOG(Base::log::info()) << "Finished building environment.";

    const fs::path program = getAndCheckExecutable(app, env);
    const std::vector<std::string> arguments = givenArguments ? *givenArguments : buildArgList(app, env);
    removeLogFiles(config);

    BASE_LOG(Base::log::info()) << "Starting application " << native(program);
    if (Base::log::info().isEnabled()) {
        std::string listed;
        for (const std::string& argument : arguments) listed += argument + " ";
        BASE_LOG(Base::log::info()) << "  with arguments: " << listed;
    }

    Base::Task task;
    task.setArguments(arguments);
    task.setLaunchPath(program);
    std::string directory = workDir ? workDir->path : conventions().defaultWorkDirectory();
    if (!directory.empty()) {
        Base::Environment::expandEnvVariables(directory, env);
        task.setCurrentDirectoryPath(directory);
    }
    // Set for every launch, whatever the layers said.
    env[UserDefaultsVariable] = directory + conventions().pathSeparator() + UserDefaultsFileName;
    task.setEnvironment(std::move(env));
    task.setCallerEndsAfterStart(mCallerEndsAfterLaunch);
    task.launch();
    BASE_LOG(Base::log::info()) << "Application " << native(task.launchPath()) << " has started.";
}

void Launcher::launchApplication(const Configuration& config, const Configuration* commonConfig,
                                 const std::string& executable, const std::vector<std::string>& arguments,
                                 bool addLibraries) const {
    ConfigApplication app;
    app.program = executable;
    app.arguments = boost::algorithm::join(arguments, " ");
    app.addUGLibsToPath = addLibraries;
    launchApplication(config, commonConfig, app, nullptr);
}

void Launcher::launchProgram(const Configuration& config, const Configuration* commonConfig,
                             const std::string& executable, const std::vector<std::string>& arguments,
                             bool addLibraries) const {
    ConfigApplication app;
    app.program = executable;
    app.addUGLibsToPath = addLibraries;
    start(config, commonConfig, app, nullptr, &arguments);
}

} // namespace Kym
