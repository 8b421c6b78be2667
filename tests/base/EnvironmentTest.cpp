#include "base/BaseException.h"
#include "base/Environment.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <tuple>

using Base::Environment::Map;
using Base::Environment::expandEnvVariables;

namespace {

// The expanded text, or the message of the failure.
std::string expanded(std::string text, const Map& variables) {
    try {
        return expandEnvVariables(text, variables);
    } catch (const Base::BaseException& error) {
        return error.what();
    }
}

} // namespace

TEST(ExpandEnvVariables, ExpandsBothFormsRecursivelyAndReportsEveryFaultNamingTheText) {
    const std::vector<std::tuple<std::string, Map, std::string>> cases = {
        {"[$BIN|${BIN}|$ROOT]", {{"ROOT", "/opt/cad"}, {"BASE", "${ROOT}/base"}, {"BIN", "$BASE/bin"}},
         "[/opt/cad/base/bin|/opt/cad/base/bin|/opt/cad]"},
        {"a/${UNKNOWN}b$UNKNOWN.c", {}, "a/b.c"},
        // A name is the longest run of name characters.
        {"$A_1.txt $A-1", {{"A", "short"}, {"A_1", "long"}}, "long.txt short-1"},
        // A dollar without a name or brace stays, also when it came from a value.
        {"$1 $ $.|$$A|${A}$|}$A{", {{"A", "x"}}, "$1 $ $.|$x|x$|}x{"},
        {"$A", {{"PRICE", "5$"}, {"A", "$PRICE$"}}, "5$$"},
        // A name used twice is no cycle.
        {"$A|$B", {{"A", "$B:$B"}, {"B", "${C}${C}"}, {"C", "c"}}, "cc:cc|cc"},
        {"x${ABC", {}, "Unterminated reference '${ABC' in 'x${ABC'"},
        {"$A", {{"A", "p${B/bin"}}, "Unterminated reference '${B/bin' in 'p${B/bin'"},
        {"a${}b", {}, "Invalid variable name '${}' in 'a${}b'"},
        {"${PROGRAMFILES(X86)}\\x", {}, "Invalid variable name '${PROGRAMFILES(X86)}' in '${PROGRAMFILES(X86)}\\x'"},
        {"$A", {{"A", "x${A}"}}, "Reference cycle: A -> A"},
        // Entered through a name outside the cycle: only the cycle is named.
        {"ok $A", {{"A", "$B"}, {"B", "${C}/x"}, {"C", "y$B"}}, "Reference cycle: B -> C -> B"},
    };
    for (const auto& [text, variables, result] : cases) {
        SCOPED_TRACE(text);
        EXPECT_EQ(result, expanded(text, variables));
    }
}

TEST(ExpandEnvVariables, ChangesTheTextInPlaceOnlyWhenItSucceedsAlsoWhenItIsAValueOfTheMap) {
    Map variables{{"A", "${B}/a"}, {"B", "b"}, {"C", "${D} and ${B"}, {"D", "d"}};
    EXPECT_EQ(&variables.at("A"), &expandEnvVariables(variables.at("A"), variables));
    EXPECT_EQ("b/a", variables.at("A"));
    EXPECT_THROW(expandEnvVariables(variables.at("C"), variables), Base::BaseException);
    EXPECT_EQ("${D} and ${B", variables.at("C"));
}

TEST(ExpandEnvVariables, VeryLongChainDoesNotExhaustTheStack) {
    const int length = 200000;
    Map variables;
    for (int i = 0; i < length; ++i) variables["V" + std::to_string(i)] = "${V" + std::to_string(i + 1) + "}.";
    variables["V" + std::to_string(length)] = "end";
    EXPECT_EQ("end" + std::string(length, '.'), expanded("$V0", variables));

    variables["V" + std::to_string(length)] = "$V0";
    std::string cycle = "Reference cycle: ";
    for (int i = 0; i <= length; ++i) cycle += "V" + std::to_string(i) + " -> ";
    EXPECT_EQ(cycle + "V0", expanded("$V0", variables));
}

TEST(ExpandEnvVariables, ProcessEnvironmentFormReadsTheEnvironmentOnly) {
    KymTest::ScopedEnv root("KYMTEST_ROOT", std::string("/opt"));
    KymTest::ScopedEnv bin("KYMTEST_BIN", std::string("${KYMTEST_ROOT}/bin"));
    KymTest::ScopedEnv missing("KYMTEST_MISSING", std::nullopt);
    std::string text = "$KYMTEST_BIN:${KYMTEST_MISSING}:$";
    EXPECT_EQ("/opt/bin::$", expandEnvVariables(text));
    EXPECT_EQ(":x", expanded("$KYMTEST_ROOT:x", Map{}));
}

TEST(Environment, GetEnvVariableAndEnvironmentStringsReadTheProcessEnvironment) {
    KymTest::ScopedEnv set("KYMTEST_SET", std::string("a=b c"));
    KymTest::ScopedEnv unset("KYMTEST_UNSET", std::nullopt);
    EXPECT_EQ("a=b c", Base::Environment::getEnvVariable("KYMTEST_SET"));
    EXPECT_EQ("", Base::Environment::getEnvVariable("KYMTEST_UNSET"));
    std::vector<std::string> strings = Base::Environment::environmentStrings();
    EXPECT_EQ(1, std::count(strings.begin(), strings.end(), "KYMTEST_SET=a=b c"));
}
