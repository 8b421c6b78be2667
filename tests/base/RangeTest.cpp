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

using Departments = std::vector<Department>;
using CommonOnly = Base::range::filtered_range<const Departments, Base::NameFilter<Department>>;

CommonOnly commonDepartments(const Departments& departments) {
    return Base::range::filter(departments, Base::NameFilter<Department>(typeOf, "Common"));
}

std::string namesIn(const CommonOnly& range) {
    std::string names;
    for (const Department& department : range) names += department.name + ";";
    return names;
}

} // namespace

TEST(NameFilter, PatternMustMatchTheWholeTextWithCase) {
    Base::NameFilter<Department> filter(typeOf, "Comm(on|unity)");
    std::string matching;
    for (const char* type : {"Common", "Community", "Common2", "MyCommon", "common", ""})
        if (filter({"a", type})) matching += std::string(type) + ";";
    EXPECT_EQ("Common;Community;", matching);
    EXPECT_THROW(Base::NameFilter<Department>(typeOf, "Common("), boost::regex_error);
}

TEST(FilteredRange, IsAViewOfTheContainerYieldingMatchingElementsInContainerOrder) {
    Departments departments{{"d1", "Common"}, {"d2", "Design"}, {"d3", "Common"}, {"d4", "CommonX"}};
    CommonOnly range = commonDepartments(departments);
    EXPECT_EQ("d1;d3;", namesIn(range));
    EXPECT_EQ(&departments[2], &*std::next(range.begin()));
    EXPECT_TRUE(commonDepartments(Departments{{"d2", "Design"}}).empty());

    departments[1].type = "Common";
    departments[0].type = "Design";
    departments[2].name = "renamed";
    EXPECT_EQ("d2;renamed;", namesIn(range));

    departments.insert(departments.begin(), Department{"d0", "Common"});
    for (int i = 5; i < 100; ++i) departments.push_back({"d" + std::to_string(i), i == 99 ? "Common" : "Other"});
    departments.erase(departments.begin() + 2);
    EXPECT_EQ("d0;renamed;d99;", namesIn(range));
}
