#include "kym/BaseSettings.h"

#include "support/Site.h"

#include "base/BaseException.h"
#include "base/Platform.h"
#include "base/SystemCalls.h"

#include <gtest/gtest.h>

using namespace KymTest;
using Kym::BaseInformation;
using Kym::BaseSettings;

namespace {

Layer sampleLayer() {
    Layer layer;
    layer.commonVariables = {{"CAD_COMMON", "c"}};
    layer.unixVariables = {{"CAD_UNIX", "u"}};
    layer.windowsVariables = {{"CAD_WIN", "w"}, {"PATH", "${PATH};w"}};
    layer.applications = {makeApplication("nx", "ugraf", "NX"), makeApplication("view", "viewer", "Viewer")};
    return layer;
}

} // namespace

TEST(BaseSettings, StampsTheApplicationsBaseKymAndMergesCommonThenTheListOfTheActiveConventions) {
    Site site;
    site.writeBaseSettings(sampleLayer());
    BaseSettings& store = BaseInformation();
    store.applications()->application(1).setConfigurationName("Engineering");
    std::vector<std::string> applications;
    for (const auto& application : store.applicationList())
        applications.push_back(application.appId + "@" + application.configurationName());
    EXPECT_EQ(applications, (std::vector<std::string>{"nx@Base KYM", "view@Base KYM"}));

    std::vector<Kym::EnvironmentVariable> vars{{"PATH", "C:\\bin"}};
    Base::Platform::setCurrent(Base::Platform::Windows);
    store.mergeEnvVariables(vars);
    EXPECT_EQ(variableTexts(vars), (std::vector<std::string>{"PATH=C:\\bin;w", "CAD_COMMON=c", "CAD_WIN=w"}));
    vars = {};
    Base::Platform::setCurrent(Base::Platform::Posix);
    store.mergeEnvVariables(vars);
    EXPECT_EQ(variableTexts(vars), (std::vector<std::string>{"CAD_COMMON=c", "CAD_UNIX=u"}));
}

TEST(BaseSettings, AFailedSaveKeepsTheOldFileAndEveryMarkAndTheNextRewritesAllFourKeysInOrder) {
    Site site;
    site.writeBaseSettings(sampleLayer());
    const std::string before = readFile(site.baseSettingsFile());
    BaseSettings& store = BaseInformation();
    store.winVariables()->insertRow(-1);
    store.applications()->commonVariables(0)->insertRow(-1);

    EXPECT_EQ(thrownUnderFault(&Base::SystemCalls::setRenameFault, ENOSPC, [&] { store.save(); }),
              "Cannot write settings file " + site.baseSettingsFile().string() + ": No space left on device");
    EXPECT_EQ(readFile(site.baseSettingsFile()), before);
    EXPECT_TRUE(store.winVariables()->isEdited());
    EXPECT_TRUE(store.applications()->application(0).needsSaving());

    store.save();
    EXPECT_EQ(archiveTopLevelKeys(site.baseSettingsFile()),
              (std::vector<std::string>{"Common Variables", "Unix Variables", "Windows Variables", "Application List"}));
    BaseSettings reread(store);
    reread.load();
    EXPECT_EQ(variableTexts(reread.winVariableList()),
              (std::vector<std::string>{"CAD_WIN=w", "PATH=${PATH};w", "="}));
}

TEST(BaseSettings, DamagedFileLeavesNoStoreTheNextCallRetriesAndAReloadKeepsTheLists) {
    Site site;
    site.writeBaseSettings(sampleLayer());
    const std::string good = readFile(site.baseSettingsFile());
    writeFile(site.baseSettingsFile(), good.substr(0, good.size() / 2));
    const std::string message = thrownMessage([] { BaseInformation(); });
    EXPECT_NE(message.find(site.baseSettingsFile().string()), std::string::npos) << message;
    writeFile(site.baseSettingsFile(), good);
    BaseSettings& store = BaseInformation();

    writeFile(site.baseSettingsFile(), "not an archive");
    EXPECT_THROW(store.load(), Base::BaseException);
    EXPECT_EQ(variableTexts(store.commonVariableList()), (std::vector<std::string>{"CAD_COMMON=c"}));
}
