#include "base/PropertyList.h"
#include "support/TestSupport.h"

#include <boost/filesystem.hpp>
#include <charconv>
#include <gtest/gtest.h>
#include <limits>
#include <utility>

namespace {

using Base::PropertyList;
using KymTest::thrownMessage;
using Dictionary = PropertyList::Dictionary;
using Array = PropertyList::Array;

const std::string declaration = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
const std::string doctype =
    "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" \"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n";
// Lines 1 to 3 of every document below; the value starts on line 4.
const std::string head = declaration + doctype + "<plist version=\"1.0\">\n";

std::string document(const std::string& body) {
    return head + body + "\n</plist>\n";
}

// A compact text of a value tree that tells the value types apart.
std::string show(const boost::any& value) {
    if (auto text = boost::any_cast<std::string>(&value)) return "\"" + *text + "\"";
    if (auto number = boost::any_cast<std::int64_t>(&value)) return std::to_string(*number);
    if (auto number = boost::any_cast<std::uint64_t>(&value)) return std::to_string(*number) + "u";
    if (auto number = boost::any_cast<double>(&value)) {
        char buffer[64];
        return std::string(buffer, std::to_chars(buffer, buffer + sizeof(buffer), *number).ptr) + "r";
    }
    if (auto flag = boost::any_cast<bool>(&value)) return *flag ? "true" : "false";
    if (auto date = boost::any_cast<PropertyList::Date>(&value)) return "date(" + date->text + ")";
    if (auto data = boost::any_cast<PropertyList::Data>(&value)) {
        std::string hex;
        for (unsigned char byte : data->bytes) hex += {"0123456789abcdef"[byte >> 4], "0123456789abcdef"[byte & 15]};
        return "data(" + hex + ")";
    }
    std::string text;
    if (auto dictionary = boost::any_cast<Dictionary>(&value))
        for (const auto& [key, entry] : *dictionary) text += (text.empty() ? "" : ", ") + key + ": " + show(entry);
    else if (auto array = boost::any_cast<Array>(&value))
        for (const auto& entry : *array) text += (text.empty() ? "" : ", ") + show(entry);
    else
        return "<" + std::string(value.type().name()) + ">";
    return value.type() == typeid(Array) ? "[" + text + "]" : "{" + text + "}";
}

std::string nested(int depth, const std::string& inner = "") {
    std::string open, close;
    for (int i = 0; i < depth; ++i) open += "<array>", close += "</array>";
    return open + inner + close;
}

TEST(PropertyListRead, EveryKindOfValueIsReadWithWhiteSpaceKeptInStrings) {
    const std::pair<std::string, std::string> cases[] = {
        {document("<dict>\n"
                  "\t<key>Name</key>\n\t<string>Drafting &amp; Design &lt;3&gt; &#x41;&#66;</string>\n"
                  "\t<key>Big</key>\n\t<integer>18446744073709551615</integer>\n"
                  "\t<key>Hex</key>\n\t<integer> -0x1F </integer>\n"
                  "\t<key>Ratio</key>\n\t<real>2.5e-3</real>\n"
                  "\t<key>Off</key>\n\t<false></false>\n"
                  "\t<!-- a comment -->\n"
                  "\t<key>When</key>\n\t<date>2024-02-29T12:00:00Z</date>\n"
                  "\t<key>Blob</key>\n\t<data>\n\tAAEC\n\t/w==\n\t</data>\n"
                  "\t<key>List</key>\n\t<array>\n\t\t<string/>\n\t\t<dict/>\n"
                  "\t\t<dict><key>Deep</key><array><integer>+7</integer></array></dict>\n\t</array>\n"
                  "\t<key>Ünïcode ключ</key>\n\t<string><![CDATA[<raw & kept>]]></string>\n"
                  "</dict>"),
         "{Big: 18446744073709551615u, Blob: data(000102ff), Hex: -31, List: [\"\", {}, {Deep: [7]}], "
         "Name: \"Drafting & Design <3> AB\", Off: false, Ratio: 0.0025r, When: date(2024-02-29T12:00:00Z), "
         "Ünïcode ключ: \"<raw & kept>\"}"},
        // White space beside a CDATA section belongs to the value too.
        {document("<array><string>  a\n b </string><string>x\r\ny</string><string>&#13;</string>"
                  "<string> <![CDATA[a]]>\t</string></array>"),
         "[\"  a\n b \", \"x\ny\", \"\r\", \" a\t\"]"},
        // Declaration, doctype and byte order mark are optional.
        {"<plist><true/></plist>", "true"},
        {"\xEF\xBB\xBF" + document("<real>-inf</real>"), "-infr"},
    };
    for (const auto& [text, shown] : cases) EXPECT_EQ(show(PropertyList::parse(text, "x")), shown) << text;
}

TEST(PropertyListRead, DamagedDocumentsAreRejectedNamingTheLine) {
    const std::pair<std::string, std::string> cases[] = {
        {document("<dict>\n<key>a</key>\n<string>x</dict>"), "line 6: malformed XML (Start-end tags mismatch)"},
        {"", "line 1: no plist element"},
        {declaration + "<dict/>\n", "line 2: root element <dict> is not <plist>"},
        {document("<array>\n<true/>\n oops <false/></array>"), "line 6: stray text in <array>"},
        // Text that opens a container, also where CDATA keeps all white space.
        {document("<dict>\n x<key>a</key><true/></dict>"), "line 5: stray text in <dict>"},
        {document("<array>\n\n oops<string><![CDATA[a]]></string></array>"), "line 6: stray text in <array>"},
        {head + "\n\t.<true/></plist>", "line 5: stray text in <plist>"},
        {head + "</plist>", "line 3: empty <plist>"},
        {document("<dict>\n<key>T</key>\n<string>a</string>\n<key>T</key>\n<string>b</string>\n</dict>"),
         "line 7: duplicate key 'T'"},
        {document("<dict>\n<key>a</key>\n<key>b</key><true/>\n</dict>"), "line 5: key 'a' has no value"},
        {document("<dict>\n<string>a</string>\n</dict>"), "line 5: <string> without a <key> in <dict>"},
        {document("<integer>12x</integer>"), "line 4: invalid integer '12x'"},
        {document("<integer>18446744073709551616</integer>"), "line 4: integer out of range '18446744073709551616'"},
        {document("<data>AB=C</data>"), "line 4: invalid base64 in <data>"},
        {document("<string>\na" + std::string(1, '\0') + "b</string>"), "line 5: NUL byte"},
        {document("<string>\n\xC3\x28</string>"), "line 5: invalid UTF-8"},
        {document("<integr>5</integr>"), "line 4: unknown element <integr>"},
        {document("<string>a\n&foo;</string>"), "line 5: unknown entity '&foo;'"},
        {document("<dict>\n<key>a</key>\n" + nested(PropertyList::maxDepth) + "\n</dict>"),
         "line 6: nesting deeper than 512 levels"},
    };
    for (const auto& [text, message] : cases)
        EXPECT_EQ(thrownMessage([&] { PropertyList::parse(text, "/x/y.plist"); }), "Property list /x/y.plist, " + message)
            << text.substr(0, 200);
    EXPECT_EQ(thrownMessage([] { PropertyList::parse("<plist/>", ""); }), "Property list, line 1: empty <plist>");
}

TEST(PropertyListWrite, DocumentHasTheStandardHeadAndTabIndentationAndNestingUpToTheLimitReadsBack) {
    // An ordered dictionary keeps its keys in their order.
    PropertyList::OrderedDictionary root{{{"Name", std::string("a < b & c > d")},
                                          {"Items", Array{std::int64_t(1), 2.5, true, PropertyList::Data{{'h', 'i'}}}},
                                          {"Empty", Dictionary()},
                                          {"When", PropertyList::Date{"2024-01-02T03:04:05Z"}}}};
    EXPECT_EQ(PropertyList::serialize(root),
              head +
                  "\t<dict>\n"
                  "\t\t<key>Name</key>\n\t\t<string>a &lt; b &amp; c &gt; d</string>\n"
                  "\t\t<key>Items</key>\n\t\t<array>\n\t\t\t<integer>1</integer>\n\t\t\t<real>2.5</real>\n"
                  "\t\t\t<true />\n\t\t\t<data>aGk=</data>\n\t\t</array>\n"
                  "\t\t<key>Empty</key>\n\t\t<dict />\n"
                  "\t\t<key>When</key>\n\t\t<date>2024-01-02T03:04:05Z</date>\n"
                  "\t</dict>\n</plist>\n");

    const std::string deepest = nested(PropertyList::maxDepth, "<true/>");
    const std::string written = PropertyList::serialize(PropertyList::parse(document(deepest), "x"));
    EXPECT_EQ(show(PropertyList::parse(written, "x")), std::string(512, '[') + "true" + std::string(512, ']'));
}

TEST(PropertyListWrite, EveryWritableValueReadsBackAsItsPropertyListType) {
    Dictionary root{
        {"int", -5}, {"unsigned", 4000000000u}, {"long", -6L}, {"float", 0.1f},
        {"unsigned long", std::numeric_limits<unsigned long>::max()},
        {"reals", Array{0.1, -0.0, 5e-324, -std::numeric_limits<double>::infinity()}},
        {"texts", Array{std::string("x\r\ny\r"), std::string("\x01\t<&>\"'"), std::string("ключ 😀"), std::string()}}, {"", true}};
    // unsigned long is 64 bits wide on Linux and 32 on Windows, where its largest value fits a signed integer.
    const std::string largestUnsignedLong = sizeof(unsigned long) == 8 ? "18446744073709551615u" : "4294967295";
    EXPECT_EQ(show(PropertyList::parse(PropertyList::serialize(root), "x")),
              "{: true, float: 0.1r, int: -5, long: -6, reals: [0.1r, -0r, 5e-324r, -infr], "
              "texts: [\"x\r\ny\r\", \"\x01\t<&>\"'\", \"ключ 😀\", \"\"], "
              "unsigned: 4000000000, unsigned long: " + largestUnsignedLong + "}");
}

TEST(PropertyListWrite, UnwritableValuesAreRejectedNamingTheirPlace) {
    const std::pair<boost::any, std::string> cases[] = {
        {boost::any(), "cannot write an empty value at the root"},
        {Dictionary{{"a", std::string("x\xFFy")}}, "invalid UTF-8 in the string at 'a'"},
        {PropertyList::OrderedDictionary{{{"k", 1}, {"k", 2}}}, "duplicate key 'k' in the dictionary at the root"},
    };
    for (const auto& [root, message] : cases)
        EXPECT_EQ(thrownMessage([&] { PropertyList::serialize(root); }), "Property list: " + message);
}

#ifndef _WIN32
TEST(PropertyListFile, FailedSaveNamesTheFileAndKeepsTheOldOne) {
    KYM_SKIP_UNLESS_ROOT();
    KymTest::TempDir directory;
    auto file = directory / "locked" / "list.plist";
    std::string old = document("<string>old</string>");
    KymTest::writeFile(file, old);
    boost::filesystem::permissions(directory / "locked", boost::filesystem::perms(0755));
    EXPECT_EQ(0, KymTest::runAsNobody([&] {
        const std::string error = thrownMessage([&] { PropertyList(file, std::string("new")).saveList(); });
        return error == "Cannot write settings file " + file.string() + ": Permission denied" ? 0 : 1;
    }));
    EXPECT_EQ(KymTest::readFile(file), old);
    EXPECT_EQ(boost::filesystem::directory_iterator(directory / "locked")->path(), file);
}
#endif

TEST(PropertyListFile, ARootThatIsNoDictionaryOrAValueThatCannotBeWrittenIsNamedWithTheFileAndWritesNothing) {
    KymTest::TempDir directory;
    const auto file = directory / "list.plist";
    EXPECT_EQ(thrownMessage([&] { PropertyList(file, Dictionary{{"Name", "c string"}}).saveList(); }),
              "Property list " + file.string() + ": cannot write a value of type 'char const*' at 'Name'");
    EXPECT_FALSE(boost::filesystem::exists(file));

    KymTest::writeFile(file, document("<array/>"));
    PropertyList list(file);
    EXPECT_EQ(thrownMessage([&] { list.setProperty("a", true); }), "Property list " + file.string() + ": the root is not a dictionary");
    EXPECT_EQ(KymTest::readFile(file), document("<array/>"));
}

} // namespace
