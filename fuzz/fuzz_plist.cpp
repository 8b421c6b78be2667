// Feeds arbitrary bytes to the property-list reader. A rejection must be a
// BaseException; anything else escapes and is reported. What is accepted must
// come back unchanged through the writer and the reader.
#include "base/BaseException.h"
#include "base/PropertyList.h"
#include "base/plist/Document.h"

#include <boost/any.hpp>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

using Base::PropertyList;

bool same(const boost::any& a, const boost::any& b) {
    if (a.type() != b.type()) return false;
    if (auto x = boost::any_cast<std::string>(&a)) return *x == boost::any_cast<const std::string&>(b);
    if (auto x = boost::any_cast<std::int64_t>(&a)) return *x == boost::any_cast<std::int64_t>(b);
    if (auto x = boost::any_cast<std::uint64_t>(&a)) return *x == boost::any_cast<std::uint64_t>(b);
    if (auto x = boost::any_cast<bool>(&a)) return *x == boost::any_cast<bool>(b);
    if (auto x = boost::any_cast<double>(&a)) {
        double y = boost::any_cast<double>(b);
        return std::isnan(*x) ? std::isnan(y) : std::memcmp(x, &y, sizeof y) == 0;
    }
    if (auto x = boost::any_cast<PropertyList::Date>(&a))
        return x->text == boost::any_cast<const PropertyList::Date&>(b).text;
    if (auto x = boost::any_cast<PropertyList::Data>(&a))
        return x->bytes == boost::any_cast<const PropertyList::Data&>(b).bytes;
    if (auto x = boost::any_cast<PropertyList::Array>(&a)) {
        const auto& y = boost::any_cast<const PropertyList::Array&>(b);
        if (x->size() != y.size()) return false;
        for (std::size_t i = 0; i < x->size(); ++i)
            if (!same((*x)[i], y[i])) return false;
        return true;
    }
    if (auto x = boost::any_cast<PropertyList::Dictionary>(&a)) {
        const auto& y = boost::any_cast<const PropertyList::Dictionary&>(b);
        if (x->size() != y.size()) return false;
        for (auto i = x->begin(), j = y.begin(); i != x->end(); ++i, ++j)
            if (i->first != j->first || !same(i->second, j->second)) return false;
        return true;
    }
    return false;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    // What PropertyList::parse reads through: checked once, used for both checks below.
    std::unique_ptr<const Base::plist::Document> document;
    try {
        document = std::make_unique<const Base::plist::Document>(text, "fuzz input");
    } catch (const Base::BaseException&) {
        return 0;
    }
    const boost::any value = document->root().toAny();
    // Whatever was read must be writable and read back as the same tree; a
    // BaseException here escapes on purpose.
    const std::string written = PropertyList::serialize(value);
    if (!same(value, PropertyList::parse(written, "fuzz round trip"))) std::abort();
    // The table of a checked document, kept and taken back, reads the same.
    const auto kept = Base::plist::Document::fromTable(
        std::vector<Base::plist::Document::Entry>(document->entryData(), document->entryData() + document->entryCount()),
        std::string(document->pool()));
    if (!kept || !same(value, kept->root().toAny())) std::abort();
    return 0;
}
