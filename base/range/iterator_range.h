// Lazy, copy-free views over containers.
#pragma once

#include <boost/iterator/filter_iterator.hpp>
#include <boost/range/begin.hpp>
#include <boost/range/end.hpp>
#include <boost/range/iterator.hpp>
#include <boost/range/iterator_range.hpp>

#include <utility>

namespace Base {
namespace range {

template <class Iterator>
using iterator_range = boost::iterator_range<Iterator>;

// The elements of a container for which a predicate holds, in container
// order. Unlike boost's filtered adaptor it keeps the container, not
// iterators into it: every traversal sees the container as it is then, also
// after elements were added, removed or changed.
template <class Container, class Predicate>
class filtered_range {
public:
    using iterator = boost::filter_iterator<Predicate, typename boost::range_iterator<Container>::type>;
    using const_iterator = iterator;

    filtered_range(Container& container, Predicate predicate)
        : mContainer(&container), mPredicate(std::move(predicate)) {}

    iterator begin() const { return iterator(mPredicate, boost::begin(*mContainer), boost::end(*mContainer)); }
    iterator end() const { return iterator(mPredicate, boost::end(*mContainer), boost::end(*mContainer)); }
    bool empty() const { return begin() == end(); }

private:
    Container* mContainer;
    Predicate mPredicate;
};

template <class Container, class Predicate>
filtered_range<Container, Predicate> filter(Container& container, const Predicate& predicate) {
    return filtered_range<Container, Predicate>(container, predicate);
}

} // namespace range
} // namespace Base
