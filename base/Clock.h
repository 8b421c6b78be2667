// The C runtime's calendar clock: the current time, local and GMT
// broken-down times of a 64-bit time value, and the rules of the local time
// zone (TZ is read again at every call, so a changed zone is seen).
#pragma once

#include "base/BaseExport.h"

#include <cstdint>
#include <ctime>

namespace Base {
namespace Clock {

using Seconds = std::int64_t;

BASE_EXPORT Seconds now();
// False when the runtime cannot break the value down.
BASE_EXPORT bool localTime(Seconds seconds, std::tm& result);
BASE_EXPORT bool gmtTime(Seconds seconds, std::tm& result);
// The time value of local fields (mktime, which may normalise them); -1 when there is none.
BASE_EXPORT Seconds fromLocalTime(std::tm& fields);
// Standard time's offset from GMT in seconds, positive west of Greenwich.
BASE_EXPORT long secondsWestOfGmt();
BASE_EXPORT bool hasDaylightSavingRule();

} // namespace Clock
} // namespace Base
