#include "kym/SettingsProtocol.h"

#include "base/Platform.h"

#include <boost/algorithm/string/replace.hpp>
#include <boost/regex.hpp>
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <vector>

using Kym::EnvironmentVariable;
using Kym::SettingsProtocol;

namespace {

using Variables = std::vector<EnvironmentVariable>;
using Lines = std::vector<std::string>;

EnvironmentVariable variable(const std::string& name, const std::string& value, const std::string& comment = "",
                             Kym::PlatformType type = Kym::AllPlatforms) {
    EnvironmentVariable result(name, type);
    result.value = value;
    result.comment = comment;
    return result;
}

// name=value|comment|type of each entry, in order.
Lines entries(const Variables& list) {
    Lines result;
    for (const auto& v : list) result.push_back(v.name + "=" + v.value + "|" + v.comment + "|" + std::to_string(v.type));
    return result;
}

Lines merged(const EnvironmentVariable& later, Variables list) {
    SettingsProtocol::mergeVariable(later, list);
    return entries(list);
}

// A layer whose lists are filled through the editor's table models.
struct Layer : SettingsProtocol {
    void add(Kym::EnvVariableListSource* source, const std::string& name, const std::string& value) {
        source->insertRow(-1);
        source->setValueForListColumnRow("Name", source->numberOfRowsInList() - 1, name);
        source->setValueForListColumnRow("Value", source->numberOfRowsInList() - 1, value);
    }
};

} // namespace

TEST(LayeredMerge, OnlyTheFirstEntryOfTheSameNameChangesAndKeepsItsPlaceNameAndType) {
    EXPECT_EQ((Lines{"A=1;3|second|1", "B=2||0"}),
              merged(variable("A", "$A;3", "second", Kym::WindowsPlatform),
                     {variable("A", "1", "first", Kym::UnixPlatform), variable("B", "2")}));
    EXPECT_EQ((Lines{"Path=a||0", "PATH=b;d||0", "PATH=c||0"}),
              merged(variable("PATH", "$PATH;d"), {variable("Path", "a"), variable("PATH", "b"), variable("PATH", "c")}));
}

TEST(ReplacementMerge, ReplacesTheWholeRecordWithoutSubstitutionAndSkipsEmptyParts) {
    Variables list{variable("ROOT", "C:\\old", "old", Kym::UnixPlatform), variable("B", "2")};
    SettingsProtocol::replaceVariable(variable("ROOT", "$ROOT\\new", "", Kym::WindowsPlatform), list);
    SettingsProtocol::replaceVariable(variable("B", ""), list);
    SettingsProtocol::replaceVariable(variable("", "x"), list);
    SettingsProtocol::replaceVariable(variable("C", "3"), list);
    EXPECT_EQ((Lines{"ROOT=$ROOT\\new||2", "B=2||0", "C=3||0"}), entries(list));
}

TEST(SettingsProtocol, MergesTheCommonListThenTheListOfTheLaunchConventions) {
    Layer layer;
    layer.add(layer.commonVariables(), "A", "common");
    layer.add(layer.commonVariables(), "B", "b");
    layer.add(layer.unixVariables(), "A", "$A;unix");
    layer.add(layer.winVariables(), "A", "$A;win");
    layer.add(layer.winVariables(), "W", "w");
    Variables windows{variable("B", "old")}, posix;
    Base::Platform::setCurrent(Base::Platform::Windows);
    layer.mergeUserEnvVariables(windows);
    Base::Platform::setCurrent(Base::Platform::Posix);
    layer.mergeUserEnvVariables(posix);
    EXPECT_EQ((Lines{"B=b||0", "A=common;win||0", "W=w||0"}), entries(windows));
    EXPECT_EQ((Lines{"A=common;unix||0", "B=b||0"}), entries(posix));
}

TEST(SettingsProtocol, CopiesAndMovesOwnTheirListsAndKeepTheEditedMarks) {
    auto original = std::make_unique<Layer>();
    original->add(original->winVariables(), "A", "1");
    Layer copy(*original);
    original.reset();
    EXPECT_TRUE(copy.winVariables()->isEdited());
    EXPECT_EQ("A", boost::any_cast<std::string>(copy.winVariables()->valueForListColumnRow("Name", 0)));

    Layer assigned;
    assigned = copy;
    copy.winVariables()->setValueForListColumnRow("Name", 0, std::string("B"));
    EXPECT_EQ("A", assigned.winVariableList()[0].name);
    EXPECT_TRUE(assigned.variableListsEdited());

    // A moved-to layer's table models show its own lists, not those of the emptied source.
    auto source = std::make_unique<Layer>();
    source->add(source->unixVariables(), "U", "1");
    Layer moved(std::move(*source));
    source.reset();
    moved.unixVariables()->setValueForListColumnRow("Value", 0, std::string("2"));
    EXPECT_EQ("2", moved.unixVariableList()[0].value);
    EXPECT_TRUE(moved.variableListsEdited());
    Layer moveAssigned;
    moveAssigned = std::move(moved);
    moveAssigned.unixVariables()->insertRow(-1);
    EXPECT_EQ(2u, moveAssigned.unixVariableList().size());
    EXPECT_TRUE(moveAssigned.variableListsEdited());
}

namespace {

// The merge rule exactly as stated: the first element of that name, its value
// with backslashes doubled as the replacement of \$NAME|\$\{NAME\}.
void referenceMerge(const EnvironmentVariable& later, Variables& list) {
    auto existing = std::find_if(list.begin(), list.end(), [&](const EnvironmentVariable& v) { return v.name == later.name; });
    const std::string current = existing == list.end() ? "" : boost::replace_all_copy(existing->value, "\\", "\\\\");
    const boost::regex pattern("\\$" + later.name + "|\\$\\{" + later.name + "\\}", boost::regex::perl);
    const std::string value = boost::regex_replace(later.value, pattern, current);
    if (existing == list.end()) {
        list.push_back(variable(later.name, value, later.comment, later.type));
    } else {
        existing->value = value;
        existing->comment = later.comment;
    }
}

// The entries after the merge, or the exception's type.
template <class Merge>
Lines outcome(Merge merge, Variables list) {
    try {
        merge(list);
    } catch (const boost::regex_error&) {
        return {"(regex_error)"};
    }
    return entries(list);
}

} // namespace

TEST(LayeredMerge, GivesWhatThePatternSubstitutionGivesForEveryKindOfNameAndValue) {
    const std::vector<std::string> names = {"P", "PATH", "A1_b", "X86", "A.B", "A|B", "A+", "A("};
    const std::vector<std::string> fragments = {"$NAME", "${NAME}", "$NAMEX", "${NAME", "$$", "\\", "$&", "$1",
                                                "${", "}", "x", "$", "{NAME}", "$OTHER", ";"};
    const std::vector<std::optional<std::string>> currents = {
        std::nullopt, std::string(), std::string("C:\\a\\"), std::string("$&"), std::string("$1\\$2"),
        std::string("${NAME}"), std::string("a$"), std::string("\\\\srv"), std::string("plain")};

    std::vector<std::string> shapes;
    for (const auto& first : fragments) {
        shapes.push_back(first);
        for (const auto& second : fragments) shapes.push_back(first + second);
    }

    for (const auto& name : names) {
        for (const auto& current : currents) {
            Variables list{variable("OTHER", "o")};
            if (current) list.push_back(variable(name, boost::replace_all_copy(*current, "NAME", name)));
            for (const auto& shape : shapes) {
                const EnvironmentVariable later = variable(name, boost::replace_all_copy(shape, "NAME", name), "c");
                ASSERT_EQ(outcome([&](Variables& l) { referenceMerge(later, l); }, list),
                          outcome([&](Variables& l) { SettingsProtocol::mergeVariable(later, l); }, list))
                    << "name " << name << ", value " << later.value << ", current " << (current ? *current : "(none)");
            }
        }
    }
}

// Layers of eight or more variables look names up in an index instead of searching.
TEST(LayeredMerge, ALargeLayerMergesLikeOneVariableAfterTheOther) {
    Base::Platform::setCurrent(Base::Platform::Posix);
    Layer layer;
    Variables expected{variable("A", "first"), variable("B", "b\\"), variable("A", "second"), variable("D", "$D&")};
    for (int i = 0; i < 40; ++i) {
        const std::string name = i % 3 == 0 ? "A" : i % 3 == 1 ? "N" + std::to_string(i / 2) : "D";
        const std::string value = i % 2 ? "${" + name + "};" + std::to_string(i) : "$" + name + "\\$B" + std::to_string(i);
        layer.add(i % 4 ? layer.commonVariables() : layer.unixVariables(), name, value);
    }
    Variables actual = expected;
    for (const auto& v : layer.commonVariableList()) referenceMerge(v, expected);
    for (const auto& v : layer.unixVariableList()) referenceMerge(v, expected);
    layer.mergeUserEnvVariables(actual);
    EXPECT_EQ(entries(expected), entries(actual));
}
