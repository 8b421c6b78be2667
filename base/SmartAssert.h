// Reports misuse of an index or a name. The report goes to standard error,
// whatever the loggers, and the call returns: the caller then performs its
// checked access, which throws.
#pragma once

#include "base/BaseExport.h"

#include <ostream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace Base {

// Names and values of the variables that the failed expression involved.
using AssertValues = std::vector<std::pair<std::string, std::string>>;

BASE_EXPORT void smart_assert(int level, const std::string& expression, const std::string& file,
                  const std::string& function, const AssertValues& values,
                  const std::string& message);

// Where reports go (standard error unless a test redirects them); returns the previous one.
BASE_EXPORT std::ostream* setAssertStream(std::ostream* stream);

template <class T>
std::string assertValue(const T& value) {
    std::ostringstream out;
    out << value;
    return out.str();
}

} // namespace Base

// BASE_SMART_ASSERT(300, index < size, "tried to access out of range application", {{"index", Base::assertValue(index)}});
#define BASE_SMART_ASSERT(level, condition, message, ...) \
    do { \
        if (!(condition)) \
            ::Base::smart_assert((level), #condition, __FILE__, __func__, \
                                 ::Base::AssertValues{__VA_ARGS__}, (message)); \
    } while (false)
