#include "kym/Time.h"

#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

using Kym::Time;

namespace {

std::string fields(const Time& time) {
    return time.toString("%Y-%m-%d %H:%M:%S") + (time.zone() == Time::Gmt ? " GMT" : " local");
}

std::string errorOf(const std::function<void()>& action) { return KymTest::thrownMessage<std::runtime_error>(action); }

} // namespace

// Every valid day from 1755 on is built by the day-by-day walk below.
TEST(TimeValidity, LeapDaysOnlyInLeapYearsAndNothingBefore1755) {
    const int invalid[][4] = {{2023, 2, 29, 0}, {1900, 2, 29, 0}, {1754, 12, 31, 0}, {2024, 1, 1, 24}};
    for (const auto& date : invalid)
        EXPECT_EQ(errorOf([&] { Time(date[0], date[1], date[2], date[3], 0, 0, Time::Local); }),
                  "Kym::Time - Passed invalid datetime to constructor")
            << date[0] << "-" << date[1] << "-" << date[2] << " " << date[3];
    EXPECT_TRUE(Time("2024", "%Y", Time::Gmt).isEmpty());
}

TEST(TimeArithmetic, AddMonthKeepsTheDayEvenWhenItDoesNotExist) {
    Time time(2024, 1, 31, 8, 0, 0, Time::Local);
    time.addMonth(1);
    EXPECT_FALSE(time.isValid());
    EXPECT_EQ(errorOf([&] { time.toString(Time::IsoExtended); }), "Kym::Time::toString() - invalid time");
    time = Time(2024, 2, 29, 0, 0, 0, Time::Local);
    time.addMonth(-14);
    EXPECT_EQ(fields(time), "2022-12-29 00:00:00 local");
}

TEST(TimeArithmetic, DayByDayWalkAgreesWithTheCalendarExceptTheJanuaryFebruarySlipOf400Years) {
    const int length[] = {0, 31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    Time time(1755, 1, 1, 12, 0, 0, Time::Local);
    int year = 1755, month = 1, day = 1, weekday = 3, yearDay = 1;  // a Wednesday
    while (year < 2401) {
        const bool slip = year % 400 == 0 && month <= 2;
        ASSERT_EQ(time.dayOfWeek(), (weekday + (slip ? 1 : 0)) % 7) << fields(time);
        ASSERT_EQ(time.dayOfYear(), yearDay) << fields(time);
        const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
        if (++day > length[month] + (month == 2 && leap)) day = 1, ++month;
        if (month > 12) month = 1, ++year, yearDay = 0;
        weekday = (weekday + 1) % 7, ++yearDay;
        time.addDay(1);
        ASSERT_EQ(fields(time), fields(Time(year, month, day, 12, 0, 0, Time::Local)));
    }
}

TEST(TimeArithmetic, DifferencesIgnoreZonesAndTruncateToWholeDaysForFileAges) {
    const Time now(2026, 11, 15, 12, 0, 0, Time::Local);
    Time young = now, old = now;
    young.addSecond(-static_cast<int>(2.9 * 86400));
    old.addSecond(-static_cast<int>(3.1 * 86400));
    EXPECT_EQ(static_cast<int>(now.diffDay(young)), 2);
    EXPECT_EQ(static_cast<int>(now.diffDay(old)), 3);
    EXPECT_DOUBLE_EQ(now.diffHour(Time(2026, 11, 14, 10, 30, 0, Time::Gmt)), 25.5);
}
