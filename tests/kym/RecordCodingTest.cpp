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
void write(const KymTest::fs::path& file, const T& value) {
    Base::Archiver archiver(file);
    archiver.encodeObject("Value", value);
    archiver.finishEncoding();
}

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
    write(dir / "settings.dat", value);
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

// An empty list of these records, which must read back empty; returns its keys.
template <class T>
Lines emptyListKeys() {
    EXPECT_TRUE(roundTrip(std::vector<T>()).empty());
    return keys(std::vector<T>());
}

Lines describe(const std::vector<EnvironmentVariable>& list) {
    Lines result;
    for (const auto& v : list) result.push_back(v.name + "|" + v.value + "|" + v.comment + "|" + std::to_string(v.type));
    return result;
}

Lines describe(const std::vector<ApplicationOverlay>& list) {
    Lines result;
    for (const auto& o : list)
        result.push_back(o.configurationName + "|" + o.appId + "|" + o.category + "|" + o.description + "|" +
                         std::to_string(o.disableApplication));
    return result;
}

Lines describe(const std::vector<WorkDirectory>& list) {
    Lines result;
    for (const auto& d : list) result.push_back(d.name + "|" + d.path);
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

// An archive as an older or foreign writer may have left it, holding one record under "Value".
void writeRecord(const KymTest::fs::path& file, const std::string& members) {
    KymTest::writeFile(file, "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
                             "<key>Value</key><dict>" + members + "</dict></dict></plist>\n");
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
}

TEST(RecordCoding, EmptyListsReadBackEmpty) {
    EXPECT_EQ((Lines{"Value", "$type EnvVariableList", "$items"}), emptyListKeys<EnvironmentVariable>());
    EXPECT_EQ((Lines{"Value", "$type ApplicationOverlayList", "$items"}), emptyListKeys<ApplicationOverlay>());
    EXPECT_EQ((Lines{"Value", "$type ApplicationList", "$items"}), emptyListKeys<ConfigApplication>());
    EXPECT_EQ((Lines{"Value", "$type WorkDirectoryList", "$items"}), emptyListKeys<WorkDirectory>());
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
    addVariable(original.commonVariables(), "C1", "1");
    addVariable(original.commonVariables(), "C2", "C:\\x;%TEMP%");
    addVariable(original.unixVariables(), "U", "u");
    addVariable(original.winVariables(), "W", "w");
    std::vector<ConfigApplication> list{ConfigApplication(), original};
    Base::Archiver archiver("unused.dat");
    original.encode(archiver);
    EXPECT_FALSE(original.commonVariables()->isEdited() || original.unixVariables()->isEdited() ||
                 original.winVariables()->isEdited());

    const std::vector<ConfigApplication> copies = roundTrip(list);
    ASSERT_EQ(2u, copies.size());
    EXPECT_EQ("ChangeMyAppID|||||100|0|", describe(copies[0]));
    const ConfigApplication& copy = copies[1];
    EXPECT_EQ("nx|CAD|NX <9> & more|${UGII_ROOT_DIR}\\ugraf.exe|-nx \"a b\"|011|1|", describe(copy));
    EXPECT_EQ((Lines{"C1|1||0", "C2|C:\\x;%TEMP%||0"}), describe(copy.commonVariableList()));
    EXPECT_EQ(Lines{"U|u||0"}, describe(copy.unixVariableList()));
    EXPECT_EQ(Lines{"W|w||0"}, describe(copy.winVariableList()));
    EXPECT_FALSE(copy.needsSaving());
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
    const auto overlayCopies = roundTrip(overlays);
    EXPECT_EQ((Lines{"||||0", "Design|nx|CAD|NX|1"}), describe(overlayCopies));
    EXPECT_FALSE(overlayCopies[1].needsSaving());

    std::vector<WorkDirectory> directories(2);
    directories[0].name = "z";
    directories[0].path = "D:\\z";
    directories[1].name = "a";
    EXPECT_EQ((Lines{"z|D:\\z", "a|"}), describe(roundTrip(directories)));
}

TEST(RecordCoding, MissingPlatformKeysReadAsZeroAndOtherMissingKeysKeepDefaults) {
    KymTest::TempDir dir;
    writeRecord(dir / "variable.dat", "<key>$type</key><string>EnvironmentVariable</string>"
                                      "<key>Name Key</key><string>A</string><key>Value Key</key><string>1</string>");
    EXPECT_EQ(Lines{"A|1||0"}, describe({read<EnvironmentVariable>(dir / "variable.dat")}));

    writeRecord(dir / "application.dat",
                "<key>$type</key><string>ConfigApplication</string><key>App ID</key><string>nx</string>"
                "<key>Disable Customization</key><true/>"
                "<key>Unix Variables</key><dict><key>$type</key><string>EnvVariableList</string>"
                "<key>$items</key><array><dict><key>$type</key><string>EnvironmentVariable</string>"
                "<key>Name Key</key><string>U</string></dict></array></dict>");
    const ConfigApplication app = read<ConfigApplication>(dir / "application.dat");
    EXPECT_EQ("nx|||||110|0|", describe(app));
    EXPECT_EQ(Lines{"U|||0"}, describe(app.unixVariableList()));
    EXPECT_TRUE(app.commonVariableList().empty() && app.winVariableList().empty());
}
