#include "base/Clock.h"

#include <time.h>

namespace Base {
namespace Clock {

namespace {

void readTimeZone() {
#ifdef _WIN32
    _tzset();
#else
    tzset();
#endif
}

} // namespace

Seconds now() {
    return static_cast<Seconds>(std::time(nullptr));
}

bool localTime(Seconds seconds, std::tm& result) {
    readTimeZone();
#ifdef _WIN32
    const __time64_t value = seconds;
    return _localtime64_s(&result, &value) == 0;
#else
    const std::time_t value = static_cast<std::time_t>(seconds);
    return localtime_r(&value, &result) != nullptr;
#endif
}

bool gmtTime(Seconds seconds, std::tm& result) {
#ifdef _WIN32
    const __time64_t value = seconds;
    return _gmtime64_s(&result, &value) == 0;
#else
    const std::time_t value = static_cast<std::time_t>(seconds);
    return gmtime_r(&value, &result) != nullptr;
#endif
}

Seconds fromLocalTime(std::tm& fields) {
    readTimeZone();
#ifdef _WIN32
    return static_cast<Seconds>(_mktime64(&fields));
#else
    return static_cast<Seconds>(std::mktime(&fields));
#endif
}

long secondsWestOfGmt() {
    readTimeZone();
#ifdef _WIN32
    // The C runtime every Windows has (msvcrt) offers the variable, not _get_timezone.
    return _timezone;
#else
    return ::timezone;
#endif
}

bool hasDaylightSavingRule() {
    readTimeZone();
#ifdef _WIN32
    return _daylight != 0;
#else
    return ::daylight != 0;
#endif
}

} // namespace Clock
} // namespace Base
