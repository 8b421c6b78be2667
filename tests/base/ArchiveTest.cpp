#include "base/Archiver.h"
#include "base/BaseException.h"
#include "base/Coder.h"
#include "base/Platform.h"
#include "base/PropertyList.h"
#include "base/Unarchiver.h"
#include "support/TestSupport.h"

#include <boost/algorithm/string/replace.hpp>
#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <functional>
#include <sys/stat.h>
#include <tuple>

using namespace std::string_literals;
using Base::PropertyList;
using KymTest::TempDir;

namespace {

struct Pet {
    std::string name;
    int legs = 0;

    bool operator==(const Pet& other) const { return name == other.name && legs == other.legs; }
    void encode(Base::Archiver& archiver) {
        archiver.encode("Pet Name", name);
        archiver.encode("Legs", legs);
    }
    void decode(Base::Unarchiver& unarchiver) {
        unarchiver.decode("Pet Name", name);
        unarchiver.decode("Legs", legs);
    }
};

struct Owner {
    std::string name;
    bool active = false;
    int age = 0;
    std::vector<std::string> nicknames;
    std::vector<Pet> pets;

    bool operator==(const Owner& o) const {
        return std::tie(name, active, age, nicknames, pets) == std::tie(o.name, o.active, o.age, o.nicknames, o.pets);
    }
    void encode(Base::Archiver& archiver) {
        archiver.encode("Owner Name", name);
        archiver.encode("Active", active);
        archiver.encode("Age", age);
        archiver.encode("Nicknames", nicknames);
        archiver.encodeObject("Pets", pets);
    }
    void decode(Base::Unarchiver& unarchiver) {
        unarchiver.decode("Owner Name", name);
        unarchiver.decode("Active", active);
        unarchiver.decode("Age", age);
        unarchiver.decode("Nicknames", nicknames);
        std::vector<Pet>* decoded = unarchiver.decodeObject("Pets", &pets);
        if (decoded != &pets) pets = *decoded;
    }
};

// Record types without members: Empty<0> never gets a coder, the others only in the registry test.
template <int>
struct Empty {
    void encode(Base::Archiver&) {}
    void decode(Base::Unarchiver&) {}
};
using Unregistered = Empty<0>;
using RegistryProbe = Empty<1>;
using OtherRegistryProbe = Empty<2>;

Base::Coder<Pet> petCoder("TestPet");
Base::CollectionCoder<std::vector<Pet>> petListCoder("TestPetList");
Base::Coder<Owner> ownerCoder("TestOwner");
Base::CollectionCoder<std::vector<Owner>> ownerListCoder("TestOwnerList");

const std::string source = "/x/baseSettings.dat";

// Between them every value kind and its edges: markup, empty texts and lists, both integer limits.
std::vector<Owner> sampleOwners() {
    return {
        {"<a href=\"x\">&amp; 'q'</a>\n\tünï", true, 41, {"Annie", "", "A & B"}, {{"Rex", 4}, {"Tweety", 2}}},
        {"", false, INT_MIN, {}, {}},
        {"Cid", true, INT_MAX, {""}, {{"Spider", 8}}},
    };
}

PropertyList::OrderedDictionary dict(std::vector<std::pair<std::string, boost::any>> entries) {
    return PropertyList::OrderedDictionary{std::move(entries)};
}

PropertyList::OrderedDictionary petEntry(const std::string& name, std::int64_t legs) {
    return dict({{"$type", "TestPet"s}, {"Pet Name", name}, {"Legs", legs}});
}

std::unique_ptr<Base::Unarchiver> unarchiverOf(const boost::any& root) {
    return Base::Unarchiver::fromText(PropertyList::serialize(root), source);
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

} // namespace

TEST(Archive, EveryValueKindAndNestedRecordComesBackFromTheFileWholeAndInOrder) {
    TempDir dir;
    const auto file = dir / "owners.dat";
    const std::vector<Owner> owners = sampleOwners();
    {
        Base::Archiver archiver(file);
        archiver.encodeObject("Owners", owners);
        archiver.encodeObject("Single", owners[1]);
        archiver.encode("Literal", "from a literal");
        archiver.finishEncoding();
    }

    Base::Unarchiver unarchiver(file);
    // A list of records is appended to; every other member is replaced, also by empty values.
    std::vector<Owner> readOwners{{"Old", false, 3, {}, {}}};
    Owner readSingle{"preset", true, 1, {"preset"}, {}};
    std::string literal;
    EXPECT_EQ(unarchiver.decodeObject("Owners", &readOwners), &readOwners);
    EXPECT_EQ(unarchiver.decodeObject("Single", &readSingle), &readSingle);
    unarchiver.decode("Literal", literal);
    std::vector<Owner> expected{{"Old", false, 3, {}, {}}};
    expected.insert(expected.end(), owners.begin(), owners.end());
    EXPECT_EQ(readOwners, expected);
    EXPECT_EQ(readSingle, owners[1]);
    EXPECT_EQ(literal, "from a literal");
}

TEST(Archive, FileHoldsKeysInFirstWriteOrderWithLastValuesAndTypedObjectsWithTheirItems) {
    TempDir dir;
    const auto file = dir / "order.dat";
    Base::Archiver archiver(file);
    archiver.encode("Zeta", "first value"s);
    archiver.encode("Alpha", 1);
    archiver.encodeObject("Owner", Owner{"Ann", true, 40, {"A"}, {{"Rex", 4}, {"Nemo", 0}}});
    archiver.encode("Zeta", "last value"s);
    archiver.finishEncoding();

    const auto expected = dict({
        {"Zeta", "last value"s},
        {"Alpha", std::int64_t{1}},
        {"Owner", dict({{"$type", "TestOwner"s},
                        {"Owner Name", "Ann"s},
                        {"Active", true},
                        {"Age", std::int64_t{40}},
                        {"Nicknames", PropertyList::Array{"A"s}},
                        {"Pets", dict({{"$type", "TestPetList"s},
                                       {"$items", PropertyList::Array{petEntry("Rex", 4), petEntry("Nemo", 0)}}})}})},
    });
    EXPECT_EQ(KymTest::readFile(file), PropertyList::serialize(expected));
}

TEST(Archive, WritingRefusesReservedKeysAndTypesWithoutCoder) {
    Base::Archiver archiver("/x/w.dat");
    EXPECT_EQ(errorOf([&] { archiver.encode("$type", "x"); }),
              "Archive /x/w.dat: key '$type' is reserved for the archive itself");
    EXPECT_EQ(errorOf([&] { archiver.encodeObject("$items", Pet{}); }),
              "Archive /x/w.dat: key '$items' is reserved for the archive itself");
    EXPECT_EQ(errorOf([&] { archiver.encodeObject("Thing", Unregistered{}); }),
              "Archive /x/w.dat: no coder is registered for the type '(anonymous namespace)::Empty<0>'");
    EXPECT_EQ(archiver.text(), PropertyList::serialize(PropertyList::OrderedDictionary{}));
}

TEST(Archive, ValuesOfAnotherKindAreReportedWithFileKeyAndBothKindsAndLeaveTargetsAsAbsentKeysDo) {
    auto unarchiver = unarchiverOf(dict({
        {"Name Key", std::int64_t{12}},
        {"Flag", "yes"s},
        {"Mixed Lines", PropertyList::Array{"one"s, std::int64_t{2}}},
        {"Too Large", std::int64_t{INT_MAX} + 1},
        {"Huge", std::uint64_t{18446744073709551615ull}},
        {"Untyped", dict({{"Pet Name", "Rex"s}})},
        {"Unknown", dict({{"$type", "Nonsense"s}})},
        {"Pet", petEntry("Rex", 4)},
        {"Without Items", dict({{"$type", "TestPetList"s}})},
        {"Items Not Array", dict({{"$type", "TestPetList"s}, {"$items", dict({})}})},
        {"Item Not Dict", dict({{"$type", "TestPetList"s}, {"$items", PropertyList::Array{"Rex"s}}})},
        {"Owner As Item", dict({{"$type", "TestPetList"s},
                                {"$items", PropertyList::Array{petEntry("Rex", 4), dict({{"$type", "TestOwner"s}})}}})},
    }));
    std::string text = "kept";
    bool flag = false;
    int number = 3;
    std::vector<std::string> lines{"kept"};
    Pet pet;
    Owner owner;
    std::vector<Pet> pets;
    auto& u = *unarchiver;
    const std::vector<std::pair<std::function<void()>, std::string>> cases = {
        {[&] { u.decode("Name Key", text); }, "key 'Name Key' holds an integer, expected a string"},
        {[&] { u.decode("Flag", lines); }, "key 'Flag' holds a string, expected an array of strings"},
        {[&] { u.decode("Mixed Lines", lines); }, "item 2 of key 'Mixed Lines' holds an integer, expected a string"},
        {[&] { u.decode("Too Large", number); }, "key 'Too Large' holds 2147483648, beyond the range of an integer"},
        {[&] { u.decode("Huge", number); }, "key 'Huge' holds 18446744073709551615, beyond the range of an integer"},
        {[&] { u.decodeObject("Flag", &pet); }, "key 'Flag' holds a string, expected a dictionary"},
        {[&] { u.decodeObject("Untyped", &pet); }, "key 'Untyped' holds a dictionary without '$type'"},
        {[&] { u.decodeObject("Unknown", &pet); }, "key 'Unknown' holds an object of the unknown type 'Nonsense'"},
        {[&] { u.decodeObject("Pet", &owner); }, "key 'Pet' holds an object of type 'TestPet', expected type 'TestOwner'"},
        {[&] { u.decodeObject<Unregistered>("Pet", nullptr); },
         "key 'Pet' cannot be read: no coder is registered for the type '(anonymous namespace)::Empty<0>'"},
        {[&] { u.decodeObject("Without Items", &pets); }, "key 'Without Items' is not a collection: it has no '$items'"},
        {[&] { u.decodeObject("Items Not Array", &pets); },
         "key '$items' of 'Items Not Array' holds a dictionary, expected an array"},
        {[&] { u.decodeObject("Item Not Dict", &pets); }, "key 'Item Not Dict' item 1 holds a string, expected a dictionary"},
        {[&] { u.decodeObject("Owner As Item", &pets); },
         "key 'Owner As Item' item 2 holds an object of type 'TestOwner', expected type 'TestPet'"},
    };
    for (const auto& [call, message] : cases) {
        SCOPED_TRACE(message);
        EXPECT_EQ(errorOf(call), "Archive /x/baseSettings.dat: " + message);
    }
    u.decode("Absent", text);
    u.decode("Absent", number);
    u.decode("Absent", lines);
    EXPECT_EQ(u.decodeObject("Absent", &pet), &pet);
    EXPECT_EQ(u.decodeObject<Owner>("Absent", nullptr), nullptr);
    EXPECT_EQ(text + lines.at(0) + std::to_string(number), "keptkept3");
    EXPECT_FALSE(flag);
    EXPECT_EQ(pet, Pet{});
    EXPECT_EQ(owner, Owner{});

    // The failures inside lists left no container open: reading goes on at the top.
    EXPECT_EQ(errorOf([&] { u.currentContainer(); }), "Archive /x/baseSettings.dat: no container is open");
    u.decodeObject("Pet", &pet);
    EXPECT_EQ(pet, (Pet{"Rex", 4}));
}

TEST(Archive, ErrorsDeepInsideListsNameEveryEnclosingKeyAndItem) {
    // The second owner's only pet gets a text where its number of legs belongs.
    auto owners = sampleOwners();
    owners[1].pets = {{"Broken", 77}};
    Base::Archiver archiver(source);
    archiver.encodeObject("Owners", owners);
    std::string text = archiver.text();
    const std::string legs = "<integer>77</integer>";
    ASSERT_NE(text.find(legs), std::string::npos);
    text.replace(text.find(legs), legs.size(), "<string>seventy-seven</string>");

    std::vector<Owner> read;
    EXPECT_EQ(errorOf([&] { Base::Unarchiver::fromText(text, source)->decodeObject("Owners", &read); }),
              "Archive /x/baseSettings.dat: key 'Legs' of 'Pets' item 1 of 'Owners' item 2 holds a string, "
              "expected an integer");
}

TEST(Archive, DamagedOrMissingFileIsReportedAsTheReadersDo) {
    TempDir dir;
    const auto file = dir / "baseSettings.dat";
    Base::Archiver archiver(file);
    archiver.encodeObject("Owners", sampleOwners());
    const std::string damaged = archiver.text().substr(0, archiver.text().size() / 2);
    KymTest::writeFile(file, damaged);
    const std::string expected = errorOf([&] { PropertyList::parse(damaged, file.string()); });
    EXPECT_NE(expected.find(file.string()), std::string::npos) << expected;
    EXPECT_EQ(errorOf([&] { Base::Unarchiver unarchiver(file); }), expected);
    EXPECT_EQ(errorOf([&] { Base::Unarchiver unarchiver(dir / "missing.dat"); }),
              "Cannot read file " + (dir / "missing.dat").string() + ": No such file or directory");
}

TEST(Archive, MessagesNameTheFileAsTheConventionsWritePaths) {
    TempDir dir;
    const auto file = dir / "baseSettings.dat";
    KymTest::writeFile(file, "<plist version=\"1.0\"><array/></plist>");
    Base::Platform::setCurrent(Base::Platform::Windows);
    Base::Archiver archiver("/x/w.dat");
    const std::string writing = errorOf([&] { archiver.encode("$type", "x"); });
    const std::string reading = errorOf([&] { Base::Unarchiver unarchiver(file); });
    Base::Platform::resetCurrent();
    EXPECT_EQ(writing, "Archive \\x\\w.dat: key '$type' is reserved for the archive itself");
    EXPECT_EQ(reading, "Archive " + boost::algorithm::replace_all_copy(file.string(), "/", "\\") +
                           ": the root holds an array, expected a dictionary");
}

TEST(Archive, FailedWriteLeavesTheOldFileIntact) {
    TempDir dir;
    const auto locked = dir / "locked";
    const auto file = locked / "baseSettings.dat";
    KymTest::writeFile(file, "old content");
    ::chmod(locked.c_str(), 0555);
    ::chmod(file.c_str(), 0666);

    EXPECT_EQ(KymTest::runAsNobody([&] {
        Base::Archiver archiver(file);
        archiver.encode("Key", "new value"s);
        const std::string error = errorOf([&] { archiver.finishEncoding(); });
        return error == "Cannot write settings file " + file.string() + ": Permission denied" ? 0 : 1;
    }), 0);
    EXPECT_EQ(KymTest::readFile(file), "old content");
    EXPECT_EQ(boost::filesystem::directory_iterator(locked)->path(), file);
}

TEST(CoderRegistry, LaterRegistrationUnderANameReplacesTheEarlierUntilItGoes) {
    auto first = std::make_unique<Base::Coder<RegistryProbe>>("TestProbe");
    {
        Base::Coder<OtherRegistryProbe> second("TestProbe");
        EXPECT_EQ(Base::CoderBase::coderForName("TestProbe"), &second);
        EXPECT_EQ(Base::CoderBase::coderForType(Base::TypeInfo::of<RegistryProbe>()), first.get());
    }
    EXPECT_EQ(Base::CoderBase::coderForName("TestProbe"), nullptr);
    EXPECT_EQ(Base::CoderBase::coderForType(Base::TypeInfo::of<OtherRegistryProbe>()), nullptr);
    first.reset();
    EXPECT_EQ(Base::CoderBase::coderForType(Base::TypeInfo::of<RegistryProbe>()), nullptr);
    EXPECT_EQ(Base::CoderBase::coderForName("TestPet"), &petCoder);
}
