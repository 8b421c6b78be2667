// A parsed and fully checked XML property list, kept as a flat table of its
// values in document order with their decoded texts in one pool. Readers
// that look at a few keys of a large file (the settings archives) walk the
// table instead of converting the whole tree, and the table can be stored
// and taken back without parsing or checking the XML again (DocumentCache).
#pragma once

#include "base/BaseExport.h"

#include <boost/any.hpp>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace Base {
namespace plist {

class BASE_EXPORT Document {
public:
    // One value of the table. A container's values follow it directly; end
    // is the index after its last descendant, so the next member of the same
    // container stands at end. Texts are offsets into the pool: the key of a
    // dictionary member, and the text of strings, dates, data (base64),
    // integers and reals (trimmed); a boolean's value is its text offset.
    struct Entry {
        std::uint32_t kind;
        std::uint32_t end;
        std::uint32_t key;
        std::uint32_t keyLength;
        std::uint32_t text;
        std::uint32_t textLength;
    };

    // One value of the document. A default node is null (an absent member).
    class BASE_EXPORT Node {
    public:
        enum class Kind : std::uint32_t { Dictionary, Array, String, Integer, Real, Boolean, Date, Data };

        Node() = default;
        explicit operator bool() const { return mDocument != nullptr; }

        Kind kind() const { return static_cast<Kind>(entry().kind); }
        // Array: the items in order.
        std::vector<Node> items() const;
        // String and date: the text.
        std::string text() const { return std::string(textView()); }
        std::string_view textView() const;
        bool boolean() const { return entry().text != 0; }
        // Integer: std::int64_t, or std::uint64_t above its range.
        std::variant<std::int64_t, std::uint64_t> integer() const;
        double real() const;
        std::vector<unsigned char> data() const;

        // The value as a tree of boost::any (the types of Base::PropertyList).
        boost::any toAny() const;

    private:
        friend class Document;
        Node(const Document* document, std::uint32_t index) : mDocument(document), mIndex(index) {}
        const Entry& entry() const { return mDocument->mEntries[mIndex]; }

        const Document* mDocument = nullptr;
        std::uint32_t mIndex = 0;
    };

    // The members of a dictionary, looked up by key.
    class BASE_EXPORT Members {
    public:
        Members() = default;
        explicit Members(Node dictionary) : mDictionary(dictionary) {}
        // The value under the key; a null node when there is none.
        Node find(std::string_view key) const;
        // The entries in document order.
        std::vector<std::pair<std::string_view, Node>> entries() const;

    private:
        Node mDictionary;
    };

    // Parses and checks the whole document; throws BaseException naming
    // sourceName and the line for anything that is not a property list.
    Document(const std::string& text, const std::string& sourceName);
    // A document from the table and pool of another one; null unless they
    // form a sound document (every offset in range, values properly nested,
    // texts UTF-8 without NUL, numbers and data readable), so a damaged copy
    // is refused rather than read.
    static std::unique_ptr<Document> fromTable(std::vector<Entry> entries, std::string pool);
    // The same over memory that keeper keeps (a file read whole, for example).
    static std::unique_ptr<Document> fromTable(const Entry* entries, std::size_t count, std::string_view pool,
                                               std::shared_ptr<const void> keeper);
    Document(const Document&) = delete;
    Document& operator=(const Document&) = delete;

    Node root() const { return Node(this, 0); }
    const Entry* entryData() const { return mEntries; }
    std::size_t entryCount() const { return mEntryCount; }
    std::string_view pool() const { return mPool; }
    // The hash of the text the document was read from (FileIdentity::hashOf);
    // a table kept for that text carries it along.
    std::uint64_t sourceHash() const { return mSourceHash; }
    void setSourceHash(std::uint64_t hash) { mSourceHash = hash; }

private:
    Document() = default;
    std::string_view poolText(std::uint32_t offset, std::uint32_t length) const { return mPool.substr(offset, length); }

    std::shared_ptr<const void> mKeeper;  // owns what the table and the pool are in
    const Entry* mEntries = nullptr;
    std::size_t mEntryCount = 0;
    std::string_view mPool;
    std::uint64_t mSourceHash = 0;
};

// "a string", "a dictionary", ...: how a kind of value is named in messages.
BASE_EXPORT const char* kindName(Document::Node::Kind kind);
// "Property list NAME": how messages about a document begin.
BASE_EXPORT std::string messagePrefix(const std::string& sourceName);

} // namespace plist
} // namespace Base
