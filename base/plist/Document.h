// A parsed and fully checked XML property list whose values are read where
// they stand in the XML tree. Readers that look at a few keys of a large file
// (the settings archives) use it instead of converting the whole tree.
#pragma once

#include <boost/any.hpp>
#include <pugixml.hpp>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace Base {
namespace plist {

class Document {
public:
    // One value of the document. A default node is null (an absent member).
    class Node {
    public:
        enum class Kind { Dictionary, Array, String, Integer, Real, Boolean, Date, Data };

        Node() = default;
        explicit operator bool() const { return static_cast<bool>(mElement); }

        Kind kind() const;
        // Array: the items in order.
        std::vector<Node> items() const;
        // String and date: the text.
        std::string text() const;
        bool boolean() const;
        // Integer: std::int64_t, or std::uint64_t above its range.
        std::variant<std::int64_t, std::uint64_t> integer() const;
        double real() const;
        std::vector<unsigned char> data() const;

        // The value as a tree of boost::any (the types of Base::PropertyList).
        boost::any toAny() const;

    private:
        friend class Document;
        friend class Members;
        explicit Node(pugi::xml_node element) : mElement(element) {}
        pugi::xml_node mElement;
    };

    // The entries of a dictionary, read once for repeated look-ups.
    class Members {
    public:
        Members() = default;
        explicit Members(Node dictionary);
        // The value under the key; a null node when there is none.
        Node find(std::string_view key) const;
        // The entries in document order.
        const std::vector<std::pair<std::string_view, Node>>& entries() const { return mEntries; }

    private:
        std::vector<std::pair<std::string_view, Node>> mEntries;
        // Keys that needed decoding; the views above point into them.
        std::vector<std::unique_ptr<std::string>> mDecoded;
    };

    // Parses and checks the whole document; throws BaseException naming
    // sourceName and the line for anything that is not a property list.
    Document(const std::string& text, const std::string& sourceName);
    Document(const Document&) = delete;
    Document& operator=(const Document&) = delete;

    Node root() const { return mRoot; }

private:
    pugi::xml_document mDocument;
    Node mRoot;
};

// "a string", "a dictionary", ...: how a kind of value is named in messages.
const char* kindName(Document::Node::Kind kind);
// "Property list NAME": how messages about a document begin.
std::string messagePrefix(const std::string& sourceName);

} // namespace plist
} // namespace Base
