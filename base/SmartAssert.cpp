#include "base/SmartAssert.h"

#include <iostream>

namespace Base {

namespace {

std::ostream*& assertStream() {
    static std::ostream* stream = &std::cerr;
    return stream;
}

// Reports name the source file, not the build machine's directory layout.
std::string fileName(const std::string& file) {
    std::string::size_type slash = file.find_last_of("/\\");
    return slash == std::string::npos ? file : file.substr(slash + 1);
}

} // namespace

void smart_assert(int level, const std::string& expression, const std::string& file,
                  const std::string& function, const AssertValues& values,
                  const std::string& message) {
    std::ostringstream report;
    report << "Assertion (level " << level << ") failed: " << expression << "\n"
           << "  in " << fileName(file) << ", function " << function << "\n";
    for (const auto& value : values) report << "  " << value.first << " = " << value.second << "\n";
    if (!message.empty()) report << "  " << message << "\n";
    std::ostream& out = *assertStream();
    out << report.str();
    out.flush();
}

std::ostream* setAssertStream(std::ostream* stream) {
    std::ostream* previous = assertStream();
    assertStream() = stream ? stream : &std::cerr;
    return previous;
}

} // namespace Base
