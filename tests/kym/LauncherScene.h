// A scene for the launcher's tests: a known process environment, a real site and departments on disk, conventions set.
#pragma once

#include "support/Site.h"

#include "kym/Configuration.h"
#include "kym/Launcher.h"

#include "base/Platform.h"

#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

extern char** environ;

namespace LauncherTest {

namespace fs = boost::filesystem;
using Environment = Kym::Launcher::EnvironmentMap;
using Lines = std::vector<std::string>;

// Replaces the whole process environment and puts the old one back when it goes.
class ProcessEnvironment {
public:
    explicit ProcessEnvironment(const std::vector<std::pair<std::string, std::string>>& variables) {
        for (char** entry = environ; entry && *entry; ++entry) mSaved.emplace_back(*entry);
        ::clearenv();
        for (const auto& [name, value] : variables) ::setenv(name.c_str(), value.c_str(), 1);
    }
    ~ProcessEnvironment() {
        ::clearenv();
        for (const std::string& entry : mSaved)
            if (const auto equals = entry.find('='); equals != std::string::npos && equals > 0)
                ::setenv(entry.substr(0, equals).c_str(), entry.substr(equals + 1).c_str(), 1);
    }

private:
    std::vector<std::string> mSaved;
};

// The site's CAD install path; the registry is not asked.
inline KymTest::SiteFile siteFile(const std::string& installPath,
                                  const std::vector<Kym::EnvironmentVariable>& commonVariables = {}) {
    KymTest::SiteFile file;
    file.useWindowsRegistry = false;
    file.winNXInstallPath.value = file.unixNXInstallPath.value = installPath;
    file.commonVariables = commonVariables;
    return file;
}

class Scene {
public:
    // The process environment holds exactly these variables, and what the site adds (KYM_BASE_DIR, XDG_CONFIG_HOME).
    Scene(Base::Platform::Kind conventions, const std::vector<std::pair<std::string, std::string>>& process = {})
        : mEnvironment(process) {
        Base::Platform::setCurrent(conventions);
        site.writeReleaseNames();
    }
    // A department of the current release on disk, read back as the launcher gets it.
    Kym::Configuration department(const std::string& name, const KymTest::DepartmentProperties& properties = {},
                                  const KymTest::DepartmentSettings& settings = {}) const {
        return Kym::Configuration(site.addUpdatedDepartment(name, properties, settings), true);
    }
    static std::string native(const fs::path& p) { return Base::Platform::current().nativePath(p); }

private:
    ProcessEnvironment mEnvironment;  // first, so that the site's variables go in after it

public:
    KymTest::Site site;
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
