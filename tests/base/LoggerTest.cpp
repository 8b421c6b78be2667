#include "base/BaseException.h"
#include "base/BaseKit.h"
#include "base/log/Logger.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <vector>

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
    EXPECT_EQ("earlier\n[kym.info]   Initialized\n", KymTest::readFile(dir / "run.log"));

    KymTest::ScopedEnv directory("KYM_LOG_FILE", dir.path().string());
    EXPECT_EQ("Cannot open log file " + dir.path().string() + ": Is a directory",
              KymTest::thrownMessage<Base::BaseException>([] { Base::BaseKit::initialize(nullptr); }));
}
