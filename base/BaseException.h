// The exception every base-layer failure is reported with; the library's own
// exception classes derive from it.
#pragma once

#include "base/BaseExport.h"

#include <stdexcept>
#include <string>

namespace Base {

class BASE_EXPORT BaseException : public std::runtime_error {
public:
    explicit BaseException(const std::string& message) : std::runtime_error(message) {}
};

} // namespace Base
