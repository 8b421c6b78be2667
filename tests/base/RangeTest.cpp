#include "base/NameFilter.h"
#include "base/range/iterator_range.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

struct Department {
    std::string name;
    std::string type;
};

std::string typeOf(const Department& department) {
    return department.type;
}

} // namespace

TEST(FilteredRange, IsALiveViewYieldingTheElementsWhoseWholeNameMatchesInContainerOrder) {
    std::vector<Department> departments{{"d1", "Common"}, {"d2", "Design"}, {"d3", "Community"}, {"d4", "MyCommon"}};
    auto range = Base::range::filter(departments, Base::NameFilter<Department>(typeOf, "Comm(on|unity)"));
    auto names = [&range] {
        std::string text;
        for (const Department& department : range) text += department.name + ";";
        return text;
    };
    EXPECT_EQ("d1;d3;", names());
    EXPECT_EQ(&departments[2], &*std::next(range.begin()));
    departments[1].type = "Common";
    departments[0].type = "common";
    for (int i = 5; i < 100; ++i) departments.push_back({"d" + std::to_string(i), i == 99 ? "Common" : "Other"});
    EXPECT_EQ("d2;d3;d99;", names());
}
