// What the kym command prints: JSON values for scripts (--json) and aligned
// text tables for people.
#pragma once

#include <boost/json/value.hpp>

#include <cstddef>
#include <ostream>
#include <string>
#include <vector>

namespace KymTool {

// A JSON value built in code; objects keep their keys in insertion order so
// the output of a command is stable. Text that is not valid UTF-8 (a value
// in a Windows code page, say) is read as Latin-1, byte for byte, so that
// the document stays valid and encoding the string as Latin-1 gives the
// original bytes back.
class Json {
public:
    enum Kind { Null, Boolean, Number, String, Array, Object };

    Json() = default;
    Json(bool value) : mValue(value) {}
    Json(int value) : mValue(value) {}
    Json(long value) : mValue(value) {}
    Json(unsigned value) : mValue(value) {}
    Json(const char* value);
    Json(const std::string& value);

    static Json array();
    static Json object();
    static Json strings(const std::vector<std::string>& values);

    Kind kind() const;
    // Appends to an array.
    Json& push(const Json& value);
    // Sets a key of an object; a key set again keeps its place.
    Json& set(const std::string& key, const Json& value);

    // Indented by two spaces a level, an empty array or object as [] or {}.
    void write(std::ostream& out, int indent = 0) const;
    std::string dump() const;
    // The whole value on one line, for a message among other lines.
    std::string line() const;

    const boost::json::value& value() const { return mValue; }

private:
    boost::json::value mValue;
};

// The text itself when it is valid UTF-8; otherwise each of its bytes read
// as the Latin-1 character of the same number.
std::string utf8Text(const std::string& text);

// The columns a terminal gives the text: a code point takes one, an East
// Asian wide one two, a combining mark none; a byte that is not UTF-8 one.
std::size_t displayWidth(const std::string& text);

// Columns padded to their widest cell; the last column is not padded.
class Table {
public:
    explicit Table(std::vector<std::string> headings = {});
    void add(std::vector<std::string> row);
    // A line of its own between rows, written without the indent; the columns stay aligned across it.
    void addHeading(const std::string& text);
    bool empty() const { return mRows.empty(); }
    void write(std::ostream& out, const std::string& indent = "") const;

private:
    std::vector<std::string> mHeadings;
    std::vector<std::vector<std::string>> mRows;
    std::vector<bool> mIsHeading;
};

inline std::string yesNo(bool value) { return value ? "yes" : "no"; }

} // namespace KymTool
