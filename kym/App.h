// The one application object of a program that uses the library: carries
// the program's name, starts up the base layer and the preference database,
// and opens documents in the site's web browser.
#pragma once

#include "kym/KymExport.h"

#include <boost/shared_ptr.hpp>
#include <string>

namespace Base {
class InitializeDelegate;
}

namespace Kym {

class SystemPreferences;

class KYM_EXPORT App {
public:
    // Becomes the instance; throws Base::BaseException while another one lives.
    explicit App(const std::string& name);
    // A copy shares the preference database and leaves instance() alone.
    App(const App& other);
    App& operator=(const App& other);
    // Flushes the preference database and clears instance(), also when a copy
    // goes. The database is shared, so the last object holding it frees it.
    virtual ~App();

    // Starts up the base layer, then creates the preference database for the name.
    void initialize(const Base::InitializeDelegate* delegate);

    static App* instance();
    const std::string& getAppName() const { return mAppName; }
    // Null before initialize.
    SystemPreferences* getPreferenceDB() const { return mPreferences.get(); }

    // Starts the site's web browser on the document without waiting for it;
    // throws Base::BaseException when the browser is undefined, missing or
    // not executable.
    void showDocumentation(const std::string& document) const;

private:
    std::string mAppName;
    boost::shared_ptr<SystemPreferences> mPreferences;

    static App* mApplication;
};

} // namespace Kym
