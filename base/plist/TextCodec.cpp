#include "base/plist/TextCodec.h"

#include <cstdint>
#include <cstring>

namespace Base {
namespace plist {

namespace {

const char base64Alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

int base64Digit(char c) {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+') return 62;
    if (c == '/') return 63;
    return -1;
}

const std::uint64_t asciiMask = 0x8080808080808080ULL;

bool isContinuation(unsigned char c) {
    return (c & 0xC0) == 0x80;
}

} // namespace

std::size_t invalidUtf8Offset(std::string_view text) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
    const std::size_t size = text.size();
    std::size_t i = 0;
    while (i < size) {
        // Settings files are almost all ASCII: skip it eight bytes at a time.
        std::uint64_t word;
        for (; i + sizeof word <= size; i += sizeof word) {
            std::memcpy(&word, bytes + i, sizeof word);
            if (word & asciiMask) break;
        }
        if (i >= size) break;
        unsigned char lead = bytes[i];
        if (lead < 0x80) {
            ++i;
            continue;
        }
        std::size_t length;
        // The bounds of the second byte exclude overlong forms, surrogates and values above U+10FFFF.
        unsigned char low = 0x80, high = 0xBF;
        if (lead >= 0xC2 && lead <= 0xDF) {
            length = 2;
        } else if (lead >= 0xE0 && lead <= 0xEF) {
            length = 3;
            if (lead == 0xE0) low = 0xA0;
            if (lead == 0xED) high = 0x9F;
        } else if (lead >= 0xF0 && lead <= 0xF4) {
            length = 4;
            if (lead == 0xF0) low = 0x90;
            if (lead == 0xF4) high = 0x8F;
        } else {
            return i;
        }
        if (i + 1 >= size || bytes[i + 1] < low || bytes[i + 1] > high) return i;
        for (std::size_t k = 2; k < length; ++k)
            if (i + k >= size || !isContinuation(bytes[i + k])) return i;
        i += length;
    }
    return std::string::npos;
}

bool isValidUtf8(std::string_view text) {
    return invalidUtf8Offset(text) == std::string::npos;
}

bool isAscii(std::string_view text) {
    std::uint64_t seen = 0;
    std::size_t i = 0;
    for (; i + sizeof seen <= text.size(); i += sizeof seen) {
        std::uint64_t word;
        std::memcpy(&word, text.data() + i, sizeof word);
        seen |= word;
    }
    for (; i < text.size(); ++i) seen |= static_cast<unsigned char>(text[i]);
    return (seen & asciiMask) == 0;
}

void appendUtf8(std::string& out, char32_t codePoint) {
    auto c = static_cast<std::uint32_t>(codePoint);
    if (c < 0x80) {
        out += static_cast<char>(c);
    } else if (c < 0x800) {
        out += static_cast<char>(0xC0 | (c >> 6));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
        out += static_cast<char>(0xE0 | (c >> 12));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (c >> 18));
        out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    }
}

std::string_view trimXmlSpace(std::string_view text) {
    std::size_t begin = 0, end = text.size();
    while (begin < end && isXmlSpace(text[begin])) ++begin;
    while (end > begin && isXmlSpace(text[end - 1])) --end;
    return text.substr(begin, end - begin);
}

std::string encodeBase64(const std::vector<unsigned char>& bytes) {
    std::string out;
    out.reserve((bytes.size() + 2) / 3 * 4);
    std::size_t i = 0;
    for (; i + 2 < bytes.size(); i += 3) {
        std::uint32_t group = (bytes[i] << 16) | (bytes[i + 1] << 8) | bytes[i + 2];
        out += base64Alphabet[(group >> 18) & 63];
        out += base64Alphabet[(group >> 12) & 63];
        out += base64Alphabet[(group >> 6) & 63];
        out += base64Alphabet[group & 63];
    }
    std::size_t rest = bytes.size() - i;
    if (rest > 0) {
        std::uint32_t group = bytes[i] << 16;
        if (rest == 2) group |= bytes[i + 1] << 8;
        out += base64Alphabet[(group >> 18) & 63];
        out += base64Alphabet[(group >> 12) & 63];
        out += rest == 2 ? base64Alphabet[(group >> 6) & 63] : '=';
        out += '=';
    }
    return out;
}

bool decodeBase64(std::string_view text, std::vector<unsigned char>& bytes) {
    bytes.clear();
    bytes.reserve(text.size() / 4 * 3);
    std::uint32_t group = 0;
    int count = 0;    // digits in the current group
    int padding = 0;  // '=' seen; only white space and more '=' may follow
    for (char c : text) {
        if (isXmlSpace(c)) continue;
        if (c == '=') {
            // A group ends in at most two '=' after at least two digits.
            if (count + padding < 2 || count + padding >= 4) return false;
            ++padding;
            continue;
        }
        int digit = base64Digit(c);
        if (digit < 0 || padding > 0) return false;
        group = (group << 6) | static_cast<std::uint32_t>(digit);
        if (++count == 4) {
            bytes.push_back(static_cast<unsigned char>(group >> 16));
            bytes.push_back(static_cast<unsigned char>(group >> 8));
            bytes.push_back(static_cast<unsigned char>(group));
            group = 0;
            count = 0;
        }
    }
    if (count == 0) return padding == 0;
    if (count + padding != 4) return false;
    group <<= 6 * padding;
    bytes.push_back(static_cast<unsigned char>(group >> 16));
    if (count == 3) bytes.push_back(static_cast<unsigned char>(group >> 8));
    return true;
}

} // namespace plist
} // namespace Base
