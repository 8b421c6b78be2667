#include "kym/App.h"

#include "kym/SystemPreferences.h"

#include "base/BaseException.h"
#include "base/Platform.h"
#include "support/Site.h"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <thread>

namespace {

namespace fs = boost::filesystem;
using Kym::App;
using KymTest::ScopedEnv;

std::string failure(const std::function<void()>& action) {
    try {
        action();
    } catch (const Base::BaseException& e) {
        return e.what();
    }
    return "(no failure)";
}

// The site's browser under posix conventions.
void setBrowser(const KymTest::Site& site, const std::string& browser) {
    KymTest::SiteFile file;
    file.browser.value = browser;
    site.writeSiteSettings(file);
}

TEST(App, OneApplicationObjectLivesAtATime) {
    {
        App first("launcher");
        EXPECT_EQ(App::instance(), &first);
        EXPECT_EQ(failure([] { App second("configure"); }), "Trying to construct multiple application objects.");
        EXPECT_EQ(App::instance(), &first);
    }
    EXPECT_EQ(App::instance(), nullptr);
    App again("configure");
    EXPECT_EQ(App::instance(), &again);
}

TEST(App, InitializeStartsTheBaseLayerBeforeThePreferenceDatabase) {
    KymTest::Site site;
    const fs::path logFile = site.root() / "trace.log";
    // Only a started base layer sends the lines to the file.
    ScopedEnv logged("KYM_LOG", "kym.info");
    ScopedEnv output("KYM_LOG_FILE", logFile.string());
    App app("launcher");
    app.initialize(nullptr);
    ASSERT_NE(app.getPreferenceDB(), nullptr);
    EXPECT_EQ(app.getPreferenceDB()->CurrentApplication(), "launcher.plist");
    const std::string text = KymTest::readFile(logFile);
    EXPECT_EQ(text.rfind("[kym.info] initialized trace controller\n", 0), 0u) << text;
    EXPECT_EQ(text.substr(text.rfind('\n', text.size() - 2) + 1), "[kym.info] initialized preference system\n");
}

TEST(App, CopySharesTheDatabaseAndItsDestructionFlushesItAndClearsTheInstance) {
    KymTest::Site site;
    App app("launcher");
    app.initialize(nullptr);
    {
        App copy(app);
        EXPECT_EQ(App::instance(), &app);
        EXPECT_EQ(copy.getPreferenceDB(), app.getPreferenceDB());
        copy.getPreferenceDB()->SetPreference("written by", std::string("copy"));
    }
    // The copy flushed the shared database and cleared the instance; the original still uses the database.
    EXPECT_EQ(App::instance(), nullptr);
    const auto written = Kym::SystemPreferences("launcher").GetPreference("written by");
    ASSERT_TRUE(written);
    EXPECT_EQ(boost::any_cast<std::string>(*written), "copy");
}

TEST(App, ShowDocumentationRefusesAnUndefinedMissingOrNotExecutableBrowser) {
    KymTest::Site site;
    Base::Platform::setCurrent(Base::Platform::Posix);
    App app("launcher");
    const auto show = [&app] { app.showDocumentation("/docs/manual.html"); };

    setBrowser(site, "${KYM_TEST_UNDEFINED_BROWSER}");
    EXPECT_EQ(failure(show), "Web browser is undefined. Please define it in the configure program.");
    const fs::path missing = site.root() / "missing" / "browser";
    setBrowser(site, missing.string());
    EXPECT_EQ(failure(show), "The executable " + missing.string() + " was not found.");
    // No execute bit at all: not executable, even for root.
    const fs::path plain = site.root() / "browser.txt";
    KymTest::writeFile(plain, "#!/bin/sh\n");
    fs::permissions(plain, fs::perms(0644));
    setBrowser(site, plain.string());
    EXPECT_EQ(failure(show), "The executable " + plain.string() + " is not executable.");
}

TEST(App, ShowDocumentationStartsTheSiteBrowserOnTheDocument) {
    // The browser is started detached; adopt it so that it can be reaped here.
    ASSERT_EQ(::prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    KymTest::Site site;
    Base::Platform::setCurrent(Base::Platform::Posix);
    const fs::path browser = site.root() / "browser.sh";
    const fs::path record = site.root() / "opened";
    KymTest::writeFile(browser, "#!/bin/sh\n"
                                "printf '%s %s' \"$#\" \"$1\" > '" + record.string() + ".part'\n"
                                "mv '" + record.string() + ".part' '" + record.string() + "'\n");
    fs::permissions(browser, fs::perms(0755));
    setBrowser(site, browser.string());

    App("launcher").showDocumentation("/docs/manual one.html");
    for (int attempt = 0; attempt < 500 && !fs::exists(record); ++attempt)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    int status = 0;
    while (::waitpid(-1, &status, 0) > 0) {
    }
    ASSERT_TRUE(fs::exists(record));
    EXPECT_EQ(KymTest::readFile(record), "1 /docs/manual one.html");
}

} // namespace
