#include "kym/Configuration.h"
#include "kym/SystemInfo.h"

#include "support/Site.h"

#include "base/FileManager.h"
#include "base/PropertyList.h"

#include <gtest/gtest.h>

using namespace KymTest;
using Kym::Configuration;

namespace {

std::string properties(const Configuration& config) {
    return config.name() + "|" + config.description + "|" + config.type + "|" + config.commonDepartment + "|" +
           std::to_string(config.doFileCleanup) + "|" + std::to_string(config.cleanupDays);
}

// A tar archive of these entries (a name ending in "/" is a directory), in this order, as no tar program
// would write it from a real directory. The extraction reads tar without compression just as well.
std::string tarArchive(const std::vector<std::pair<std::string, std::string>>& entries) {
    // A number in octal digits, zero-padded to the width.
    const auto octal = [](std::size_t value, std::size_t width) {
        std::string digits(width, '0');
        for (std::size_t position = width; position-- > 0 && value > 0; value /= 8)
            digits[position] = static_cast<char>('0' + value % 8);
        return digits;
    };
    std::string archive;
    for (const auto& [name, content] : entries) {
        const bool directory = name.back() == '/';
        std::string header(512, '\0');
        const auto field = [&header](std::size_t offset, const std::string& text) {
            header.replace(offset, text.size(), text);
        };
        field(0, name);
        field(100, directory ? "0000755" : "0000644");
        field(108, octal(0, 7)), field(116, octal(0, 7));
        field(124, octal(content.size(), 11));
        field(136, octal(1700000000, 11));
        field(148, std::string(8, ' '));  // the checksum counts its own field as blanks
        field(156, directory ? "5" : "0");
        field(257, "ustar"), field(263, "00");
        std::size_t sum = 0;
        for (unsigned char c : header) sum += c;
        field(148, octal(sum, 6) + std::string(1, '\0'));
        archive += header + content + std::string((512 - content.size() % 512) % 512, '\0');
    }
    return archive + std::string(1024, '\0');
}

// A site that names its releases nx4 (current) and nx3 (previous).
struct Department : ::testing::Test {
    Department() { site.writeReleaseNames(); }
    fs::path department(const std::string& name) const { return site.departmentsPath() / name; }
    // .dirinfo.plist holding exactly these values.
    fs::path writeProperties(const std::string& name, const Base::PropertyList::Dictionary& values) const {
        fs::create_directories(department(name));
        Base::PropertyList(department(name) / Configuration::PropertyFileName, values).saveList();
        return department(name);
    }
    Site site;
};

} // namespace

using ConfigurationProperties = Department;
using ConfigurationVersionDirectory = Department;

TEST_F(ConfigurationProperties, LoadKeepsTheDefaultsOfMissingKeysAndSaveDropsACommonNameWithABlank) {
    const fs::path dir = writeProperties("dept", {{"Description", std::string("Design")},
                                                  {"Do File Cleanup Key", false},
                                                  {"Common Department", std::string("Shared")}});
    Configuration config(dir, true);
    EXPECT_EQ(properties(config), "dept|Design|Production|Shared|0|2");
    EXPECT_FALSE(config.needsSaving());

    Configuration created(department("new"), false);
    EXPECT_TRUE(created.needsSaving());
    fs::create_directories(created.path());
    created.description = "Body design", created.type = "Development";
    created.commonDepartment = "My Common", created.cleanupDays = 14;
    created.settings()->setNeedsSaving(true);
    created.save();
    EXPECT_EQ(properties(Configuration(created.path(), true)), "new|Body design|Development||1|14");
    // Not updated for this release: its settings are not written and stay dirty.
    EXPECT_FALSE(fs::exists(created.versionPath()));
    EXPECT_TRUE(created.needsSaving());
}

TEST_F(ConfigurationProperties, ADirectoryWithoutAReadablePropertyFileIsNoDepartment) {
    const auto message = [this] { return thrownMessage([this] { Configuration(department("plain"), true); }); };
    const std::string expected = "Directory " + department("plain").string() + " is not valid department.";
    fs::create_directories(department("plain"));
    EXPECT_EQ(message(), expected);
#ifndef _WIN32
    KYM_SKIP_UNLESS_ROOT();  // what follows reads as user nobody
    writeProperties("plain", {{"Description", std::string("d")}});
    fs::permissions(department("plain") / Configuration::PropertyFileName, fs::perms(0600));
    Kym::SystemInformation();
    EXPECT_EQ(runAsNobody([&] { return message() == expected ? 0 : 1; }), 0);
#endif
}

TEST_F(ConfigurationProperties, ACopyMovedInAVectorEditsItsOwnLists) {
    std::vector<Configuration> configurations(1, Configuration(department("first"), false));
    configurations[0].settings()->workDirectories()->insertRow(-1);
    configurations[0].settings()->applications();
    configurations.resize(configurations.capacity() + 1, Configuration(department("more"), false));
    Configuration copy = configurations[0];

    configurations[0].settings()->workDirectories()->insertRow(-1);
    configurations[0].settings()->applications()->insertRow(-1);
    EXPECT_EQ(configurations[0].applicationList().size(), 1u);
    EXPECT_EQ(configurations[0].settings()->workDirectoryList().size(), 2u);
    EXPECT_EQ(copy.settings()->workDirectoryList().size(), 1u);
    EXPECT_TRUE(copy.settings()->workDirectories()->isEdited());
}

TEST_F(ConfigurationVersionDirectory, UnpacksTheVersionFilesAndCarriesThePreviousSettingsForward) {
    site.writeVersionFiles({{"lib/readme.txt", "r"}, {"config/default.txt", "d"}});
    const fs::path dir = site.addDepartment("dept");
    DepartmentSettings previous;
    previous.disabledPlugins = {"cam"};
    const fs::path previousFile = site.writeDepartmentSettings(dir, previous, "nx3");
    Configuration config(dir, true);
    const fs::path workDirectory = Base::FileManager::workDirectory();

    config.createNXVersionDirectory();
    EXPECT_EQ(Base::FileManager::workDirectory(), workDirectory);
    EXPECT_TRUE(config.isUpdated());
    EXPECT_EQ(readFile(dir / "nx4" / "lib" / "readme.txt") + readFile(dir / "nx4" / "config" / "default.txt"), "rd");
    EXPECT_EQ(readFile(dir / "nx4" / "config" / "configSettings.dat"), readFile(previousFile));
    EXPECT_TRUE(config.isPluginDisabled("cam"));
    EXPECT_FALSE(config.needsSaving());
}

TEST_F(ConfigurationVersionDirectory, NothingIsLeftWhenTheArchiveFailsHalfWay) {
    const fs::path dir = site.addDepartment("dept");
    Configuration config(dir, true);
    const fs::path workDirectory = Base::FileManager::workDirectory();
    // The directory "lib" with a file, then a plain file "lib" that cannot replace it.
    writeFile(site.versionFilesArchive(), tarArchive({{"lib/", ""}, {"lib/x", "x"}, {"lib", "plain"}}));
    // The archive library's own words, which differ by host.
#ifdef _WIN32
    const std::string refusal = "Can't remove already-existing dir";
#else
    const std::string refusal = "Can't replace existing directory with non-directory";
#endif
    EXPECT_EQ(thrownMessage([&] { config.createNXVersionDirectory(); }), refusal);
    EXPECT_FALSE(fs::exists(dir / "nx4"));
    EXPECT_EQ(Base::FileManager::workDirectory(), workDirectory);
    EXPECT_FALSE(config.isUpdated());
}
