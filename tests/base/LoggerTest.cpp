#include "base/BaseException.h"
#include "base/BaseKit.h"
#include "base/log/Logger.h"
#include "support/Processes.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <vector>

namespace {

// spdlog ends a line the host's way.
#ifdef _WIN32
const std::string lineEnd = "\r\n";
#else
const std::string lineEnd = "\n";
#endif

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
    KymTest::ScopedEnv child("KYMTEST_FIRST_USE_CHILD", std::string("1"));
    KymTest::ScopedEnv names("KYM_LOG", std::string("kym.info"));
    KymTest::ScopedEnv file("KYM_LOG_FILE", (dir / "first.log").string());
    EXPECT_EQ(0, KymTest::runProgram(KymTest::ownProgram(), {"--gtest_filter=Logger.KymLogAndKymLogFileApplyAtFirstUse"}).status);
    EXPECT_EQ("[kym.info] first use" + lineEnd, KymTest::readFile(dir / "first.log"));
}

TEST(BaseLog, ArgumentsAreEvaluatedOnlyWhenTheLoggerIsOnAndALineIsWrittenWhenTheStreamEnds) {
    int evaluations = 0;
    auto evaluated = [&] { return ++evaluations; };
    Base::log::info().setEnabled(false);
    BASE_LOG(Base::log::info()) << "skipped " << evaluated();
    EXPECT_EQ(0, evaluations);

    KymTest::LogRecorder recorder({"kym.verbose"});
    {
        Base::log::LoggerStream stream(Base::log::verbose());
        stream << "    current value: " << evaluated() << ' ' << 42;
        EXPECT_TRUE(recorder.lines().empty());
    }
    // Loggers of one name share their state.
    Base::log::Logger("kym.verbose").setEnabled(false);
    BASE_LOG(Base::log::verbose()) << "now off " << evaluated();
    EXPECT_EQ(1, evaluations);
    EXPECT_EQ(std::vector<std::string>{"kym.verbose:     current value: 1 42"}, recorder.lines());
}

TEST(BaseKit, InitializeAppliesKymLogAndAppendsToKymLogFileOrNamesAnUnusableOne) {
    KymTest::TempDir dir;
    KymTest::writeFile(dir / "run.log", "earlier\n");
    KymTest::ScopedEnv names("KYM_LOG", std::string("kymtest.a, kym.info,,"));
    KymTest::ScopedEnv file("KYM_LOG_FILE", (dir / "run.log").string());
    Base::BaseKit::initialize(nullptr);
    BASE_LOG(Base::log::info()) << "  Initialized";
    BASE_LOG(Base::log::verbose()) << "not written";
    Base::log::setOutputStandardError();
    EXPECT_EQ("earlier\n[kym.info]   Initialized" + lineEnd, KymTest::readFile(dir / "run.log"));

    KymTest::ScopedEnv directory("KYM_LOG_FILE", dir.path().string());
#ifdef _WIN32
    const std::string reason = "Permission denied";  // the C runtime's words for opening a folder as a file
#else
    const std::string reason = "Is a directory";
#endif
    EXPECT_EQ("Cannot open log file " + dir.path().string() + ": " + reason,
              KymTest::thrownMessage<Base::BaseException>([] { Base::BaseKit::initialize(nullptr); }));
}
