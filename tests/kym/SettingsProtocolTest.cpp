#include "kym/SettingsProtocol.h"

#include "base/Platform.h"
#include "support/Site.h"

#include <boost/algorithm/string/replace.hpp>
#include <boost/regex.hpp>
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <random>
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
    result.value = value, result.comment = comment;
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
struct Layer : SettingsProtocol {};

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
    try { merge(list); } catch (const boost::regex_error&) { return {"(regex_error)"}; }
    return entries(list);
}

} // namespace

TEST(LayeredMerge, OnlyTheFirstEntryOfTheSameNameChangesAndKeepsItsPlaceNameAndType) {
    EXPECT_EQ((Lines{"A=1;3|second|1", "B=2||0"}),
              merged(variable("A", "$A;3", "second", Kym::WindowsPlatform),
                     {variable("A", "1", "first", Kym::UnixPlatform), variable("B", "2")}));
    EXPECT_EQ((Lines{"Path=a||0", "PATH=b;d||0", "PATH=c||0"}),
              merged(variable("PATH", "$PATH;d"), {variable("Path", "a"), variable("PATH", "b"), variable("PATH", "c")}));
}

TEST(ReplacementMerge, ReplacesTheWholeRecordWithoutSubstitution) {
    Variables list{variable("ROOT", "C:\\old", "old", Kym::UnixPlatform), variable("B", "2")};
    SettingsProtocol::replaceVariable(variable("ROOT", "$ROOT\\new", "", Kym::WindowsPlatform), list);
    EXPECT_EQ((Lines{"ROOT=$ROOT\\new||2", "B=2||0"}), entries(list));
}

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

// Hundreds of names grow the index several times; names repeat in the list, within a layer and across layers.
TEST(LayeredMerge, LayersOfHundredsOfNamesMergeLikeOneVariableAfterTheOther) {
    Base::Platform::setCurrent(Base::Platform::Windows);
    std::mt19937 random(7);
    Variables expected;
    for (int i = 0; i < 300; ++i)
        expected.push_back(variable("N" + std::to_string(random() % 400), "C:\\list" + std::to_string(i)));
    Variables actual = expected;
    for (int round = 0; round < 4; ++round) {
        Layer layer;
        for (int i = 0; i < 250; ++i) {
            const std::string name = "N" + std::to_string(random() % 600);
            const std::string values[] = {"x" + std::to_string(i), "$" + name + ";\\y", "${" + name + "}" + name, ""};
            KymTest::appendVariable(i % 2 ? layer.commonVariables() : layer.winVariables(), name, values[random() % 4]);
        }
        for (const Variables& list : {layer.commonVariableList(), layer.winVariableList()})
            for (const auto& v : list) referenceMerge(v, expected);
        layer.mergeUserEnvVariables(actual);
        ASSERT_EQ(entries(expected), entries(actual)) << "round " << round;
    }
}

TEST(SettingsProtocol, CopiesAndMovesShowTheirOwnListsAndKeepTheEditedMarks) {
    auto original = std::make_unique<Layer>();
    KymTest::appendVariable(original->unixVariables(), "U", "1");
    Layer copy(*original);
    Layer moved(std::move(*original));
    original.reset();
    for (Layer* layer : {&copy, &moved}) {
        EXPECT_TRUE(layer->variableListsEdited());
        layer->unixVariables()->setValueForListColumnRow("Value", 0, std::string(layer == &copy ? "c" : "m"));
    }
    EXPECT_EQ("c", copy.unixVariableList()[0].value);
    EXPECT_EQ("m", moved.unixVariableList()[0].value);
    Layer assigned;
    assigned = std::move(moved);
    assigned.unixVariables()->insertRow(-1);
    EXPECT_EQ(2u, assigned.unixVariableList().size());
}
