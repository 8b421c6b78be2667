#include "base/BaseException.h"
#include "base/BaseKit.h"
#include "base/SmartAssert.h"
#include "base/log/Logger.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <iostream>
#include <sstream>
#include <vector>

namespace {

int evaluations = 0;
int evaluated() {
    return ++evaluations;
}

// Runs the action with assertion reports going to a text, and returns that text.
template <class Action>
std::string assertReport(Action action) {
    std::ostringstream report;
    std::ostream* previous = Base::setAssertStream(&report);
    EXPECT_EQ(&std::cerr, previous);
    action();
    EXPECT_EQ(&report, Base::setAssertStream(previous));
    return report.str();
}

} // namespace

// Runs in a process of its own (this test program started again), so the
// logging system is first used with the environment set here.
TEST(Logger, KymLogAndKymLogFileApplyAtFirstUse) {
    if (std::getenv("KYMTEST_FIRST_USE_CHILD")) {
        EXPECT_TRUE(Base::log::info().isEnabled());
        EXPECT_FALSE(Base::log::verbose().isEnabled());
        BASE_LOG(Base::log::info()) << "first use";
        return;
    }
    KymTest::TempDir dir;
    std::string program = boost::filesystem::read_symlink("/proc/self/exe").string();
    std::string command = "KYMTEST_FIRST_USE_CHILD=1 KYM_LOG=kym.info KYM_LOG_FILE='" + (dir / "first.log").string() +
                          "' '" + program + "' --gtest_filter=Logger.KymLogAndKymLogFileApplyAtFirstUse >/dev/null";
    EXPECT_EQ(0, std::system(command.c_str()));
    EXPECT_EQ("[kym.info] first use\n", KymTest::readFile(dir / "first.log"));
}

TEST(Logger, LoggersOfOneNameShareTheirState) {
    KymTest::LogRecorder recorder(std::vector<std::string>{});
    Base::log::Logger("kymtest.shared").setEnabled(true);
    Base::log::Logger again("kymtest.shared");
    again.write("  one line");
    again.setEnabled(false);
    again.write("not written");
    EXPECT_EQ(std::vector<std::string>{"kymtest.shared:   one line"}, recorder.lines());
}

TEST(BaseLog, ArgumentsAreEvaluatedOnlyWhenTheLoggerIsOnAndALineIsWrittenWhenTheStreamEnds) {
    Base::log::info().setEnabled(false);
    evaluations = 0;
    BASE_LOG(Base::log::info()) << "skipped " << evaluated();
    EXPECT_EQ(0, evaluations);

    KymTest::LogRecorder recorder({"kym.verbose"});
    BASE_LOG(Base::log::info()) << "still off " << evaluated();
    {
        Base::log::LoggerStream stream(Base::log::verbose());
        stream << "    current value: " << evaluated() << ' ' << 42;
        EXPECT_TRUE(recorder.lines().empty());
    }
    EXPECT_EQ(1, evaluations);
    EXPECT_EQ(std::vector<std::string>{"kym.verbose:     current value: 1 42"}, recorder.lines());
}

TEST(BaseKit, InitializeAppliesKymLogAndAppendsToKymLogFile) {
    KymTest::TempDir dir;
    KymTest::writeFile(dir / "run.log", "earlier\n");
    KymTest::ScopedEnv names("KYM_LOG", std::string("kymtest.a, kym.info,,"));
    KymTest::ScopedEnv file("KYM_LOG_FILE", (dir / "run.log").string());
    Base::BaseKit::initialize(nullptr);
    Base::log::Logger a("kymtest.a");
    BASE_LOG(a) << "to the file";
    BASE_LOG(Base::log::info()) << "  Initialized";
    BASE_LOG(Base::log::verbose()) << "not written";
    Base::log::setOutputStandardError();
    EXPECT_EQ("earlier\n[kymtest.a] to the file\n[kym.info]   Initialized\n", KymTest::readFile(dir / "run.log"));
}

TEST(BaseKit, InitializeReportsAnUnusableLogFile) {
    KymTest::TempDir dir;
    KymTest::ScopedEnv file("KYM_LOG_FILE", dir.path().string());
    try {
        Base::BaseKit::initialize(nullptr);
        FAIL() << "no failure";
    } catch (const Base::BaseException& error) {
        EXPECT_EQ("Cannot open log file " + dir.path().string() + ": Is a directory", std::string(error.what()));
    }
}

TEST(SmartAssert, WritesOneReportNamingOnlyTheFileAndReturnsOnlyWhenTheConditionFails) {
    std::vector<int> list{1, 2};
    std::size_t index = 7;
    auto application = [&] {
        BASE_SMART_ASSERT(300, index < list.size(), "tried to access out of range application",
                          {"index", Base::assertValue(index)}, {"size", Base::assertValue(list.size())});
        return 1;
    };
    EXPECT_EQ("Assertion (level 300) failed: index < list.size()\n"
              "  in LoggerTest.cpp, function operator()\n"
              "  index = 7\n"
              "  size = 2\n"
              "  tried to access out of range application\n",
              assertReport([&] { EXPECT_EQ(1, application()); }));
    index = 1;
    EXPECT_EQ("", assertReport(application));
    EXPECT_EQ("Assertion (level 100) failed: first <= self\n  in Time.cpp, function dayOfYear\n",
              assertReport([] {
                  Base::smart_assert(100, "first <= self", "C:\\src\\kym\\Time.cpp", "dayOfYear", {}, "");
              }));
}
