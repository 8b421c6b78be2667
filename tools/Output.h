// What the kym command prints: JSON values for scripts (--json) and aligned
// text tables for people.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

namespace KymTool {

// A JSON value built in code; objects keep their keys in insertion order so
// the output of a command is stable.
class Json {
public:
    enum Kind { Null, Boolean, Number, String, Array, Object };

    Json() : mKind(Null) {}
    Json(bool value) : mKind(Boolean), mBoolean(value) {}
    Json(int value) : mKind(Number), mNumber(value) {}
    Json(long value) : mKind(Number), mNumber(value) {}
    Json(unsigned value) : mKind(Number), mNumber(value) {}
    Json(const char* value) : mKind(String), mText(value) {}
    Json(const std::string& value) : mKind(String), mText(value) {}

    static Json array();
    static Json object();
    static Json strings(const std::vector<std::string>& values);

    Kind kind() const { return mKind; }
    // Appends to an array.
    Json& push(const Json& value);
    // Sets a key of an object; a key set again keeps its place.
    Json& set(const std::string& key, const Json& value);

    void write(std::ostream& out, int indent = 0) const;
    std::string dump() const;

private:
    Kind mKind;
    bool mBoolean = false;
    std::int64_t mNumber = 0;
    std::string mText;
    std::vector<std::string> mKeys;
    std::vector<Json> mItems;
};

// The JSON text of a string, quotes included.
std::string jsonQuoted(const std::string& text);

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
