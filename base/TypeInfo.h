// The in-memory type by which a coder is looked up.
#pragma once

#include <typeindex>
#include <typeinfo>

namespace Base {

class TypeInfo {
public:
    explicit TypeInfo(const std::type_info& info) : mIndex(info) {}
    template <class T>
    static TypeInfo of() { return TypeInfo(typeid(T)); }

    const char* name() const { return mIndex.name(); }
    bool operator==(const TypeInfo& other) const { return mIndex == other.mIndex; }
    bool operator!=(const TypeInfo& other) const { return mIndex != other.mIndex; }
    bool operator<(const TypeInfo& other) const { return mIndex < other.mIndex; }

private:
    std::type_index mIndex;
};

} // namespace Base
