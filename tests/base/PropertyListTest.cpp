#include "base/BaseException.h"
#include "base/PropertyList.h"
#include "support/TestSupport.h"

#include <boost/core/demangle.hpp>
#include <boost/filesystem.hpp>
#include <charconv>
#include <cstdio>
#include <functional>
#include <gtest/gtest.h>
#include <limits>
#include <utility>

namespace {

using Base::PropertyList;
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
        for (unsigned char byte : data->bytes) {
            char digits[3];
            std::snprintf(digits, sizeof(digits), "%02x", byte);
            hex += digits;
        }
        return "data(" + hex + ")";
    }
    if (auto dictionary = boost::any_cast<Dictionary>(&value)) {
        std::string text = "{";
        for (const auto& [key, entry] : *dictionary) text += (text.size() > 1 ? ", " : "") + key + ": " + show(entry);
        return text + "}";
    }
    if (auto array = boost::any_cast<Array>(&value)) {
        std::string text = "[";
        for (const auto& entry : *array) text += (text.size() > 1 ? ", " : "") + show(entry);
        return text + "]";
    }
    return "<" + boost::core::demangle(value.type().name()) + ">";
}

// The message of the BaseException that the call throws.
std::string errorOf(const std::function<void()>& call) {
    try {
        call();
    } catch (const Base::BaseException& error) {
        return error.what();
    }
    return "no exception";
}

std::string rejection(const std::string& text) {
    return errorOf([&] { PropertyList::parse(text, "/x/y.plist"); });
}

std::string writeError(const boost::any& root) {
    return errorOf([&] { PropertyList::serialize(root); });
}

std::string nested(int depth, const std::string& inner = "") {
    std::string text;
    for (int i = 0; i < depth; ++i) text += "<array>";
    text += inner;
    for (int i = 0; i < depth; ++i) text += "</array>";
    return text;
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
    for (const auto& [text, shown] : cases) {
        SCOPED_TRACE(text);
        EXPECT_EQ(show(PropertyList::parse(text, "x")), shown);
    }
}

TEST(PropertyListRead, DamagedDocumentsAreRejectedNamingTheLine) {
    const std::pair<std::string, std::string> cases[] = {
        {document("<dict>\n<key>a</key>\n<string>x</dict>"), "line 6: malformed XML (Start-end tags mismatch)"},
        {"", "line 1: no plist element"},
        {declaration + "<dict/>\n", "line 2: root element <dict> is not <plist>"},
        {document("<string>a</string>\n<string>b</string>"), "line 5: second value <string> in <plist>"},
        {document("<true/>") + "\n  junk\n", "line 7: text after the plist element"},
        {document("<array>\n<true/>\n oops <false/></array>"), "line 6: stray text in <array>"},
        {head + "</plist>", "line 3: empty <plist>"},
        {"\n" + head + "<true/></plist>", "line 2: XML declaration not at the start"},
        {"<!DOCTYPE html>\n<plist><true/></plist>", "line 1: DOCTYPE of another document type"},
        {"<plist version=\"2.0\"><true/></plist>", "line 1: unsupported plist version '2.0'"},
        {document("<dict>\n<key>Type</key>\n<string>a</string>\n<key>Type</key>\n<string>b</string>\n</dict>"),
         "line 7: duplicate key 'Type'"},
        {document("<dict>\n<key>a</key>\n<key>b</key><true/>\n</dict>"), "line 5: key 'a' has no value"},
        {document("<dict>\n<string>a</string>\n</dict>"), "line 5: <string> without a <key> in <dict>"},
        {document("<array>\n<key>a</key>\n</array>"), "line 5: <key> outside a <dict>"},
        {document("<integer>12x</integer>"), "line 4: invalid integer '12x'"},
        {document("<integer>18446744073709551616</integer>"), "line 4: integer out of range '18446744073709551616'"},
        {document("<real>0x1p3</real>"), "line 4: invalid real '0x1p3'"},
        {document("<data>AB=C</data>"), "line 4: invalid base64 in <data>"},
        {document("<string>\na" + std::string(1, '\0') + "b</string>"), "line 5: NUL byte"},
        {document("<string>\n\xC3\x28</string>"), "line 5: invalid UTF-8"},
        {document("<integr>5</integr>"), "line 4: unknown element <integr>"},
        {document("<true>yes</true>"), "line 4: text in <true>"},
        {document("<string type=\"x\">a</string>"), "line 4: unexpected attribute 'type' on <string>"},
        {document("<string>a\n&foo;</string>"), "line 5: unknown entity '&foo;'"},
        {document("<string>AT&T rocks</string>"), "line 4: bare '&'"},
        {document("<string>&#0;</string>"), "line 4: invalid character reference '&#0;'"},
        {document("<dict>\n<key>a</key>\n" + nested(PropertyList::maxDepth) + "\n</dict>"),
         "line 6: nesting deeper than 512 levels"},
    };
    for (const auto& [text, message] : cases) {
        SCOPED_TRACE(text.substr(0, 200));
        EXPECT_EQ(rejection(text), "Property list /x/y.plist, " + message);
    }
    EXPECT_EQ(errorOf([] { PropertyList::parse("<plist/>", ""); }), "Property list, line 1: empty <plist>");
}


TEST(PropertyListLimits, NestingUpToTheLimitIsReadAndWrittenAndAHundredThousandLevelsAreRejected) {
    boost::any value = PropertyList::parse(document(nested(PropertyList::maxDepth, "<true/>")), "x");
    int depth = 0;
    for (const boost::any* at = &value; at->type() == typeid(Array); at = &boost::any_cast<const Array&>(*at)[0])
        ++depth;
    EXPECT_EQ(depth, PropertyList::maxDepth);
    EXPECT_EQ(PropertyList::parse(PropertyList::serialize(value), "x").type(), typeid(Array));
    EXPECT_EQ(rejection(document(nested(100000))), "Property list /x/y.plist, line 4: nesting deeper than 512 levels");
}

TEST(PropertyListWrite, DocumentHasTheStandardHeadAndTabIndentation) {
    Dictionary root{{"Name", std::string("a < b & c > d")},
                    {"Items", Array{std::int64_t(1), 2.5, true, PropertyList::Data{{'h', 'i'}}}},
                    {"Empty", Dictionary()},
                    {"When", PropertyList::Date{"2024-01-02T03:04:05Z"}}};
    EXPECT_EQ(PropertyList::serialize(root),
              head +
                  "\t<dict>\n"
                  "\t\t<key>Empty</key>\n\t\t<dict />\n"
                  "\t\t<key>Items</key>\n\t\t<array>\n\t\t\t<integer>1</integer>\n\t\t\t<real>2.5</real>\n"
                  "\t\t\t<true />\n\t\t\t<data>aGk=</data>\n\t\t</array>\n"
                  "\t\t<key>Name</key>\n\t\t<string>a &lt; b &amp; c &gt; d</string>\n"
                  "\t\t<key>When</key>\n\t\t<date>2024-01-02T03:04:05Z</date>\n"
                  "\t</dict>\n</plist>\n");
}

TEST(PropertyListWrite, EveryWritableValueReadsBackAsItsPropertyListTypeAndOrderedKeysKeepTheirOrder) {
    Dictionary root{
        {"int", -5},
        {"unsigned", 4000000000u},
        {"long", -6L},
        {"unsigned long", std::numeric_limits<unsigned long>::max()},
        {"float", 0.1f},
        {"reals", Array{0.1, -0.0, 5e-324, -std::numeric_limits<double>::infinity()}},
        {"texts", Array{std::string("x\r\ny\r"), std::string("\x01\t<&>\"'"), std::string("ключ 😀"), std::string()}},
        {"", true}};
    EXPECT_EQ(show(PropertyList::parse(PropertyList::serialize(root), "x")),
              "{: true, float: 0.1r, int: -5, long: -6, reals: [0.1r, -0r, 5e-324r, -infr], "
              "texts: [\"x\r\ny\r\", \"\x01\t<&>\"'\", \"ключ 😀\", \"\"], "
              "unsigned: 4000000000, unsigned long: 18446744073709551615u}");

    PropertyList::OrderedDictionary ordered{{{"b", std::string("1")}, {"a", false}}};
    EXPECT_EQ(PropertyList::serialize(ordered), head + "\t<dict>\n\t\t<key>b</key>\n\t\t<string>1</string>\n"
                                                       "\t\t<key>a</key>\n\t\t<false />\n\t</dict>\n</plist>\n");
}

TEST(PropertyListWrite, UnwritableValuesAreRejectedNamingTheirPlace) {
    EXPECT_EQ(writeError(Dictionary{{"Tools", Dictionary{{"Names", Array{std::string("a"), "b"}}}}}),
              "Property list: cannot write a value of type 'char const*' at 'Tools/Names[1]'");
    EXPECT_EQ(writeError(boost::any()), "Property list: cannot write an empty value at the root");
    EXPECT_EQ(writeError(Dictionary{{"a", std::string("x\xFFy")}}), "Property list: invalid UTF-8 in the string at 'a'");
    EXPECT_EQ(writeError(Array{std::string("x\0y", 3)}), "Property list: NUL character in the string at '[0]'");
    EXPECT_EQ(writeError(Dictionary{{"s", Dictionary{{"\xFE", 1}}}}),
              "Property list: invalid UTF-8 in a key of the dictionary at 's'");
    EXPECT_EQ(writeError(PropertyList::OrderedDictionary{{{"k", 1}, {"k", 2}}}),
              "Property list: duplicate key 'k' in the dictionary at the root");

    boost::any deep = Array();
    for (int i = 0; i < PropertyList::maxDepth; ++i) deep = Array{deep};
    std::string where;
    for (int i = 0; i < PropertyList::maxDepth; ++i) where += "[0]";
    EXPECT_EQ(writeError(deep), "Property list: nesting deeper than 512 levels at '" + where + "'");
}

TEST(PropertyListFile, PropertiesSetAndSavedAreReadBackFromTheFileThatMayBeMissingAtFirst) {
    KymTest::TempDir directory;
    PropertyList list(directory / ".dirinfo.plist");
    EXPECT_FALSE(list.hasRoot());
    EXPECT_TRUE(list.getProperty("Description").empty());
    list.setProperty("Description", std::string("Body shop"));
    list.setProperty("Cleanup Days Key", 2u);
    list.setProperty("Description", std::string("Paint shop"));
    list.saveList();

    PropertyList read(directory / ".dirinfo.plist");
    EXPECT_EQ(show(read.root()), "{Cleanup Days Key: 2, Description: \"Paint shop\"}");
    EXPECT_EQ(show(read.getProperty("Description")), "\"Paint shop\"");
}

TEST(PropertyListFile, OrderedRootIsUpdatedInPlace) {
    PropertyList list("unused.plist", PropertyList::OrderedDictionary{{{"z", 1}, {"a", 2}}});
    list.setProperty("z", 3);
    list.setProperty("m", 4);
    const auto& entries = boost::any_cast<const PropertyList::OrderedDictionary&>(list.root()).entries;
    ASSERT_EQ(entries.size(), 3u);
    EXPECT_EQ(entries[0].first + entries[1].first + entries[2].first, "zam");
    EXPECT_EQ(boost::any_cast<int>(list.getProperty("z")), 3);
}

TEST(PropertyListFile, DamagedFileOrARootThatIsNoDictionaryIsNamedInTheMessage) {
    KymTest::TempDir directory;
    KymTest::writeFile(directory / "list.plist", document("<array/>"));
    KymTest::writeFile(directory / "damaged.plist", document("<dict>\n<key>a</key><true/>\n<key>a</key><false/>\n</dict>"));
    PropertyList list(directory / "list.plist");
    std::string expected = "Property list " + (directory / "list.plist").string() + ": the root is not a dictionary";
    EXPECT_EQ(errorOf([&] { list.getProperty("a"); }), expected);
    EXPECT_EQ(errorOf([&] { list.setProperty("a", true); }), expected);
    EXPECT_EQ(errorOf([&] { PropertyList damaged(directory / "damaged.plist"); }),
              "Property list " + (directory / "damaged.plist").string() + ", line 6: duplicate key 'a'");
}

TEST(PropertyListFile, SaveIntoReadOnlyDirectoryFailsAndKeepsTheOldFile) {
    KymTest::TempDir directory;
    auto file = directory / "locked" / "list.plist";
    std::string old = document("<string>old</string>");
    KymTest::writeFile(file, old);
    boost::filesystem::permissions(directory / "locked", boost::filesystem::perms(0755));
    EXPECT_EQ(0, KymTest::runAsNobody([&] {
        const std::string error = errorOf([&] { PropertyList(file, std::string("new")).saveList(); });
        return error == "Cannot write settings file " + file.string() + ": Permission denied" ? 0 : 1;
    }));
    EXPECT_EQ(KymTest::readFile(file), old);
    EXPECT_EQ(boost::filesystem::directory_iterator(directory / "locked")->path(), file);
}

TEST(PropertyListFile, SaveFailuresNameTheFileAndCreateNothing) {
    KymTest::TempDir directory;
    EXPECT_EQ(errorOf([&] { PropertyList(directory / "list.plist", Dictionary{{"Name", "c string"}}).saveList(); }),
              "Property list " + (directory / "list.plist").string() +
                  ": cannot write a value of type 'char const*' at 'Name'");
    EXPECT_FALSE(boost::filesystem::exists(directory / "list.plist"));
    EXPECT_EQ(errorOf([] { PropertyList().saveList(); }), "Property list: no file to save to");
}

} // namespace
