// The few system calls whose failure must be handled (writing, renaming and
// starting a program) go through these hooks, so tests can make them fail
// for real instead of faking the file system.
#pragma once

#include "base/BaseExport.h"

#include <functional>
#include <string>

namespace Base {
namespace SystemCalls {

// Each hook returns 0 to let the real call run, or an errno value to make the
// call fail with that error before it runs. The argument names the file or
// program concerned.
using FaultHook = std::function<int(const std::string& what)>;

BASE_EXPORT void setWriteFault(FaultHook hook);
BASE_EXPORT void setRenameFault(FaultHook hook);
BASE_EXPORT void setExecFault(FaultHook hook);

// Used by the base layer: 0 or the injected errno.
BASE_EXPORT int writeFault(const std::string& file);
BASE_EXPORT int renameFault(const std::string& file);
BASE_EXPORT int execFault(const std::string& program);

} // namespace SystemCalls
} // namespace Base
