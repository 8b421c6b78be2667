// A calendar date and time (year to second) labelled as local time or GMT.
// Converts to and from the C runtime's time value, shifts by calendar units
// through day numbers, compares, and formats itself with its own % language.
#pragma once

#include "kym/KymExport.h"

#include <cstdint>
#include <string>

namespace Kym {

class KYM_EXPORT Time {
public:
    using Int64 = std::int64_t;

    // Fixed underlying types: values outside the enumerators are accepted and handled.
    enum TimeZone : int { Local = 0, Gmt = 1 };
    enum TimeFormat : int { Standard = 0, IsoBasic = 1, IsoExtended = 2 };

    // An empty time (all fields zero) in local time.
    Time();
    // Throws std::runtime_error when the fields do not form a valid time.
    Time(int year, int month, int day, int hour, int minute, int second, TimeZone zone);
    Time(Int64 seconds, TimeZone zone);
    // Neither parses its text: only the zone is taken.
    Time(const std::string& text, TimeFormat format, TimeZone zone);
    Time(const std::string& text, const std::string& format, TimeZone zone);

    static Time currentLocalTime();
    static Time currentGmtTime();
    // Today's local date as day, two-letter month code and two-digit year: "15NO26".
    static std::string currentDateInGMFormat();

    void setTime(const Int64& seconds);
    // The C runtime's time value of the fields; -1 when it cannot be formed.
    Int64 getTime() const;
    void toTime(TimeZone zone);
    void setTimeZone(TimeZone zone);

    void clear();
    bool isEmpty() const;
    bool isValid() const;
    bool isLeap() const;

    int dayOfWeek() const;
    int dayOfYear() const;

    void addYear(int years);
    void addMonth(int months);
    void addDay(int days);
    void addHour(int hours);
    void addMinute(int minutes);
    void addSecond(int seconds);

    int diffSecond(const Time& other) const;
    double diffMinute(const Time& other) const;
    double diffHour(const Time& other) const;
    double diffDay(const Time& other) const;

    std::string toString(const std::string& format) const;
    std::string toString(TimeFormat format) const;

    bool operator==(const Time& other) const;
    bool operator<(const Time& other) const;
    bool operator>(const Time& other) const;

    int year() const { return mYear; }
    int month() const { return mMonth; }
    int day() const { return mDay; }
    int hour() const { return mHour; }
    int minute() const { return mMinute; }
    int second() const { return mSecond; }
    TimeZone zone() const { return mZone; }

private:
    void setTime(const std::string& text, const std::string& format);
    std::uint32_t dayNumber() const;

    std::int32_t mYear = 0;
    std::uint8_t mMonth = 0;
    std::uint8_t mDay = 0;
    std::uint8_t mHour = 0;
    std::uint8_t mMinute = 0;
    std::uint8_t mSecond = 0;
    TimeZone mZone = Local;
};

} // namespace Kym
