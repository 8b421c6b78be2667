#include "kym/SettingsProtocol.h"

#include "base/Archiver.h"
#include "base/Environment.h"
#include "base/Platform.h"
#include "base/Unarchiver.h"
#include "base/log/Logger.h"

#include <boost/algorithm/string/replace.hpp>
#include <boost/regex.hpp>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <limits>
#include <stdexcept>
#include <string_view>
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
        if (!Base::Environment::isNameCharacter(c)) return false;
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

// The variable's value with its self-references replaced by the current
// value (none: the empty text); backslashes of the current value are doubled
// for the pattern substitution, where a backslash escapes.
std::string substitutedValue(const EnvironmentVariable& variable, bool plainName, const std::string* current) {
    if (plainName && (!current || current->find('$') == std::string::npos))
        return substituteSelfReferences(variable.value, variable.name, current ? *current : std::string());
    // A "$" in the current value would be a format sequence of the replacement.
    const std::string escaped = current ? boost::algorithm::replace_all_copy(*current, "\\", "\\\\") : std::string();
    return boost::regex_replace(variable.value, selfReferencePattern(variable.name), escaped);
}

// The position of the first element of each name in a list that only grows
// at its end. Open addressing over (hash, position) pairs: nothing is
// allocated per name, and positions, unlike views of the names, survive the
// list's reallocation.
class NameIndex {
public:
    static constexpr std::size_t Absent = static_cast<std::size_t>(-1);

    explicit NameIndex(const Variables& list) : mList(list), mSlots(MinimumSlots), mMask(MinimumSlots - 1) { catchUp(); }

    bool indexes(const Variables& list) const { return &list == &mList; }

    static std::uint32_t hash(const std::string& name) {
        return static_cast<std::uint32_t>(std::hash<std::string_view>()(name));
    }

    // Takes in the elements appended to the list since the last look.
    void catchUp() {
        // A list that shrank meanwhile is indexed anew rather than read past its end.
        if (mIndexed > mList.size()) {
            std::fill(mSlots.begin(), mSlots.end(), Slot{});
            mIndexed = 0;
        }
        makeRoom(mList.size());
        for (; mIndexed < mList.size(); ++mIndexed) {
            const std::uint32_t code = hash(mList[mIndexed].name);
            if (find(mList[mIndexed].name, code) == Absent) insert(code, mIndexed);
        }
    }

    std::size_t find(const std::string& name, std::uint32_t code) const {
        for (std::size_t slot = code & mMask;; slot = (slot + 1) & mMask) {
            const Slot& candidate = mSlots[slot];
            if (candidate.position == 0) return Absent;
            if (candidate.code == code && mList[candidate.position - 1].name == name) return candidate.position - 1;
        }
    }

    // For the element just appended, whose name the list did not hold.
    void appended(std::uint32_t code) {
        if (2 * (mIndexed + 1) > mSlots.size()) makeRoom(mIndexed + 1);
        insert(code, mIndexed++);
    }

private:
    struct Slot {
        std::uint32_t code = 0;
        std::uint32_t position = 0;  // one past the element's; 0 for a free slot
    };
    static constexpr std::size_t MinimumSlots = 64;

    // At most half the slots taken keeps the probe sequences short.
    void makeRoom(std::size_t count) {
        std::size_t size = mSlots.size();
        if (2 * count <= size) return;
        while (size < 2 * count) size *= 2;
        if (size > std::numeric_limits<std::uint32_t>::max())
            throw std::length_error("too many variables to index by name");
        std::vector<Slot> old(size);
        old.swap(mSlots);
        mMask = size - 1;
        for (const Slot& slot : old)
            if (slot.position != 0) place(slot);
    }

    void insert(std::uint32_t code, std::size_t position) {
        place(Slot{code, static_cast<std::uint32_t>(position + 1)});
    }

    void place(const Slot& slot) {
        std::size_t at = slot.code & mMask;
        while (mSlots[at].position != 0) at = (at + 1) & mMask;
        mSlots[at] = slot;
    }

    const Variables& mList;
    std::vector<Slot> mSlots;
    std::size_t mMask;
    std::size_t mIndexed = 0;
};

// The index the launcher keeps over its working list while it merges the layers.
thread_local NameIndex* sharedIndex = nullptr;

// A found element's value stands for the self-references.
void mergeInto(const EnvironmentVariable& variable, Variables& list, NameIndex* index) {
    BASE_LOG(Base::log::verbose()) << "  merging " << variable.name;
    std::uint32_t code = 0;
    Variables::iterator existing;
    if (index) {
        code = NameIndex::hash(variable.name);
        const std::size_t position = index->find(variable.name, code);
        existing = position == NameIndex::Absent ? list.end() : list.begin() + static_cast<std::ptrdiff_t>(position);
    } else {
        existing = findByName(list, variable.name);
    }
    const std::string* current = existing == list.end() ? nullptr : &existing->value;
    if (current) {
        BASE_LOG(Base::log::verbose()) << "    current value: " << boost::algorithm::replace_all_copy(*current, "\\", "\\\\");
    }

    // Most values refer to nothing and are taken as they are.
    const bool plainName = isPlainName(variable.name);
    const bool substitutes = !plainName || std::string_view(variable.value).find('$') != std::string::npos;
    std::string substituted;
    if (substitutes) substituted = substitutedValue(variable, plainName, current);
    BASE_LOG(Base::log::verbose()) << "    value = " << (substitutes ? substituted : variable.value);
    if (existing == list.end()) {
        if (substitutes) {
            EnvironmentVariable& added = list.emplace_back(variable.name, variable.type);
            added.value = std::move(substituted);
            added.comment = variable.comment;
        } else {
            list.push_back(variable);
        }
        if (index) index->appended(code);
    } else {
        BASE_LOG(Base::log::verbose()) << "    replacing existing value";
        existing->comment = variable.comment;
        if (substitutes)
            existing->value = std::move(substituted);
        else
            existing->value = variable.value;
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

struct SettingsProtocol::SharedNameIndexState {
    explicit SharedNameIndexState(const Variables& list) : index(list), outer(sharedIndex) {}
    NameIndex index;
    NameIndex* outer;
};

SettingsProtocol::SharedNameIndex::SharedNameIndex(const Variables& list)
    : mState(std::make_unique<SharedNameIndexState>(list)) {
    sharedIndex = &mState->index;
}

SettingsProtocol::SharedNameIndex::~SharedNameIndex() {
    sharedIndex = mState->outer;
}

const Variables& SettingsProtocol::platformVariableList() const {
    return Base::Platform::current().isWindows() ? mWinVariables : mUnixVariables;
}

std::size_t SettingsProtocol::mergedVariableCount() const {
    return mCommonVariables.size() + platformVariableList().size();
}

void SettingsProtocol::mergeUserEnvVariables(std::vector<EnvironmentVariable>& list) const {
    const Variables& platformVariables = platformVariableList();
    auto mergeAll = [&](NameIndex* index) {
        for (const EnvironmentVariable& variable : mCommonVariables) mergeInto(variable, list, index);
        for (const EnvironmentVariable& variable : platformVariables) mergeInto(variable, list, index);
    };
    if (sharedIndex && sharedIndex->indexes(list)) {
        sharedIndex->catchUp();
        mergeAll(sharedIndex);
    } else if (mergedVariableCount() < IndexedMergeThreshold) {
        mergeAll(nullptr);
    } else {
        NameIndex index(list);
        mergeAll(&index);
    }
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
