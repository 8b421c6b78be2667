#include "base/Unarchiver.h"

#include "base/BaseException.h"
#include "base/Coder.h"
#include "base/FileManager.h"
#include "base/Platform.h"
#include "base/PropertyList.h"

#include <boost/core/demangle.hpp>
#include <climits>
#include <cstdint>
#include <utility>

namespace Base {

namespace {

using Dictionary = PropertyList::Dictionary;

// How a value of the parsed tree is named in messages.
std::string kindOf(const boost::any& value) {
    const std::type_info& type = value.type();
    if (type == typeid(std::string)) return "a string";
    if (type == typeid(bool)) return "a boolean";
    if (type == typeid(std::int64_t) || type == typeid(std::uint64_t)) return "an integer";
    if (type == typeid(double)) return "a real number";
    if (type == typeid(Dictionary) || type == typeid(PropertyList::OrderedDictionary)) return "a dictionary";
    if (type == typeid(PropertyList::Array)) return "an array";
    if (type == typeid(PropertyList::Date)) return "a date";
    if (type == typeid(PropertyList::Data)) return "data";
    return "a value of an unknown kind";
}

// One entry of the decoding stack: an object (a dictionary of the tree) or a
// cursor over the items of a collection. label and outer name the object in
// messages: "'Common Variables'" and " of 'Applications' item 2".
struct UnarchiverFrame {
    Dictionary* object = nullptr;
    std::vector<boost::any>* items = nullptr;
    std::unique_ptr<Unarchiver::ObjectContainer> container;
    std::string label;
    std::string outer;

    // The words that follow a key of this object in messages.
    std::string context() const { return label.empty() ? std::string() : " of " + label + outer; }
    // The object itself in messages.
    std::string description() const { return label.empty() ? "the root" : "key " + label + outer; }
};

} // namespace

struct Unarchiver::State {
    boost::any root;
    std::vector<UnarchiverFrame> frames;
    // Objects created for null targets, released with their coder.
    std::vector<std::pair<const CoderBase*, void*>> owned;

    UnarchiverFrame& objectFrame() {
        for (auto frame = frames.rbegin(); frame != frames.rend(); ++frame)
            if (frame->object) return *frame;
        return frames.front();
    }
};

namespace {

// Restores the depth of the decoding stack when a decode ends, also by an
// exception that left a coder's container open.
class DepthGuard {
public:
    explicit DepthGuard(std::vector<UnarchiverFrame>& frames) : mFrames(frames), mDepth(frames.size()) {}
    ~DepthGuard() {
        while (mFrames.size() > mDepth) mFrames.pop_back();
    }
    DepthGuard(const DepthGuard&) = delete;
    DepthGuard& operator=(const DepthGuard&) = delete;

private:
    std::vector<UnarchiverFrame>& mFrames;
    std::size_t mDepth;
};

} // namespace

Unarchiver::Unarchiver(const boost::filesystem::path& file)
    : Unarchiver(FileManager::readFile(file), Platform::current().nativePath(file), 0) {}

Unarchiver::Unarchiver(const std::string& text, const std::string& sourceName, int)
    : mSourceName(sourceName), mState(std::make_unique<State>()) {
    mState->root = PropertyList::parse(text, sourceName);
    auto* root = boost::any_cast<Dictionary>(&mState->root);
    if (!root)
        throw BaseException("Archive " + mSourceName + ": the root holds " + kindOf(mState->root) +
                            ", expected a dictionary");
    UnarchiverFrame frame;
    frame.object = root;
    mState->frames.push_back(std::move(frame));
}

std::unique_ptr<Unarchiver> Unarchiver::fromText(const std::string& text, const std::string& sourceName) {
    return std::unique_ptr<Unarchiver>(new Unarchiver(text, sourceName, 0));
}

Unarchiver::~Unarchiver() {
    for (auto object = mState->owned.rbegin(); object != mState->owned.rend(); ++object)
        if (object->second) object->first->destroy(object->second);
}

namespace {

const boost::any* findMember(const UnarchiverFrame& frame, const std::string& key) {
    auto found = frame.object->find(key);
    return found == frame.object->end() ? nullptr : &found->second;
}

// Every message names the file, then the key and the objects holding it.
BaseException keyError(const std::string& source, const UnarchiverFrame& frame, const std::string& key,
                       const std::string& text) {
    return BaseException("Archive " + source + ": key '" + key + "'" + frame.context() + " " + text);
}

BaseException objectError(const std::string& source, const UnarchiverFrame& frame, const std::string& text) {
    return BaseException("Archive " + source + ": " + frame.description() + " " + text);
}

} // namespace

bool Unarchiver::containsKey(const std::string& key) const {
    return findMember(mState->objectFrame(), key) != nullptr;
}

void Unarchiver::decode(const std::string& key, std::string& value) {
    const UnarchiverFrame& frame = mState->objectFrame();
    const boost::any* member = findMember(frame, key);
    if (!member) return;
    const auto* text = boost::any_cast<std::string>(member);
    if (!text) throw keyError(mSourceName, frame, key, "holds " + kindOf(*member) + ", expected a string");
    value = *text;
}

void Unarchiver::decode(const std::string& key, bool& value) {
    const UnarchiverFrame& frame = mState->objectFrame();
    const boost::any* member = findMember(frame, key);
    if (!member) return;
    const auto* flag = boost::any_cast<bool>(member);
    if (!flag) throw keyError(mSourceName, frame, key, "holds " + kindOf(*member) + ", expected a boolean");
    value = *flag;
}

void Unarchiver::decode(const std::string& key, int& value) {
    const UnarchiverFrame& frame = mState->objectFrame();
    const boost::any* member = findMember(frame, key);
    if (!member) return;
    std::string number;
    if (const auto* small = boost::any_cast<std::int64_t>(member)) {
        if (*small >= INT_MIN && *small <= INT_MAX) {
            value = static_cast<int>(*small);
            return;
        }
        number = std::to_string(*small);
    } else if (const auto* large = boost::any_cast<std::uint64_t>(member)) {
        number = std::to_string(*large);
    } else {
        throw keyError(mSourceName, frame, key, "holds " + kindOf(*member) + ", expected an integer");
    }
    throw keyError(mSourceName, frame, key, "holds " + number + ", beyond the range of an integer");
}

void Unarchiver::decode(const std::string& key, std::vector<std::string>& values) {
    const UnarchiverFrame& frame = mState->objectFrame();
    const boost::any* member = findMember(frame, key);
    if (!member) return;
    const auto* array = boost::any_cast<PropertyList::Array>(member);
    if (!array) throw keyError(mSourceName, frame, key, "holds " + kindOf(*member) + ", expected an array of strings");
    std::vector<std::string> decoded;
    decoded.reserve(array->size());
    for (const boost::any& item : *array) {
        const auto* text = boost::any_cast<std::string>(&item);
        if (!text)
            throw BaseException("Archive " + mSourceName + ": item " + std::to_string(decoded.size() + 1) +
                                " of key '" + key + "'" + frame.context() + " holds " + kindOf(item) +
                                ", expected a string");
        decoded.push_back(*text);
    }
    values = std::move(decoded);
}

void* Unarchiver::decodeObject(const std::string& key, void* target) {
    return decodeObjectAs(key, target, nullptr);
}

void* Unarchiver::decodeObjectOfType(const std::string& key, void* target, const TypeInfo& type) {
    return decodeObjectAs(key, target, &type);
}

void* Unarchiver::decodeObjectAs(const std::string& key, void* target, const TypeInfo* type) {
    auto& frames = mState->frames;
    boost::any* value = nullptr;
    UnarchiverFrame next;
    if (frames.back().container) {
        // Inside a collection the key means nothing: the object is the current item.
        const UnarchiverFrame& cursor = frames.back();
        const UnarchiverFrame& collection = mState->objectFrame();
        const std::size_t position =
            cursor.container->endOfAnyArray()
                ? cursor.items->size()
                : static_cast<std::size_t>(&cursor.container->currentItem() - cursor.items->data());
        next.label = (collection.label.empty() ? "'" + std::string(archiveItemsKey) + "'" : collection.label) +
                     " item " + std::to_string(position + 1);
        next.outer = collection.outer;
        if (position >= cursor.items->size())
            throw objectError(mSourceName, next, "does not exist");
        value = &(*cursor.items)[position];
    } else {
        const UnarchiverFrame& parent = frames.back();
        auto found = parent.object->find(key);
        if (found == parent.object->end()) return target;
        value = &found->second;
        next.label = "'" + key + "'";
        next.outer = parent.context();
    }

    next.object = boost::any_cast<Dictionary>(value);
    if (!next.object)
        throw objectError(mSourceName, next, "holds " + kindOf(*value) + ", expected a dictionary");

    DepthGuard guard(frames);
    frames.push_back(std::move(next));
    const UnarchiverFrame& frame = frames.back();

    const boost::any* typeMember = findMember(frame, archiveTypeKey);
    if (!typeMember)
        throw objectError(mSourceName, frame, "holds a dictionary without '" + std::string(archiveTypeKey) + "'");
    const auto* typeName = boost::any_cast<std::string>(typeMember);
    if (!typeName)
        throw keyError(mSourceName, frame, archiveTypeKey, "holds " + kindOf(*typeMember) + ", expected a string");

    CoderBase* coder = CoderBase::coderForName(*typeName);
    if (type) {
        CoderBase* expected = CoderBase::coderForType(*type);
        if (!expected)
            throw objectError(mSourceName, frame,
                              "cannot be read: no coder is registered for the type '" +
                                  boost::core::demangle(type->name()) + "'");
        // The coder of the expected type, even when a later coder has taken its name.
        if (*typeName == expected->name())
            coder = expected;
        else if (coder)
            throw objectError(mSourceName, frame,
                              "holds an object of type '" + *typeName + "', expected type '" + expected->name() + "'");
    }
    if (!coder)
        throw objectError(mSourceName, frame, "holds an object of the unknown type '" + *typeName + "'");

    void* object = target;
    if (!object) {
        // Recorded before it exists, so that it cannot leak between the two steps.
        mState->owned.emplace_back(coder, nullptr);
        object = mState->owned.back().second = coder->create();
    }
    coder->decode(*this, object);
    return object;
}

std::vector<boost::any>* Unarchiver::getObjectList() {
    UnarchiverFrame& frame = mState->objectFrame();
    auto found = frame.object->find(archiveItemsKey);
    if (found == frame.object->end())
        throw objectError(mSourceName, frame, "is not a collection: it has no '" + std::string(archiveItemsKey) + "'");
    auto* items = boost::any_cast<PropertyList::Array>(&found->second);
    if (!items)
        throw keyError(mSourceName, frame, archiveItemsKey, "holds " + kindOf(found->second) + ", expected an array");
    return items;
}

void Unarchiver::beginContainer(std::vector<boost::any>* items) {
    if (!items) throw BaseException("Archive " + mSourceName + ": a container is begun without items");
    UnarchiverFrame frame;
    frame.items = items;
    frame.container = std::make_unique<ObjectContainer>(items);
    mState->frames.push_back(std::move(frame));
}

void Unarchiver::endContainer() {
    if (!mState->frames.back().container)
        throw BaseException("Archive " + mSourceName + ": a container is ended that was never begun");
    mState->frames.pop_back();
}

Unarchiver::ObjectContainer& Unarchiver::currentContainer() {
    if (!mState->frames.back().container)
        throw BaseException("Archive " + mSourceName + ": no container is open");
    return *mState->frames.back().container;
}

} // namespace Base
