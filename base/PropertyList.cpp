#include "base/PropertyList.h"

#include "base/BaseException.h"
#include "base/FileManager.h"
#include "base/Platform.h"
#include "base/plist/TextCodec.h"

#include <boost/core/demangle.hpp>
#include <boost/filesystem/operations.hpp>
#include <pugixml.hpp>

#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>
#include <set>
#include <sstream>
#include <string_view>

namespace Base {

namespace {

using Dictionary = PropertyList::Dictionary;
using OrderedDictionary = PropertyList::OrderedDictionary;
using Array = PropertyList::Array;
using Date = PropertyList::Date;
using Data = PropertyList::Data;

const char* const plistDoctype =
    "plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" \"http://www.apple.com/DTDs/PropertyList-1.0.dtd\"";

// No escape decoding (done here, strictly) and no trimming: text is kept byte
// for byte, white-space-only text included. A fragment keeps top-level text,
// so text after the root can be seen and rejected.
const unsigned parseOptions = pugi::parse_cdata | pugi::parse_eol | pugi::parse_ws_pcdata |
                              pugi::parse_declaration | pugi::parse_doctype | pugi::parse_fragment;

std::string messagePrefix(const std::string& sourceName) {
    return sourceName.empty() ? "Property list" : "Property list " + sourceName;
}

std::string nativeName(const boost::filesystem::path& file) {
    return file.empty() ? std::string() : Platform::current().nativePath(file);
}

bool isText(pugi::xml_node node) {
    return node.type() == pugi::node_pcdata || node.type() == pugi::node_cdata;
}

std::string elementName(pugi::xml_node element) {
    return std::string("<") + element.name() + ">";
}

class Reader {
public:
    Reader(const std::string& text, const std::string& sourceName) : mText(text), mSourceName(sourceName) {}

    boost::any read() {
        std::size_t nul = mText.find('\0');
        if (nul != std::string::npos) failAtOffset(nul, "NUL byte");
        std::size_t invalid = plist::invalidUtf8Offset(mText);
        if (invalid != std::string::npos) failAtOffset(invalid, "invalid UTF-8");

        pugi::xml_document document;
        pugi::xml_parse_result result =
            document.load_buffer(mText.data(), mText.size(), parseOptions, pugi::encoding_utf8);
        if (!result)
            failAtOffset(static_cast<std::size_t>(result.offset),
                         std::string("malformed XML (") + result.description() + ")");
        return plistValue(plistElement(document));
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

    pugi::xml_node plistElement(const pugi::xml_document& document) const {
        pugi::xml_node plist;
        bool first = true;
        for (pugi::xml_node node : document.children()) {
            switch (node.type()) {
            case pugi::node_declaration:
                if (!first) fail(node, "XML declaration not at the start");
                break;
            case pugi::node_doctype: {
                if (plist) fail(node, "DOCTYPE after the plist element");
                std::string value = node.value();
                if (value.compare(0, 5, "plist") != 0 || (value.size() > 5 && !plist::isXmlSpace(value[5])))
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
            first = false;
        }
        // Reported at the last character, not after the final line end.
        if (!plist) failAtOffset(mText.empty() ? 0 : mText.size() - 1, "no plist element");
        return plist;
    }

    boost::any plistValue(pugi::xml_node plist) const {
        for (pugi::xml_attribute attribute : plist.attributes()) {
            if (std::strcmp(attribute.name(), "version") != 0)
                fail(plist, std::string("unexpected attribute '") + attribute.name() + "' on <plist>");
            if (std::strcmp(attribute.value(), "1.0") != 0)
                fail(plist, std::string("unsupported plist version '") + attribute.value() + "'");
        }
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
        return value(root, 1);
    }

    boost::any value(pugi::xml_node element, int depth) const {
        if (pugi::xml_attribute attribute = element.first_attribute())
            fail(element, std::string("unexpected attribute '") + attribute.name() + "' on " + elementName(element));
        const char* name = element.name();
        if (std::strcmp(name, "dict") == 0 || std::strcmp(name, "array") == 0) {
            // The conversion recurses once per level, so this bounds the stack.
            if (depth > PropertyList::maxDepth)
                fail(element, "nesting deeper than " + std::to_string(PropertyList::maxDepth) + " levels");
            return name[0] == 'd' ? boost::any(dictionary(element, depth)) : boost::any(array(element, depth));
        }
        if (std::strcmp(name, "string") == 0) return text(element);
        if (std::strcmp(name, "integer") == 0) return integer(element);
        if (std::strcmp(name, "real") == 0) return real(element);
        if (std::strcmp(name, "true") == 0 || std::strcmp(name, "false") == 0) {
            if (!plist::isAllXmlSpace(text(element))) fail(element, "text in " + elementName(element));
            return name[0] == 't';
        }
        if (std::strcmp(name, "date") == 0) return Date{text(element)};
        if (std::strcmp(name, "data") == 0) {
            Data data;
            if (!plist::decodeBase64(text(element), data.bytes)) fail(element, "invalid base64 in <data>");
            return data;
        }
        if (std::strcmp(name, "key") == 0) fail(element, "<key> outside a <dict>");
        fail(element, "unknown element " + elementName(element));
    }

    Dictionary dictionary(pugi::xml_node element, int depth) const {
        Dictionary result;
        pugi::xml_node key;
        std::string keyText;
        for (pugi::xml_node child : element.children()) {
            if (isText(child)) {
                expectSpace(child, "stray text in <dict>");
                continue;
            }
            if (child.type() != pugi::node_element) continue;
            bool isKey = std::strcmp(child.name(), "key") == 0;
            if (!key) {
                if (!isKey) fail(child, elementName(child) + " without a <key> in <dict>");
                key = child;
                keyText = text(child);
                continue;
            }
            if (isKey) fail(key, "key '" + keyText + "' has no value");
            auto [entry, inserted] = result.try_emplace(keyText);
            if (!inserted) fail(key, "duplicate key '" + keyText + "'");
            entry->second = value(child, depth + 1);
            key = pugi::xml_node();
        }
        if (key) fail(key, "key '" + keyText + "' has no value");
        return result;
    }

    Array array(pugi::xml_node element, int depth) const {
        Array result;
        for (pugi::xml_node child : element.children()) {
            if (child.type() == pugi::node_element)
                result.push_back(value(child, depth + 1));
            else if (isText(child))
                expectSpace(child, "stray text in <array>");
        }
        return result;
    }

    // The character content of an element that may hold no element.
    std::string text(pugi::xml_node element) const {
        std::string result;
        for (pugi::xml_node child : element.children()) {
            if (child.type() == pugi::node_pcdata)
                appendUnescaped(child, result);
            else if (child.type() == pugi::node_cdata)
                result += child.value();
            else if (child.type() == pugi::node_element)
                fail(child, "unexpected element " + elementName(child) + " in " + elementName(element));
        }
        return result;
    }

    // Only the five predefined entities and character references exist in a property list.
    void appendUnescaped(pugi::xml_node pcdata, std::string& out) const {
        const std::string raw = pcdata.value();
        std::size_t done = 0;
        for (std::size_t amp = raw.find('&'); amp != std::string::npos; amp = raw.find('&', done)) {
            out.append(raw, done, amp - done);
            std::size_t semicolon = raw.find(';', amp);
            if (semicolon == std::string::npos || semicolon - amp > 12) failInText(pcdata, raw, amp, "bare '&'");
            std::string reference = raw.substr(amp + 1, semicolon - amp - 1);
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
                    (code >= 0xD800 && code <= 0xDFFF))
                    failInText(pcdata, raw, amp, "invalid character reference '&" + reference + ";'");
                plist::appendUtf8(out, static_cast<char32_t>(code));
            } else {
                failInText(pcdata, raw, amp, "unknown entity '&" + reference + ";'");
            }
            done = semicolon + 1;
        }
        out.append(raw, done, std::string::npos);
    }

    [[noreturn]] void failInText(pugi::xml_node textNode, const std::string& raw, std::size_t position,
                                 const std::string& detail) const {
        std::ptrdiff_t offset = textNode.offset_debug();
        if (offset < 0) fail(textNode, detail);
        std::size_t line = lineAt(static_cast<std::size_t>(offset));
        for (std::size_t i = 0; i < position && i < raw.size(); ++i)
            if (raw[i] == '\n') ++line;
        failAtLine(line, detail);
    }

    // Text where only white space may stand fails at its first other character.
    void expectSpace(pugi::xml_node textNode, const std::string& detail) const {
        const std::string raw = textNode.value();
        for (std::size_t i = 0; i < raw.size(); ++i)
            if (!plist::isXmlSpace(raw[i])) failInText(textNode, raw, i, detail);
    }

    // Decimal, or hexadecimal after "0x"; either with an optional sign.
    boost::any integer(pugi::xml_node element) const {
        const std::string number = plist::trimXmlSpace(text(element));
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
        if (first == last || end != last || error == std::errc::invalid_argument)
            fail(element, "invalid integer '" + number + "'");
        const std::uint64_t int64Limit = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
        if (error == std::errc::result_out_of_range || (negative && magnitude > int64Limit + 1))
            fail(element, "integer out of range '" + number + "'");
        if (negative)
            return magnitude == int64Limit + 1 ? std::numeric_limits<std::int64_t>::min()
                                               : -static_cast<std::int64_t>(magnitude);
        if (magnitude > int64Limit) return magnitude;
        return static_cast<std::int64_t>(magnitude);
    }

    // Decimal or exponent notation, "nan", "inf" and "infinity" with an optional sign.
    double real(pugi::xml_node element) const {
        const std::string number = plist::trimXmlSpace(text(element));
        const char* first = number.data();
        const char* last = number.data() + number.size();
        if (last - first > 1 && *first == '+' && first[1] != '-') ++first;
        double result = 0;
        auto [end, error] = std::from_chars(first, last, result);
        if (first == last || end != last || error == std::errc::invalid_argument)
            fail(element, "invalid real '" + number + "'");
        if (error == std::errc::result_out_of_range) fail(element, "real out of range '" + number + "'");
        return result;
    }

    const std::string& mText;
    const std::string& mSourceName;
};

class Writer {
public:
    explicit Writer(std::string sourceName) : mSourceName(std::move(sourceName)) {}

    std::string document(const boost::any& root) {
        pugi::xml_document document;
        pugi::xml_node declaration = document.append_child(pugi::node_declaration);
        declaration.append_attribute("version") = "1.0";
        declaration.append_attribute("encoding") = "UTF-8";
        document.append_child(pugi::node_doctype).set_value(plistDoctype);
        pugi::xml_node plist = document.append_child("plist");
        plist.append_attribute("version") = "1.0";
        value(plist, root, 1);

        std::ostringstream out;
        document.save(out, "\t", pugi::format_indent, pugi::encoding_utf8);
        // The writer leaves carriage returns raw, and a reader turns those
        // into line feeds; only text values can hold one.
        std::string text = std::move(out).str();
        if (text.find('\r') == std::string::npos) return text;
        std::string escaped;
        escaped.reserve(text.size() + 64);
        for (char c : text) {
            if (c == '\r') escaped += "&#13;";
            else escaped += c;
        }
        return escaped;
    }

private:
    struct Step {
        const std::string* key;  // null for an array element
        std::size_t index;
    };

    [[noreturn]] void fail(const std::string& detail) const {
        throw BaseException(messagePrefix(mSourceName) + ": " + detail);
    }

    std::string where() const {
        if (mPath.empty()) return "the root";
        std::string path;
        for (const Step& step : mPath) {
            if (step.key) path += (path.empty() ? "" : "/") + *step.key;
            else path += "[" + std::to_string(step.index) + "]";
        }
        return "'" + path + "'";
    }

    void checkText(const std::string& text, const std::string& what) const {
        if (text.find('\0') != std::string::npos) fail("NUL character in the " + what + " at " + where());
        if (!plist::isValidUtf8(text)) fail("invalid UTF-8 in the " + what + " at " + where());
    }

    pugi::xml_node textElement(pugi::xml_node parent, const char* name, const std::string& text) {
        pugi::xml_node element = parent.append_child(name);
        if (!text.empty()) element.append_child(pugi::node_pcdata).set_value(text.c_str());
        return element;
    }

    template <class Integer>
    bool integer(pugi::xml_node parent, const boost::any& value) {
        const Integer* number = boost::any_cast<Integer>(&value);
        if (number) textElement(parent, "integer", std::to_string(*number));
        return number != nullptr;
    }

    template <class Real>
    bool real(pugi::xml_node parent, const boost::any& value) {
        const Real* number = boost::any_cast<Real>(&value);
        if (!number) return false;
        std::string text;
        if (std::isnan(*number)) {
            text = "nan";
        } else if (std::isinf(*number)) {
            text = *number > 0 ? "+infinity" : "-infinity";
        } else {
            char buffer[64];
            auto result = std::to_chars(buffer, buffer + sizeof(buffer), *number);
            text.assign(buffer, result.ptr);
        }
        textElement(parent, "real", text);
        return true;
    }

    void value(pugi::xml_node parent, const boost::any& item, int depth) {
        if (const auto* dictionary = boost::any_cast<Dictionary>(&item)) {
            pugi::xml_node element = container(parent, "dict", depth);
            for (const auto& [key, entry] : *dictionary) keyed(element, key, entry, depth);
        } else if (const auto* ordered = boost::any_cast<OrderedDictionary>(&item)) {
            pugi::xml_node element = container(parent, "dict", depth);
            std::set<std::string_view> seen;
            for (const auto& [key, entry] : ordered->entries) {
                if (!seen.insert(key).second) fail("duplicate key '" + key + "' in the dictionary at " + where());
                keyed(element, key, entry, depth);
            }
        } else if (const auto* array = boost::any_cast<Array>(&item)) {
            pugi::xml_node element = container(parent, "array", depth);
            for (std::size_t i = 0; i < array->size(); ++i) {
                mPath.push_back({nullptr, i});
                value(element, (*array)[i], depth + 1);
                mPath.pop_back();
            }
        } else if (const auto* text = boost::any_cast<std::string>(&item)) {
            checkText(*text, "string");
            textElement(parent, "string", *text);
        } else if (const auto* flag = boost::any_cast<bool>(&item)) {
            parent.append_child(*flag ? "true" : "false");
        } else if (const auto* date = boost::any_cast<Date>(&item)) {
            checkText(date->text, "date");
            textElement(parent, "date", date->text);
        } else if (const auto* data = boost::any_cast<Data>(&item)) {
            textElement(parent, "data", plist::encodeBase64(data->bytes));
        } else if (!integer<int>(parent, item) && !integer<unsigned>(parent, item) &&
                   !integer<long>(parent, item) && !integer<unsigned long>(parent, item) &&
                   !integer<long long>(parent, item) && !integer<unsigned long long>(parent, item) &&
                   !real<double>(parent, item) && !real<float>(parent, item)) {
            if (item.empty()) fail("cannot write an empty value at " + where());
            fail("cannot write a value of type '" + boost::core::demangle(item.type().name()) + "' at " + where());
        }
    }

    pugi::xml_node container(pugi::xml_node parent, const char* name, int depth) {
        if (depth > PropertyList::maxDepth)
            fail("nesting deeper than " + std::to_string(PropertyList::maxDepth) + " levels at " + where());
        return parent.append_child(name);
    }

    void keyed(pugi::xml_node dictionary, const std::string& key, const boost::any& entry, int depth) {
        if (key.find('\0') != std::string::npos) fail("NUL character in a key of the dictionary at " + where());
        if (!plist::isValidUtf8(key)) fail("invalid UTF-8 in a key of the dictionary at " + where());
        textElement(dictionary, "key", key);
        mPath.push_back({&key, 0});
        value(dictionary, entry, depth + 1);
        mPath.pop_back();
    }

    const std::string mSourceName;
    std::vector<Step> mPath;
};

} // namespace

PropertyList::PropertyList(const path& file) : mFile(file) {
    boost::system::error_code error;
    // Any other doubt about existence goes to the read, which names the reason.
    if (boost::filesystem::status(file, error).type() == boost::filesystem::file_not_found) return;
    mRoot = parse(FileManager::readFile(file), nativeName(file));
}

PropertyList::PropertyList(const path& file, const boost::any& root) : mFile(file), mRoot(root) {}

boost::any PropertyList::getProperty(const std::string& key) const {
    if (mRoot.empty()) return boost::any();
    if (const auto* dictionary = boost::any_cast<Dictionary>(&mRoot)) {
        auto entry = dictionary->find(key);
        return entry == dictionary->end() ? boost::any() : entry->second;
    }
    if (const auto* ordered = boost::any_cast<OrderedDictionary>(&mRoot)) {
        for (const auto& entry : ordered->entries)
            if (entry.first == key) return entry.second;
        return boost::any();
    }
    throw BaseException(messagePrefix(nativeName(mFile)) + ": the root is not a dictionary");
}

bool PropertyList::hasProperty(const std::string& key) const {
    return !getProperty(key).empty();
}

void PropertyList::setProperty(const std::string& key, const boost::any& value) {
    if (mRoot.empty()) mRoot = Dictionary();
    if (auto* dictionary = boost::any_cast<Dictionary>(&mRoot)) {
        (*dictionary)[key] = value;
        return;
    }
    if (auto* ordered = boost::any_cast<OrderedDictionary>(&mRoot)) {
        for (auto& entry : ordered->entries) {
            if (entry.first == key) {
                entry.second = value;
                return;
            }
        }
        ordered->entries.emplace_back(key, value);
        return;
    }
    throw BaseException(messagePrefix(nativeName(mFile)) + ": the root is not a dictionary");
}

void PropertyList::saveList() const {
    if (mFile.empty()) throw BaseException("Property list: no file to save to");
    const std::string sourceName = nativeName(mFile);
    FileManager::writeFileAtomically(mFile, Writer(sourceName).document(mRoot));
}

boost::any PropertyList::parse(const std::string& text, const std::string& sourceName) {
    return Reader(text, sourceName).read();
}

std::string PropertyList::serialize(const boost::any& root) {
    return Writer(std::string()).document(root);
}

} // namespace Base
