// Feeds arbitrary bytes to the reader of kept document tables, as a damaged
// cache entry would: the first four bytes give the number of entries, the
// entries follow, the rest is the pool. A table is either refused or every
// value in it can be read and written out as a property list.
#include "base/PropertyList.h"
#include "base/plist/Document.h"

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

using Base::plist::Document;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::uint32_t count = 0;
    if (size < sizeof count) return 0;
    std::memcpy(&count, data, sizeof count);
    data += sizeof count, size -= sizeof count;
    if (count > size / sizeof(Document::Entry)) return 0;
    std::vector<Document::Entry> entries(count);
    if (count > 0) std::memcpy(entries.data(), data, count * sizeof(Document::Entry));
    const std::size_t tableSize = count * sizeof(Document::Entry);
    std::string pool(reinterpret_cast<const char*>(data) + tableSize, size - tableSize);
    const auto document = Document::fromTable(std::move(entries), std::move(pool));
    if (document) Base::PropertyList::serialize(document->root().toAny());
    return 0;
}
