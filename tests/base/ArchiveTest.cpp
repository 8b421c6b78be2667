#include "base/Platform.h"
#include "base/PropertyList.h"
#include "support/TestSupport.h"

#include <boost/algorithm/string/replace.hpp>
#include <gtest/gtest.h>

#include <climits>
#include <functional>
#include <tuple>

// The archive fuzzer's records (FuzzLeaf holds every value kind, FuzzNode a record and lists of both)
// with the archive classes.
#include "fuzz/fuzz_archive.cpp"

using namespace std::string_literals;
using Base::PropertyList;
using KymTest::TempDir;
using KymTest::thrownMessage;

namespace {

// A record type that never gets a coder.
struct Unregistered {
    void encode(Base::Archiver&) {}
    void decode(Base::Unarchiver&) {}
};

const std::string source = "/x/baseSettings.dat";

// Between them every value kind and its edges: markup, empty texts and lists, both integer limits.
std::vector<FuzzNode> sampleNodes() {
    return {
        {"<a href=\"x\">&amp; 'q'</a>\n\tünï", {"t", true, INT_MAX, {"Annie", "", "A & B"}},
         {{"", false, INT_MIN, {}}, {"x", true, 0, {""}}}, {{"child", {}, {{"inner", true, 1, {}}}, {}}}},
        {"", {}, {}, {}},
    };
}

PropertyList::OrderedDictionary dict(std::vector<std::pair<std::string, boost::any>> entries) {
    return PropertyList::OrderedDictionary{std::move(entries)};
}

PropertyList::OrderedDictionary leafEntry(const std::string& text) {
    return dict({{"$type", "FuzzLeaf"s}, {"Text", text}});
}

} // namespace

TEST(Archive, EveryValueKindAndNestedRecordComesBackFromTheFileWholeAndInOrder) {
    TempDir dir;
    const auto file = dir / "nodes.dat";
    const std::vector<FuzzNode> nodes = sampleNodes();
    {
        Base::Archiver archiver(file);
        archiver.encodeObject("Nodes", nodes);
        archiver.encodeObject("Single", nodes[0].leaves[0]);
        archiver.finishEncoding();
    }
    Base::Unarchiver unarchiver(file);
    // A list of records is appended to; every other member is replaced, also by empty values.
    std::vector<FuzzNode> readNodes{{"Old", {}, {}, {}}};
    FuzzLeaf readSingle{"preset", true, 1, {"preset"}};
    EXPECT_EQ(unarchiver.decodeObject("Nodes", &readNodes), &readNodes);
    EXPECT_EQ(unarchiver.decodeObject("Single", &readSingle), &readSingle);
    EXPECT_EQ(readNodes, (std::vector<FuzzNode>{{"Old", {}, {}, {}}, nodes[0], nodes[1]}));
    EXPECT_EQ(readSingle, nodes[0].leaves[0]);
}

TEST(Archive, WritingRefusesReservedKeysAndTypesWithoutCoderAndMessagesNameTheFileAsTheConventionsWriteIt) {
    TempDir dir;
    const auto file = dir / "baseSettings.dat";
    KymTest::writeFile(file, "<plist version=\"1.0\"><array/></plist>");
    Base::Platform::setCurrent(Base::Platform::Windows);
    Base::Archiver archiver("/x/w.dat");
    const std::string reserved = thrownMessage([&] { archiver.encodeObject("$items", FuzzLeaf{}); });
    const std::string noCoder = thrownMessage([&] { archiver.encodeObject("Thing", Unregistered{}); });
    const std::string reading = thrownMessage([&] { Base::Unarchiver unarchiver(file); });
    Base::Platform::resetCurrent();
    EXPECT_EQ(reserved, "Archive \\x\\w.dat: key '$items' is reserved for the archive itself");
    EXPECT_EQ(noCoder, "Archive \\x\\w.dat: no coder is registered for the type '(anonymous namespace)::Unregistered'");
    EXPECT_EQ(archiver.text(), PropertyList::serialize(PropertyList::OrderedDictionary{}));
    EXPECT_EQ(reading, "Archive " + boost::algorithm::replace_all_copy(file.string(), "/", "\\") +
                           ": the root holds an array, expected a dictionary");
}

TEST(Archive, ValuesOfAnotherKindAreReportedWithFileKeyAndBothKindsAndLeaveTheTargetsAlone) {
    auto unarchiver = Base::Unarchiver::fromText(PropertyList::serialize(dict({
        {"Name Key", std::int64_t{12}},
        {"Mixed Lines", PropertyList::Array{"one"s, std::int64_t{2}}},
        {"Too Large", std::int64_t{INT_MAX} + 1},
        {"Untyped", dict({{"Text", "Rex"s}})},
        {"Unknown", dict({{"$type", "Nonsense"s}})},
        {"Leaf", leafEntry("Rex")},
        {"Without Items", dict({{"$type", "FuzzLeafList"s}})},
        {"Items Not Array", dict({{"$type", "FuzzLeafList"s}, {"$items", dict({})}})},
        {"Node As Item", dict({{"$type", "FuzzLeafList"s},
                               {"$items", PropertyList::Array{leafEntry("Rex"), dict({{"$type", "FuzzNode"s}})}}})},
    })), source);
    std::string text = "kept";
    std::vector<std::string> lines{"kept"};
    int number = 3;
    FuzzLeaf leaf;
    FuzzNode node;
    std::vector<FuzzLeaf> leaves;
    auto& u = *unarchiver;
    const std::vector<std::pair<std::function<void()>, std::string>> cases = {
        {[&] { u.decode("Name Key", text); }, "key 'Name Key' holds an integer, expected a string"},
        {[&] { u.decode("Mixed Lines", lines); }, "item 2 of key 'Mixed Lines' holds an integer, expected a string"},
        {[&] { u.decode("Too Large", number); }, "key 'Too Large' holds 2147483648, beyond the range of an integer"},
        {[&] { u.decodeObject("Untyped", &leaf); }, "key 'Untyped' holds a dictionary without '$type'"},
        {[&] { u.decodeObject("Unknown", &leaf); }, "key 'Unknown' holds an object of the unknown type 'Nonsense'"},
        {[&] { u.decodeObject("Leaf", &node); }, "key 'Leaf' holds an object of type 'FuzzLeaf', expected type 'FuzzNode'"},
        {[&] { u.decodeObject("Without Items", &leaves); }, "key 'Without Items' is not a collection: it has no '$items'"},
        {[&] { u.decodeObject("Items Not Array", &leaves); },
         "key '$items' of 'Items Not Array' holds a dictionary, expected an array"},
        {[&] { u.decodeObject("Node As Item", &leaves); },
         "key 'Node As Item' item 2 holds an object of type 'FuzzNode', expected type 'FuzzLeaf'"},
    };
    for (const auto& [call, message] : cases) EXPECT_EQ(thrownMessage(call), "Archive /x/baseSettings.dat: " + message);
    EXPECT_EQ(u.decodeObject<FuzzNode>("Absent", nullptr), nullptr);
    EXPECT_EQ(text + lines.at(0) + std::to_string(number), "keptkept3");
    EXPECT_EQ(std::tie(leaf, node), std::make_tuple(FuzzLeaf{}, FuzzNode{}));

    // The failures inside lists left no container open: reading goes on at the top.
    EXPECT_EQ(thrownMessage([&] { u.currentContainer(); }), "Archive /x/baseSettings.dat: no container is open");
    u.decodeObject("Leaf", &leaf);
    EXPECT_EQ(leaf, (FuzzLeaf{"Rex", false, 0, {}}));
}

TEST(Archive, ErrorsDeepInsideListsNameEveryEnclosingKeyAndItem) {
    // The second node's only leaf gets a text where its number belongs.
    auto nodes = sampleNodes();
    nodes[1].leaves = {{"broken", false, 77, {}}};
    Base::Archiver archiver(source);
    archiver.encodeObject("Nodes", nodes);
    const std::string text = boost::algorithm::replace_all_copy(archiver.text(), "<integer>77</integer>",
                                                                "<string>seventy-seven</string>");
    std::vector<FuzzNode> read;
    EXPECT_EQ(thrownMessage([&] { Base::Unarchiver::fromText(text, source)->decodeObject("Nodes", &read); }),
              "Archive /x/baseSettings.dat: key 'Number' of 'Leaves' item 1 of 'Nodes' item 2 holds a string, "
              "expected an integer");
}
