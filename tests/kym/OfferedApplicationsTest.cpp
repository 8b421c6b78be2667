#include "kym/OfferedApplications.h"

#include "kym/Configuration.h"

#include "support/Site.h"

#include "base/Platform.h"

#include <gtest/gtest.h>

#include <memory>

using namespace KymTest;

namespace {

using Names = std::vector<std::string>;
using Source = Kym::OfferedApplications::Source;

Kym::ConfigApplication application(const std::string& appId, const std::string& category,
                                   const std::string& description) {
    Kym::ConfigApplication result = makeApplication(appId, "/opt/" + appId, description);
    result.category = category;
    return result;
}

Layer offering(const std::vector<Kym::ConfigApplication>& applications) {
    Layer layer;
    layer.applications = applications;
    return layer;
}

Kym::ApplicationOverlay overlay(const std::string& configuration, const std::string& appId, const std::string& category,
                                const std::string& description, bool disabled) {
    Kym::ApplicationOverlay result;
    result.configurationName = configuration, result.appId = appId;
    result.category = category, result.description = description, result.disableApplication = disabled;
    return result;
}

// "source configuration/appId" of every entry, in order.
Names origins(const Kym::OfferedApplications& offered) {
    Names texts;
    for (const Kym::OfferedApplications::Entry& entry : offered)
        texts.push_back(std::string(Kym::OfferedApplications::sourceName(entry.source)) + " " +
                        entry.application.configurationName() + "/" + entry.application.appId);
    return texts;
}

// "appId category/description" with the marks of every entry, in order.
Names shown(const Kym::OfferedApplications& offered) {
    Names texts;
    for (const Kym::OfferedApplications::Entry& entry : offered)
        texts.push_back(entry.application.appId + " " + entry.application.category + "/" +
                        entry.application.description + (entry.application.disableApplication ? " disabled" : "") +
                        (entry.overlaid ? " overlaid" : ""));
    return texts;
}

class Offer : public ::testing::Test {
protected:
    Offer() { site.writeReleaseNames(); }

    // An updated department, read from its directory.
    std::unique_ptr<Kym::Configuration> department(const std::string& name, const std::string& common,
                                                   const DepartmentSettings& settings = {}) const {
        DepartmentProperties properties;
        properties.commonDepartment = common;
        return std::make_unique<Kym::Configuration>(site.addUpdatedDepartment(name, properties, settings), true);
    }

    Site site;
};

TEST_F(Offer, EveryLayerIsMergedByCategoryThenDescriptionAndEqualTextsKeepTheLayerOrder) {
    site.writeBaseSettings(offering({application("nx", "CAD", "NX"), application("viewer", "", "Viewer"),
                                     application("same", "CAD", "Same")}));
    site.addInternalPlugin("cam", "Site-wide",
                           offering({application("mill", "CAM", "Milling"), application("same", "CAD", "Same")}));
    department("Shared", "",
               {{}, offering({application("tool", "CAD", "A tool"), application("same", "CAD", "Same")}), {}, {}});
    std::unique_ptr<Kym::Configuration> design =
        department("Design", "Shared", {{}, offering({application("own", "CAD", "Design tool"),
                                                      application("same", "CAD", "Same")}), {}, {}});

    const Kym::OfferedApplications offered(*design);
    const Names expected{"base Base KYM/viewer",   "common Shared/tool",  "department Design/own",
                         "base Base KYM/nx",       "base Base KYM/same",  "common Shared/same",
                         "department Design/same", "plugin cam Plugin/same", "plugin cam Plugin/mill"};
    EXPECT_EQ(origins(offered), expected);
    ASSERT_NE(offered.commonDepartment(), nullptr);
    EXPECT_EQ(offered.commonDepartment()->name(), "Shared");
    EXPECT_EQ(offered.departmentName(), "Design");

    // A common department the caller loaded gives the same; without it that layer is missing.
    Kym::Configuration shared(site.departmentsPath() / "Shared", true);
    EXPECT_EQ(origins(Kym::OfferedApplications(*design, &shared)), expected);
    EXPECT_EQ(Kym::OfferedApplications(*design, nullptr).size(), expected.size() - 2);
}

TEST_F(Offer, AnOverlayReplacesTheTextsItHoldsAndDecidesWhetherTheApplicationIsDisabled) {
    Kym::ConfigApplication off = application("off", "CAD", "Off");
    off.disableApplication = true;
    site.writeBaseSettings(offering({application("nx", "CAD", "NX"), application("view", "CAD", "Viewer"), off}));
    site.addInternalPlugin("cam", "Site-wide", offering({application("mill", "CAM", "Milling")}));
    DepartmentSettings settings;
    settings.overlays = {overlay("Base KYM", "nx", "", "NX 2", false), overlay("cam Plugin", "mill", "CAD", "", true),
                         overlay("Base KYM", "off", "", "", false),
                         // Names another configuration than the one offering "view".
                         overlay("cam Plugin", "view", "Other", "Ignored", true)};
    std::unique_ptr<Kym::Configuration> design = department("Design", "", settings);

    const Kym::OfferedApplications offered(*design, nullptr);
    EXPECT_EQ(shown(offered), (Names{"mill CAD/Milling disabled overlaid", "nx CAD/NX 2 overlaid",
                                     "off CAD/Off overlaid", "view CAD/Viewer"}));
    const Kym::OfferedApplications::Entry* mill = offered.find("cam Plugin", "mill");
    ASSERT_NE(mill, nullptr);
    EXPECT_TRUE(mill->overlaid);
    EXPECT_EQ(offered.find("Base KYM", "mill"), nullptr);
    EXPECT_EQ(offered.find("cam Plugin", "view"), nullptr);
}

TEST_F(Offer, PluginsTheDepartmentDisablesOrOfAnotherTypeOfferNothingAndExternalOnesAreRegisteredFirst) {
    site.addInternalPlugin("cam", "Site-wide", offering({application("mill", "CAM", "Milling")}));
    site.addInternalPlugin("dev", "Development", offering({application("debug", "Dev", "Debugger")}));
    const fs::path external = site.root() / "external";
    site.writePlugin(external / "extra", "Site-wide", offering({application("extra", "Extra", "Extra")}));
    SiteFile file;
    file.unixExternalPluginsLocation = file.winExternalPluginsLocation = external.string();
    site.writeSiteSettings(file);
    DepartmentSettings settings;
    settings.disabledPlugins = {"cam"};
    std::unique_ptr<Kym::Configuration> design = department("Design", "", settings);

    EXPECT_EQ(origins(Kym::OfferedApplications(*design, nullptr)), Names{"plugin extra Plugin/extra"});
}

TEST_F(Offer, TheDepartmentOutranksItsCommonDepartmentThatAPluginThatTheBase) {
    site.writeBaseSettings(offering({application("a", "", "base"), application("b", "", "base"),
                                     application("c", "", "base"), application("d", "", "base")}));
    site.addInternalPlugin("cam", "Site-wide",
                           offering({application("a", "", "plugin"), application("b", "", "plugin"),
                                     application("c", "", "plugin")}));
    department("Shared", "", {{}, offering({application("a", "", "common"), application("b", "", "common")}), {}, {}});
    std::unique_ptr<Kym::Configuration> design =
        department("Design", "Shared", {{}, offering({application("a", "", "department")}), {}, {}});
    const Kym::OfferedApplications offered(*design);

    const std::pair<std::string, std::string> cases[] = {
        {"a", "department"}, {"b", "common"}, {"c", "plugin"}, {"d", "base"}};
    for (const auto& [appId, description] : cases) {
        SCOPED_TRACE(appId);
        EXPECT_EQ(offered.choose(appId).application.description, description);
    }
    const Kym::OfferedApplications::Entry& base = offered.choose("a", "Base KYM");
    EXPECT_EQ(base.source, Source::Base);
    EXPECT_EQ(base.application.description, "base");
}

TEST_F(Offer, TwoOfTheBestRankAreAmbiguousUnlessTheConfigurationIsNamed) {
    for (const char* plugin : {"cam", "milling"})
        site.addInternalPlugin(plugin, "Site-wide", offering({application("mill", "CAM", "Milling")}));
    std::unique_ptr<Kym::Configuration> design = department("Design", "");
    const Kym::OfferedApplications offered(*design, nullptr);

    EXPECT_EQ(thrownMessage([&] { offered.choose("mill"); }),
              "Application 'mill' is ambiguous in department 'Design': it is offered by 'cam Plugin' and "
              "'milling Plugin'. Choose one with --from NAME.");
    EXPECT_EQ(offered.choose("mill", "milling Plugin").application.configurationName(), "milling Plugin");

    // A tie below the best rank does not matter.
    std::unique_ptr<Kym::Configuration> paint =
        department("Paint", "", {{}, offering({application("mill", "CAM", "Own mill")}), {}, {}});
    EXPECT_EQ(Kym::OfferedApplications(*paint, nullptr).choose("mill").application.description, "Own mill");
}

TEST_F(Offer, AnApplicationNotOfferedIsRefusedWithTheIdentifiersOfferedAndAMissingCommonDepartmentWithWhereItWasLookedFor) {
    site.addInternalPlugin("cam", "Site-wide",
                           offering({application("mill", "CAM", "Milling"), application("nx", "CAD", "Plugin NX")}));
    std::unique_ptr<Kym::Configuration> design = department(
        "Design", "", {{}, offering({application("nx", "CAD", "NX"), application("own", "", "Own")}), {}, {}});
    const Kym::OfferedApplications offered(*design, nullptr);

    EXPECT_EQ(thrownMessage([&] { offered.choose("cad"); }),
              "No application 'cad' in department 'Design'. It offers: own, nx, mill.");
    EXPECT_EQ(thrownMessage([&] { offered.choose("mill", "Design"); }),
              "No application 'mill' of 'Design' in department 'Design'. It offers: own, nx, mill.");

    DepartmentSettings settings;
    settings.disabledPlugins = {"cam"};
    std::unique_ptr<Kym::Configuration> empty = department("Empty", "", settings);
    EXPECT_EQ(thrownMessage([&] { Kym::OfferedApplications(*empty, nullptr).choose("nx"); }),
              "No application 'nx' in department 'Empty'. It offers no applications.");

    std::unique_ptr<Kym::Configuration> orphan = department("Orphan", "Gone");
    EXPECT_EQ(thrownMessage([&] { Kym::OfferedApplications offered(*orphan); }),
              "Department 'Orphan' names the common department 'Gone', which does not exist in " +
                  Base::Platform::current().nativePath(site.departmentsPath()) + ".");
}

} // namespace
