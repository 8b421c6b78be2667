// Writes a keyed archive: a tree of named strings, booleans, integers, typed
// nested objects and ordered collections, stored as an XML property list
// whose keys stand in write order. The file is written by finishEncoding(),
// atomically.
#pragma once

#include "base/BaseExport.h"

#include "base/TypeInfo.h"

#include <boost/any.hpp>
#include <boost/filesystem/path.hpp>
#include <memory>
#include <string>
#include <vector>

namespace Base {

class CoderBase;

// Reserved keys of a nested object's dictionary in the file.
BASE_EXPORT extern const char* const archiveTypeKey;   // "$type": the registered type name
BASE_EXPORT extern const char* const archiveItemsKey;  // "$items": the items of a collection

class BASE_EXPORT Archiver {
public:
    explicit Archiver(const boost::filesystem::path& file);
    ~Archiver();
    Archiver(const Archiver&) = delete;
    Archiver& operator=(const Archiver&) = delete;

    void encode(const std::string& key, const std::string& value);
    void encode(const std::string& key, const char* value);
    void encode(const std::string& key, bool value);
    void encode(const std::string& key, int value);
    void encode(const std::string& key, const std::vector<std::string>& values);

    // The registered coder of an in-memory type; throws BaseException when none is.
    CoderBase* getCoder(const TypeInfo& type) const;
    // Adds a nested object under the key (or as the next item of an open
    // collection), recording the coder's type name, and lets the coder fill it.
    void encodeObject(const std::string& key, void* object, CoderBase* coder);
    template <class T>
    void encodeObject(const std::string& key, const T& object) {
        encodeObject(key, const_cast<T*>(&object), getCoder(TypeInfo::of<T>()));
    }

    // Turn the object being written into a collection: until finishCollection()
    // every encodeObject appends an item.
    void prepareCollection();
    void finishCollection();

    // Completes the archive and writes the file; throws BaseException naming the file.
    void finishEncoding();
    // The document as it would be written (for tests and tools).
    std::string text() const;
    const boost::filesystem::path& file() const { return mFile; }

private:
    struct Frame;
    boost::filesystem::path mFile;
    std::vector<std::unique_ptr<Frame>> mFrames;
};

} // namespace Base
