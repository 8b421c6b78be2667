#include "base/Archiver.h"
#include "base/BaseException.h"
#include "base/Coder.h"
#include "base/FileManager.h"
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

// The fuzz target's schema and entry point, so that its corpus replays here.
#include "fuzz/fuzz_archive.cpp"

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

    bool operator==(const Owner& other) const {
        return name == other.name && active == other.active && age == other.age && nicknames == other.nicknames &&
               pets == other.pets;
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

std::ostream& operator<<(std::ostream& out, const Pet& pet) { return out << pet.name << "/" << pet.legs; }

std::ostream& operator<<(std::ostream& out, const Owner& owner) {
    out << owner.name << "/" << owner.active << "/" << owner.age << "/[";
    for (const auto& nickname : owner.nicknames) out << nickname << ",";
    out << "]/[";
    for (const auto& pet : owner.pets) out << pet << ",";
    return out << "]";
}

// Counts its living instances, to see that objects the unarchiver creates are released.
struct Counted {
    static int living;
    std::string label;
    Counted() { ++living; }
    Counted(const Counted& other) : label(other.label) { ++living; }
    ~Counted() { --living; }
    void encode(Base::Archiver& archiver) { archiver.encode("Label", label); }
    void decode(Base::Unarchiver& unarchiver) { unarchiver.decode("Label", label); }
};
int Counted::living = 0;

struct Unregistered {
    void encode(Base::Archiver&) {}
    void decode(Base::Unarchiver&) {}
};

struct RegistryProbe {
    void encode(Base::Archiver&) {}
    void decode(Base::Unarchiver&) {}
};
struct OtherRegistryProbe {
    void encode(Base::Archiver&) {}
    void decode(Base::Unarchiver&) {}
};

Base::Coder<Pet> petCoder("TestPet");
Base::CollectionCoder<std::vector<Pet>> petListCoder("TestPetList");
Base::Coder<Owner> ownerCoder("TestOwner");
Base::CollectionCoder<std::vector<Owner>> ownerListCoder("TestOwnerList");
Base::Coder<Counted> countedCoder("TestCounted");

const std::string source = "/x/baseSettings.dat";

std::vector<Owner> sampleOwners() {
    return {
        {"Ann", true, 41, {"Annie", "A."}, {{"Rex", 4}, {"Tweety", 2}, {"Nemo", 0}}},
        {"Bob", false, -3, {}, {}},
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

TEST(Archive, EveryValueKindComesBackFromTheFile) {
    TempDir dir;
    const auto file = dir / "values.dat";
    {
        Base::Archiver archiver(file);
        archiver.encode("Markup", "<a href=\"x\">&amp; 'quoted'</a>\n\ttabbed ünïcödé"s);
        archiver.encode("Empty", ""s);
        archiver.encode("Literal", "from a literal");
        archiver.encode("Yes", true);
        archiver.encode("No", false);
        archiver.encode("Smallest", INT_MIN);
        archiver.encode("Largest", INT_MAX);
        archiver.encode("Minus One", -1);
        archiver.encode("Lines", std::vector<std::string>{"one", "", "three & four"});
        archiver.encode("No Lines", std::vector<std::string>{});
        archiver.finishEncoding();
    }

    Base::Unarchiver unarchiver(file);
    std::string markup, empty = "preset", literal;
    bool yes = false, no = true;
    int smallest = 0, largest = 0, minusOne = 0;
    std::vector<std::string> lines, noLines{"preset"};
    unarchiver.decode("Markup", markup);
    unarchiver.decode("Empty", empty);
    unarchiver.decode("Literal", literal);
    unarchiver.decode("Yes", yes);
    unarchiver.decode("No", no);
    unarchiver.decode("Smallest", smallest);
    unarchiver.decode("Largest", largest);
    unarchiver.decode("Minus One", minusOne);
    unarchiver.decode("Lines", lines);
    unarchiver.decode("No Lines", noLines);

    EXPECT_EQ(markup, "<a href=\"x\">&amp; 'quoted'</a>\n\ttabbed ünïcödé");
    EXPECT_EQ(empty, "");
    EXPECT_EQ(literal, "from a literal");
    EXPECT_TRUE(yes);
    EXPECT_FALSE(no);
    EXPECT_EQ(smallest, INT_MIN);
    EXPECT_EQ(largest, INT_MAX);
    EXPECT_EQ(minusOne, -1);
    EXPECT_EQ(lines, (std::vector<std::string>{"one", "", "three & four"}));
    EXPECT_EQ(noLines, std::vector<std::string>{});
}

TEST(Archive, NestedRecordsAndListsComeBackWholeAndInOrder) {
    TempDir dir;
    const auto file = dir / "owners.dat";
    const std::vector<Owner> owners = sampleOwners();
    const Owner single = owners.front();
    {
        Base::Archiver archiver(file);
        archiver.encodeObject("Owners", owners);
        archiver.encodeObject("Single", single);
        archiver.encodeObject("Nobody", std::vector<Owner>{});
        archiver.finishEncoding();
    }

    Base::Unarchiver unarchiver(file);
    std::vector<Owner> readOwners, readNobody;
    Owner readSingle;
    EXPECT_EQ(unarchiver.decodeObject("Owners", &readOwners), &readOwners);
    EXPECT_EQ(unarchiver.decodeObject("Single", &readSingle), &readSingle);
    EXPECT_EQ(unarchiver.decodeObject("Nobody", &readNobody), &readNobody);
    EXPECT_EQ(readOwners, owners);
    EXPECT_EQ(readSingle, single);
    EXPECT_EQ(readNobody, std::vector<Owner>{});
}

TEST(Archive, ReadingAListAppendsToTheVectorGiven) {
    Base::Archiver archiver("/x/pets.dat");
    archiver.encodeObject("Pets", std::vector<Pet>{{"Rex", 4}, {"Nemo", 0}});
    auto unarchiver = Base::Unarchiver::fromText(archiver.text(), "/x/pets.dat");

    std::vector<Pet> pets{{"Old", 3}};
    unarchiver->decodeObject("Pets", &pets);

    EXPECT_EQ(pets, (std::vector<Pet>{{"Old", 3}, {"Rex", 4}, {"Nemo", 0}}));
}

TEST(Archive, AbsentKeysLeaveTargetsUnchanged) {
    auto unarchiver = unarchiverOf(dict({{"Present", "here"s}}));
    std::string text = "kept";
    bool flag = true;
    int number = 7;
    std::vector<std::string> lines{"kept"};
    Owner owner{"Kept", true, 5, {"k"}, {{"Rex", 4}}};
    const Owner before = owner;

    unarchiver->decode("Absent", text);
    unarchiver->decode("Absent", flag);
    unarchiver->decode("Absent", number);
    unarchiver->decode("Absent", lines);

    EXPECT_EQ(text, "kept");
    EXPECT_TRUE(flag);
    EXPECT_EQ(number, 7);
    EXPECT_EQ(lines, std::vector<std::string>{"kept"});
    EXPECT_EQ(unarchiver->decodeObject("Absent", &owner), &owner);
    EXPECT_EQ(owner, before);
    EXPECT_EQ(unarchiver->decodeObject<Owner>("Absent", nullptr), nullptr);
    EXPECT_EQ(unarchiver->decodeObject("Absent", static_cast<void*>(nullptr)), nullptr);
    EXPECT_FALSE(unarchiver->containsKey("Absent"));
    EXPECT_TRUE(unarchiver->containsKey("Present"));
}

TEST(Archive, NullTargetGivesAnObjectThatTheUnarchiverOwnsAndReleases) {
    Counted counted;
    counted.label = "written";
    Base::Archiver archiver("/x/counted.dat");
    archiver.encodeObject("Typed", counted);
    archiver.encodeObject("Untyped", counted);
    ASSERT_EQ(Counted::living, 1);

    auto unarchiver = Base::Unarchiver::fromText(archiver.text(), "/x/counted.dat");
    Counted* typed = unarchiver->decodeObject<Counted>("Typed", nullptr);
    auto* untyped = static_cast<Counted*>(unarchiver->decodeObject("Untyped", nullptr));

    ASSERT_NE(typed, nullptr);
    ASSERT_NE(untyped, nullptr);
    EXPECT_NE(typed, untyped);
    EXPECT_EQ(typed->label, "written");
    EXPECT_EQ(untyped->label, "written");
    EXPECT_EQ(Counted::living, 3);
    unarchiver.reset();
    EXPECT_EQ(Counted::living, 1);
}

TEST(Archive, FileHoldsKeysInWriteOrderWithTypedObjectsAndTheirItems) {
    TempDir dir;
    const auto file = dir / "order.dat";
    Owner owner{"Ann", true, 40, {"A"}, {{"Rex", 4}, {"Nemo", 0}}};
    Base::Archiver archiver(file);
    archiver.encode("Zeta", "last letter"s);
    archiver.encode("Alpha", 1);
    archiver.encodeObject("Owner", owner);
    archiver.encode("Middle", false);
    archiver.finishEncoding();

    const auto expected = dict({
        {"Zeta", "last letter"s},
        {"Alpha", std::int64_t{1}},
        {"Owner", dict({{"$type", "TestOwner"s},
                        {"Owner Name", "Ann"s},
                        {"Active", true},
                        {"Age", std::int64_t{40}},
                        {"Nicknames", PropertyList::Array{"A"s}},
                        {"Pets", dict({{"$type", "TestPetList"s},
                                       {"$items", PropertyList::Array{petEntry("Rex", 4), petEntry("Nemo", 0)}}})}})},
        {"Middle", false},
    });
    const std::string text = KymTest::readFile(file);
    EXPECT_EQ(text, PropertyList::serialize(expected));
    EXPECT_EQ(text, archiver.text());
    EXPECT_LT(text.find("<key>Zeta</key>"), text.find("<key>Alpha</key>"));
    EXPECT_LT(text.find("<key>Alpha</key>"), text.find("<key>Owner</key>"));
    EXPECT_LT(text.find("<key>Owner</key>"), text.find("<key>Middle</key>"));
    EXPECT_LT(text.find("<string>Rex</string>"), text.find("<string>Nemo</string>"));
    EXPECT_EQ(text.find("NOTUSED"), std::string::npos);
}

TEST(Archive, KeyWrittenTwiceKeepsItsPlaceAndTakesTheLastValue) {
    Base::Archiver archiver("/x/twice.dat");
    archiver.encode("First", "old"s);
    archiver.encode("Second", 2);
    archiver.encode("First", "new"s);

    EXPECT_EQ(archiver.text(), PropertyList::serialize(dict({{"First", "new"s}, {"Second", std::int64_t{2}}})));
}

TEST(Archive, WritingRefusesReservedKeysAndTypesWithoutCoder) {
    Base::Archiver archiver("/x/w.dat");
    EXPECT_EQ(errorOf([&] { archiver.encode("$type", "x"); }),
              "Archive /x/w.dat: key '$type' is reserved for the archive itself");
    EXPECT_EQ(errorOf([&] { archiver.encodeObject("$items", Pet{}); }),
              "Archive /x/w.dat: key '$items' is reserved for the archive itself");
    EXPECT_EQ(errorOf([&] { archiver.getCoder(Base::TypeInfo::of<Unregistered>()); }),
              "Archive /x/w.dat: no coder is registered for the type '(anonymous namespace)::Unregistered'");
    EXPECT_EQ(errorOf([&] { archiver.encodeObject("Thing", Unregistered{}); }),
              "Archive /x/w.dat: no coder is registered for the type '(anonymous namespace)::Unregistered'");
    EXPECT_EQ(archiver.text(), PropertyList::serialize(PropertyList::OrderedDictionary{}));
}

TEST(Archive, WrongValueTypesAreReportedWithFileAndKey) {
    auto unarchiver = unarchiverOf(dict({
        {"Name Key", std::int64_t{12}},
        {"Flag", "yes"s},
        {"Number", true},
        {"Real", 1.5},
        {"Date", PropertyList::Date{"2024-01-02T03:04:05Z"}},
        {"Data", PropertyList::Data{{1, 2}}},
        {"Lines", "one line"s},
        {"Mixed Lines", PropertyList::Array{"one"s, std::int64_t{2}}},
        {"Nested", dict({{"$type", "TestPet"s}})},
        {"Too Large", std::int64_t{INT_MAX} + 1},
        {"Too Small", std::int64_t{INT_MIN} - 1},
        {"Huge", std::uint64_t{18446744073709551615ull}},
    }));
    std::string text = "kept";
    bool flag = false;
    int number = 3;
    std::vector<std::string> lines{"kept"};

    const std::string prefix = "Archive /x/baseSettings.dat: key ";
    EXPECT_EQ(errorOf([&] { unarchiver->decode("Name Key", text); }),
              prefix + "'Name Key' holds an integer, expected a string");
    EXPECT_EQ(errorOf([&] { unarchiver->decode("Flag", flag); }), prefix + "'Flag' holds a string, expected a boolean");
    EXPECT_EQ(errorOf([&] { unarchiver->decode("Number", number); }),
              prefix + "'Number' holds a boolean, expected an integer");
    EXPECT_EQ(errorOf([&] { unarchiver->decode("Real", text); }),
              prefix + "'Real' holds a real number, expected a string");
    EXPECT_EQ(errorOf([&] { unarchiver->decode("Date", text); }), prefix + "'Date' holds a date, expected a string");
    EXPECT_EQ(errorOf([&] { unarchiver->decode("Data", text); }), prefix + "'Data' holds data, expected a string");
    EXPECT_EQ(errorOf([&] { unarchiver->decode("Nested", number); }),
              prefix + "'Nested' holds a dictionary, expected an integer");
    EXPECT_EQ(errorOf([&] { unarchiver->decode("Mixed Lines", number); }),
              prefix + "'Mixed Lines' holds an array, expected an integer");
    EXPECT_EQ(errorOf([&] { unarchiver->decode("Lines", lines); }),
              prefix + "'Lines' holds a string, expected an array of strings");
    EXPECT_EQ(errorOf([&] { unarchiver->decode("Mixed Lines", lines); }),
              "Archive /x/baseSettings.dat: item 2 of key 'Mixed Lines' holds an integer, expected a string");
    EXPECT_EQ(errorOf([&] { unarchiver->decode("Too Large", number); }),
              prefix + "'Too Large' holds 2147483648, beyond the range of an integer");
    EXPECT_EQ(errorOf([&] { unarchiver->decode("Too Small", number); }),
              prefix + "'Too Small' holds -2147483649, beyond the range of an integer");
    EXPECT_EQ(errorOf([&] { unarchiver->decode("Huge", number); }),
              prefix + "'Huge' holds 18446744073709551615, beyond the range of an integer");

    EXPECT_EQ(text, "kept");
    EXPECT_FALSE(flag);
    EXPECT_EQ(number, 3);
    EXPECT_EQ(lines, std::vector<std::string>{"kept"});
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

    auto unarchiver = Base::Unarchiver::fromText(text, source);
    std::vector<Owner> read;
    EXPECT_EQ(errorOf([&] { unarchiver->decodeObject("Owners", &read); }),
              "Archive /x/baseSettings.dat: key 'Legs' of 'Pets' item 1 of 'Owners' item 2 holds a string, "
              "expected an integer");
}

TEST(Archive, MalformedObjectsAndCollectionsAreReportedWithFileAndKey) {
    auto unarchiver = unarchiverOf(dict({
        {"Text", "not an object"s},
        {"Untyped", dict({{"Pet Name", "Rex"s}})},
        {"Numbered Type", dict({{"$type", std::int64_t{5}}})},
        {"Unknown", dict({{"$type", "Nonsense"s}})},
        {"Pet", petEntry("Rex", 4)},
        {"Without Items", dict({{"$type", "TestPetList"s}})},
        {"Items Not Array", dict({{"$type", "TestPetList"s}, {"$items", dict({})}})},
        {"Item Not Dict", dict({{"$type", "TestPetList"s}, {"$items", PropertyList::Array{"Rex"s}}})},
        {"Owner As Item", dict({{"$type", "TestPetList"s},
                                {"$items", PropertyList::Array{petEntry("Rex", 4), dict({{"$type", "TestOwner"s}})}}})},
    }));
    Pet pet;
    Owner owner;
    std::vector<Pet> pets;
    const std::string prefix = "Archive /x/baseSettings.dat: key ";

    EXPECT_EQ(errorOf([&] { unarchiver->decodeObject("Text", &pet); }),
              prefix + "'Text' holds a string, expected a dictionary");
    EXPECT_EQ(errorOf([&] { unarchiver->decodeObject("Untyped", &pet); }),
              prefix + "'Untyped' holds a dictionary without '$type'");
    EXPECT_EQ(errorOf([&] { unarchiver->decodeObject("Numbered Type", &pet); }),
              prefix + "'$type' of 'Numbered Type' holds an integer, expected a string");
    EXPECT_EQ(errorOf([&] { unarchiver->decodeObject("Unknown", &pet); }),
              prefix + "'Unknown' holds an object of the unknown type 'Nonsense'");
    EXPECT_EQ(errorOf([&] { unarchiver->decodeObject("Unknown", static_cast<void*>(nullptr)); }),
              prefix + "'Unknown' holds an object of the unknown type 'Nonsense'");
    EXPECT_EQ(errorOf([&] { unarchiver->decodeObject("Pet", &owner); }),
              prefix + "'Pet' holds an object of type 'TestPet', expected type 'TestOwner'");
    EXPECT_EQ(errorOf([&] { unarchiver->decodeObject<Unregistered>("Pet", nullptr); }),
              prefix + "'Pet' cannot be read: no coder is registered for the type '(anonymous namespace)::Unregistered'");
    EXPECT_EQ(errorOf([&] { unarchiver->decodeObject("Without Items", &pets); }),
              prefix + "'Without Items' is not a collection: it has no '$items'");
    EXPECT_EQ(errorOf([&] { unarchiver->decodeObject("Items Not Array", &pets); }),
              prefix + "'$items' of 'Items Not Array' holds a dictionary, expected an array");
    EXPECT_EQ(errorOf([&] { unarchiver->decodeObject("Item Not Dict", &pets); }),
              prefix + "'Item Not Dict' item 1 holds a string, expected a dictionary");
    EXPECT_EQ(errorOf([&] { unarchiver->decodeObject("Owner As Item", &pets); }),
              prefix + "'Owner As Item' item 2 holds an object of type 'TestOwner', expected type 'TestPet'");
    EXPECT_EQ(pet, Pet{});
    EXPECT_EQ(owner, Owner{});
}

TEST(Archive, DecodingGoesOnAtTheTopAfterAFailureInsideAList) {
    auto unarchiver = unarchiverOf(dict({
        {"Pets", dict({{"$type", "TestPetList"s}, {"$items", PropertyList::Array{petEntry("Rex", 4), "bad"s}}})},
        {"Pet", petEntry("Nemo", 0)},
        {"After", "still readable"s},
    }));
    std::vector<Pet> pets;
    EXPECT_NE(errorOf([&] { unarchiver->decodeObject("Pets", &pets); }), "no exception");

    Pet pet;
    std::string after;
    unarchiver->decodeObject("Pet", &pet);
    unarchiver->decode("After", after);
    EXPECT_EQ(pet, (Pet{"Nemo", 0}));
    EXPECT_EQ(after, "still readable");
    EXPECT_EQ(errorOf([&] { unarchiver->currentContainer(); }), "Archive /x/baseSettings.dat: no container is open");
}

TEST(Archive, RootThatIsNotADictionaryIsRejected) {
    EXPECT_EQ(errorOf([] { unarchiverOf(PropertyList::Array{"a"s}); }),
              "Archive /x/baseSettings.dat: the root holds an array, expected a dictionary");
    EXPECT_EQ(errorOf([] { unarchiverOf("just text"s); }),
              "Archive /x/baseSettings.dat: the root holds a string, expected a dictionary");
}

TEST(Archive, DamagedOrMissingFileIsReportedAsThePropertyListReaderDoes) {
    TempDir dir;
    const auto file = dir / "baseSettings.dat";
    Base::Archiver archiver(file);
    archiver.encodeObject("Owners", sampleOwners());
    const std::string whole = archiver.text();
    const std::string damaged = whole.substr(0, whole.size() / 2);
    KymTest::writeFile(file, damaged);

    const std::string expected = errorOf([&] { PropertyList::parse(damaged, file.string()); });
    ASSERT_NE(expected, "no exception");
    EXPECT_NE(expected.find(file.string()), std::string::npos) << expected;
    EXPECT_EQ(errorOf([&] { Base::Unarchiver unarchiver(file); }), expected);

    const auto missing = dir / "missing.dat";
    const std::string missingExpected = errorOf([&] { Base::FileManager::readFile(missing); });
    ASSERT_NE(missingExpected, "no exception");
    EXPECT_EQ(errorOf([&] { Base::Unarchiver unarchiver(missing); }), missingExpected);
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

TEST(Archive, WriteIntoAMissingDirectoryFailsNamingTheFileAndCreatesNothing) {
    TempDir dir;
    const auto file = dir / "absent" / "baseSettings.dat";
    Base::Archiver archiver(file);
    archiver.encode("Key", "value"s);

    const std::string expected = errorOf([&] { Base::FileManager::writeFileAtomically(file, archiver.text()); });
    ASSERT_NE(expected, "no exception");
    EXPECT_NE(expected.find(file.string()), std::string::npos) << expected;
    EXPECT_EQ(errorOf([&] { archiver.finishEncoding(); }), expected);
    EXPECT_FALSE(boost::filesystem::exists(dir / "absent"));
}

TEST(Archive, FailedWriteLeavesTheOldFileIntact) {
    TempDir dir;
    const auto locked = dir / "locked";
    const auto file = locked / "baseSettings.dat";
    KymTest::writeFile(file, "old content");
    ::chmod(locked.c_str(), 0555);
    ::chmod(file.c_str(), 0666);

    const int result = KymTest::runAsNobody([&] {
        Base::Archiver archiver(file);
        archiver.encode("Key", "new value"s);
        try {
            archiver.finishEncoding();
        } catch (const Base::BaseException& error) {
            return std::string(error.what()).find(file.string()) == std::string::npos ? 2 : 0;
        }
        return 1;
    });

    EXPECT_EQ(result, 0);
    EXPECT_EQ(KymTest::readFile(file), "old content");
    std::vector<std::string> names;
    for (const auto& entry : boost::filesystem::directory_iterator(locked))
        names.push_back(entry.path().filename().string());
    EXPECT_EQ(names, std::vector<std::string>{"baseSettings.dat"});
}

TEST(CoderRegistry, LaterRegistrationUnderANameReplacesTheEarlierUntilItGoes) {
    auto first = std::make_unique<Base::Coder<RegistryProbe>>("TestProbe");
    EXPECT_EQ(Base::CoderBase::coderForName("TestProbe"), first.get());
    EXPECT_EQ(Base::CoderBase::coderForType(Base::TypeInfo::of<RegistryProbe>()), first.get());
    {
        Base::Coder<OtherRegistryProbe> second("TestProbe");
        EXPECT_EQ(Base::CoderBase::coderForName("TestProbe"), &second);
        EXPECT_EQ(Base::CoderBase::coderForType(Base::TypeInfo::of<OtherRegistryProbe>()), &second);
        EXPECT_EQ(second.name(), "TestProbe");
        EXPECT_TRUE(second.type() == Base::TypeInfo::of<OtherRegistryProbe>());
    }
    EXPECT_EQ(Base::CoderBase::coderForName("TestProbe"), nullptr);
    EXPECT_EQ(Base::CoderBase::coderForType(Base::TypeInfo::of<OtherRegistryProbe>()), nullptr);
    first.reset();
    EXPECT_EQ(Base::CoderBase::coderForType(Base::TypeInfo::of<RegistryProbe>()), nullptr);
    EXPECT_EQ(Base::CoderBase::coderForName("TestPet"), &petCoder);
}

TEST(Archive, FuzzCorpusDecodesWithoutCrashing) {
    const boost::filesystem::path corpus = KYM_SOURCE_DIR "/fuzz/corpus/archive";
    int inputs = 0;
    for (const auto& entry : boost::filesystem::directory_iterator(corpus)) {
        const std::string content = KymTest::readFile(entry.path());
        SCOPED_TRACE(entry.path().string());
        EXPECT_EQ(LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(content.data()), content.size()), 0);
        ++inputs;
    }
    EXPECT_GT(inputs, 3);
}
