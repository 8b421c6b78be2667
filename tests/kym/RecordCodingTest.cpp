#include "kym/ApplicationOverlay.h"
#include "kym/ConfigApplication.h"
#include "kym/WorkDirectory.h"

#include "base/Archiver.h"
#include "base/Unarchiver.h"
#include "support/TestSupport.h"

#include <boost/regex.hpp>
#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace Kym;
using Lines = std::vector<std::string>;

namespace {

template <class T>
T read(const KymTest::fs::path& file) {
    Base::Unarchiver unarchiver(file);
    T result;
    T* decoded = unarchiver.decodeObject("Value", &result);
    if (decoded != &result) result = *decoded;
    return result;
}

template <class T>
T roundTrip(const T& value) {
    KymTest::TempDir dir;
    Base::Archiver archiver(dir / "settings.dat");
    archiver.encodeObject("Value", value);
    archiver.finishEncoding();
    return read<T>(dir / "settings.dat");
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

void addVariable(EnvVariableListSource* source, const std::string& name, const std::string& value) {
    source->insertRow(-1);
    source->setValueForListColumnRow("Name", source->numberOfRowsInList() - 1, name);
    source->setValueForListColumnRow("Value", source->numberOfRowsInList() - 1, value);
}

} // namespace

TEST(RecordCoding, RecordsAndListsWriteTheirTypeNamesAndKeysInOrder) {
    EXPECT_EQ((Lines{"Value", "$type EnvVariableList", "$items"}), keys(std::vector<EnvironmentVariable>()));
    EXPECT_EQ((Lines{"Value", "$type EnvironmentVariable", "Name Key", "Value Key", "Comment Key",
                     "Variable Type Key"}),
              keys(EnvironmentVariable()));
    EXPECT_EQ((Lines{"Value", "$type ApplicationOverlayList", "$items"}), keys(std::vector<ApplicationOverlay>()));
    EXPECT_EQ((Lines{"Value", "$type ApplicationOverlay", "Configuration", "App ID", "Category", "Description",
                     "Disable Application"}),
              keys(ApplicationOverlay()));
    EXPECT_EQ((Lines{"Value", "$type WorkDirectoryList", "$items"}), keys(std::vector<WorkDirectory>()));
    EXPECT_EQ((Lines{"Value", "$type WorkDirectory", "Name", "Path"}), keys(WorkDirectory()));
    EXPECT_EQ((Lines{"Value", "$type ApplicationList", "$items"}), keys(std::vector<ConfigApplication>()));
    EXPECT_EQ((Lines{"Value", "$type ConfigApplication", "App ID", "Category", "Description", "Program",
                     "Arguments", "Add UG Libs To Path", "Disable Customization", "Common Variables",
                     "$type EnvVariableList", "$items", "Unix Variables", "$type EnvVariableList", "$items",
                     "Windows Variables", "$type EnvVariableList", "$items", "Disable Application", "Platform"}),
              keys(ConfigApplication()));
}

TEST(RecordCoding, ApplicationKeepsItsFieldsAndListsButNotItsConfigurationAndWritingMarksItsListsUnedited) {
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
    addVariable(original.commonVariables(), "C", "C:\\x;%TEMP%");
    addVariable(original.unixVariables(), "U", "u");
    addVariable(original.winVariables(), "W", "w");
    Base::Archiver archiver("unused.dat");
    original.encode(archiver);
    EXPECT_FALSE(original.commonVariables()->isEdited() || original.unixVariables()->isEdited() ||
                 original.winVariables()->isEdited());

    const std::vector<ConfigApplication> copies = roundTrip(std::vector<ConfigApplication>{ConfigApplication(), original});
    ASSERT_EQ(2u, copies.size());
    EXPECT_EQ("ChangeMyAppID|||||100|0|", describe(copies[0]));
    const ConfigApplication& copy = copies[1];
    EXPECT_EQ("nx|CAD|NX <9> & more|${UGII_ROOT_DIR}\\ugraf.exe|-nx \"a b\"|011|1|", describe(copy));
    EXPECT_EQ(Lines{"C|C:\\x;%TEMP%||0"}, describe(copy.commonVariableList()));
    EXPECT_EQ(Lines{"U|u||0"}, describe(copy.unixVariableList()));
    EXPECT_EQ(Lines{"W|w||0"}, describe(copy.winVariableList()));
    EXPECT_FALSE(copy.needsSaving());
    EXPECT_TRUE(roundTrip(std::vector<ConfigApplication>()).empty());
}

TEST(RecordCoding, OtherRecordsKeepTheirFieldsInListOrder) {
    EnvironmentVariable second("A", "C:\\a b\\${X}");
    second.comment = "  note\n";
    second.type = WindowsPlatform;
    EXPECT_EQ((Lines{"B|2||0", "A|C:\\a b\\${X}|  note\n|2"}),
              describe(roundTrip(std::vector<EnvironmentVariable>{EnvironmentVariable("B", "2"), second})));

    std::vector<ApplicationOverlay> overlays(2);
    overlays[1].configurationName = "Design";
    overlays[1].appId = "nx";
    overlays[1].category = "CAD";
    overlays[1].description = "NX";
    overlays[1].disableApplication = true;
    overlays[1].settingsChanged();
    const ApplicationOverlay overlay = roundTrip(overlays).at(1);
    EXPECT_EQ("Design|nx|CAD|NX|1", overlay.configurationName + "|" + overlay.appId + "|" + overlay.category + "|" +
                                        overlay.description + "|" + std::to_string(overlay.disableApplication));
    EXPECT_FALSE(overlay.needsSaving());

    WorkDirectory directory;
    directory.name = "z";
    directory.path = "D:\\z";
    const WorkDirectory copy = roundTrip(directory);
    EXPECT_EQ("z=D:\\z", copy.name + "=" + copy.path);
}

TEST(RecordCoding, MissingPlatformKeysReadAsZeroAndOtherMissingKeysKeepDefaults) {
    KymTest::TempDir dir;
    // An archive as an older or foreign writer may have left it.
    KymTest::writeFile(dir / "application.dat",
                       "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict><key>Value</key><dict>"
                       "<key>$type</key><string>ConfigApplication</string><key>App ID</key><string>nx</string>"
                       "<key>Disable Customization</key><true/>"
                       "<key>Unix Variables</key><dict><key>$type</key><string>EnvVariableList</string>"
                       "<key>$items</key><array><dict><key>$type</key><string>EnvironmentVariable</string>"
                       "<key>Name Key</key><string>U</string></dict></array></dict></dict></dict></plist>\n");
    const ConfigApplication app = read<ConfigApplication>(dir / "application.dat");
    EXPECT_EQ("nx|||||110|0|", describe(app));
    EXPECT_EQ(Lines{"U|||0"}, describe(app.unixVariableList()));
    EXPECT_TRUE(app.commonVariableList().empty() && app.winVariableList().empty());
}
