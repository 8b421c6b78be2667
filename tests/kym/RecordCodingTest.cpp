#include "kym/ApplicationOverlay.h"
#include "kym/ConfigApplication.h"
#include "kym/WorkDirectory.h"

#include "base/Archiver.h"
#include "base/Unarchiver.h"
#include "support/Site.h"

#include <boost/regex.hpp>
#include <gtest/gtest.h>


using namespace Kym;
using Lines = std::vector<std::string>;

namespace {

template <class T>
T roundTrip(const T& value) {
    KymTest::TempDir dir;
    Base::Archiver archiver(dir / "settings.dat");
    archiver.encodeObject("Value", value);
    archiver.finishEncoding();
    return Base::Unarchiver(dir / "settings.dat").decodeValue<T>("Value");
}

// The keys of an archive in the order they stand in its text, nested ones
// included, each "$type" with the type name it holds.
template <class T>
Lines keys(const T& value) {
    Base::Archiver archiver("unused.dat");
    archiver.encodeObject("Value", value);
    const std::string text = archiver.text();
    Lines result;
    const boost::regex key("<key>([^<]*)</key>\\s*(?:<string>([^<]*)</string>)?");
    for (boost::sregex_iterator it(text.begin(), text.end(), key), end; it != end; ++it)
        result.push_back((*it)[1] == "$type" ? "$type " + (*it)[2] : std::string((*it)[1]));
    return result;
}

Lines describe(const std::vector<EnvironmentVariable>& list) {
    Lines result;
    for (const auto& v : list) result.push_back(v.name + "|" + v.value + "|" + v.comment + "|" + std::to_string(v.type));
    return result;
}

std::string describe(const ConfigApplication& app) {
    return app.appId + "|" + app.category + "|" + app.description + "|" + app.program + "|" + app.arguments + "|" +
           std::to_string(app.addUGLibsToPath) + std::to_string(app.disableCustomization) +
           std::to_string(app.disableApplication) + "|" + std::to_string(app.platform) + "|" + app.configurationName();
}

} // namespace

TEST(RecordCoding, RecordsAndListsWriteTheirTypeNamesAndKeysInOrder) {
    EXPECT_EQ((Lines{"Value", "$type EnvironmentVariable", "Name Key", "Value Key", "Comment Key",
                     "Variable Type Key"}),
              keys(EnvironmentVariable()));
    EXPECT_EQ((Lines{"Value", "$type ApplicationOverlay", "Configuration", "App ID", "Category", "Description",
                     "Disable Application"}),
              keys(ApplicationOverlay()));
    EXPECT_EQ((Lines{"Value", "$type WorkDirectory", "Name", "Path"}), keys(WorkDirectory()));
    EXPECT_EQ((Lines{"Value", "$type ConfigApplication", "App ID", "Category", "Description", "Program",
                     "Arguments", "Add UG Libs To Path", "Disable Customization", "Common Variables",
                     "$type EnvVariableList", "$items", "Unix Variables", "$type EnvVariableList", "$items",
                     "Windows Variables", "$type EnvVariableList", "$items", "Disable Application", "Platform"}),
              keys(ConfigApplication()));
    EXPECT_EQ((Lines{"$type ApplicationOverlayList", "$type WorkDirectoryList", "$type ApplicationList"}),
              (Lines{keys(std::vector<ApplicationOverlay>()).at(1), keys(std::vector<WorkDirectory>()).at(1),
                     keys(std::vector<ConfigApplication>()).at(1)}));
}

TEST(RecordCoding, AnApplicationKeepsItsFieldsButNotItsConfigurationAndWritingMarksItsListsUnedited) {
    ConfigApplication original;
    original.appId = "nx";
    original.category = "CAD";
    original.description = "NX <9> & more";
    original.program = "${UGII_ROOT_DIR}\\ugraf.exe";
    original.arguments = "-nx \"a b\"";
    original.addUGLibsToPath = false;
    original.disableCustomization = original.disableApplication = true;
    original.platform = UnixPlatform;
    original.setConfigurationName("Design");
    KymTest::appendVariable(original.commonVariables(), "C", "C:\\x;%TEMP%");
    KymTest::appendVariable(original.winVariables(), "W", "w");
    Base::Archiver archiver("unused.dat");
    original.encode(archiver);
    EXPECT_FALSE(original.commonVariables()->isEdited() || original.winVariables()->isEdited());

    const ConfigApplication copy = roundTrip(std::vector<ConfigApplication>{original}).at(0);
    EXPECT_EQ("nx|CAD|NX <9> & more|${UGII_ROOT_DIR}\\ugraf.exe|-nx \"a b\"|011|1|", describe(copy));
    EXPECT_EQ(Lines{"C|C:\\x;%TEMP%||0"}, describe(copy.commonVariableList()));
    EXPECT_EQ(Lines{"W|w||0"}, describe(copy.winVariableList()));
    EXPECT_FALSE(copy.needsSaving());
}
