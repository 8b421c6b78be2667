#include "Output.h"

#include <algorithm>
#include <cstdio>
#include <sstream>

namespace KymTool {

Json Json::array() {
    Json value;
    value.mKind = Array;
    return value;
}

Json Json::object() {
    Json value;
    value.mKind = Object;
    return value;
}

Json Json::strings(const std::vector<std::string>& values) {
    Json list = array();
    for (const std::string& value : values) list.push(value);
    return list;
}

Json& Json::push(const Json& value) {
    mItems.push_back(value);
    return *this;
}

Json& Json::set(const std::string& key, const Json& value) {
    auto found = std::find(mKeys.begin(), mKeys.end(), key);
    if (found != mKeys.end()) {
        mItems[static_cast<std::size_t>(found - mKeys.begin())] = value;
    } else {
        mKeys.push_back(key);
        mItems.push_back(value);
    }
    return *this;
}

std::string jsonQuoted(const std::string& text) {
    std::string quoted = "\"";
    for (char c : text) {
        const unsigned char byte = static_cast<unsigned char>(c);
        switch (c) {
        case '"': quoted += "\\\""; break;
        case '\\': quoted += "\\\\"; break;
        case '\n': quoted += "\\n"; break;
        case '\r': quoted += "\\r"; break;
        case '\t': quoted += "\\t"; break;
        case '\b': quoted += "\\b"; break;
        case '\f': quoted += "\\f"; break;
        default:
            if (byte < 0x20) {
                char escaped[8];
                std::snprintf(escaped, sizeof escaped, "\\u%04x", byte);
                quoted += escaped;
            } else {
                quoted += c;
            }
        }
    }
    return quoted + "\"";
}

void Json::write(std::ostream& out, int indent) const {
    const std::string inner(static_cast<std::size_t>(indent + 2), ' ');
    const std::string outer(static_cast<std::size_t>(indent), ' ');
    switch (mKind) {
    case Null: out << "null"; break;
    case Boolean: out << (mBoolean ? "true" : "false"); break;
    case Number: out << mNumber; break;
    case String: out << jsonQuoted(mText); break;
    case Array:
        if (mItems.empty()) {
            out << "[]";
            break;
        }
        out << "[\n";
        for (std::size_t i = 0; i < mItems.size(); ++i) {
            out << inner;
            mItems[i].write(out, indent + 2);
            out << (i + 1 < mItems.size() ? ",\n" : "\n");
        }
        out << outer << "]";
        break;
    case Object:
        if (mItems.empty()) {
            out << "{}";
            break;
        }
        out << "{\n";
        for (std::size_t i = 0; i < mItems.size(); ++i) {
            out << inner << jsonQuoted(mKeys[i]) << ": ";
            mItems[i].write(out, indent + 2);
            out << (i + 1 < mItems.size() ? ",\n" : "\n");
        }
        out << outer << "}";
        break;
    }
}

std::string Json::dump() const {
    std::ostringstream out;
    write(out);
    return out.str();
}

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
            widths[column] = std::max(widths[column], row[column].size());
    };
    measure(mHeadings);
    for (std::size_t row = 0; row < mRows.size(); ++row)
        if (!mIsHeading[row]) measure(mRows[row]);
    auto line = [&](const std::vector<std::string>& row) {
        std::string text = indent;
        for (std::size_t column = 0; column < row.size(); ++column) {
            text += row[column];
            if (column + 1 < row.size()) text += std::string(widths[column] - row[column].size() + 2, ' ');
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
