#include "kym/App.h"

#include "base/BaseException.h"
#include "base/Platform.h"
#include "support/Site.h"

#include <gtest/gtest.h>

#include <sys/prctl.h>
#include <sys/wait.h>

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
    // The browser is started detached; adopt it so that it can be reaped here.
    ASSERT_EQ(::prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    KymTest::Site site;
    Base::Platform::setCurrent(Base::Platform::Posix);
    App app("launcher");
    const auto setBrowser = [&site](const std::string& browser) {
        KymTest::SiteFile file;
        file.browser.value = browser;
        site.writeSiteSettings(file);
    };
    const fs::path missing = site.root() / "missing" / "browser", plain = site.root() / "browser.txt";
    KymTest::writeExecutable(plain, "#!/bin/sh\n", 0644);  // no execute bit at all: not executable, even for root
    const std::pair<std::string, std::string> refused[] = {
        {"${KYM_TEST_UNDEFINED_BROWSER}", "Web browser is undefined. Please define it in the configure program."},
        {missing.string(), "The executable " + missing.string() + " was not found."},
        {plain.string(), "The executable " + plain.string() + " is not executable."}};
    for (const auto& [browser, message] : refused) {
        setBrowser(browser);
        EXPECT_EQ(failure([&app] { app.showDocumentation("/docs/manual.html"); }), message);
    }

    const fs::path browser = site.root() / "browser.sh", record = site.root() / "opened";
    KymTest::writeExecutable(browser, "#!/bin/sh\nprintf '%s %s' \"$#\" \"$1\" > '" + record.string() + ".part'\n"
                                      "mv '" + record.string() + ".part' '" + record.string() + "'\n");
    setBrowser(browser.string());
    app.showDocumentation("/docs/manual one.html");
    KymTest::waitForFile(record);
    while (::waitpid(-1, nullptr, 0) > 0) {
    }
    ASSERT_TRUE(fs::exists(record));
    EXPECT_EQ(KymTest::readFile(record), "1 /docs/manual one.html");
}

} // namespace
