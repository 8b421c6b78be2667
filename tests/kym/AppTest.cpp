#include "kym/App.h"

#include "base/BaseException.h"
#include "base/Platform.h"
#include "support/Processes.h"
#include "support/Site.h"

#include <gtest/gtest.h>

#ifndef _WIN32
#include <sys/prctl.h>
#include <sys/wait.h>
#endif

namespace {

namespace fs = boost::filesystem;
using Kym::App;

std::string failure(const std::function<void()>& action) { return KymTest::thrownMessage<Base::BaseException>(action); }

TEST(App, OneApplicationObjectLivesAtATime) {
    {
        App first("launcher");
        EXPECT_EQ(failure([] { App second("configure"); }), "Trying to construct multiple application objects.");
        EXPECT_EQ(App::instance(), &first);
    }
    App again("configure");
    EXPECT_EQ(App::instance(), &again);
}

TEST(App, ShowDocumentationStartsTheSiteBrowserOnTheDocumentAndRefusesAnUndefinedMissingOrNotExecutableOne) {
#ifndef _WIN32
    // The browser is started detached; adopt it so that it can be reaped here.
    ASSERT_EQ(::prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
#endif
    KymTest::Site site;
    // Only these conventions take the browser from the site.
    const Base::Platform& conventions = Base::Platform::get(Base::Platform::Posix);
    Base::Platform::setCurrent(conventions.kind());
    App app("launcher");
    const auto setBrowser = [&site](const std::string& browser) {
        KymTest::SiteFile file;
        file.browser.value = browser;
        site.writeSiteSettings(file);
    };
    // No execute bit at all, and no extension a Windows host runs: not executable, even for root.
    const fs::path missing = site.root() / "missing" / "browser", plain = site.root() / "browser.txt";
    KymTest::writeExecutable(plain, "#!/bin/sh\n", 0644);
    const std::pair<std::string, std::string> refused[] = {
        {"${KYM_TEST_UNDEFINED_BROWSER}", "Web browser is undefined. Please define it in the configure program."},
        {missing.string(), "The executable " + conventions.nativePath(missing) + " was not found."},
        {plain.string(), "The executable " + conventions.nativePath(plain) + " is not executable."}};
    for (const auto& [browser, message] : refused) {
        setBrowser(browser);
        EXPECT_EQ(failure([&app] { app.showDocumentation("/docs/manual.html"); }), message);
    }

    const KymTest::Probe browser(KYM_PROBE);
    setBrowser(browser.program().string());
    app.showDocumentation("/docs/manual one.html");
    const KymTest::Probe::Record started = browser.record();
#ifndef _WIN32
    while (::waitpid(-1, nullptr, 0) > 0) {
    }
#endif
    EXPECT_EQ(started.arguments, browser.argumentsFor({"/docs/manual one.html"}));
}

} // namespace
