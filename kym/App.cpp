#include "kym/App.h"

#include "kym/SiteSettings.h"
#include "kym/SystemPreferences.h"

#include "base/BaseException.h"
#include "base/BaseKit.h"
#include "base/FileManager.h"
#include "base/Platform.h"
#include "base/Task.h"
#include "base/log/Logger.h"

#include <boost/make_shared.hpp>
#include <vector>

namespace Kym {

App* App::mApplication = nullptr;

App::App(const std::string& name) : mAppName(name) {
    if (mApplication) throw Base::BaseException("Trying to construct multiple application objects.");
    mApplication = this;
}

App::App(const App& other) = default;

App& App::operator=(const App& other) = default;

App::~App() {
    if (mPreferences) {
        mPreferences->Flush();
        mPreferences.reset();
    }
    // Not compared with this: destroying a copy clears the instance too, as it always did.
    mApplication = nullptr;
}

void App::initialize(const Base::InitializeDelegate* delegate) {
    Base::BaseKit::initialize(delegate);
    BASE_LOG(Base::log::info()) << "initialized trace controller";
    mPreferences = boost::make_shared<SystemPreferences>(mAppName);
    BASE_LOG(Base::log::info()) << "initialized preference system";
}

App* App::instance() {
    return mApplication;
}

void App::showDocumentation(const std::string& document) const {
    // A local store, not SiteInformation(): the site file is read afresh for each document.
    const std::string browser = SiteSettings().getWebBrowser();
    if (browser.empty())
        throw Base::BaseException("Web browser is undefined. Please define it in the configure program.");
    const std::string native = Base::Platform::current().nativePath(browser);
    if (!Base::FileManager::exists(browser)) throw Base::BaseException("The executable " + native + " was not found.");
    if (!Base::FileManager::isExecutable(browser))
        throw Base::BaseException("The executable " + native + " is not executable.");
    // Started detached; the task object may go at once.
    Base::Task browserTask(browser, std::vector<std::string>{document});
}

} // namespace Kym
