#include "kym/SettingsProtocol.h"

#include "base/Archiver.h"
#include "base/Platform.h"
#include "base/Unarchiver.h"
#include "base/log/Logger.h"

#include <boost/algorithm/string/replace.hpp>
#include <boost/regex.hpp>

#include <algorithm>
#include <string_view>
#include <unordered_map>
#include <utility>

namespace Kym {

namespace {

using Variables = std::vector<EnvironmentVariable>;

Variables::iterator findByName(Variables& list, const std::string& name) {
    return std::find_if(list.begin(), list.end(),
                        [&name](const EnvironmentVariable& candidate) { return candidate.name == name; });
}

// \$NAME|\$\{NAME\}: the name goes in as it stands, so it must hold no metacharacters.
boost::regex selfReferencePattern(const std::string& name) {
    return boost::regex("\\$" + name + "|\\$\\{" + name + "\\}", boost::regex::perl);
}

// Letters, digits and "_" only: such a name is the same as a pattern and as plain text.
bool isPlainName(const std::string& name) {
    if (name.empty()) return false;
    for (char c : name)
        if (!((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_')) return false;
    return true;
}

// What the pattern substitution gives for a plain name, without compiling a
// pattern: every $NAME and ${NAME}, left to right and not overlapping, becomes
// the current value.
std::string substituteSelfReferences(const std::string& value, const std::string& name, const std::string& current) {
    std::string result;
    std::string::size_type position = 0;
    for (std::string::size_type dollar; (dollar = value.find('$', position)) != std::string::npos;) {
        std::string::size_type length = 0;
        if (value.compare(dollar + 1, name.size(), name) == 0) {
            length = 1 + name.size();
        } else if (dollar + 1 < value.size() && value[dollar + 1] == '{' &&
                   value.compare(dollar + 2, name.size(), name) == 0 &&
                   dollar + 2 + name.size() < value.size() && value[dollar + 2 + name.size()] == '}') {
            length = 3 + name.size();
        }
        if (length == 0) {
            result.append(value, position, dollar + 1 - position);
            position = dollar + 1;
            continue;
        }
        result.append(value, position, dollar - position);
        result += current;
        position = dollar + length;
    }
    result.append(value, position, std::string::npos);
    return result;
}

// For each name of a layer, the index of the first element of that name in
// the target list, or Absent; the views point into the layer's own records.
using NameIndex = std::unordered_map<std::string_view, std::size_t>;
constexpr std::size_t Absent = static_cast<std::size_t>(-1);

// A found element's value stands for the self-references; backslashes are
// doubled for the pattern substitution, where a backslash escapes.
void mergeInto(const EnvironmentVariable& variable, Variables& list, NameIndex* index) {
    BASE_LOG(Base::log::verbose()) << "  merging " << variable.name;
    Variables::iterator existing;
    if (index) {
        const std::size_t position = index->at(variable.name);
        existing = position == Absent ? list.end() : list.begin() + static_cast<std::ptrdiff_t>(position);
    } else {
        existing = findByName(list, variable.name);
    }
    const std::string* current = existing == list.end() ? nullptr : &existing->value;
    if (current) {
        BASE_LOG(Base::log::verbose()) << "    current value: " << boost::algorithm::replace_all_copy(*current, "\\", "\\\\");
    }

    std::string newValue;
    if (isPlainName(variable.name) && variable.value.find('$') == std::string::npos) {
        newValue = variable.value;
    } else if (isPlainName(variable.name) && (!current || current->find('$') == std::string::npos)) {
        newValue = substituteSelfReferences(variable.value, variable.name, current ? *current : std::string());
    } else {
        // A "$" in the current value would be a format sequence of the replacement.
        const std::string escaped = current ? boost::algorithm::replace_all_copy(*current, "\\", "\\\\") : std::string();
        newValue = boost::regex_replace(variable.value, selfReferencePattern(variable.name), escaped);
    }
    BASE_LOG(Base::log::verbose()) << "    value = " << newValue;
    if (existing == list.end()) {
        EnvironmentVariable added(variable.name, variable.type);
        added.value = std::move(newValue);
        added.comment = variable.comment;
        list.push_back(std::move(added));
        if (index) index->at(variable.name) = list.size() - 1;
    } else {
        BASE_LOG(Base::log::verbose()) << "    replacing existing value";
        existing->comment = variable.comment;
        existing->value = std::move(newValue);
        BASE_LOG(Base::log::verbose()) << "    new value: " << existing->value;
    }
}

// Below this many variables a layer searches the list instead of indexing it.
constexpr std::size_t IndexedMergeThreshold = 8;

} // namespace

SettingsProtocol::SettingsProtocol()
    : mCommonVariablesSource(&mCommonVariables),
      mUnixVariablesSource(&mUnixVariables),
      mWinVariablesSource(&mWinVariables) {}

// The table models keep showing this object's lists and take the other's edited marks.
SettingsProtocol::SettingsProtocol(const SettingsProtocol& other) : SettingsProtocol() {
    *this = other;
}

SettingsProtocol::SettingsProtocol(SettingsProtocol&& other) noexcept : SettingsProtocol() {
    *this = std::move(other);
}

SettingsProtocol& SettingsProtocol::operator=(const SettingsProtocol& other) {
    mCommonVariables = other.mCommonVariables;
    mUnixVariables = other.mUnixVariables;
    mWinVariables = other.mWinVariables;
    takeEditedMarks(other);
    return *this;
}

SettingsProtocol& SettingsProtocol::operator=(SettingsProtocol&& other) noexcept {
    mCommonVariables = std::move(other.mCommonVariables);
    mUnixVariables = std::move(other.mUnixVariables);
    mWinVariables = std::move(other.mWinVariables);
    takeEditedMarks(other);
    return *this;
}

void SettingsProtocol::takeEditedMarks(const SettingsProtocol& other) {
    mCommonVariablesSource.setEdited(other.mCommonVariablesSource.isEdited());
    mUnixVariablesSource.setEdited(other.mUnixVariablesSource.isEdited());
    mWinVariablesSource.setEdited(other.mWinVariablesSource.isEdited());
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

SettingsProtocol::VariableLists SettingsProtocol::decodeVariableLists(Base::Unarchiver& archive, const char* commonKey,
                                                                     const char* unixKey, const char* windowsKey) {
    VariableLists lists;
    lists.common = archive.decodeValue<std::vector<EnvironmentVariable>>(commonKey);
    lists.unixList = archive.decodeValue<std::vector<EnvironmentVariable>>(unixKey);
    lists.windows = archive.decodeValue<std::vector<EnvironmentVariable>>(windowsKey);
    return lists;
}

void SettingsProtocol::encodeVariableLists(Base::Archiver& archive, const char* commonKey, const char* unixKey,
                                           const char* windowsKey) const {
    archive.encodeObject(commonKey, mCommonVariables);
    archive.encodeObject(unixKey, mUnixVariables);
    archive.encodeObject(windowsKey, mWinVariables);
}

void SettingsProtocol::takeVariableLists(VariableLists&& lists) {
    mCommonVariables = std::move(lists.common);
    mUnixVariables = std::move(lists.unixList);
    mWinVariables = std::move(lists.windows);
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
    const auto& platformVariables = Base::Platform::current().isWindows() ? mWinVariables : mUnixVariables;
    const std::size_t count = mCommonVariables.size() + platformVariables.size();
    if (count < IndexedMergeThreshold) {
        for (const EnvironmentVariable& variable : mCommonVariables) mergeInto(variable, list, nullptr);
        for (const EnvironmentVariable& variable : platformVariables) mergeInto(variable, list, nullptr);
        return;
    }
    // One pass over the list finds every name of the layer; the list's own names are not copied.
    NameIndex index;
    index.reserve(count);
    for (const EnvironmentVariable& variable : mCommonVariables) index.emplace(variable.name, Absent);
    for (const EnvironmentVariable& variable : platformVariables) index.emplace(variable.name, Absent);
    std::size_t unresolved = index.size();
    for (std::size_t position = 0; position < list.size() && unresolved > 0; ++position) {
        const auto found = index.find(list[position].name);
        if (found != index.end() && found->second == Absent) {
            found->second = position;
            --unresolved;
        }
    }
    for (const EnvironmentVariable& variable : mCommonVariables) mergeInto(variable, list, &index);
    for (const EnvironmentVariable& variable : platformVariables) mergeInto(variable, list, &index);
}

void SettingsProtocol::mergeVariable(const EnvironmentVariable& variable, std::vector<EnvironmentVariable>& list) {
    mergeInto(variable, list, nullptr);
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
