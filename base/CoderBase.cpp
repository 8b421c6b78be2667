#include "base/Coder.h"

#include <map>

namespace Base {

namespace {

// Function-local statics: coders register from static initialisers of any
// translation unit, so the maps must exist before the first of them runs.
std::map<std::string, CoderBase*>& codersByName() {
    static std::map<std::string, CoderBase*> coders;
    return coders;
}

std::map<TypeInfo, CoderBase*>& codersByType() {
    static std::map<TypeInfo, CoderBase*> coders;
    return coders;
}

} // namespace

CoderBase::CoderBase(const std::string& name, TypeInfo type) : mName(name), mType(type) {
    codersByName()[mName] = this;
    codersByType()[mType] = this;
}

CoderBase::~CoderBase() {
    // A coder that was replaced under its name or type must not remove its successor.
    auto& byName = codersByName();
    auto named = byName.find(mName);
    if (named != byName.end() && named->second == this) byName.erase(named);
    auto& byType = codersByType();
    auto typed = byType.find(mType);
    if (typed != byType.end() && typed->second == this) byType.erase(typed);
}

CoderBase* CoderBase::coderForName(const std::string& name) {
    const auto& byName = codersByName();
    auto found = byName.find(name);
    return found == byName.end() ? nullptr : found->second;
}

CoderBase* CoderBase::coderForType(const TypeInfo& type) {
    const auto& byType = codersByType();
    auto found = byType.find(type);
    return found == byType.end() ? nullptr : found->second;
}

} // namespace Base
