// Reads values under HKEY_LOCAL_MACHINE. On POSIX hosts every read answers
// "not found". Tests substitute the registry through setReader.
#pragma once

#include "base/BaseExport.h"

#include <functional>
#include <string>

namespace Base {
namespace Registry {

// The value's text up to its first NUL, or empty when the key or the value is missing.
BASE_EXPORT std::string readLocalMachineValue(const std::string& key, const std::string& valueName);

// Replaces the host registry (an empty function restores it).
using Reader = std::function<std::string(const std::string& key, const std::string& valueName)>;
BASE_EXPORT void setReader(Reader reader);

} // namespace Registry
} // namespace Base
