// Uses the installed headers and library: expands a variable reference and
// writes and reads back a property list. Prints "consumer: ok" on success.
#include "base/BaseException.h"
#include "base/Environment.h"
#include "base/PropertyList.h"
#include "kym/KymExport.h"

#include <boost/any.hpp>
#include <cstdint>
#include <iostream>
#include <string>

namespace {

int fail(const std::string& what) {
    std::cerr << "consumer: " << what << '\n';
    return 1;
}

} // namespace

int main() {
    const Base::Environment::Map variables{{"SITE", "/opt/site"}, {"RELEASE", "${MAJOR}.0"}, {"MAJOR", "9"}};
    std::string text = "${SITE}/release$RELEASE";
    Base::Environment::expandEnvVariables(text, variables);
    if (text != "/opt/site/release9.0")
        return fail("expanded to \"" + text + "\"");

    Base::PropertyList::Dictionary written{{"Name", std::string("Design")}, {"Count", std::int64_t(3)}};
    const boost::any read = Base::PropertyList::parse(Base::PropertyList::serialize(written), "consumer.plist");
    const auto* dictionary = boost::any_cast<Base::PropertyList::Dictionary>(&read);
    if (!dictionary || dictionary->size() != 2)
        return fail("the property list did not read back as a dictionary of two entries");
    const auto* name = boost::any_cast<std::string>(&dictionary->at("Name"));
    const auto* count = boost::any_cast<std::int64_t>(&dictionary->at("Count"));
    if (!name || *name != "Design" || !count || *count != 3)
        return fail("the property list read back with other values");

    try {
        Base::PropertyList::parse("<plist>", "broken.plist");
        return fail("a damaged property list was accepted");
    } catch (const Base::BaseException&) {
    }

    std::cout << "consumer: ok\n";
    return 0;
}
