#include "Output.h"

// Boost.JSON is used header-only: its compiled part lives in this one file.
#include <boost/json/src.hpp>
#include <boost/locale/utf.hpp>

#include <algorithm>
#include <iterator>
#include <sstream>

namespace KymTool {

namespace {

using Utf8 = boost::locale::utf::utf_traits<char>;
using boost::locale::utf::code_point;

bool isValidUtf8(const std::string& text) {
    for (auto at = text.begin(); at != text.end();) {
        const code_point decoded = Utf8::decode(at, text.end());
        if (decoded == boost::locale::utf::illegal || decoded == boost::locale::utf::incomplete) return false;
    }
    return true;
}

// Marks that combine with the character before them, and the invisible
// joiners and selectors: the blocks that hold them.
bool isZeroWidth(code_point c) {
    return (c >= 0x0300 && c <= 0x036F) || (c >= 0x1AB0 && c <= 0x1AFF) || (c >= 0x1DC0 && c <= 0x1DFF) ||
           (c >= 0x200B && c <= 0x200F) || (c >= 0x20D0 && c <= 0x20FF) || (c >= 0xFE00 && c <= 0xFE0F) ||
           (c >= 0xFE20 && c <= 0xFE2F);
}

// The wide ranges a terminal draws in two columns: Hangul, CJK, Yi,
// full-width forms and the pictographs.
bool isWide(code_point c) {
    return (c >= 0x1100 && c <= 0x115F) || c == 0x2329 || c == 0x232A ||
           (c >= 0x2E80 && c <= 0xA4CF && c != 0x303F) || (c >= 0xAC00 && c <= 0xD7A3) ||
           (c >= 0xF900 && c <= 0xFAFF) || (c >= 0xFE10 && c <= 0xFE19) || (c >= 0xFE30 && c <= 0xFE6F) ||
           (c >= 0xFF00 && c <= 0xFF60) || (c >= 0xFFE0 && c <= 0xFFE6) || (c >= 0x1F300 && c <= 0x1F64F) ||
           (c >= 0x1F900 && c <= 0x1F9FF) || (c >= 0x20000 && c <= 0x2FFFD) || (c >= 0x30000 && c <= 0x3FFFD);
}

void writeValue(std::ostream& out, const boost::json::value& value, int indent) {
    const std::string inner(static_cast<std::size_t>(indent + 2), ' ');
    const std::string outer(static_cast<std::size_t>(indent), ' ');
    if (const boost::json::array* items = value.if_array()) {
        if (items->empty()) {
            out << "[]";
            return;
        }
        out << "[\n";
        for (std::size_t i = 0; i < items->size(); ++i) {
            out << inner;
            writeValue(out, (*items)[i], indent + 2);
            out << (i + 1 < items->size() ? ",\n" : "\n");
        }
        out << outer << "]";
    } else if (const boost::json::object* members = value.if_object()) {
        if (members->empty()) {
            out << "{}";
            return;
        }
        out << "{\n";
        std::size_t left = members->size();
        for (const boost::json::key_value_pair& member : *members) {
            out << inner << boost::json::serialize(member.key()) << ": ";
            writeValue(out, member.value(), indent + 2);
            out << (--left > 0 ? ",\n" : "\n");
        }
        out << outer << "}";
    } else {
        out << boost::json::serialize(value);
    }
}

} // namespace

std::string utf8Text(const std::string& text) {
    if (isValidUtf8(text)) return text;
    std::string converted;
    converted.reserve(text.size() * 2);
    for (char c : text) Utf8::encode(static_cast<unsigned char>(c), std::back_inserter(converted));
    return converted;
}

std::size_t displayWidth(const std::string& text) {
    std::size_t width = 0;
    for (auto at = text.begin(); at != text.end();) {
        const auto start = at;
        const code_point decoded = Utf8::decode(at, text.end());
        if (decoded == boost::locale::utf::illegal || decoded == boost::locale::utf::incomplete) {
            // A terminal shows one replacement mark for the byte; the next byte starts afresh.
            at = start + 1;
            ++width;
        } else if (!isZeroWidth(decoded)) {
            width += isWide(decoded) ? 2 : 1;
        }
    }
    return width;
}

Json::Json(const char* value) : mValue(boost::json::string_view(utf8Text(value))) {}

Json::Json(const std::string& value) : mValue(boost::json::string_view(utf8Text(value))) {}

Json Json::array() {
    Json value;
    value.mValue.emplace_array();
    return value;
}

Json Json::object() {
    Json value;
    value.mValue.emplace_object();
    return value;
}

Json Json::strings(const std::vector<std::string>& values) {
    Json list = array();
    for (const std::string& value : values) list.push(value);
    return list;
}

Json::Kind Json::kind() const {
    switch (mValue.kind()) {
    case boost::json::kind::null: return Null;
    case boost::json::kind::bool_: return Boolean;
    case boost::json::kind::int64:
    case boost::json::kind::uint64:
    case boost::json::kind::double_: return Number;
    case boost::json::kind::string: return String;
    case boost::json::kind::array: return Array;
    case boost::json::kind::object: return Object;
    }
    return Null;
}

Json& Json::push(const Json& value) {
    mValue.as_array().push_back(value.mValue);
    return *this;
}

Json& Json::set(const std::string& key, const Json& value) {
    mValue.as_object()[utf8Text(key)] = value.mValue;
    return *this;
}

void Json::write(std::ostream& out, int indent) const { writeValue(out, mValue, indent); }

std::string Json::dump() const {
    std::ostringstream out;
    write(out);
    return out.str();
}

std::string Json::line() const { return boost::json::serialize(mValue); }

Table::Table(std::vector<std::string> headings) : mHeadings(std::move(headings)) {}

void Table::add(std::vector<std::string> row) {
    mRows.push_back(std::move(row));
    mIsHeading.push_back(false);
}

void Table::addHeading(const std::string& text) {
    mRows.push_back({text});
    mIsHeading.push_back(true);
}

void Table::write(std::ostream& out, const std::string& indent) const {
    std::vector<std::size_t> widths(mHeadings.size(), 0);
    auto measure = [&widths](const std::vector<std::string>& row) {
        if (widths.size() < row.size()) widths.resize(row.size(), 0);
        for (std::size_t column = 0; column < row.size(); ++column)
            widths[column] = std::max(widths[column], displayWidth(row[column]));
    };
    measure(mHeadings);
    for (std::size_t row = 0; row < mRows.size(); ++row)
        if (!mIsHeading[row]) measure(mRows[row]);
    auto line = [&](const std::vector<std::string>& row) {
        std::string text = indent;
        for (std::size_t column = 0; column < row.size(); ++column) {
            text += row[column];
            if (column + 1 < row.size()) text += std::string(widths[column] - displayWidth(row[column]) + 2, ' ');
        }
        while (!text.empty() && text.back() == ' ') text.pop_back();
        out << text << '\n';
    };
    if (!mHeadings.empty()) line(mHeadings);
    for (std::size_t row = 0; row < mRows.size(); ++row) {
        if (mIsHeading[row])
            out << mRows[row].front() << '\n';
        else
            line(mRows[row]);
    }
}

} // namespace KymTool
