// The C runtime's calendar clock: the current time, local and GMT
// broken-down times of a 64-bit time value, and the rules of the local time
// zone (TZ is read again at every call, so a changed zone is seen).
#pragma once

#include <cstdint>
#include <ctime>

namespace Base {
namespace Clock {

using Seconds = std::int64_t;

Seconds now();
// False when the runtime cannot break the value down.
bool localTime(Seconds seconds, std::tm& result);
bool gmtTime(Seconds seconds, std::tm& result);
// The time value of local fields (mktime, which may normalise them); -1 when there is none.
Seconds fromLocalTime(std::tm& fields);
// Standard time's offset from GMT in seconds, positive west of Greenwich.
long secondsWestOfGmt();
bool hasDaylightSavingRule();

} // namespace Clock
} // namespace Base
