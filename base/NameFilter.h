// Predicate: true when what an accessor returns for an element fully matches
// a Perl-syntax, case-sensitive regular expression.
#pragma once

#include <boost/function.hpp>
#include <boost/regex.hpp>
#include <string>

namespace Base {

template <class T>
class NameFilter {
public:
    using Accessor = boost::function<std::string(const T&)>;

    // Throws boost::regex_error for a bad pattern.
    NameFilter(Accessor accessor, const std::string& pattern)
        : mAccessor(std::move(accessor)), mPattern(pattern, boost::regex::perl) {}

    bool operator()(const T& element) const { return boost::regex_match(mAccessor(element), mPattern); }

private:
    Accessor mAccessor;
    boost::regex mPattern;
};

} // namespace Base
