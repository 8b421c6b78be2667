#include "base/Unarchiver.h"

#include "base/BaseException.h"
#include "base/Coder.h"
#include "base/Platform.h"
#include "base/plist/Document.h"
#include "base/plist/DocumentCache.h"

#include <boost/core/demangle.hpp>
#include <climits>
#include <cstdint>
#include <deque>
#include <string_view>
#include <utility>
#include <variant>

namespace Base {

namespace {

using Node = plist::Document::Node;

// How a value of the document is named in messages.
std::string kindOf(Node value) {
    return plist::kindName(value.kind());
}

// One entry of the decoding stack: an object (a dictionary of the document)
// or a cursor over the items of a collection. An object is reached by its key
// in the object at parent, or as item position of the collection at parent;
// messages name it from these ("'Common Variables'", "'Applications' item 2").
struct UnarchiverFrame {
    Node object;
    plist::Document::Members members;
    std::vector<boost::any>* items = nullptr;
    std::unique_ptr<Unarchiver::ObjectContainer> container;
    const std::string* key = nullptr;
    std::size_t position = 0;
    std::size_t parent = 0;
};

} // namespace

struct Unarchiver::State {
    State(std::unique_ptr<plist::Document> parsed, const std::string& source)
        : sourceName(source), document(std::move(parsed)) {}

    const std::string& sourceName;
    std::unique_ptr<plist::Document> document;
    std::vector<UnarchiverFrame> frames;
    // The item lists handed out by getObjectList; a deque keeps them in place.
    std::deque<std::vector<boost::any>> lists;
    // Objects created for null targets, released with their coder.
    std::vector<std::pair<const CoderBase*, void*>> owned;

    std::size_t objectFrame() const {
        for (std::size_t frame = frames.size(); frame-- > 0;)
            if (frames[frame].object) return frame;
        return 0;
    }

    bool isRoot(std::size_t frame) const { return frame == 0; }

    std::string label(std::size_t index) const {
        const UnarchiverFrame& frame = frames[index];
        if (isRoot(index)) return std::string();
        if (frame.key) return "'" + *frame.key + "'";
        const std::string collection = isRoot(frame.parent) ? "'" + std::string(archiveItemsKey) + "'" : label(frame.parent);
        return collection + " item " + std::to_string(frame.position + 1);
    }

    std::string outer(std::size_t index) const {
        const UnarchiverFrame& frame = frames[index];
        if (isRoot(index)) return std::string();
        return frame.key ? context(frame.parent) : outer(frame.parent);
    }

    // The words that follow a key of an object in messages.
    std::string context(std::size_t index) const {
        return isRoot(index) ? std::string() : " of " + label(index) + outer(index);
    }

    // The object itself in messages.
    std::string description(std::size_t index) const {
        return isRoot(index) ? "the root" : "key " + label(index) + outer(index);
    }

    // Every message names the file, then the key and the objects holding it.
    BaseException keyError(std::size_t frame, const std::string& key, const std::string& text) const {
        return BaseException("Archive " + sourceName + ": key '" + key + "'" + context(frame) + " " + text);
    }

    BaseException objectError(std::size_t frame, const std::string& text) const {
        return BaseException("Archive " + sourceName + ": " + description(frame) + " " + text);
    }

    // A member of the current object, and the frame of that object.
    std::pair<std::size_t, Node> member(const std::string& key) const {
        const std::size_t frame = objectFrame();
        return {frame, frames[frame].members.find(key)};
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

Unarchiver::Unarchiver(const boost::filesystem::path& file) : mSourceName(Platform::current().nativePath(file)) {
    open(plist::DocumentCache::read(file, mSourceName));
}

Unarchiver::Unarchiver(const std::string& text, const std::string& sourceName, int) : mSourceName(sourceName) {
    open(std::make_unique<plist::Document>(text, mSourceName));
}

void Unarchiver::open(std::unique_ptr<plist::Document> document) {
    mState = std::make_unique<State>(std::move(document), mSourceName);
    const Node root = mState->document->root();
    if (root.kind() != Node::Kind::Dictionary)
        throw BaseException("Archive " + mSourceName + ": the root holds " + kindOf(root) + ", expected a dictionary");
    UnarchiverFrame frame;
    frame.object = root;
    frame.members = plist::Document::Members(root);
    mState->frames.push_back(std::move(frame));
}

FileIdentity Unarchiver::sourceIdentity() const {
    return FileIdentity::ofHash(mState->document->sourceHash());
}

std::unique_ptr<Unarchiver> Unarchiver::fromText(const std::string& text, const std::string& sourceName) {
    return std::unique_ptr<Unarchiver>(new Unarchiver(text, sourceName, 0));
}

Unarchiver::~Unarchiver() {
    for (auto object = mState->owned.rbegin(); object != mState->owned.rend(); ++object)
        if (object->second) object->first->destroy(object->second);
}

bool Unarchiver::containsKey(const std::string& key) const {
    return static_cast<bool>(mState->member(key).second);
}

void Unarchiver::decode(const std::string& key, std::string& value) {
    const auto [frame, member] = mState->member(key);
    if (!member) return;
    if (member.kind() != Node::Kind::String)
        throw mState->keyError(frame, key, "holds " + kindOf(member) + ", expected a string");
    value = member.text();
}

void Unarchiver::decode(const std::string& key, bool& value) {
    const auto [frame, member] = mState->member(key);
    if (!member) return;
    if (member.kind() != Node::Kind::Boolean)
        throw mState->keyError(frame, key, "holds " + kindOf(member) + ", expected a boolean");
    value = member.boolean();
}

void Unarchiver::decode(const std::string& key, int& value) {
    const auto [frame, member] = mState->member(key);
    if (!member) return;
    if (member.kind() != Node::Kind::Integer)
        throw mState->keyError(frame, key, "holds " + kindOf(member) + ", expected an integer");
    const auto number = member.integer();
    if (const auto* small = std::get_if<std::int64_t>(&number)) {
        if (*small >= INT_MIN && *small <= INT_MAX) {
            value = static_cast<int>(*small);
            return;
        }
    }
    const std::string text = std::visit([](auto integer) { return std::to_string(integer); }, number);
    throw mState->keyError(frame, key, "holds " + text + ", beyond the range of an integer");
}

void Unarchiver::decode(const std::string& key, std::vector<std::string>& values) {
    const auto [frame, member] = mState->member(key);
    if (!member) return;
    if (member.kind() != Node::Kind::Array)
        throw mState->keyError(frame, key, "holds " + kindOf(member) + ", expected an array of strings");
    std::vector<std::string> decoded;
    for (const Node& item : member.items()) {
        if (item.kind() != Node::Kind::String)
            throw BaseException("Archive " + mSourceName + ": item " + std::to_string(decoded.size() + 1) +
                                " of key '" + key + "'" + mState->context(frame) + " holds " + kindOf(item) +
                                ", expected a string");
        decoded.push_back(item.text());
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
    const boost::any* item = nullptr;
    UnarchiverFrame next;
    if (frames.back().container) {
        // Inside a collection the key means nothing: the object is the current item.
        const UnarchiverFrame& cursor = frames.back();
        next.parent = mState->objectFrame();
        next.position = cursor.container->endOfAnyArray()
                            ? cursor.items->size()
                            : static_cast<std::size_t>(&cursor.container->currentItem() - cursor.items->data());
        if (next.position < cursor.items->size()) item = &(*cursor.items)[next.position];
    } else {
        next.parent = frames.size() - 1;
        next.key = &key;
        next.object = frames.back().members.find(key);
        if (!next.object) return target;
    }

    DepthGuard guard(frames);
    frames.push_back(std::move(next));
    const std::size_t frame = frames.size() - 1;
    Node& object = frames.back().object;
    if (frames.back().key == nullptr) {
        if (!item) throw mState->objectError(frame, "does not exist");
        object = boost::any_cast<Node>(*item);
    }
    if (object.kind() != Node::Kind::Dictionary)
        throw mState->objectError(frame, "holds " + kindOf(object) + ", expected a dictionary");

    frames.back().members = plist::Document::Members(object);
    const Node typeMember = frames.back().members.find(archiveTypeKey);
    if (!typeMember)
        throw mState->objectError(frame, "holds a dictionary without '" + std::string(archiveTypeKey) + "'");
    if (typeMember.kind() != Node::Kind::String)
        throw mState->keyError(frame, archiveTypeKey, "holds " + kindOf(typeMember) + ", expected a string");
    const std::string_view typeName = typeMember.textView();

    CoderBase* coder = nullptr;
    if (type) {
        CoderBase* expected = CoderBase::coderForType(*type);
        if (!expected)
            throw mState->objectError(frame, "cannot be read: no coder is registered for the type '" +
                                         boost::core::demangle(type->name()) + "'");
        // The coder of the expected type, even when a later coder has taken its name.
        if (typeName == expected->name())
            coder = expected;
        else if (CoderBase::coderForName(std::string(typeName)))
            throw mState->objectError(frame, "holds an object of type '" + std::string(typeName) +
                                                 "', expected type '" + expected->name() + "'");
    } else {
        coder = CoderBase::coderForName(std::string(typeName));
    }
    if (!coder)
        throw mState->objectError(frame, "holds an object of the unknown type '" + std::string(typeName) + "'");

    void* decoded = target;
    if (!decoded) {
        // Recorded before it exists, so that it cannot leak between the two steps.
        mState->owned.emplace_back(coder, nullptr);
        decoded = mState->owned.back().second = coder->create();
    }
    coder->decode(*this, decoded);
    return decoded;
}

std::vector<boost::any>* Unarchiver::getObjectList() {
    const std::size_t frame = mState->objectFrame();
    const Node items = mState->frames[frame].members.find(archiveItemsKey);
    if (!items)
        throw mState->objectError(frame, "is not a collection: it has no '" + std::string(archiveItemsKey) + "'");
    if (items.kind() != Node::Kind::Array)
        throw mState->keyError(frame, archiveItemsKey, "holds " + kindOf(items) + ", expected an array");
    std::vector<boost::any>& list = mState->lists.emplace_back();
    for (const Node& item : items.items()) list.emplace_back(item);
    return &list;
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
