#include "base/plist/Document.h"

#include "base/FileIdentity.h"

#include "base/BaseException.h"
#include "base/PropertyList.h"
#include "base/plist/TextCodec.h"

#include <pugixml.hpp>

#include <array>
#include <charconv>
#include <cstring>
#include <deque>
#include <limits>
#include <memory>
#include <unordered_map>
#include <unordered_set>

namespace Base {
namespace plist {

namespace {

using Node = Document::Node;
using Kind = Node::Kind;

// No escape decoding (done here, strictly) and no trimming: text is kept byte
// for byte, white-space-only text included. A fragment keeps top-level text,
// so text after the root can be seen and rejected. The text that opens an
// element is kept as the element's own value rather than as a child node,
// which leaves a leaf value one node instead of two.
const unsigned fullParse = pugi::parse_cdata | pugi::parse_eol | pugi::parse_ws_pcdata | pugi::parse_declaration |
                           pugi::parse_doctype | pugi::parse_fragment | pugi::parse_embed_pcdata;
// The same without the indentation between elements, which is most of the
// nodes. It would also drop white space beside a CDATA section inside a
// value, so documents with CDATA are read with fullParse.
const unsigned compactParse = (fullParse & ~pugi::parse_ws_pcdata) | pugi::parse_ws_pcdata_single;

unsigned parseOptionsFor(const std::string& text) {
    // Searched from the rare '!' rather than the '<' of every element.
    for (std::size_t at = text.find('!'); at != std::string::npos; at = text.find('!', at + 1))
        if (at > 0 && text.compare(at - 1, 9, "<![CDATA[") == 0) return fullParse;
    return compactParse;
}

bool isText(pugi::xml_node node) {
    return node.type() == pugi::node_pcdata || node.type() == pugi::node_cdata;
}

// Where the text of a node starts in the document. The parser never moves
// the start of a piece of text, so the text an element holds itself lies as
// far after the element's name in the parsed buffer as in the document.
std::ptrdiff_t textOffset(pugi::xml_node node) {
    const std::ptrdiff_t offset = node.offset_debug();
    if (node.type() != pugi::node_element || offset < 0) return offset;
    return offset + (node.value() - node.name());
}

std::string elementName(pugi::xml_node element) {
    return std::string("<") + element.name() + ">";
}

// Appends raw with its references replaced. Only the five predefined entities
// and character references exist in a property list. On a bad reference,
// returns its offset in raw and the reason; npos otherwise.
std::size_t appendUnescaped(std::string_view raw, std::string& out, std::string& reason) {
    std::size_t done = 0;
    for (std::size_t amp = raw.find('&'); amp != std::string_view::npos; amp = raw.find('&', done)) {
        out.append(raw, done, amp - done);
        std::size_t semicolon = raw.find(';', amp);
        if (semicolon == std::string_view::npos || semicolon - amp > 12) {
            reason = "bare '&'";
            return amp;
        }
        const std::string_view reference = raw.substr(amp + 1, semicolon - amp - 1);
        if (reference == "amp") out += '&';
        else if (reference == "lt") out += '<';
        else if (reference == "gt") out += '>';
        else if (reference == "quot") out += '"';
        else if (reference == "apos") out += '\'';
        else if (!reference.empty() && reference[0] == '#') {
            bool hex = reference.size() > 1 && reference[1] == 'x';
            const char* first = reference.data() + (hex ? 2 : 1);
            const char* last = reference.data() + reference.size();
            std::uint32_t code = 0;
            auto [end, error] = std::from_chars(first, last, code, hex ? 16 : 10);
            if (first == last || error != std::errc() || end != last || code == 0 || code > 0x10FFFF ||
                (code >= 0xD800 && code <= 0xDFFF)) {
                reason = "invalid character reference '&" + std::string(reference) + ";'";
                return amp;
            }
            appendUtf8(out, static_cast<char32_t>(code));
        } else {
            reason = "unknown entity '&" + std::string(reference) + ";'";
            return amp;
        }
        done = semicolon + 1;
    }
    out.append(raw, done, std::string_view::npos);
    return std::string_view::npos;
}

// The character content of an element: a view of the document's own text
// when it needs no decoding, otherwise decoded into scratch. What a checked
// document cannot hold goes to fault(node, raw text, offset, reason): an
// element inside the text (offset npos) or a reference that cannot be decoded;
// node is the element itself for the text it holds as its value.
template <class Fault>
std::string_view decodedText(pugi::xml_node element, std::string& scratch, const Fault& fault) {
    const char* own = element.value();
    pugi::xml_node child = element.first_child();
    if (!child && !std::strchr(own, '&')) return own;
    scratch.clear();
    const auto appendPcdata = [&](pugi::xml_node node, std::string_view raw) {
        std::string reason;
        const std::size_t at = appendUnescaped(raw, scratch, reason);
        if (at != std::string_view::npos) fault(node, raw, at, reason);
    };
    appendPcdata(element, own);
    for (; child; child = child.next_sibling()) {
        if (child.type() == pugi::node_element)
            fault(child, std::string_view(), std::string_view::npos, std::string());
        else if (child.type() == pugi::node_cdata)
            scratch += child.value();
        else if (child.type() == pugi::node_pcdata)
            appendPcdata(child, child.value());
    }
    return scratch;
}

enum class NumberStatus { Ok, Invalid, OutOfRange };

// Decimal, or hexadecimal after "0x"; either with an optional sign.
NumberStatus parseInteger(std::string_view number, std::variant<std::int64_t, std::uint64_t>& value) {
    const char* first = number.data();
    const char* last = number.data() + number.size();
    bool negative = first != last && *first == '-';
    if (first != last && (*first == '-' || *first == '+')) ++first;
    int base = 10;
    if (last - first > 2 && first[0] == '0' && (first[1] == 'x' || first[1] == 'X')) {
        first += 2;
        base = 16;
    }
    std::uint64_t magnitude = 0;
    auto [end, error] = std::from_chars(first, last, magnitude, base);
    if (first == last || end != last || error == std::errc::invalid_argument) return NumberStatus::Invalid;
    const std::uint64_t int64Limit = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
    if (error == std::errc::result_out_of_range || (negative && magnitude > int64Limit + 1))
        return NumberStatus::OutOfRange;
    if (negative)
        value = magnitude == int64Limit + 1 ? std::numeric_limits<std::int64_t>::min()
                                            : -static_cast<std::int64_t>(magnitude);
    else if (magnitude > int64Limit)
        value = magnitude;
    else
        value = static_cast<std::int64_t>(magnitude);
    return NumberStatus::Ok;
}

// Decimal or exponent notation, "nan", "inf" and "infinity" with an optional sign.
NumberStatus parseReal(std::string_view number, double& value) {
    const char* first = number.data();
    const char* last = number.data() + number.size();
    if (last - first > 1 && *first == '+' && first[1] != '-') ++first;
    auto [end, error] = std::from_chars(first, last, value);
    if (first == last || end != last || error == std::errc::invalid_argument) return NumberStatus::Invalid;
    if (error == std::errc::result_out_of_range) return NumberStatus::OutOfRange;
    return NumberStatus::Ok;
}

// Collects the checked values as the table of a document: entries in
// document order, texts in the pool, each distinct key once.
class TableBuilder {
public:
    using Entry = Document::Entry;
    struct Text {
        std::uint32_t offset = 0;
        std::uint32_t length = 0;
    };

    TableBuilder(std::vector<Entry>& entries, std::string& pool, std::size_t sourceSize)
        : mEntries(entries), mPool(pool) {
        // Room for what a settings file typically holds; a pool never outgrows its source.
        mEntries.reserve(sourceSize / 32 + 1);
        mPool.reserve(sourceSize);
    }

    std::uint32_t add(Kind kind, Text key) {
        const std::uint32_t index = static_cast<std::uint32_t>(mEntries.size());
        mEntries.push_back(Entry{static_cast<std::uint32_t>(kind), index + 1, key.offset, key.length, 0, 0});
        return index;
    }

    void setText(std::uint32_t index, std::string_view text) {
        const Text stored = append(text);
        mEntries[index].text = stored.offset;
        mEntries[index].textLength = stored.length;
    }

    void setBoolean(std::uint32_t index, bool value) { mEntries[index].text = value ? 1 : 0; }

    void close(std::uint32_t index) { mEntries[index].end = static_cast<std::uint32_t>(mEntries.size()); }

    Text key(std::string_view text) {
        const auto found = mKeys.find(text);
        if (found != mKeys.end()) return found->second;
        const Text stored = append(text);
        mKeys.emplace(mKeyTexts.emplace_back(text), stored);
        return stored;
    }

private:
    Text append(std::string_view text) {
        const Text stored{static_cast<std::uint32_t>(mPool.size()), static_cast<std::uint32_t>(text.size())};
        mPool.append(text);
        return stored;
    }

    std::vector<Entry>& mEntries;
    std::string& mPool;
    std::unordered_map<std::string_view, Text> mKeys;
    std::deque<std::string> mKeyTexts;  // the views of mKeys point here
};

// Checks a parsed document against the property-list rules; every rejection
// names the source and the line.
class Checker {
public:
    Checker(const std::string& text, const std::string& sourceName, TableBuilder& table)
        : mText(text), mSourceName(sourceName), mTable(table) {}

    void checkBytes() const {
        std::size_t nul = mText.find('\0');
        if (nul != std::string::npos) failAtOffset(nul, "NUL byte");
        std::size_t invalid = invalidUtf8Offset(mText);
        if (invalid != std::string::npos) failAtOffset(invalid, "invalid UTF-8");
    }

    void checkParse(const pugi::xml_parse_result& result) const {
        if (!result)
            failAtOffset(static_cast<std::size_t>(result.offset),
                         std::string("malformed XML (") + result.description() + ")");
    }

    // Checks the root value of the document and adds it to the table.
    void root(const pugi::xml_document& document) const {
        pugi::xml_node plist = plistElement(document);
        for (pugi::xml_attribute attribute : plist.attributes()) {
            if (std::strcmp(attribute.name(), "version") != 0)
                fail(plist, std::string("unexpected attribute '") + attribute.name() + "' on <plist>");
            if (std::strcmp(attribute.value(), "1.0") != 0)
                fail(plist, std::string("unsupported plist version '") + attribute.value() + "'");
        }
        expectSpace(plist, "stray text in <plist>");
        pugi::xml_node root;
        for (pugi::xml_node child : plist.children()) {
            if (child.type() == pugi::node_element) {
                if (root) fail(child, "second value " + elementName(child) + " in <plist>");
                root = child;
            } else if (isText(child)) {
                expectSpace(child, "stray text in <plist>");
            }
        }
        if (!root) fail(plist, "empty <plist>");
        value(root, 1, TableBuilder::Text());
    }

private:
    // Lines end at a line feed or at a carriage return not followed by one,
    // the same breaks the parser turns into line feeds inside values.
    std::size_t lineAt(std::size_t offset) const {
        std::size_t line = 1;
        std::size_t end = std::min(offset, mText.size());
        for (std::size_t i = 0; i < end; ++i) {
            if (mText[i] == '\n' || (mText[i] == '\r' && (i + 1 >= mText.size() || mText[i + 1] != '\n')))
                ++line;
        }
        return line;
    }

    [[noreturn]] void failAtLine(std::size_t line, const std::string& detail) const {
        throw BaseException(messagePrefix(mSourceName) + ", line " + std::to_string(line) + ": " + detail);
    }

    [[noreturn]] void failAtOffset(std::size_t offset, const std::string& detail) const {
        failAtLine(lineAt(offset), detail);
    }

    [[noreturn]] void fail(pugi::xml_node node, const std::string& detail) const {
        for (pugi::xml_node at = node; at; at = at.parent()) {
            std::ptrdiff_t offset = at.offset_debug();
            if (offset >= 0) failAtOffset(static_cast<std::size_t>(offset), detail);
        }
        failAtLine(1, detail);
    }

    // textNode is a text node or the element whose own value raw is.
    [[noreturn]] void failInText(pugi::xml_node textNode, std::string_view raw, std::size_t position,
                                 const std::string& detail) const {
        std::ptrdiff_t offset = textOffset(textNode);
        if (offset < 0) fail(textNode, detail);
        std::size_t line = lineAt(static_cast<std::size_t>(offset));
        for (std::size_t i = 0; i < position && i < raw.size(); ++i)
            if (raw[i] == '\n') ++line;
        failAtLine(line, detail);
    }

    // Nothing but a byte order mark may stand before the XML declaration,
    // whose offset is that of its name, after "<?".
    bool isAtStart(pugi::xml_node declaration) const {
        const std::size_t bom = mText.compare(0, 3, "\xEF\xBB\xBF") == 0 ? 3 : 0;
        return declaration.offset_debug() == static_cast<std::ptrdiff_t>(bom + 2);
    }

    // Text where only white space may stand fails at its first other character;
    // textNode is a text node or an element, for the text it holds as its value.
    void expectSpace(pugi::xml_node textNode, const std::string& detail) const {
        const std::string_view raw = textNode.value();
        for (std::size_t i = 0; i < raw.size(); ++i)
            if (!isXmlSpace(raw[i])) failInText(textNode, raw, i, detail);
    }

    pugi::xml_node plistElement(const pugi::xml_document& document) const {
        pugi::xml_node plist;
        for (pugi::xml_node node : document.children()) {
            switch (node.type()) {
            case pugi::node_declaration:
                if (!isAtStart(node)) fail(node, "XML declaration not at the start");
                break;
            case pugi::node_doctype: {
                if (plist) fail(node, "DOCTYPE after the plist element");
                std::string_view value = node.value();
                if (value.compare(0, 5, "plist") != 0 || (value.size() > 5 && !isXmlSpace(value[5])))
                    fail(node, "DOCTYPE of another document type");
                break;
            }
            case pugi::node_element:
                if (plist) fail(node, "element " + elementName(node) + " after the plist element");
                if (std::strcmp(node.name(), "plist") != 0)
                    fail(node, "root element " + elementName(node) + " is not <plist>");
                plist = node;
                break;
            default:
                if (isText(node))
                    expectSpace(node, plist ? "text after the plist element" : "text before the plist element");
                break;
            }
        }
        // Reported at the last character, not after the final line end.
        if (!plist) failAtOffset(mText.empty() ? 0 : mText.size() - 1, "no plist element");
        return plist;
    }

    // Checks one value and adds it, under the key of its dictionary, to the table.
    void value(pugi::xml_node element, int depth, TableBuilder::Text key) const {
        if (pugi::xml_attribute attribute = element.first_attribute())
            fail(element, std::string("unexpected attribute '") + attribute.name() + "' on " + elementName(element));
        const char* name = element.name();
        std::string scratch;
        switch (name[0]) {
        case 'd':
            if (std::strcmp(name, "dict") == 0) return container(element, depth, mTable.add(Kind::Dictionary, key));
            if (std::strcmp(name, "date") == 0)
                return mTable.setText(mTable.add(Kind::Date, key), text(element, scratch));
            if (std::strcmp(name, "data") == 0) {
                const std::string_view encoded = text(element, scratch);
                std::vector<unsigned char> bytes;
                if (!decodeBase64(encoded, bytes)) fail(element, "invalid base64 in <data>");
                return mTable.setText(mTable.add(Kind::Data, key), encoded);
            }
            break;
        case 'a':
            if (std::strcmp(name, "array") == 0) return container(element, depth, mTable.add(Kind::Array, key));
            break;
        case 's':
            if (std::strcmp(name, "string") == 0)
                return mTable.setText(mTable.add(Kind::String, key), text(element, scratch));
            break;
        case 'i':
            if (std::strcmp(name, "integer") == 0)
                return mTable.setText(mTable.add(Kind::Integer, key), number(element, "integer", parseInteger, scratch));
            break;
        case 'r':
            if (std::strcmp(name, "real") == 0)
                return mTable.setText(mTable.add(Kind::Real, key), number(element, "real", parseReal, scratch));
            break;
        case 't':
        case 'f':
            if (std::strcmp(name, "true") == 0 || std::strcmp(name, "false") == 0) {
                if (!trimXmlSpace(text(element, scratch)).empty()) fail(element, "text in " + elementName(element));
                return mTable.setBoolean(mTable.add(Kind::Boolean, key), name[0] == 't');
            }
            break;
        case 'k':
            if (std::strcmp(name, "key") == 0) fail(element, "<key> outside a <dict>");
            break;
        }
        fail(element, "unknown element " + elementName(element));
    }

    void container(pugi::xml_node element, int depth, std::uint32_t index) const {
        // The check recurses once per level, so this bounds the stack.
        if (depth > PropertyList::maxDepth)
            fail(element, "nesting deeper than " + std::to_string(PropertyList::maxDepth) + " levels");
        if (element.name()[0] == 'd') dictionary(element, depth);
        else array(element, depth);
        mTable.close(index);
    }

    void dictionary(pugi::xml_node element, int depth) const {
        expectSpace(element, "stray text in <dict>");
        KeySet keys;
        pugi::xml_node key;
        std::string_view keyText;
        for (pugi::xml_node child = element.first_child(); child; child = child.next_sibling()) {
            if (isText(child)) {
                expectSpace(child, "stray text in <dict>");
                continue;
            }
            if (child.type() != pugi::node_element) continue;
            bool isKey = std::strcmp(child.name(), "key") == 0;
            if (!key) {
                if (!isKey) fail(child, elementName(child) + " without a <key> in <dict>");
                key = child;
                std::string scratch;
                keyText = text(child, scratch);
                if (keyText.data() == scratch.data()) keyText = keys.keep(std::move(scratch));
                continue;
            }
            if (isKey) fail(key, "key '" + std::string(keyText) + "' has no value");
            if (!keys.insert(keyText)) fail(key, "duplicate key '" + std::string(keyText) + "'");
            value(child, depth + 1, mTable.key(keyText));
            key = pugi::xml_node();
        }
        if (key) fail(key, "key '" + std::string(keyText) + "' has no value");
    }

    // The keys of one dictionary: compared in place while few, hashed beyond.
    class KeySet {
    public:
        bool insert(std::string_view key) {
            if (mCount < mFew.size()) {
                for (std::size_t i = 0; i < mCount; ++i)
                    if (mFew[i] == key) return false;
                mFew[mCount++] = key;
                if (mCount == mFew.size()) mMany.insert(mFew.begin(), mFew.end());
                return true;
            }
            return mMany.insert(key).second;
        }
        // A decoded key outlives the decoding's scratch text here.
        std::string_view keep(std::string&& text) {
            mDecoded.push_back(std::make_unique<std::string>(std::move(text)));
            return *mDecoded.back();
        }

    private:
        std::array<std::string_view, 16> mFew;
        std::size_t mCount = 0;
        std::unordered_set<std::string_view> mMany;
        std::vector<std::unique_ptr<std::string>> mDecoded;
    };

    void array(pugi::xml_node element, int depth) const {
        expectSpace(element, "stray text in <array>");
        for (pugi::xml_node child = element.first_child(); child; child = child.next_sibling()) {
            if (child.type() == pugi::node_element)
                value(child, depth + 1, TableBuilder::Text());
            else if (isText(child))
                expectSpace(child, "stray text in <array>");
        }
    }

    // The character content of an element that may hold no element.
    std::string_view text(pugi::xml_node element, std::string& scratch) const {
        return decodedText(element, scratch,
                           [&](pugi::xml_node node, std::string_view raw, std::size_t at, const std::string& reason) {
                               if (at == std::string_view::npos)
                                   fail(node, "unexpected element " + elementName(node) + " in " +
                                                  elementName(element));
                               failInText(node, raw, at, reason);
                           });
    }

    // The trimmed text of an <integer> or <real> that parse reads as a number of its range.
    template <class Number>
    std::string_view number(pugi::xml_node element, const char* kind, NumberStatus (*parse)(std::string_view, Number&),
                            std::string& scratch) const {
        const std::string_view text = trimXmlSpace(this->text(element, scratch));
        Number unused{};
        const NumberStatus status = parse(text, unused);
        if (status == NumberStatus::Invalid)
            fail(element, std::string("invalid ") + kind + " '" + std::string(text) + "'");
        if (status == NumberStatus::OutOfRange)
            fail(element, std::string(kind) + " out of range '" + std::string(text) + "'");
        return text;
    }

    const std::string& mText;
    const std::string& mSourceName;
    TableBuilder& mTable;
};

} // namespace

namespace {

// The table and pool of a document that owns them.
struct OwnTable {
    std::vector<Document::Entry> entries;
    std::string pool;
};

} // namespace

Document::Document(const std::string& text, const std::string& sourceName) {
    if (text.size() >= std::numeric_limits<std::uint32_t>::max())
        throw BaseException(messagePrefix(sourceName) + ": too large to read (" + std::to_string(text.size()) + " bytes)");
    auto own = std::make_shared<OwnTable>();
    TableBuilder table(own->entries, own->pool, text.size());
    Checker checker(text, sourceName, table);
    checker.checkBytes();
    pugi::xml_document parsed;
    checker.checkParse(parsed.load_buffer(text.data(), text.size(), parseOptionsFor(text), pugi::encoding_utf8));
    checker.root(parsed);
    mEntries = own->entries.data();
    mEntryCount = own->entries.size();
    mPool = own->pool;
    mKeeper = std::move(own);
    mSourceHash = FileIdentity::hashOf(text);
}

std::unique_ptr<Document> Document::fromTable(std::vector<Entry> entries, std::string pool) {
    auto own = std::make_shared<OwnTable>(OwnTable{std::move(entries), std::move(pool)});
    return fromTable(own->entries.data(), own->entries.size(), own->pool, own);
}

std::unique_ptr<Document> Document::fromTable(const Entry* entries, std::size_t count, std::string_view pool,
                                               std::shared_ptr<const void> keeper) {
    if (count == 0 || count >= std::numeric_limits<std::uint32_t>::max() || entries[0].end != count ||
        pool.find('\0') != std::string_view::npos)
        return nullptr;
    const auto inPool = [&pool](std::uint32_t offset, std::uint32_t length) {
        return std::uint64_t(offset) + length <= pool.size();
    };
    // Settings are nearly always ASCII; then no text needs a look of its own.
    const bool asciiPool = isAscii(pool);
    const auto isText = [&pool, asciiPool](std::uint32_t offset, std::uint32_t length) {
        return asciiPool || isValidUtf8(std::string_view(pool.data() + offset, length));
    };
    // The ends of the open containers, innermost last.
    std::vector<std::uint32_t> open{static_cast<std::uint32_t>(count)};
    for (std::uint32_t index = 0; index < count; ++index) {
        while (index == open.back()) open.pop_back();
        const Entry& entry = entries[index];
        if (entry.kind > static_cast<std::uint32_t>(Kind::Data) || entry.end <= index || entry.end > open.back() ||
            !inPool(entry.key, entry.keyLength) || !isText(entry.key, entry.keyLength))
            return nullptr;
        const Kind kind = static_cast<Kind>(entry.kind);
        if (kind == Kind::Dictionary || kind == Kind::Array) {
            open.push_back(entry.end);
            // As deep as a checked document may nest, so that readers may recurse.
            if (open.size() > static_cast<std::size_t>(PropertyList::maxDepth) + 1) return nullptr;
            continue;
        }
        if (entry.end != index + 1) return nullptr;
        if (kind == Kind::Boolean) continue;
        if (!inPool(entry.text, entry.textLength) || !isText(entry.text, entry.textLength)) return nullptr;
        const std::string_view text(pool.data() + entry.text, entry.textLength);
        std::variant<std::int64_t, std::uint64_t> integer;
        double real = 0;
        if (kind == Kind::Integer && parseInteger(text, integer) != NumberStatus::Ok) return nullptr;
        if (kind == Kind::Real && parseReal(text, real) != NumberStatus::Ok) return nullptr;
        std::vector<unsigned char> bytes;
        if (kind == Kind::Data && !decodeBase64(text, bytes)) return nullptr;
    }
    std::unique_ptr<Document> document(new Document);
    document->mKeeper = std::move(keeper);
    document->mEntries = entries;
    document->mEntryCount = count;
    document->mPool = pool;
    return document;
}

namespace {

// Calls visit(index) for each value directly inside the container at
// container, in order, until visit returns true.
template <class Visit>
void eachMember(const Document::Entry* entries, std::uint32_t container, Visit visit) {
    for (std::uint32_t index = container + 1; index < entries[container].end; index = entries[index].end)
        if (visit(index)) return;
}

} // namespace

Node Document::Members::find(std::string_view key) const {
    Node found;
    if (!mDictionary) return found;
    const Document* document = mDictionary.mDocument;
    eachMember(document->mEntries, mDictionary.mIndex, [&](std::uint32_t index) {
        const Entry& member = document->mEntries[index];
        if (document->poolText(member.key, member.keyLength) != key) return false;
        found = Node(document, index);
        return true;
    });
    return found;
}

std::vector<std::pair<std::string_view, Node>> Document::Members::entries() const {
    std::vector<std::pair<std::string_view, Node>> result;
    if (!mDictionary) return result;
    const Document* document = mDictionary.mDocument;
    eachMember(document->mEntries, mDictionary.mIndex, [&](std::uint32_t index) {
        const Entry& member = document->mEntries[index];
        result.emplace_back(document->poolText(member.key, member.keyLength), Node(document, index));
        return false;
    });
    return result;
}

std::vector<Node> Node::items() const {
    std::vector<Node> result;
    eachMember(mDocument->mEntries, mIndex, [&](std::uint32_t index) {
        result.push_back(Node(mDocument, index));
        return false;
    });
    return result;
}

std::string_view Node::textView() const {
    const Entry& value = entry();
    return mDocument->poolText(value.text, value.textLength);
}

std::variant<std::int64_t, std::uint64_t> Node::integer() const {
    std::variant<std::int64_t, std::uint64_t> value;
    parseInteger(textView(), value);
    return value;
}

double Node::real() const {
    double value = 0;
    parseReal(textView(), value);
    return value;
}

std::vector<unsigned char> Node::data() const {
    std::vector<unsigned char> bytes;
    decodeBase64(textView(), bytes);
    return bytes;
}

boost::any Node::toAny() const {
    switch (kind()) {
    case Kind::Dictionary: {
        PropertyList::Dictionary result;
        for (const auto& [key, value] : Members(*this).entries()) result.emplace(key, value.toAny());
        return result;
    }
    case Kind::Array: {
        PropertyList::Array result;
        for (const Node& item : items()) result.push_back(item.toAny());
        return result;
    }
    case Kind::String: return text();
    case Kind::Integer: return std::visit([](auto number) { return boost::any(number); }, integer());
    case Kind::Real: return real();
    case Kind::Boolean: return boolean();
    case Kind::Date: return PropertyList::Date{text()};
    case Kind::Data: return PropertyList::Data{data()};
    }
    return boost::any();
}

std::string messagePrefix(const std::string& sourceName) {
    return sourceName.empty() ? "Property list" : "Property list " + sourceName;
}

const char* kindName(Kind kind) {
    switch (kind) {
    case Kind::Dictionary: return "a dictionary";
    case Kind::Array: return "an array";
    case Kind::String: return "a string";
    case Kind::Integer: return "an integer";
    case Kind::Real: return "a real number";
    case Kind::Boolean: return "a boolean";
    case Kind::Date: return "a date";
    case Kind::Data: return "data";
    }
    return "a value of an unknown kind";
}

} // namespace plist
} // namespace Base
