// The three variable lists of a settings layer (common, Unix, Windows) with
// their table models, and the rule by which a layer's variables are merged
// into the list the launcher assembles.
#pragma once

#include "kym/EnvironmentVariable.h"
#include "kym/KymExport.h"

#include <memory>
#include <string>
#include <vector>

namespace Base {
class Archiver;
class Unarchiver;
} // namespace Base

namespace Kym {

class KYM_EXPORT SettingsProtocol {
public:
    SettingsProtocol();
    SettingsProtocol(const SettingsProtocol& other);
    SettingsProtocol& operator=(const SettingsProtocol& other);
    SettingsProtocol(SettingsProtocol&& other) noexcept;
    SettingsProtocol& operator=(SettingsProtocol&& other) noexcept;
    virtual ~SettingsProtocol();

    // The table models, bound to this object's lists; owned by it.
    EnvVariableListSource* commonVariables();
    EnvVariableListSource* unixVariables();
    EnvVariableListSource* winVariables();

    const std::vector<EnvironmentVariable>& commonVariableList() const { return mCommonVariables; }
    const std::vector<EnvironmentVariable>& unixVariableList() const { return mUnixVariables; }
    const std::vector<EnvironmentVariable>& winVariableList() const { return mWinVariables; }

    // Whether any of the three table models was edited; owners clear it after saving.
    bool variableListsEdited() const;
    void setVariableListsEdited(bool edited);

    // Merges the common list, then the list of the active launch conventions
    // (Windows or Unix), each variable by mergeVariable.
    void mergeUserEnvVariables(std::vector<EnvironmentVariable>& list) const;

    // A later value replaces an earlier one; $NAME or ${NAME} in it stands for
    // the earlier value. The name goes into the pattern unescaped, so a name
    // that is no valid pattern throws boost::regex_error.
    static void mergeVariable(const EnvironmentVariable& variable, std::vector<EnvironmentVariable>& list);
    // Replaces or appends the whole record, without self-references; a
    // variable with an empty name or value is skipped.
    static void replaceVariable(const EnvironmentVariable& variable, std::vector<EnvironmentVariable>& list);

protected:
    // The three lists as a store reads them: aside, so that a damaged file
    // leaves the store as it was until it takes them.
    struct VariableLists {
        std::vector<EnvironmentVariable> common;
        std::vector<EnvironmentVariable> unixList;
        std::vector<EnvironmentVariable> windows;
    };
    // Under the store's own keys, in the order common, Unix, Windows.
    static VariableLists decodeVariableLists(Base::Unarchiver& archive, const char* commonKey, const char* unixKey,
                                             const char* windowsKey);
    void encodeVariableLists(Base::Archiver& archive, const char* commonKey, const char* unixKey,
                             const char* windowsKey) const;
    void takeVariableLists(VariableLists&& lists);

    std::vector<EnvironmentVariable> mCommonVariables;
    std::vector<EnvironmentVariable> mUnixVariables;
    std::vector<EnvironmentVariable> mWinVariables;
    EnvVariableListSource mCommonVariablesSource;
    EnvVariableListSource mUnixVariablesSource;
    EnvVariableListSource mWinVariablesSource;

private:
    // The launcher merges every layer into one list.
    friend class Launcher;

    struct SharedNameIndexState;
    // While one lives, the merges into its list look names up in one index
    // that follows the list from layer to layer instead of indexing it anew
    // for each. Between merges the list may only grow at its end: the names
    // it holds must stay where they are.
    class SharedNameIndex {
    public:
        explicit SharedNameIndex(const std::vector<EnvironmentVariable>& list);
        ~SharedNameIndex();
        SharedNameIndex(const SharedNameIndex&) = delete;
        SharedNameIndex& operator=(const SharedNameIndex&) = delete;

    private:
        std::unique_ptr<SharedNameIndexState> mState;
    };

    // The list merged after the common one under the active launch conventions.
    const std::vector<EnvironmentVariable>& platformVariableList() const;
    // How many variables mergeUserEnvVariables merges.
    std::size_t mergedVariableCount() const;
    void takeEditedMarks(const SettingsProtocol& other);
};

} // namespace Kym
