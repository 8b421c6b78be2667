#include "kym/ConfigApplication.h"
#include "kym/EnvironmentVariable.h"

#include <gtest/gtest.h>

#include <array>
#include <tuple>

using namespace Kym;

namespace {

std::string cell(const Base::DataSourceInterface& source, const std::string& column, int row) {
    return boost::any_cast<std::string>(source.valueForListColumnRow(column, row));
}

std::vector<ConfigApplication> applications(const std::vector<std::string>& ids) {
    std::vector<ConfigApplication> result(ids.size());
    for (std::size_t i = 0; i < ids.size(); ++i) result[i].appId = ids[i];
    return result;
}

std::vector<std::string> ids(const std::vector<ConfigApplication>& list) {
    std::vector<std::string> result;
    for (const auto& app : list) result.push_back(app.appId);
    return result;
}

} // namespace

TEST(EnvVariableListSource, NamesTakeLettersDigitsUnderscoresAndOneLeadingHashValuesPairedPercentsAndBraces) {
    const std::vector<std::tuple<std::string, std::string, bool>> cases{
        {"Name", "", true}, {"Name", "#abc", true}, {"Name", "UGII_BASE_DIR2", true}, {"Name", "a#bc", false},
        {"Name", "_abc", false}, {"Name", "1abc", false}, {"Name", "A-B", false}, {"Value", "", true},
        {"Value", "${A}/%B%%C%", true}, {"Value", "}{", true}, {"Value", "%TEMP", false}, {"Value", "${A", false}};
    for (const auto& [column, text, valid] : cases) {
        SCOPED_TRACE(column + " " + text);
        // The other cell is invalid: a column judges only its own.
        std::vector<EnvironmentVariable> list{column == "Name" ? EnvironmentVariable(text, "%unpaired")
                                                               : EnvironmentVariable("_bad", text)};
        EXPECT_EQ(valid, EnvVariableListSource(&list).valueIsValid(column, 0));
    }
}

TEST(ApplicationListSource, ColumnsShowTheFieldsAndTakeOnlyAnyCaseOfTrueAsTrue) {
    std::vector<ConfigApplication> list(1);
    ApplicationListSource source(&list);
    for (const auto& [column, text, shown] : std::vector<std::array<std::string, 3>>{
             {"Executable", "ugraf.exe", "ugraf.exe"}, {"NoCustom", "True", "True"}, {"AddNXLibs", "1", "False"},
             {"Disable", "TRUE", "True"}, {"Disable", "yes", "False"}, {"Platform", "2", ""}}) {
        EXPECT_TRUE(source.setValueForListColumnRow(column, 0, text)) << column;
        EXPECT_EQ(shown, cell(source, column, 0)) << column << " " << text;
    }
    EXPECT_EQ("ugraf.exe", list[0].program);
    EXPECT_EQ(AllPlatforms, list[0].platform);
}

TEST(ApplicationListSource, DeletingADuplicatedRowErasesTwoRecordsInsertPlacesAPlaceholderAndNoIndexFallsOffTheEnd) {
    std::vector<ConfigApplication> list = applications({"a", "b", "c", "d", "e"});
    ApplicationListSource source(&list);
    EXPECT_THROW(source.deleteRows({4, 4}), std::out_of_range);  // the second erase would fall off the end
    EXPECT_THROW(source.deleteRows({-1}), std::out_of_range);
    EXPECT_FALSE(source.isEdited());
    source.deleteRows({2, 0, 2});
    EXPECT_EQ((std::vector<std::string>{"b", "e"}), ids(list));
    EXPECT_TRUE(source.isEdited());

    source.insertRow(0);
    EXPECT_THROW(source.insertRow(4), std::out_of_range);
    EXPECT_EQ((std::vector<std::string>{"ChangeMyAppID", "b", "e"}), ids(list));

    testing::internal::CaptureStderr();
    EXPECT_THROW(source.application(3), std::out_of_range);
    EXPECT_EQ("Assertion (level 300) failed: index >= 0 && static_cast<std::size_t>(index) < size\n"
              "  in ConfigApplication.cpp, function application\n"
              "  index = 3\n"
              "  tried to access out of range application\n",
              testing::internal::GetCapturedStderr());
}
