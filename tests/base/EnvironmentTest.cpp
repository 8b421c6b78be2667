#include "base/BaseException.h"
#include "base/Environment.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <tuple>

#ifdef _WIN32
#include <windows.h>
#endif

using Base::Environment::Map;
using Base::Environment::expandEnvVariables;

namespace {

// The expanded text, or the message of the failure.
std::string expanded(std::string text, const Map& variables) {
    try { return expandEnvVariables(text, variables); } catch (const Base::BaseException& error) { return error.what(); }
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
        {"${PROGRAMFILES(X86)}\\x", {}, "Invalid variable name '${PROGRAMFILES(X86)}' in '${PROGRAMFILES(X86)}\\x'"},
        // Entered through a name outside the cycle: only the cycle is named.
        {"ok $A", {{"A", "$B"}, {"B", "${C}/x"}, {"C", "y$B"}}, "Reference cycle: B -> C -> B"},
    };
    for (const auto& [text, variables, result] : cases) EXPECT_EQ(result, expanded(text, variables)) << text;
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
}


#ifdef _WIN32
TEST(ProcessEnvironment, IsTheEnvironmentBlockThatStartedProgramsInheritWithoutTheDrivesDirectories) {
    // Set through the system only, as a library of the process might; the C runtime's copy does not see it.
    ASSERT_TRUE(SetEnvironmentVariableA("KYM_BLOCK_ONLY", "from the block"));
    ASSERT_TRUE(SetEnvironmentVariableA("=K:", "K:\\work"));
    const bool inRuntimeCopy = std::getenv("KYM_BLOCK_ONLY") != nullptr;
    const std::string value = Base::Environment::getEnvVariable("KYM_BLOCK_ONLY");
    const std::vector<std::string> strings = Base::Environment::environmentStrings();
    std::string text = "[$KYM_BLOCK_ONLY]";
    Base::Environment::expandEnvVariables(text);
    SetEnvironmentVariableA("KYM_BLOCK_ONLY", nullptr);
    SetEnvironmentVariableA("=K:", nullptr);

    EXPECT_FALSE(inRuntimeCopy);
    EXPECT_EQ("from the block", value);
    EXPECT_EQ(1, std::count(strings.begin(), strings.end(), "KYM_BLOCK_ONLY=from the block"));
    EXPECT_EQ(strings.end(), std::find_if(strings.begin(), strings.end(), [](const std::string& entry) { return entry[0] == '='; }));
    EXPECT_EQ("[from the block]", text);
}
#endif
