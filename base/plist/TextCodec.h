// Byte-level checks and codings of property-list text: UTF-8 validity, XML
// white space and the base64 of <data>.
#pragma once

#include "base/BaseExport.h"

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace Base {
namespace plist {

// Offset of the first byte that does not belong to well-formed UTF-8
// (overlong forms, surrogates and code points above U+10FFFF included), or
// std::string::npos when the whole text is well-formed.
BASE_EXPORT std::size_t invalidUtf8Offset(std::string_view text);
BASE_EXPORT bool isValidUtf8(std::string_view text);
// No byte above 0x7F: text that is UTF-8 however it is cut into pieces.
BASE_EXPORT bool isAscii(std::string_view text);

// Appends the UTF-8 form of a code point that is a Unicode scalar value.
BASE_EXPORT void appendUtf8(std::string& out, char32_t codePoint);

// The four characters XML counts as white space: space, tab, line feed, carriage return.
inline bool isXmlSpace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}
BASE_EXPORT std::string_view trimXmlSpace(std::string_view text);

// Standard base64 with padding, in one line.
BASE_EXPORT std::string encodeBase64(const std::vector<unsigned char>& bytes);
// Decodes padded standard base64, skipping XML white space anywhere; false
// for any other character, a missing or misplaced '=' or a length that is
// not a whole number of groups.
BASE_EXPORT bool decodeBase64(std::string_view text, std::vector<unsigned char>& bytes);

} // namespace plist
} // namespace Base
