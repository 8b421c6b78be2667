#include "kym/ApplicationOverlay.h"

#include "kym/ConfigApplication.h"

#include "base/Archiver.h"
#include "base/Coder.h"
#include "base/Unarchiver.h"

namespace Kym {

static Base::Coder<ApplicationOverlay> applicationOverlayCoder("ApplicationOverlay");
static Base::CollectionCoder<std::vector<ApplicationOverlay>> applicationOverlayListCoder("ApplicationOverlayList");

ApplicationOverlay::ApplicationOverlay() : disableApplication(false), edited(false) {}

void ApplicationOverlay::encode(Base::Archiver& archiver) {
    archiver.encode("Configuration", configurationName);
    archiver.encode("App ID", appId);
    archiver.encode("Category", category);
    archiver.encode("Description", description);
    archiver.encode("Disable Application", disableApplication);
}

void ApplicationOverlay::decode(Base::Unarchiver& unarchiver) {
    unarchiver.decode("Configuration", configurationName);
    unarchiver.decode("App ID", appId);
    unarchiver.decode("Category", category);
    unarchiver.decode("Description", description);
    unarchiver.decode("Disable Application", disableApplication);
}

EqualOverlayOrApp::EqualOverlayOrApp(const std::string& configurationName, const std::string& applicationId)
    : mApplicationId(applicationId), mConfigurationName(configurationName) {}

bool EqualOverlayOrApp::operator()(const ApplicationOverlay& overlay) const {
    return overlay.configurationName == mConfigurationName && overlay.appId == mApplicationId;
}

bool EqualOverlayOrApp::operator()(const ConfigApplication& application) const {
    return application.configurationName() == mConfigurationName && application.appId == mApplicationId;
}

} // namespace Kym
