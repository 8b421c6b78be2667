// Only a Windows host has a registry to read; elsewhere every read finds nothing.
#ifdef _WIN32
#include "base/Registry.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include <windows.h>

using Base::Registry::readLocalMachineValue;

TEST(Registry, ReadsTheTextOfALocalMachineValueUpToItsFirstNulAndNothingForWhatIsMissingOrTooLong) {
    const std::string key = "SOFTWARE\\Kym Test " + std::to_string(GetCurrentProcessId()) + "\\NX\\4.0";
    HKEY handle = nullptr;
    ASSERT_EQ(ERROR_SUCCESS, RegCreateKeyExA(HKEY_LOCAL_MACHINE, key.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr,
                                             &handle, nullptr));
    const std::shared_ptr<void> removeAtEnd(nullptr, [&key, handle](void*) {
        RegCloseKey(handle);
        RegDeleteTreeA(HKEY_LOCAL_MACHINE, key.substr(0, key.find('\\', 9)).c_str());
    });
    const auto set = [handle](const char* name, DWORD type, const std::string& bytes) {
        ASSERT_EQ(ERROR_SUCCESS, RegSetValueExA(handle, name, 0, type, reinterpret_cast<const BYTE*>(bytes.data()),
                                                static_cast<DWORD>(bytes.size())));
    };
    set("UGII_BASE_DIR", REG_SZ, std::string("D:\\nx\\", 7));
    set("Unterminated", REG_SZ, "C:\\Program Files\\NX");
    set("Two strings", REG_MULTI_SZ, std::string("first\0second\0\0", 14));
    set("Longest", REG_SZ, std::string(259, 'x') + '\0');
    set("Too long", REG_SZ, std::string(260, 'x') + '\0');

    EXPECT_EQ("D:\\nx\\", readLocalMachineValue(key, "UGII_BASE_DIR"));
    EXPECT_EQ("C:\\Program Files\\NX", readLocalMachineValue(key, "Unterminated"));
    EXPECT_EQ("first", readLocalMachineValue(key, "Two strings"));
    EXPECT_EQ(std::string(259, 'x'), readLocalMachineValue(key, "Longest"));
    EXPECT_EQ("", readLocalMachineValue(key, "Too long"));
    EXPECT_EQ("", readLocalMachineValue(key, "Missing"));
    EXPECT_EQ("", readLocalMachineValue(key + "\\Missing", "UGII_BASE_DIR"));
}
#endif
