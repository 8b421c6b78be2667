#include "kym/SiteSettings.h"

#include "kym/PluginsManager.h"
#include "kym/SystemInfo.h"

#include "base/Archiver.h"
#include "base/Environment.h"
#include "base/FileManager.h"
#include "base/Platform.h"
#include "base/ProcessWide.h"
#include "base/Registry.h"
#include "base/Unarchiver.h"
#include "base/log/Logger.h"

#include <boost/filesystem/operations.hpp>
#include <algorithm>
#include <utility>

namespace fs = boost::filesystem;

namespace Kym {

namespace {

const char* const PortalInstallPathVariable = "TC_PORTAL_ROOT";
const char* const PlotConfBaseVariable = "SDI_SERVER_CFG_BASE";
const char* const RootDirVariable = "UGII_ROOT_DIR";
const char* const PlotServerDirVariable = "UGII_SDI_SERVER_CFG_DIR";
const char* const DocumentationDirVariable = "UGII_UGDOC_BASE_DIR";
const char* const DocumentationDirValue = "${UGII_BASE_DIR}/ugdoc";
const char* const WindowsBrowser = "${PROGRAMFILES}\\Internet Explorer\\iexplore.exe";
const char* const PosixBrowser = "/usr/bin/xdg-open";

Base::ProcessWide<SiteSettings> siteInformation;

std::string native(const fs::path& p) {
    return Base::Platform::current().nativePath(p);
}

// Replaces a variable whole or appends it; values of the site are plain, never self-referencing.
void mergeOne(const EnvironmentVariable& variable, std::vector<EnvironmentVariable>& vars) {
    SettingsProtocol::replaceVariable(variable, vars);
}

} // namespace

SiteSettings::SiteSettings() : mUseWindowsRegistry(true), mSettingsChanged(false) {
    updateVarNames();
    load();
    initializeExternalPlugins();
}

SiteSettings::~SiteSettings() = default;

std::string SiteSettings::datafilename() const {
    return standardDataFile().filename().string();
}

fs::path SiteSettings::standardDataFile() {
    return SystemInformation().localDepartmentsPath() / ("site_settings" + SystemInformation().SiteSettingsSuffix + ".dat");
}

void SiteSettings::updateVarNames() {
    const SystemInfo& names = SystemInformation();
    mUnixNXInstallPath.name = names.CadInstallPathVariable;
    mWinNXInstallPath.name = names.CadInstallPathVariable;
    mUnixTcEngInstallPath.name = names.tcEngInstallPathVariable;
    mWinTcEngInstallPath.name = names.tcEngInstallPathVariable;
    mUnixPortalInstallPath.name = PortalInstallPathVariable;
    mWinPortalInstallPath.name = PortalInstallPathVariable;
    mBrowser.name = names.CadWebBrowserVariable;
    mUnixPlotConfBase.name = PlotConfBaseVariable;
    mWinPlotConfBase.name = PlotConfBaseVariable;
}

void SiteSettings::load() {
    const fs::path file = dataFile();
    BASE_LOG(Base::log::info()) << "Loading site settings file: " << native(file);
    mDataFile.setPath(file);
    boost::system::error_code error;
    if (!fs::exists(file, error)) {
        mDataFile.setRead(Base::FileIdentity());
        return;
    }
    try {
        decodeFrom(file);
    } catch (const std::exception& failure) {
        mDataFile.setReadFailure(failure.what());
        throw;
    }
}

void SiteSettings::decodeFrom(const fs::path& file) {
    Base::Unarchiver archive(file);
    // Decoded aside first, so a damaged file leaves the store as it was.
    auto unixNXInstallPath = archive.decodeValue<EnvironmentVariable>(UnixNXInstallPathKey);
    auto winNXInstallPath = archive.decodeValue<EnvironmentVariable>(WindowsNXInstallPathKey);
    auto unixTcEngInstallPath = archive.decodeValue<EnvironmentVariable>(UnixTcEngInstallPathKey);
    auto winTcEngInstallPath = archive.decodeValue<EnvironmentVariable>(WindowsTcEngInstallPathKey);
    auto unixPortalInstallPath = archive.decodeValue<EnvironmentVariable>(UnixPortalInstallPathKey);
    auto winPortalInstallPath = archive.decodeValue<EnvironmentVariable>(WindowsPortalInstallPathKey);
    auto browser = archive.decodeValue<EnvironmentVariable>(BrowserKey);
    bool useWindowsRegistry = true;
    archive.decode(UseWindowsRegistryKey, useWindowsRegistry);
    auto lists = decodeVariableLists(archive, CommonVariablesKey, UnixVariablesKey, WindowsVariablesKey);
    auto unixPlotConfBase = archive.decodeValue<EnvironmentVariable>(UnixPlotConfBaseKey);
    auto winPlotConfBase = archive.decodeValue<EnvironmentVariable>(WindowsPlotConfBaseKey);
    std::string unixExternalPluginsLocation;
    archive.decode(UnixExternalPluginsLocationKey, unixExternalPluginsLocation);
    std::string winExternalPluginsLocation;
    archive.decode(WindowsExternalPluginsLocationKey, winExternalPluginsLocation);

    mUnixNXInstallPath = std::move(unixNXInstallPath);
    mWinNXInstallPath = std::move(winNXInstallPath);
    mUnixTcEngInstallPath = std::move(unixTcEngInstallPath);
    mWinTcEngInstallPath = std::move(winTcEngInstallPath);
    mUnixPortalInstallPath = std::move(unixPortalInstallPath);
    mWinPortalInstallPath = std::move(winPortalInstallPath);
    mBrowser = std::move(browser);
    mUseWindowsRegistry = useWindowsRegistry;
    takeVariableLists(std::move(lists));
    mUnixPlotConfBase = std::move(unixPlotConfBase);
    mWinPlotConfBase = std::move(winPlotConfBase);
    mUnixExternalPluginsLocation = std::move(unixExternalPluginsLocation);
    mWinExternalPluginsLocation = std::move(winExternalPluginsLocation);
    updateVarNames();
    mDataFile.setRead(archive.sourceIdentity());
}

void SiteSettings::save() {
    if (!needsSaving()) return;
    BASE_LOG(Base::log::info()) << "Saving site settings file: " << native(mDataFile.path());
    mDataFile.write(encoded());
    setVariableListsEdited(false);
    mSettingsChanged = false;
}

fs::path SiteSettings::overwrite() {
    const fs::path copy = mDataFile.overwrite(encoded());
    setVariableListsEdited(false);
    mSettingsChanged = false;
    return copy;
}

std::string SiteSettings::encoded() const {
    Base::Archiver archive(mDataFile.path());
    archive.encodeObject(UnixNXInstallPathKey, mUnixNXInstallPath);
    archive.encodeObject(WindowsNXInstallPathKey, mWinNXInstallPath);
    archive.encodeObject(UnixTcEngInstallPathKey, mUnixTcEngInstallPath);
    archive.encodeObject(WindowsTcEngInstallPathKey, mWinTcEngInstallPath);
    archive.encodeObject(UnixPortalInstallPathKey, mUnixPortalInstallPath);
    archive.encodeObject(WindowsPortalInstallPathKey, mWinPortalInstallPath);
    archive.encodeObject(BrowserKey, mBrowser);
    archive.encode(UseWindowsRegistryKey, mUseWindowsRegistry);
    encodeVariableLists(archive, CommonVariablesKey, UnixVariablesKey, WindowsVariablesKey);
    archive.encodeObject(UnixPlotConfBaseKey, mUnixPlotConfBase);
    archive.encodeObject(WindowsPlotConfBaseKey, mWinPlotConfBase);
    archive.encode(UnixExternalPluginsLocationKey, mUnixExternalPluginsLocation);
    archive.encode(WindowsExternalPluginsLocationKey, mWinExternalPluginsLocation);
    return archive.text();
}

bool SiteSettings::needsSaving() const {
    return mSettingsChanged || variableListsEdited();
}

std::string SiteSettings::registryInstallPath() const {
    const SystemInfo& names = SystemInformation();
    if (names.CadWindowsRegistryPath.empty()) return std::string();
    return Base::Registry::readLocalMachineValue(names.CadWindowsRegistryPath, names.CadInstallPathVariable);
}

void SiteSettings::mergeEnvVariables(std::vector<EnvironmentVariable>& vars) const {
    BASE_LOG(Base::log::info()) << "  merging site envirnment variables";
    const bool windows = Base::Platform::current().isWindows();

    if (windows) {
        if (!mUseWindowsRegistry) {
            mergeOne(mWinNXInstallPath, vars);
            if (!mWinNXInstallPath.value.empty())
                mergeOne(EnvironmentVariable(RootDirVariable, mWinNXInstallPath.value + "\\ugii\\"), vars);
        } else {
            std::string installPath = registryInstallPath();
            if (!installPath.empty()) {
                if (installPath.back() == '\\') installPath.pop_back();
                mergeOne(EnvironmentVariable(SystemInformation().CadInstallPathVariable, installPath), vars);
                mergeOne(EnvironmentVariable(RootDirVariable, installPath + "\\ugii\\"), vars);
            }
        }
        mergeOne(mWinTcEngInstallPath, vars);
        mergeOne(mWinPortalInstallPath, vars);
        mergeOne(mWinPlotConfBase, vars);
    } else {
        mergeOne(mUnixNXInstallPath, vars);
        if (!mUnixNXInstallPath.value.empty())
            mergeOne(EnvironmentVariable(RootDirVariable, mUnixNXInstallPath.value + "/ugii/"), vars);
        mergeOne(mUnixTcEngInstallPath, vars);
        mergeOne(mUnixPortalInstallPath, vars);
        mergeOne(mUnixPlotConfBase, vars);
    }

    vars.push_back(EnvironmentVariable(SystemInformation().CadWebBrowserVariable, getWebBrowser()));

    // A forward slash even under Windows conventions, deliberately kept.
    const EnvironmentVariable& plotConfBase = windows ? mWinPlotConfBase : mUnixPlotConfBase;
    if (!plotConfBase.value.empty())
        mergeOne(EnvironmentVariable(PlotServerDirVariable, plotConfBase.value + (windows ? "/win" : "/lnx64")), vars);

    const bool hasDocumentationDir = std::any_of(vars.begin(), vars.end(), [](const EnvironmentVariable& variable) {
        return variable.name == DocumentationDirVariable;
    });
    // Left unexpanded: the launch expands it against the finished environment.
    if (!hasDocumentationDir) vars.push_back(EnvironmentVariable(DocumentationDirVariable, DocumentationDirValue));

    mergeUserEnvVariables(vars);
}

std::string SiteSettings::getWebBrowser() const {
    if (Base::Platform::current().isWindows()) {
        std::string browser = WindowsBrowser;
        Base::Environment::expandEnvVariables(browser);
        const std::string shortForm = Base::FileManager::shortPathName(browser);
        return shortForm.empty() ? browser : shortForm;
    }
    if (mBrowser.value.empty()) return PosixBrowser;
    std::string browser = mBrowser.value;
    return Base::Environment::expandEnvVariables(browser);
}

void SiteSettings::initializeExternalPlugins() {
    const std::string& location =
        Base::Platform::current().isWindows() ? mWinExternalPluginsLocation : mUnixExternalPluginsLocation;
    const fs::path directory(location);
    boost::system::error_code error;
    if (directory.empty() || !fs::is_directory(directory, error)) return;

    BASE_LOG(Base::log::info()) << "adding external plugins";
    const fs::directory_iterator first(directory), last;
    std::vector<fs::path> entries(first, last);
    // Sorted by name: the same order on every file system.
    std::sort(entries.begin(), entries.end());

    if (entries.empty()) return;

    // A damaged plugin takes the ones added before it out again, so that the
    // next SiteInformation() does not register them twice.
    PluginsManager& plugins = PluginsManagement();
    const std::size_t before = plugins.mPlugins.size();
    try {
        for (const fs::path& entry : entries) addExternalPlugin(entry);
    } catch (...) {
        plugins.mPlugins.erase(plugins.mPlugins.begin() + static_cast<std::ptrdiff_t>(before), plugins.mPlugins.end());
        throw;
    }
}

void SiteSettings::addExternalPlugin(const fs::path& dir) {
    PluginsManagement().addPlugin(dir);
}

SiteSettings& SiteInformation() {
    return siteInformation.instance();
}

} // namespace Kym
