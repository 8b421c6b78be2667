// Reads a keyed archive written by Base::Archiver. An absent key leaves the
// target unchanged; a wrong value type, an unknown type name or a damaged
// file throws BaseException naming the file and the key.
#pragma once

#include "base/BaseExport.h"

#include "base/FileIdentity.h"
#include "base/TypeInfo.h"

#include <boost/any.hpp>
#include <boost/filesystem/path.hpp>
#include <memory>
#include <string>
#include <vector>

namespace Base {

class CoderBase;
namespace plist {
class Document;
}

class BASE_EXPORT Unarchiver {
public:
    // A cursor over the items of a collection.
    class ObjectContainer {
    public:
        explicit ObjectContainer(std::vector<boost::any>* items) : mItems(items) {}
        bool endOfAnyArray() const { return !mItems || mPosition >= mItems->size(); }
        void nextItem() { ++mPosition; }
        const boost::any& currentItem() const { return (*mItems)[mPosition]; }

    private:
        std::vector<boost::any>* mItems;
        std::size_t mPosition = 0;
    };

    // Reads and parses the file; throws BaseException naming it.
    explicit Unarchiver(const boost::filesystem::path& file);
    // Parses a document held in memory; sourceName stands for the file in messages.
    static std::unique_ptr<Unarchiver> fromText(const std::string& text, const std::string& sourceName);
    ~Unarchiver();
    Unarchiver(const Unarchiver&) = delete;
    Unarchiver& operator=(const Unarchiver&) = delete;

    bool containsKey(const std::string& key) const;
    void decode(const std::string& key, std::string& value);
    void decode(const std::string& key, bool& value);
    void decode(const std::string& key, int& value);
    void decode(const std::string& key, std::vector<std::string>& values);

    // Decodes the nested object under the key (inside a collection: the
    // container's current item) through the coder of its recorded type name,
    // into the target, or into a new object that the unarchiver owns when the
    // target is null. Returns the decoded object; the target when the key is absent.
    void* decodeObject(const std::string& key, void* target);
    // The same, checking that the recorded type is the one registered for T.
    template <class T>
    T* decodeObject(const std::string& key, T* target) {
        return static_cast<T*>(decodeObjectOfType(key, target, TypeInfo::of<T>()));
    }
    // A new T filled from the nested object under the key; a default T when the key is absent.
    template <class T>
    T decodeValue(const std::string& key) {
        T value;
        decodeObject(key, &value);
        return value;
    }

    // The items of the collection being decoded; throws BaseException when the
    // current object is not a collection.
    std::vector<boost::any>* getObjectList();
    void beginContainer(std::vector<boost::any>* items);
    void endContainer();
    ObjectContainer& currentContainer();

    const std::string& sourceName() const { return mSourceName; }
    // What the file held when it was read, for a save to check against.
    FileIdentity sourceIdentity() const;

private:
    Unarchiver(const std::string& text, const std::string& sourceName, int);
    void open(std::unique_ptr<plist::Document> document);
    void* decodeObjectOfType(const std::string& key, void* target, const TypeInfo& type);
    // Without a type: any registered type recorded in the archive is accepted.
    void* decodeObjectAs(const std::string& key, void* target, const TypeInfo* type);

    struct State;
    std::string mSourceName;
    std::unique_ptr<State> mState;
};

} // namespace Base
