#include "kym/ConfigApplication.h"

#include "base/Archiver.h"
#include "base/Coder.h"
#include "base/SmartAssert.h"
#include "base/Unarchiver.h"

#include <boost/algorithm/string/case_conv.hpp>

#include <algorithm>

namespace Kym {

static Base::Coder<ConfigApplication> configApplicationCoder("ConfigApplication");
static Base::CollectionCoder<std::vector<ConfigApplication>> configApplicationListCoder("ApplicationList");

namespace {

const char* const CadLibraryDirectory = "${UGII_BASE_DIR}/ugii";

std::string boolText(bool value) {
    return value ? "True" : "False";
}

void decodeVariableList(Base::Unarchiver& unarchiver, const char* key, std::vector<EnvironmentVariable>& list) {
    std::vector<EnvironmentVariable>* decoded = unarchiver.decodeObject(key, &list);
    if (decoded != &list) list = *decoded;
}

} // namespace

ConfigApplication::ConfigApplication()
    : appId(DefaultAppId),
      addUGLibsToPath(true),
      disableCustomization(false),
      disableApplication(false),
      platform(AllPlatforms) {}

ConfigApplication::~ConfigApplication() = default;

void ConfigApplication::setConfigurationName(const std::string& name) {
    mConfigurationName = name;
}

bool ConfigApplication::needsSaving() const {
    return variableListsEdited();
}

void ConfigApplication::mergeEnvVariables(std::vector<EnvironmentVariable>& list) const {
    mergeUserEnvVariables(list);
    if (!addUGLibsToPath) return;
    auto path = std::find_if(list.begin(), list.end(),
                             [](const EnvironmentVariable& variable) { return variable.name == "PATH"; });
    // ":" on every platform: the final expansion of the environment copes with it.
    if (path == list.end())
        list.emplace_back("PATH", CadLibraryDirectory);
    else
        path->value = std::string(CadLibraryDirectory) + ":" + path->value;
}

void ConfigApplication::encode(Base::Archiver& archiver) {
    archiver.encode("App ID", appId);
    archiver.encode("Category", category);
    archiver.encode("Description", description);
    archiver.encode("Program", program);
    archiver.encode("Arguments", arguments);
    archiver.encode("Add UG Libs To Path", addUGLibsToPath);
    archiver.encode("Disable Customization", disableCustomization);
    Base::CoderBase* listCoder = archiver.getCoder(Base::TypeInfo::of<std::vector<EnvironmentVariable>>());
    archiver.encodeObject("Common Variables", &mCommonVariables, listCoder);
    archiver.encodeObject("Unix Variables", &mUnixVariables, listCoder);
    archiver.encodeObject("Windows Variables", &mWinVariables, listCoder);
    archiver.encode("Disable Application", disableApplication);
    archiver.encode("Platform", static_cast<int>(platform));
    setVariableListsEdited(false);
}

void ConfigApplication::decode(Base::Unarchiver& unarchiver) {
    unarchiver.decode("App ID", appId);
    unarchiver.decode("Category", category);
    unarchiver.decode("Description", description);
    unarchiver.decode("Program", program);
    unarchiver.decode("Arguments", arguments);
    unarchiver.decode("Add UG Libs To Path", addUGLibsToPath);
    unarchiver.decode("Disable Customization", disableCustomization);
    decodeVariableList(unarchiver, "Common Variables", mCommonVariables);
    decodeVariableList(unarchiver, "Unix Variables", mUnixVariables);
    decodeVariableList(unarchiver, "Windows Variables", mWinVariables);
    unarchiver.decode("Disable Application", disableApplication);
    int storedPlatform = 0;
    unarchiver.decode("Platform", storedPlatform);
    platform = static_cast<PlatformType>(storedPlatform);
}

bool operator<(const ConfigApplication& left, const ConfigApplication& right) {
    if (left.category != right.category) return left.category < right.category;
    return left.description < right.description;
}

ApplicationListSource::ApplicationListSource(std::vector<ConfigApplication>* list)
    : RecordListSource<ConfigApplication>(list) {}

boost::any ApplicationListSource::valueForListColumnRow(const std::string& column, int row) const {
    if (!mList) return boost::any();
    const ConfigApplication& application = record(row);
    if (column == "Disable") return boolText(application.disableApplication);
    if (column == "AppID") return application.appId;
    if (column == "Category") return application.category;
    if (column == "Description") return application.description;
    if (column == "Executable") return application.program;
    if (column == "Arguments") return application.arguments;
    if (column == "AddNXLibs") return boolText(application.addUGLibsToPath);
    if (column == "NoCustom") return boolText(application.disableCustomization);
    return std::string();
}

bool ApplicationListSource::setValueForListColumnRow(const std::string& column, int row, const boost::any& value) {
    if (!mList) return false;
    const std::string& text = boost::any_cast<const std::string&>(value);
    const bool flag = boost::algorithm::to_lower_copy(text) == "true";
    ConfigApplication& application = record(row);
    if (column == "Disable")
        application.disableApplication = flag;
    else if (column == "AppID")
        application.appId = text;
    else if (column == "Category")
        application.category = text;
    else if (column == "Description")
        application.description = text;
    else if (column == "Executable")
        application.program = text;
    else if (column == "Arguments")
        application.arguments = text;
    else if (column == "AddNXLibs")
        application.addUGLibsToPath = flag;
    else if (column == "NoCustom")
        application.disableCustomization = flag;
    // An unknown column changes nothing but still counts as an edit.
    mEdited = true;
    return true;
}

ConfigApplication& ApplicationListSource::application(int index) {
    const std::size_t size = mList ? mList->size() : 0;
    BASE_SMART_ASSERT(300, index >= 0 && static_cast<std::size_t>(index) < size,
                      "tried to access out of range application", {"index", Base::assertValue(index)});
    if (index < 0 || static_cast<std::size_t>(index) >= size)
        throw std::out_of_range("application " + std::to_string(index) + " is out of range of a list of " +
                                std::to_string(size) + " applications");
    return (*mList)[static_cast<std::size_t>(index)];
}

EnvVariableListSource* ApplicationListSource::commonVariables(int index) {
    return mList ? application(index).commonVariables() : nullptr;
}

EnvVariableListSource* ApplicationListSource::unixVariables(int index) {
    return mList ? application(index).unixVariables() : nullptr;
}

EnvVariableListSource* ApplicationListSource::winVariables(int index) {
    return mList ? application(index).winVariables() : nullptr;
}

} // namespace Kym
