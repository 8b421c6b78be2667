// The operating system's own words for a failure, for the messages of the
// base layer: an errno value's text, and on Windows the system's text for an
// error code of its API (what FormatMessage says, not a mapped errno).
#pragma once

#include "base/BaseExport.h"

#include <string>

namespace Base {

// The text of an errno value, as the C library words it.
BASE_EXPORT std::string errnoText(int error);

#ifdef _WIN32
// The system's text for a Windows error code (GetLastError), without its line end.
BASE_EXPORT std::string windowsErrorText(unsigned long error);
#endif

} // namespace Base
