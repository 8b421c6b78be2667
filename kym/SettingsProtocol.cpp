#include "kym/SettingsProtocol.h"

#include "base/Platform.h"
#include "base/log/Logger.h"

#include <boost/algorithm/string/replace.hpp>
#include <boost/regex.hpp>

#include <algorithm>

namespace Kym {

namespace {

std::vector<EnvironmentVariable>::iterator findByName(std::vector<EnvironmentVariable>& list, const std::string& name) {
    return std::find_if(list.begin(), list.end(),
                        [&name](const EnvironmentVariable& candidate) { return candidate.name == name; });
}

// \$NAME|\$\{NAME\}: the name goes in as it stands, so it must hold no metacharacters.
boost::regex selfReferencePattern(const std::string& name) {
    return boost::regex("\\$" + name + "|\\$\\{" + name + "\\}", boost::regex::perl);
}

} // namespace

SettingsProtocol::SettingsProtocol()
    : mCommonVariablesSource(&mCommonVariables),
      mUnixVariablesSource(&mUnixVariables),
      mWinVariablesSource(&mWinVariables) {}

// The table models keep their edited flags but show this object's lists.
SettingsProtocol::SettingsProtocol(const SettingsProtocol& other)
    : mCommonVariables(other.mCommonVariables),
      mUnixVariables(other.mUnixVariables),
      mWinVariables(other.mWinVariables),
      mCommonVariablesSource(other.mCommonVariablesSource),
      mUnixVariablesSource(other.mUnixVariablesSource),
      mWinVariablesSource(other.mWinVariablesSource) {
    mCommonVariablesSource.setList(&mCommonVariables);
    mUnixVariablesSource.setList(&mUnixVariables);
    mWinVariablesSource.setList(&mWinVariables);
}

SettingsProtocol& SettingsProtocol::operator=(const SettingsProtocol& other) {
    mCommonVariables = other.mCommonVariables;
    mUnixVariables = other.mUnixVariables;
    mWinVariables = other.mWinVariables;
    mCommonVariablesSource.setEdited(other.mCommonVariablesSource.isEdited());
    mUnixVariablesSource.setEdited(other.mUnixVariablesSource.isEdited());
    mWinVariablesSource.setEdited(other.mWinVariablesSource.isEdited());
    return *this;
}

SettingsProtocol::~SettingsProtocol() = default;

EnvVariableListSource* SettingsProtocol::commonVariables() {
    mCommonVariablesSource.setList(&mCommonVariables);
    return &mCommonVariablesSource;
}

EnvVariableListSource* SettingsProtocol::unixVariables() {
    mUnixVariablesSource.setList(&mUnixVariables);
    return &mUnixVariablesSource;
}

EnvVariableListSource* SettingsProtocol::winVariables() {
    mWinVariablesSource.setList(&mWinVariables);
    return &mWinVariablesSource;
}

bool SettingsProtocol::variableListsEdited() const {
    return mCommonVariablesSource.isEdited() || mUnixVariablesSource.isEdited() || mWinVariablesSource.isEdited();
}

void SettingsProtocol::setVariableListsEdited(bool edited) {
    mCommonVariablesSource.setEdited(edited);
    mUnixVariablesSource.setEdited(edited);
    mWinVariablesSource.setEdited(edited);
}

void SettingsProtocol::mergeUserEnvVariables(std::vector<EnvironmentVariable>& list) const {
    for (const EnvironmentVariable& variable : mCommonVariables) mergeVariable(variable, list);
    const auto& platformVariables = Base::Platform::current().isWindows() ? mWinVariables : mUnixVariables;
    for (const EnvironmentVariable& variable : platformVariables) mergeVariable(variable, list);
}

void SettingsProtocol::mergeVariable(const EnvironmentVariable& variable, std::vector<EnvironmentVariable>& list) {
    BASE_LOG(Base::log::verbose()) << "  merging " << variable.name;
    auto existing = findByName(list, variable.name);
    // The current value becomes the replacement text of a substitution, where a backslash escapes.
    std::string currentValue;
    if (existing != list.end()) {
        currentValue = boost::algorithm::replace_all_copy(existing->value, "\\", "\\\\");
        BASE_LOG(Base::log::verbose()) << "    current value: " << currentValue;
    }
    const std::string newValue = boost::regex_replace(variable.value, selfReferencePattern(variable.name), currentValue);
    BASE_LOG(Base::log::verbose()) << "    value = " << newValue;
    if (existing == list.end()) {
        EnvironmentVariable added(variable.name, newValue);
        added.comment = variable.comment;
        added.type = variable.type;
        list.push_back(added);
    } else {
        BASE_LOG(Base::log::verbose()) << "    replacing existing value";
        existing->comment = variable.comment;
        existing->value = newValue;
        BASE_LOG(Base::log::verbose()) << "    new value: " << existing->value;
    }
}

void SettingsProtocol::replaceVariable(const EnvironmentVariable& variable, std::vector<EnvironmentVariable>& list) {
    if (variable.name.empty() || variable.value.empty()) return;
    BASE_LOG(Base::log::verbose()) << "  merging " << variable.name;
    auto existing = findByName(list, variable.name);
    if (existing == list.end()) {
        list.push_back(variable);
        return;
    }
    BASE_LOG(Base::log::verbose()) << "    Replacing " << variable.name << " value.";
    BASE_LOG(Base::log::verbose()) << "      current value: " << existing->value;
    BASE_LOG(Base::log::verbose()) << "      new value: " << variable.value;
    *existing = variable;
}

} // namespace Kym
