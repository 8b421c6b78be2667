#include "kym/Time.h"

#include "support/TestSupport.h"

#include <boost/filesystem.hpp>
#include <boost/regex.hpp>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

using Kym::Time;

namespace {

std::string fields(const Time& time) {
    return time.toString("%Y-%m-%d %H:%M:%S") + (time.zone() == Time::Gmt ? " GMT" : " local");
}

template <class Action>
std::string errorOf(Action action) {
    try {
        action();
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return "no error";
}

// Central European time; the POSIX rule serves where tzdata is not installed.
std::string berlin() {
    return boost::filesystem::exists("/usr/share/zoneinfo/Europe/Berlin") ? "Europe/Berlin"
                                                                         : "CET-1CEST,M3.5.0,M10.5.0/3";
}

const std::string InvalidDateTime = "Kym::Time - Passed invalid datetime to constructor";

} // namespace

// Every valid day from 1755 on is built by the day-by-day walk below.
TEST(TimeValidity, LeapDaysOnlyInLeapYearsAndNothingBefore1755) {
    const int invalid[][4] = {{2023, 2, 29, 0}, {1900, 2, 29, 0}, {1754, 12, 31, 0},
                              {2024, 4, 31, 0}, {2024, 1, 0, 0},  {2024, 1, 1, 24}};
    for (const auto& date : invalid)
        EXPECT_EQ(errorOf([&] { Time(date[0], date[1], date[2], date[3], 0, 0, Time::Local); }), InvalidDateTime)
            << date[0] << "-" << date[1] << "-" << date[2] << " " << date[3];
}

TEST(TimeValidity, StringConstructorsOnlyTakeTheZoneAndLogThatParsingIsMissing) {
    KymTest::LogRecorder log({"kym.info"});
    const Time free("2024", "%Y", Time::Gmt);
    EXPECT_TRUE(free.isEmpty() && free.zone() == Time::Gmt);
    EXPECT_EQ(log.lines("kym.info"), std::vector<std::string>{"setTime using format string is not implemented yet."});
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

TEST(TimeArithmetic, CarriesRunThroughDaysMonthsAndYears) {
    Time time(2099, 12, 31, 23, 59, 59, Time::Gmt);
    time.addSecond(1);
    EXPECT_EQ(fields(time), "2100-01-01 00:00:00 GMT");
    time.addMinute(-60 * 24 * 306);
    time.addHour(-1);
    EXPECT_EQ(fields(time), "2099-02-28 23:00:00 GMT");
    time.addYear(-344);
    time.addDay(-58);
    EXPECT_EQ(fields(time), "1755-01-01 23:00:00 GMT");
    EXPECT_EQ(errorOf([&] { time.addDay(-1); }), InvalidDateTime);
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
    EXPECT_EQ(Time(2026, 11, 15, 0, 0, 0, Time::Local).dayOfWeek(), 0);
    EXPECT_EQ(Time(2000, 1, 1, 0, 0, 0, Time::Local).dayOfWeek(), 0);
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

TEST(TimeFormatting, EverySpecifierAndTheThreeFormats) {
    const Time time(2005, 3, 6, 7, 8, 9, Time::Gmt);
    EXPECT_EQ(time.toString("%A|%a|%B|%b|%G|%Y|%y|%m|%d|%e|%H|%M|%S|%Z|%%|%Q|100%"),
              "Sunday|Sun|March|Mar|MR|2005|05|03|06|6|07|08|09|GMT|%|%Q|100%");
    EXPECT_EQ(Time(2024, 3, 5, 0, 0, 0, Time::Local).toString("%Z"), "");
    EXPECT_EQ(time.toString(Time::Standard) + "|" + time.toString(Time::IsoBasic) + "|" +
                  time.toString(Time::IsoExtended),
              "Sun Mar 06 07:08:09 2005|20050306T070809|2005-03-06T07:08:09");
    EXPECT_TRUE(boost::regex_match(Time::currentDateInGMFormat(),
                                   boost::regex("\\d{2}(JA|FE|MR|AP|MY|JN|JL|AU|SE|OC|NO|DE)\\d{2}")));
}

TEST(TimeZones, RuntimeTimeRoundTripsInBothZonesAcrossDaylightSaving) {
    KymTest::ScopedEnv zone("TZ", berlin());
    EXPECT_EQ(fields(Time(Time::Int64{1719835200}, Time::Gmt)), "2024-07-01 12:00:00 GMT");
    EXPECT_EQ(fields(Time(Time::Int64{1719835200}, Time::Local)), "2024-07-01 14:00:00 local");
    EXPECT_EQ(fields(Time(Time::Int64{1705320000}, Time::Local)), "2024-01-15 13:00:00 local");
    for (Time::Int64 seconds : {1719835200, 1705320000, 1774800000})
        for (Time::TimeZone zone : {Time::Local, Time::Gmt}) EXPECT_EQ(Time(seconds, zone).getTime(), seconds);
}

TEST(TimeZones, SetTimeZoneRelabelsWhileToTimeConverts) {
    KymTest::ScopedEnv zone("TZ", berlin());
    Time relabelled(2024, 7, 1, 12, 0, 0, Time::Local), converted = relabelled;
    relabelled.setTimeZone(Time::Gmt);
    converted.toTime(Time::Gmt);
    EXPECT_EQ(fields(relabelled), "2024-07-01 12:00:00 GMT");
    EXPECT_EQ(fields(converted), "2024-07-01 10:00:00 GMT");
}

TEST(TimeComparison, ConvertsTheOtherZoneAndComparesFieldByField) {
    KymTest::ScopedEnv zone("TZ", berlin());
    const Time local(2024, 1, 15, 13, 0, 0, Time::Local), gmt(2024, 1, 15, 12, 0, 0, Time::Gmt);
    EXPECT_TRUE(local == gmt && !(local < gmt) && !(local > gmt));
    const Time january(2020, 1, 31, 0, 0, 0, Time::Local), december(2019, 12, 31, 0, 0, 0, Time::Local);
    EXPECT_TRUE(january < december && january > december && december < january);
}
