#include "base/Registry.h"

#ifdef _WIN32
#include <windows.h>
#endif

namespace Base {
namespace Registry {

namespace {

Reader& substitute() {
    static Reader* reader = new Reader;
    return *reader;
}

std::string readHostValue(const std::string& key, const std::string& valueName) {
#ifdef _WIN32
    HKEY handle = nullptr;
    if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, key.c_str(), 0, KEY_READ, &handle) != ERROR_SUCCESS) return std::string();
    char buffer[260] = {};
    DWORD size = sizeof(buffer);
    LONG result = RegQueryValueExA(handle, valueName.c_str(), nullptr, nullptr,
                                   reinterpret_cast<LPBYTE>(buffer), &size);
    RegCloseKey(handle);
    if (result != ERROR_SUCCESS) return std::string();
    // The stored text need not end with a NUL; never read past what was returned.
    std::string value(buffer, size < sizeof(buffer) ? size : sizeof(buffer));
    return value.substr(0, value.find('\0'));
#else
    (void)key;
    (void)valueName;
    return std::string();
#endif
}

} // namespace

std::string readLocalMachineValue(const std::string& key, const std::string& valueName) {
    const Reader& reader = substitute();
    return reader ? reader(key, valueName) : readHostValue(key, valueName);
}

void setReader(Reader reader) {
    substitute() = std::move(reader);
}

} // namespace Registry
} // namespace Base
