#include "kym/Configuration.h"
#include "kym/PluginsManager.h"

#include "support/Site.h"

#include <gtest/gtest.h>

using namespace KymTest;
using Kym::Configuration;
using Kym::PluginsManagement;

namespace {

using Names = std::vector<std::string>;

Names applicationTexts(const std::vector<Kym::ConfigApplication>& applications) {
    Names texts;
    for (const auto& application : applications) texts.push_back(application.configurationName() + "/" + application.appId);
    return texts;
}

Layer plugin(const std::string& application, const std::vector<Kym::EnvironmentVariable>& variables) {
    return Layer{variables, {}, {}, {makeApplication(application, application)}};
}

// Internal plugins cam (Development), lower ("site-wide") and pdm
// (Site-wide), then the external Site-wide plugin extra.
struct PluginsForConfiguration : ::testing::Test {
    PluginsForConfiguration() {
        site.writeReleaseNames();
        site.addInternalPlugin("pdm", "Site-wide", plugin("pdm_app", {{"TOOLS", "/int"}}));
        site.addInternalPlugin("cam", "Development", plugin("cam_app", {{"CAM", "1"}}));
        site.addInternalPlugin("lower", "site-wide", plugin("lower_app", {{"LOWER", "1"}}));
        PluginsManagement().addPlugin(
            site.writePlugin(site.root() / "external" / "extra", "Site-wide", plugin("extra_app", {{"TOOLS", "$TOOLS:/ext"}})));
    }
    // An updated department of that type, disabling those plugins, with an
    // application and a variable of its own.
    Configuration department(const std::string& name, const std::string& type, const Names& disabled = {}) const {
        DepartmentProperties properties;
        properties.type = type;
        const DepartmentSettings settings{{}, plugin("own_app", {{"OWN", "1"}}), disabled, {}};
        return Configuration(site.addUpdatedDepartment(name, properties, settings), true);
    }
    Site site;
};

} // namespace

TEST_F(PluginsForConfiguration, TypeAndExactlyMatchingDisabledNamesDecideWhichPluginsApply) {
    const std::vector<std::pair<Configuration, Names>> cases{
        {department("dev", "Development"), {"cam Plugin/cam_app", "pdm Plugin/pdm_app", "extra Plugin/extra_app"}},
        {department("prod", "Production"), {"pdm Plugin/pdm_app", "extra Plugin/extra_app"}},
        {department("lower", "site-wide"), {"lower Plugin/lower_app", "pdm Plugin/pdm_app", "extra Plugin/extra_app"}},
        {department("nocam", "Development", {"cam"}), {"pdm Plugin/pdm_app", "extra Plugin/extra_app"}},
        {department("noCAM", "Development", {"CAM"}),
         {"cam Plugin/cam_app", "pdm Plugin/pdm_app", "extra Plugin/extra_app"}},
    };
    for (const auto& entry : cases) {
        SCOPED_TRACE(entry.first.name());
        EXPECT_EQ(applicationTexts(PluginsManagement().applicationList(entry.first)), entry.second);
    }
}

TEST_F(PluginsForConfiguration, InternalPluginsMergeBeforeExternalOnesAndDisabledOnesNotAtAll) {
    std::vector<Kym::EnvironmentVariable> vars{{"TOOLS", "/base"}};
    const Configuration dev = department("dev", "Development");
    PluginsManagement().mergeEnvVariables(dev, vars);
    EXPECT_EQ(variableTexts(vars), (Names{"TOOLS=/int:/ext", "CAM=1"}));

    vars = {{"TOOLS", "/base"}};
    const Configuration none = department("none", "Test", {"pdm", "extra"});
    PluginsManagement().mergeEnvVariables(&none, vars);
    EXPECT_EQ(variableTexts(vars), Names{"TOOLS=/base"});
    EXPECT_TRUE(PluginsManagement().applicationList(none).empty());
}
