// The JSON and tables the kym command prints, checked on the values
// themselves: the layout scripts and the command's tests rely on, and text
// of any bytes kept valid and recoverable.
#include "tools/Output.h"

#include <gtest/gtest.h>

#include <boost/json/parse.hpp>
#include <boost/locale/utf.hpp>

#include <sstream>

namespace {

using KymTool::displayWidth;
using KymTool::Json;
using KymTool::Table;

// The bytes back from a string read as Latin-1: each code point is one byte.
std::string latin1Bytes(const std::string& utf8) {
    std::string bytes;
    for (auto at = utf8.begin(); at != utf8.end();) {
        const auto point = boost::locale::utf::utf_traits<char>::decode(at, utf8.end());
        EXPECT_LE(point, 0xFFu) << "not a Latin-1 reading: " << utf8;
        bytes += static_cast<char>(point);
    }
    return bytes;
}

std::string written(const Table& table, const std::string& indent = "") {
    std::ostringstream out;
    table.write(out, indent);
    return out.str();
}

TEST(Json, ObjectsKeepTheirKeysInInsertionOrderAndASecondSetKeepsThePlace) {
    Json value = Json::object();
    value.set("zeta", 1).set("alpha", "a").set("mid", true);
    value.set("zeta", Json());
    EXPECT_EQ(value.dump(), "{\n  \"zeta\": null,\n  \"alpha\": \"a\",\n  \"mid\": true\n}");
    EXPECT_EQ(value.line(), "{\"zeta\":null,\"alpha\":\"a\",\"mid\":true}");
}

TEST(Json, NestedValuesAreIndentedByTwoAndEmptyOnesStayOnTheirLine) {
    Json inner = Json::object();
    inner.set("list", Json::strings({"a", "b"})).set("none", Json::array()).set("empty", Json::object());
    Json value = Json::array();
    value.push(inner).push(-3L).push(4000000000u).push(false);
    EXPECT_EQ(value.dump(), "[\n"
                            "  {\n"
                            "    \"list\": [\n"
                            "      \"a\",\n"
                            "      \"b\"\n"
                            "    ],\n"
                            "    \"none\": [],\n"
                            "    \"empty\": {}\n"
                            "  },\n"
                            "  -3,\n"
                            "  4000000000,\n"
                            "  false\n"
                            "]");
    std::ostringstream nested;
    Json::strings({"x"}).write(nested, 4);
    EXPECT_EQ(nested.str(), "[\n      \"x\"\n    ]");
    EXPECT_EQ(Json::array().line(), "[]");
}

TEST(Json, KindsFollowWhatWasBuilt) {
    EXPECT_EQ(Json().kind(), Json::Null);
    EXPECT_EQ(Json(true).kind(), Json::Boolean);
    EXPECT_EQ(Json(7).kind(), Json::Number);
    EXPECT_EQ(Json(7u).kind(), Json::Number);
    EXPECT_EQ(Json("text").kind(), Json::String);
    EXPECT_EQ(Json::strings({}).kind(), Json::Array);
    EXPECT_EQ(Json::object().kind(), Json::Object);
}

TEST(Json, QuotesBackslashesAndControlCharactersAreEscaped) {
    Json value = Json::object();
    value.set("path\\\"", "C:\\cad \"x\"\n\t\x01");
    EXPECT_EQ(value.line(), "{\"path\\\\\\\"\":\"C:\\\\cad \\\"x\\\"\\n\\t\\u0001\"}");
    EXPECT_EQ(boost::json::parse(value.dump()).as_object().at("path\\\"").as_string(), "C:\\cad \"x\"\n\t\x01");
}

TEST(Json, Utf8TextIsKeptAsItIs) {
    for (const std::string text : {"B\xC3\xBCro \xC3\x98", "\xE6\xBC\xA2\xE5\xAD\x97", "\xF0\x9F\x98\x80", ""}) {
        Json value = Json::object();
        value.set(text, text);
        const boost::json::value parsed = boost::json::parse(value.dump());
        EXPECT_EQ(parsed.as_object().at(text).as_string(), text);
    }
}

TEST(Json, TextThatIsNotUtf8IsReadAsLatin1AndGivesItsBytesBack) {
    // A lone code-page byte, a UTF-8 sequence cut short, an overlong form, an
    // encoded surrogate, a byte above F4, and valid UTF-8 mixed with a stray byte.
    const std::vector<std::string> values = {"caf\xE9", "euro \xE2\x82", "\xC0\xAF", "\xED\xA0\x80",
                                             "\xF8", "\xC3\xA9\xE9", "\x80\x9F\xFF"};
    for (const std::string& bytes : values) {
        Json value = Json::object();
        value.set(bytes, bytes);
        boost::system::error_code error;
        const boost::json::value parsed = boost::json::parse(value.dump(), error);
        ASSERT_FALSE(error) << error.message();
        const boost::json::object& object = parsed.as_object();
        ASSERT_EQ(object.size(), 1u);
        EXPECT_EQ(latin1Bytes(std::string(object.begin()->key())), bytes);
        EXPECT_EQ(latin1Bytes(std::string(object.begin()->value().as_string())), bytes);
    }
    EXPECT_EQ(Json("caf\xE9").line(), "\"caf\xC3\xA9\"");
    // The whole text is read one way: the valid pair before the stray byte is read as Latin-1 too.
    EXPECT_EQ(KymTool::utf8Text("\xC3\xA9\xE9"), "\xC3\x83\xC2\xA9\xC3\xA9");
}

TEST(DisplayWidth, CountsColumnsNotBytes) {
    EXPECT_EQ(displayWidth(""), 0u);
    EXPECT_EQ(displayWidth("Design"), 6u);
    EXPECT_EQ(displayWidth("B\xC3\xBCro \xC3\x98"), 6u);
    // e with a combining acute accent, and a zero-width joiner.
    EXPECT_EQ(displayWidth("e\xCC\x81" "a\xE2\x80\x8D" "b"), 3u);
    // Two CJK ideographs, a full-width letter and an emoji take two columns each.
    EXPECT_EQ(displayWidth("\xE6\xBC\xA2\xE5\xAD\x97"), 4u);
    EXPECT_EQ(displayWidth("\xEF\xBC\xA1"), 2u);
    EXPECT_EQ(displayWidth("\xF0\x9F\x98\x80"), 2u);
    // A byte that is not UTF-8 is one column, and what follows it is read afresh.
    EXPECT_EQ(displayWidth("caf\xE9"), 4u);
    EXPECT_EQ(displayWidth("\xE2\x82" "ab"), 4u);
}

TEST(Table, ColumnsAreAlignedByDisplayWidth) {
    Table table({"NAME", "DESCRIPTION", "TYPE"});
    table.add({"B\xC3\xBCro", "B\xC3\xBCro \xC3\x98", "Production"});
    table.add({"\xE6\xBC\xA2\xE5\xAD\x97", "caf\xE9", "Common"});
    table.add({"x", "plain", ""});
    EXPECT_EQ(written(table), "NAME  DESCRIPTION  TYPE\n"
                              "B\xC3\xBCro  B\xC3\xBCro \xC3\x98       Production\n"
                              "\xE6\xBC\xA2\xE5\xAD\x97  caf\xE9         Common\n"
                              "x     plain\n");
}

TEST(Table, HeadingRowsStandApartAndTheIndentStartsEveryOtherRow) {
    Table table;
    table.addHeading("CAD");
    table.add({"nx", "NX"});
    table.addHeading("CAM \xC3\x9C");
    table.add({"mill\xC3\xBC", "Milling"});
    EXPECT_FALSE(table.empty());
    EXPECT_EQ(written(table, "  "), "CAD\n"
                                    "  nx     NX\n"
                                    "CAM \xC3\x9C\n"
                                    "  mill\xC3\xBC  Milling\n");
    EXPECT_TRUE(Table({"A"}).empty());
}

} // namespace
