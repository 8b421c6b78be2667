// Coders: how one in-memory type is written to and read from a keyed
// archive. Each coder registers itself under a type name (which the files
// carry) and its in-memory type when constructed, normally at static
// initialisation of the library.
#pragma once

#include "base/BaseExport.h"

#include "base/Archiver.h"
#include "base/TypeInfo.h"
#include "base/Unarchiver.h"

#include <string>
#include <utility>
#include <vector>

namespace Base {

class BASE_EXPORT CoderBase {
public:
    CoderBase(const std::string& name, TypeInfo type);
    CoderBase(const CoderBase&) = delete;
    CoderBase& operator=(const CoderBase&) = delete;

    virtual void encode(Archiver& archiver, void* object) = 0;
    virtual void decode(Unarchiver& unarchiver, void* object) = 0;
    // A new default-constructed object, released with destroy().
    virtual void* create() const = 0;
    virtual void destroy(void* object) const = 0;

    const std::string& name() const { return mName; }
    const TypeInfo& type() const { return mType; }

    // The registered coders; null when there is none.
    static CoderBase* coderForName(const std::string& name);
    static CoderBase* coderForType(const TypeInfo& type);

protected:
    virtual ~CoderBase();

private:
    std::string mName;
    TypeInfo mType;
};

// A record type with encode(Archiver&) and decode(Unarchiver&) members.
template <class T>
class Coder : public CoderBase {
public:
    explicit Coder(const std::string& name) : CoderBase(name, TypeInfo::of<T>()) {}
    ~Coder() override = default;
    void encode(Archiver& archiver, void* object) override { static_cast<T*>(object)->encode(archiver); }
    void decode(Unarchiver& unarchiver, void* object) override { static_cast<T*>(object)->decode(unarchiver); }
    void* create() const override { return new T(); }
    void destroy(void* object) const override { delete static_cast<T*>(object); }
};

template <class Collection>
class CollectionCoder;

// A vector of records, written as an ordered collection of items under the
// fixed key "NOTUSED"; reading appends to the vector it is given.
template <class T>
class CollectionCoder<std::vector<T>> : public CoderBase {
public:
    explicit CollectionCoder(const std::string& name) : CoderBase(name, TypeInfo::of<std::vector<T>>()) {}
    ~CollectionCoder() override = default;

    void encode(Archiver& archiver, void* object) override {
        archiver.prepareCollection();
        for (T& element : *static_cast<std::vector<T>*>(object))
            archiver.encodeObject("NOTUSED", &element, archiver.getCoder(TypeInfo::of<T>()));
        archiver.finishCollection();
    }

    void decode(Unarchiver& unarchiver, void* object) override {
        auto& list = *static_cast<std::vector<T>*>(object);
        std::vector<boost::any>* items = unarchiver.getObjectList();
        // Grown once: thousands of records would otherwise be moved at every doubling.
        list.reserve(list.size() + items->size());
        unarchiver.beginContainer(items);
        while (!unarchiver.currentContainer().endOfAnyArray()) {
            T element;
            T* decoded = unarchiver.decodeObject("NOTUSED", &element);
            if (decoded != &element) element = *decoded;
            list.push_back(std::move(element));
            unarchiver.currentContainer().nextItem();
        }
        unarchiver.endContainer();
    }

    void* create() const override { return new std::vector<T>(); }
    void destroy(void* object) const override { delete static_cast<std::vector<T>*>(object); }
};

} // namespace Base
