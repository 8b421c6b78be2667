#include "base/PropertyList.h"

#include "base/BaseException.h"
#include "base/FileManager.h"
#include "base/Platform.h"
#include "base/plist/Document.h"
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

using plist::messagePrefix;

std::string nativeName(const boost::filesystem::path& file) {
    return file.empty() ? std::string() : Platform::current().nativePath(file);
}

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
    return plist::Document(text, sourceName).root().toAny();
}

std::string PropertyList::serialize(const boost::any& root) {
    return Writer(std::string()).document(root);
}

} // namespace Base
