// Starts a CAD application of a department: builds its environment from
// every settings layer, checks the program and the CAD installation against
// it, splits the arguments, removes stale temporary files and starts the
// program. Keeps no state: every call builds everything afresh.
#pragma once

#include "kym/EnvironmentVariable.h"
#include "kym/KymExport.h"

#include <boost/filesystem/path.hpp>
#include <map>
#include <string>
#include <vector>

namespace Kym {

class ConfigApplication;
class Configuration;
class WorkDirectory;

class KYM_EXPORT Launcher {
public:
    // Variable name to value, ordered byte-wise by name.
    using EnvironmentMap = std::map<std::string, std::string>;

    // Shown the whole working list after each layer has merged: "process",
    // "site", "base", "plugin <name>" for each plugin that applies, "common
    // department", "department", "application" and "launcher".
    class KYM_EXPORT LayerObserver {
    public:
        virtual ~LayerObserver() = default;
        virtual void layerMerged(const std::string& layer, const std::vector<EnvironmentVariable>& vars) = 0;
    };

    // Fills env (passed empty) with the complete, expanded environment of the application.
    void buildEnvVarMap(const Configuration& config, const Configuration* commonConfig, const ConfigApplication& app,
                        EnvironmentMap& env, LayerObserver* observer = nullptr) const;
    // The expanded program of the application, which must exist and be executable.
    boost::filesystem::path getAndCheckExecutable(const ConfigApplication& app, const EnvironmentMap& env) const;
    // Checks that the install path variable names an existing CAD installation
    // and puts it and UGII_ROOT_DIR in short form; drops a missing UGII_LIB1.
    void checkCadEnvironment(EnvironmentMap& env) const;
    // The application's argument text, expanded and split.
    std::vector<std::string> buildArgList(const ConfigApplication& app, const EnvironmentMap& env) const;
    // The command line a launch would run; starts and removes nothing.
    std::string commandString(const Configuration& config, const Configuration* commonConfig,
                              const ConfigApplication& app) const;
    // Removes the department's stale journals, logs and temporary parts from the temporary directories.
    void removeLogFiles(const Configuration& config) const;

    // For a caller that ends right after a launch (a command-line front end):
    // the program is started as its own child, without the middle process
    // that spares a long-running caller zombies, and the caller then steps
    // back to the lowest priority for the program's start. Off by default.
    void setCallerEndsAfterLaunch(bool ends) { mCallerEndsAfterLaunch = ends; }

    // Starts the application, in the work directory when one is given. Does not wait for it.
    void launchApplication(const Configuration& config, const Configuration* commonConfig, const ConfigApplication& app,
                           const WorkDirectory* workDir) const;
    // Starts any program with the department's environment; the arguments
    // are joined with blanks and split again as an application's are.
    void launchApplication(const Configuration& config, const Configuration* commonConfig, const std::string& executable,
                           const std::vector<std::string>& arguments, bool addLibraries) const;
    // Starts any program with the department's environment and exactly these
    // arguments, each reaching the program as one, blanks, quotes and empty
    // ones included; none is expanded.
    void launchProgram(const Configuration& config, const Configuration* commonConfig, const std::string& executable,
                       const std::vector<std::string>& arguments, bool addLibraries) const;

    // The steps of the assembly that need no settings, under the active launch conventions.
    // Whether a variable of that name reaches the environment.
    static bool isValidVariableName(const std::string& name);
    // Whether the variable is a path list: its name holds "PATH" but not "CLASSPATH".
    static bool isPathVariable(const std::string& name);
    // Turns the separators of an expanded value into native ones; values with "http:" keep theirs.
    static void normalizeSeparators(std::string& value);
    // A path list without quotes, empty pieces, repeated pieces and doubled separators.
    static std::string cleanPathList(const std::string& value);
    // Quoted runs (greedy) and runs of non-blanks, quotes kept.
    static std::vector<std::string> splitArguments(const std::string& text);

private:
    // Starts the application with the given arguments, or with its own argument text when there are none given.
    void start(const Configuration& config, const Configuration* commonConfig, const ConfigApplication& app,
               const WorkDirectory* workDir, const std::vector<std::string>* givenArguments) const;
    void addCurrentEnvVarsToMap(std::vector<EnvironmentVariable>& vars) const;
    void addKymSystemEnvVarsToMap(const Configuration& config, std::vector<EnvironmentVariable>& vars) const;
    void setSymbolDirVariable(const Configuration& config, std::vector<EnvironmentVariable>& vars) const;
    void setCustomerDefaultVariables(const Configuration& config, std::vector<EnvironmentVariable>& vars) const;
    void mergeLayers(const Configuration& config, const Configuration* commonConfig, const ConfigApplication& app,
                     std::vector<EnvironmentVariable>& vars, LayerObserver* observer) const;

    bool mCallerEndsAfterLaunch = false;
};

} // namespace Kym
