// A scene for the launcher's tests: a known process environment, a real site and departments on disk, conventions set.
#pragma once

#include "support/Processes.h"
#include "support/Site.h"

#include "kym/Configuration.h"
#include "kym/Launcher.h"

#include "base/Platform.h"

#include <string>
#include <utility>
#include <vector>

namespace LauncherTest {

namespace fs = boost::filesystem;
using Environment = Kym::Launcher::EnvironmentMap;
using Lines = std::vector<std::string>;

// The site's CAD install path; the registry is not asked.
inline KymTest::SiteFile siteFile(const std::string& installPath,
                                  const std::vector<Kym::EnvironmentVariable>& commonVariables = {}) {
    KymTest::SiteFile file;
    file.useWindowsRegistry = false;
    file.winNXInstallPath.value = file.unixNXInstallPath.value = installPath;
    file.commonVariables = commonVariables;
    return file;
}

// Folders a test needs are made before its scene: without TEMP and TMP a Windows host puts a new temporary
// folder into the system's own folder.
class Scene {
public:
    // The process environment holds exactly these variables, and what the site adds (KYM_BASE_DIR, XDG_CONFIG_HOME).
    Scene(Base::Platform::Kind conventions, const std::vector<std::pair<std::string, std::string>>& process = {})
        : mEnvironment(process, {"KYM_BASE_DIR", "XDG_CONFIG_HOME"}) {
        Base::Platform::setCurrent(conventions);
        site.writeReleaseNames();
    }
    // A department of the current release on disk, read back as the launcher gets it.
    Kym::Configuration department(const std::string& name, const KymTest::DepartmentProperties& properties = {},
                                  const KymTest::DepartmentSettings& settings = {}) const {
        return Kym::Configuration(site.addUpdatedDepartment(name, properties, settings), true);
    }
    static std::string native(const fs::path& p) { return Base::Platform::current().nativePath(p); }

    KymTest::Site site;

private:
    KymTest::ProcessEnvironment mEnvironment;  // after the site, which keeps its own variables
};

inline KymTest::DepartmentSettings settingsWith(const std::vector<Kym::EnvironmentVariable>& commonVariables) {
    return {{}, {commonVariables, {}, {}, {}}, {}, {}};
}

inline KymTest::DepartmentProperties propertiesWith(const std::string& commonDepartment, bool doFileCleanup = false,
                                                   std::uint32_t cleanupDays = 2) {
    KymTest::DepartmentProperties properties;  // the other fields keep the library's defaults
    properties.commonDepartment = commonDepartment, properties.doFileCleanup = doFileCleanup;
    properties.cleanupDays = cleanupDays;
    return properties;
}

inline Kym::ConfigApplication application(const std::string& program, const std::string& arguments = "",
                                          const std::vector<Kym::EnvironmentVariable>& commonVariables = {}) {
    Kym::ConfigApplication app = KymTest::makeApplication("app", program);
    app.arguments = arguments;
    app.addUGLibsToPath = false;
    for (const auto& variable : commonVariables) KymTest::appendVariable(app.commonVariables(), variable.name, variable.value);
    return app;
}

inline Environment build(const Kym::Configuration& config, const Kym::Configuration* common,
                         const Kym::ConfigApplication& app, Kym::Launcher::LayerObserver* observer = nullptr) {
    Environment env;
    Kym::Launcher().buildEnvVarMap(config, common, app, env, observer);
    return env;
}

} // namespace LauncherTest
