#include "base/BaseException.h"
#include "base/Environment.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>

using Base::Environment::Map;
using Base::Environment::expandEnvVariables;

namespace {

std::string expanded(std::string text, const Map& variables) {
    return expandEnvVariables(text, variables);
}

std::string failureOf(std::string text, const Map& variables) {
    try {
        expandEnvVariables(text, variables);
    } catch (const Base::BaseException& error) {
        return error.what();
    }
    return "no failure";
}

} // namespace

TEST(ExpandEnvVariables, ExpandsBothFormsRecursively) {
    Map variables{{"ROOT", "/opt/cad"}, {"BASE", "${ROOT}/base"}, {"BIN", "$BASE/bin"}};
    EXPECT_EQ("[/opt/cad/base/bin|/opt/cad/base/bin|/opt/cad]", expanded("[$BIN|${BIN}|$ROOT]", variables));
}

TEST(ExpandEnvVariables, ReturnsTheTextItChangedInPlace) {
    std::string text = "$A-$A";
    std::string& result = expandEnvVariables(text, Map{{"A", "x"}});
    EXPECT_EQ(&text, &result);
    EXPECT_EQ("x-x", text);
}

TEST(ExpandEnvVariables, UnknownAndEmptyNamesExpandToNothing) {
    Map variables{{"EMPTY", ""}};
    EXPECT_EQ("a/b.c|", expanded("a/${UNKNOWN}b$UNKNOWN.c|$EMPTY", variables));
}

TEST(ExpandEnvVariables, NameIsTheLongestRunOfNameCharacters) {
    Map variables{{"A", "short"}, {"A_1", "long"}, {"_x9", "underscore"}};
    EXPECT_EQ("long.txt short-1 underscore", expanded("$A_1.txt $A-1 $_x9", variables));
}

TEST(ExpandEnvVariables, DollarWithoutNameOrBraceStays) {
    Map variables{{"A", "x"}};
    EXPECT_EQ("$", expanded("$", variables));
    EXPECT_EQ("cost 5$", expanded("cost 5$", variables));
    EXPECT_EQ("$1 $- $ $.", expanded("$1 $- $ $.", variables));
    EXPECT_EQ("$x", expanded("$$A", variables));
    EXPECT_EQ("x$", expanded("${A}$", variables));
    EXPECT_EQ("}x{", expanded("}$A{", variables));
}

TEST(ExpandEnvVariables, SubstitutedDollarsWithoutNameStay) {
    Map variables{{"PRICE", "5$"}, {"A", "$PRICE$"}};
    EXPECT_EQ("5$$", expanded("$A", variables));
}

TEST(ExpandEnvVariables, NameUsedTwiceIsNoCycle) {
    Map variables{{"A", "$B:$B"}, {"B", "${C}${C}"}, {"C", "c"}};
    EXPECT_EQ("cc:cc|cc", expanded("$A|$B", variables));
}

TEST(ExpandEnvVariables, UnterminatedReferenceThrowsNamingTheText) {
    EXPECT_EQ("Unterminated reference '${ABC' in 'x${ABC'", failureOf("x${ABC", {}));
    EXPECT_EQ("Unterminated reference '${' in '${'", failureOf("${", {}));
    EXPECT_EQ("Unterminated reference '${B/bin' in 'p${B/bin'", failureOf("$A", {{"A", "p${B/bin"}}));
}

TEST(ExpandEnvVariables, BracesWithoutNameThrow) {
    EXPECT_EQ("Invalid variable name '${}' in 'a${}b'", failureOf("a${}b", {}));
    EXPECT_EQ("Invalid variable name '${1x}' in '${1x}'", failureOf("${1x}", {}));
    EXPECT_EQ("Invalid variable name '${PROGRAMFILES(X86)}' in '${PROGRAMFILES(X86)}\\x'",
              failureOf("${PROGRAMFILES(X86)}\\x", {}));
}

TEST(ExpandEnvVariables, ReferenceCycleThrowsNamingTheCycle) {
    EXPECT_EQ("Reference cycle: A -> A", failureOf("$A", {{"A", "x${A}"}}));
    EXPECT_EQ("Reference cycle: A -> B -> A", failureOf("$A", {{"A", "${B}"}, {"B", "$A"}}));
    // Entered through a name outside the cycle: only the cycle is named.
    EXPECT_EQ("Reference cycle: B -> C -> B",
              failureOf("ok $A", {{"A", "$B"}, {"B", "${C}/x"}, {"C", "y$B"}}));
}

TEST(ExpandEnvVariables, FailureLeavesTheTextUnchanged) {
    std::string text = "$A and ${B";
    EXPECT_THROW(expandEnvVariables(text, Map{{"A", "x"}}), Base::BaseException);
    EXPECT_EQ("$A and ${B", text);
}

TEST(ExpandEnvVariables, ExpandsAValueOfTheMapItReads) {
    Map variables{{"A", "${B}/a"}, {"B", "b"}, {"C", "${D}"}, {"D", "$C"}};
    expandEnvVariables(variables.at("A"), variables);
    EXPECT_EQ("b/a", variables.at("A"));
    EXPECT_THROW(expandEnvVariables(variables.at("C"), variables), Base::BaseException);
    EXPECT_EQ("${D}", variables.at("C"));
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
    EXPECT_EQ(cycle + "V0", failureOf("$V0", variables));
}

TEST(ExpandEnvVariables, ProcessEnvironmentFormReadsTheEnvironmentOnly) {
    KymTest::ScopedEnv root("KYMTEST_ROOT", std::string("/opt"));
    KymTest::ScopedEnv bin("KYMTEST_BIN", std::string("${KYMTEST_ROOT}/bin"));
    KymTest::ScopedEnv missing("KYMTEST_MISSING", std::nullopt);

    std::string text = "$KYMTEST_BIN:${KYMTEST_MISSING}:$";
    EXPECT_EQ("/opt/bin::$", expandEnvVariables(text));
    EXPECT_EQ(":x", expanded("$KYMTEST_ROOT:x", Map{}));
}

TEST(ExpandEnvVariables, ProcessEnvironmentFormReportsTheSameFaults) {
    KymTest::ScopedEnv a("KYMTEST_A", std::string("$KYMTEST_B"));
    KymTest::ScopedEnv b("KYMTEST_B", std::string("${KYMTEST_A}"));
    std::string text = "$KYMTEST_A";
    try {
        expandEnvVariables(text);
        FAIL() << "no failure";
    } catch (const Base::BaseException& error) {
        EXPECT_STREQ("Reference cycle: KYMTEST_A -> KYMTEST_B -> KYMTEST_A", error.what());
    }
}

TEST(Environment, GetEnvVariableAnswersValueOrEmptyText) {
    KymTest::ScopedEnv set("KYMTEST_SET", std::string("a=b c"));
    KymTest::ScopedEnv unset("KYMTEST_UNSET", std::nullopt);
    EXPECT_EQ("a=b c", Base::Environment::getEnvVariable("KYMTEST_SET"));
    EXPECT_EQ("", Base::Environment::getEnvVariable("KYMTEST_UNSET"));
}

TEST(Environment, EnvironmentStringsHoldEveryVariableOnce) {
    KymTest::ScopedEnv set("KYMTEST_SET", std::string("a=b"));
    std::vector<std::string> strings = Base::Environment::environmentStrings();
    EXPECT_EQ(1, std::count(strings.begin(), strings.end(), "KYMTEST_SET=a=b"));
    KymTest::ScopedEnv unset("KYMTEST_SET", std::nullopt);
    strings = Base::Environment::environmentStrings();
    EXPECT_EQ(0, std::count_if(strings.begin(), strings.end(),
                               [](const std::string& entry) { return entry.rfind("KYMTEST_SET=", 0) == 0; }));
}
