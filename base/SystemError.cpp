#include "base/SystemError.h"

#include <system_error>

#ifdef _WIN32
#include <windows.h>
#endif

namespace Base {

std::string errnoText(int error) {
    return std::generic_category().message(error);
}

#ifdef _WIN32
std::string windowsErrorText(unsigned long error) {
    char* text = nullptr;
    const DWORD length = FormatMessageA(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM |
                                            FORMAT_MESSAGE_IGNORE_INSERTS,
                                        nullptr, error, 0, reinterpret_cast<char*>(&text), 0, nullptr);
    std::string reason = length ? std::string(text, length) : "error " + std::to_string(error);
    if (text) LocalFree(text);
    while (!reason.empty() && (reason.back() == '\n' || reason.back() == '\r' || reason.back() == ' '))
        reason.pop_back();
    return reason;
}
#endif

} // namespace Base
