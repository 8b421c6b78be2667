// Access to the process environment and expansion of $NAME and ${NAME}
// references, against the process environment or against a map.
#pragma once

#include "base/BaseExport.h"

#include <array>
#include <map>
#include <string>
#include <vector>

namespace Base {
namespace Environment {

using Map = std::map<std::string, std::string>;

namespace detail {
inline constexpr std::array<bool, 256> nameCharacters = [] {
    std::array<bool, 256> table{};
    for (int c = 0; c < 256; ++c)
        table[static_cast<std::size_t>(c)] =
            (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_';
    return table;
}();
} // namespace detail

// A letter, a digit or "_": the characters of a variable name. Looked up in
// a table, as every name of a launch is checked with it.
inline bool isNameCharacter(char c) {
    return detail::nameCharacters[static_cast<unsigned char>(c)];
}

// The value of a variable of the process environment, or the empty text.
BASE_EXPORT std::string getEnvVariable(const std::string& name);
// The process environment as NAME=VALUE strings, in the order the process holds them.
BASE_EXPORT std::vector<std::string> environmentStrings();

// Replace, in place, every $NAME and ${NAME} (NAME: a letter or "_", then
// letters, digits or "_") by the variable's value, recursively: a substituted
// value is expanded too. An unknown name expands to the empty text; a "$" not
// followed by a name or "{" stays. An unterminated "${", a "${...}" that does
// not hold a name, or a reference cycle throws a BaseException saying which.
// Returns the text.
BASE_EXPORT std::string& expandEnvVariables(std::string& text);
BASE_EXPORT std::string& expandEnvVariables(std::string& text, const Map& variables);

} // namespace Environment
} // namespace Base
