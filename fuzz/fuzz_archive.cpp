// Reads arbitrary text as a keyed archive through a fixed schema of records
// with every value kind, nested records, lists and a self-nesting list. Only
// BaseException may come out; whatever decodes must survive a write and a
// second read unchanged.
#include "base/Archiver.h"
#include "base/BaseException.h"
#include "base/Coder.h"
#include "base/Unarchiver.h"

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

struct FuzzLeaf {
    std::string text;
    bool flag = false;
    int number = 0;
    std::vector<std::string> lines;

    bool operator==(const FuzzLeaf& other) const {
        return text == other.text && flag == other.flag && number == other.number && lines == other.lines;
    }
    void encode(Base::Archiver& archiver) {
        archiver.encode("Text", text);
        archiver.encode("Flag", flag);
        archiver.encode("Number", number);
        archiver.encode("Lines", lines);
    }
    void decode(Base::Unarchiver& unarchiver) {
        unarchiver.decode("Text", text);
        unarchiver.decode("Flag", flag);
        unarchiver.decode("Number", number);
        unarchiver.decode("Lines", lines);
    }
};

struct FuzzNode {
    std::string name;
    FuzzLeaf leaf;
    std::vector<FuzzLeaf> leaves;
    std::vector<FuzzNode> children;

    bool operator==(const FuzzNode& other) const {
        return name == other.name && leaf == other.leaf && leaves == other.leaves && children == other.children;
    }
    void encode(Base::Archiver& archiver) {
        archiver.encode("Name", name);
        archiver.encodeObject("Leaf", leaf);
        archiver.encodeObject("Leaves", leaves);
        archiver.encodeObject("Children", children);
    }
    void decode(Base::Unarchiver& unarchiver) {
        unarchiver.decode("Name", name);
        unarchiver.decodeObject("Leaf", &leaf);
        unarchiver.decodeObject("Leaves", &leaves);
        unarchiver.decodeObject("Children", &children);
    }
};

struct FuzzDocument {
    FuzzLeaf top;
    FuzzNode root;
    std::vector<FuzzNode> nodes;

    bool operator==(const FuzzDocument& other) const {
        return top == other.top && root == other.root && nodes == other.nodes;
    }
    void decode(Base::Unarchiver& unarchiver) {
        top.decode(unarchiver);
        unarchiver.decodeObject("Root", &root);
        unarchiver.decodeObject("Nodes", &nodes);
    }
    void encode(Base::Archiver& archiver) {
        top.encode(archiver);
        archiver.encodeObject("Root", root);
        archiver.encodeObject("Nodes", nodes);
    }
};

Base::Coder<FuzzLeaf> fuzzLeafCoder("FuzzLeaf");
Base::CollectionCoder<std::vector<FuzzLeaf>> fuzzLeafListCoder("FuzzLeafList");
Base::Coder<FuzzNode> fuzzNodeCoder("FuzzNode");
Base::CollectionCoder<std::vector<FuzzNode>> fuzzNodeListCoder("FuzzNodeList");

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    FuzzDocument document;
    try {
        auto unarchiver = Base::Unarchiver::fromText(text, "fuzz.dat");
        unarchiver->containsKey("Root");
        // Whatever type the file names, created by its own coder.
        unarchiver->decodeObject("Anything", static_cast<void*>(nullptr));
        unarchiver->decodeObject<FuzzNode>("Root", nullptr);
        document.decode(*unarchiver);
    } catch (const Base::BaseException&) {
        return 0;
    }

    Base::Archiver archiver("fuzz.dat");
    document.encode(archiver);
    FuzzDocument again;
    again.decode(*Base::Unarchiver::fromText(archiver.text(), "fuzz.dat"));
    if (!(again == document)) std::abort();
    return 0;
}
