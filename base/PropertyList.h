// XML property lists (the Apple plist format) mapped to boost::any trees:
// dict -> Dictionary, array -> Array, string -> std::string, integer ->
// std::int64_t (std::uint64_t above its range), real -> double, true/false ->
// bool, date -> Date, data -> Data. Reading is strict: every rejection is a
// BaseException naming the file and the line. An integer may also be written
// in hexadecimal after "0x"; a real may be "nan", "inf" or "infinity" with a sign.
#pragma once

#include "base/BaseExport.h"

#include <boost/any.hpp>
#include <boost/filesystem/path.hpp>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace Base {

class BASE_EXPORT PropertyList {
public:
    using path = boost::filesystem::path;
    using Dictionary = std::map<std::string, boost::any>;
    using Array = std::vector<boost::any>;
    // A dictionary written with its keys in insertion order (readers get a Dictionary).
    struct OrderedDictionary {
        std::vector<std::pair<std::string, boost::any>> entries;
    };
    // <date>: the text as it stands in the file (ISO 8601), kept and written back.
    struct Date {
        std::string text;
    };
    // <data>: the decoded bytes; written back in base64.
    struct Data {
        std::vector<unsigned char> bytes;
    };

    // Deepest nesting of dict and array elements that a reader accepts.
    static constexpr int maxDepth = 512;

    PropertyList() = default;
    // Reads the file when it exists (no root otherwise); throws BaseException for a damaged file.
    explicit PropertyList(const path& file);
    // Prepares a write of the root to the file; nothing is read.
    PropertyList(const path& file, const boost::any& root);

    void setFile(const path& file) { mFile = file; }
    const path& file() const { return mFile; }

    bool hasRoot() const { return !mRoot.empty(); }
    const boost::any& root() const { return mRoot; }
    boost::any& root() { return mRoot; }
    void setList(const boost::any& root) { mRoot = root; }

    // A value of the root dictionary; empty when absent. Throws BaseException
    // when the root is not a dictionary.
    boost::any getProperty(const std::string& key) const;
    bool hasProperty(const std::string& key) const;
    // Sets a value of the root dictionary (an empty root becomes a dictionary).
    void setProperty(const std::string& key, const boost::any& value);

    // Writes the root to the file atomically; throws BaseException naming the file.
    void saveList() const;

    // Parses a whole document; sourceName names it in messages.
    static boost::any parse(const std::string& text, const std::string& sourceName);
    // The XML document of a root; throws BaseException for a value type it cannot write.
    static std::string serialize(const boost::any& root);

private:
    path mFile;
    boost::any mRoot;
};

} // namespace Base
