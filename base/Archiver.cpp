#include "base/Archiver.h"

#include "base/BaseException.h"
#include "base/Coder.h"
#include "base/Platform.h"
#include "base/PropertyList.h"

#include <boost/core/demangle.hpp>
#include <cstdint>
#include <utility>

namespace Base {

const char* const archiveTypeKey = "$type";
const char* const archiveItemsKey = "$items";

// One object being written: its members in write order and, once it has
// become a collection, the position of its item array among them.
struct Archiver::Frame {
    PropertyList::OrderedDictionary members;
    bool collecting = false;
    bool hasItems = false;
    std::size_t itemsIndex = 0;
};

namespace {

bool isReservedKey(const std::string& key) {
    return key == archiveTypeKey || key == archiveItemsKey;
}

// Messages name the file as the user's platform writes paths.
std::string archiveName(const boost::filesystem::path& file) {
    return "Archive " + Platform::current().nativePath(file);
}

[[noreturn]] void throwReservedKey(const boost::filesystem::path& file, const std::string& key) {
    throw BaseException(archiveName(file) + ": key '" + key + "' is reserved for the archive itself");
}

void putMember(PropertyList::OrderedDictionary& members, const boost::filesystem::path& file,
               const std::string& key, boost::any value) {
    if (isReservedKey(key)) throwReservedKey(file, key);
    // A key written twice keeps its first place and takes the last value.
    for (auto& entry : members.entries) {
        if (entry.first == key) {
            entry.second = std::move(value);
            return;
        }
    }
    members.entries.emplace_back(key, std::move(value));
}

} // namespace

Archiver::Archiver(const boost::filesystem::path& file) : mFile(file) {
    mFrames.push_back(std::make_unique<Frame>());
}

Archiver::~Archiver() = default;

void Archiver::encode(const std::string& key, const std::string& value) {
    putMember(mFrames.back()->members, mFile, key, value);
}

void Archiver::encode(const std::string& key, const char* value) {
    putMember(mFrames.back()->members, mFile, key, std::string(value ? value : ""));
}

void Archiver::encode(const std::string& key, bool value) {
    putMember(mFrames.back()->members, mFile, key, value);
}

void Archiver::encode(const std::string& key, int value) {
    putMember(mFrames.back()->members, mFile, key, static_cast<std::int64_t>(value));
}

void Archiver::encode(const std::string& key, const std::vector<std::string>& values) {
    PropertyList::Array array(values.begin(), values.end());
    putMember(mFrames.back()->members, mFile, key, std::move(array));
}

CoderBase* Archiver::getCoder(const TypeInfo& type) const {
    CoderBase* coder = CoderBase::coderForType(type);
    if (!coder)
        throw BaseException(archiveName(mFile) + ": no coder is registered for the type '" +
                            boost::core::demangle(type.name()) + "'");
    return coder;
}

void Archiver::encodeObject(const std::string& key, void* object, CoderBase* coder) {
    Frame& parent = *mFrames.back();
    if (!coder)
        throw BaseException(archiveName(mFile) + ": key '" + key + "' is written without a coder");
    if (!parent.collecting && isReservedKey(key)) throwReservedKey(mFile, key);

    const std::size_t depth = mFrames.size();
    auto frame = std::make_unique<Frame>();
    frame->members.entries.emplace_back(archiveTypeKey, coder->name());
    mFrames.push_back(std::move(frame));
    try {
        coder->encode(*this, object);
    } catch (...) {
        mFrames.resize(depth);
        throw;
    }
    PropertyList::OrderedDictionary members = std::move(mFrames.back()->members);
    mFrames.pop_back();

    if (parent.collecting)
        boost::any_cast<PropertyList::Array&>(parent.members.entries[parent.itemsIndex].second)
            .push_back(std::move(members));
    else
        putMember(parent.members, mFile, key, std::move(members));
}

void Archiver::prepareCollection() {
    Frame& frame = *mFrames.back();
    if (!frame.hasItems) {
        frame.itemsIndex = frame.members.entries.size();
        frame.members.entries.emplace_back(archiveItemsKey, PropertyList::Array());
        frame.hasItems = true;
    }
    frame.collecting = true;
}

void Archiver::finishCollection() {
    Frame& frame = *mFrames.back();
    if (!frame.collecting)
        throw BaseException(archiveName(mFile) + ": a collection is finished that was never prepared");
    frame.collecting = false;
}

void Archiver::finishEncoding() {
    PropertyList(mFile, mFrames.front()->members).saveList();
}

std::string Archiver::text() const {
    return PropertyList::serialize(mFrames.front()->members);
}

} // namespace Base
