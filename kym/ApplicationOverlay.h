// A configuration's local override of an application's category,
// description and disable flag, and the predicate that matches overlays and
// applications to a configuration and an application identifier.
#pragma once

#include "kym/KymExport.h"

#include <string>

namespace Base {
class Archiver;
class Unarchiver;
}

namespace Kym {

class ConfigApplication;

class KYM_EXPORT ApplicationOverlay {
public:
    ApplicationOverlay();
    ApplicationOverlay(const ApplicationOverlay&) = default;
    ApplicationOverlay& operator=(const ApplicationOverlay&) = default;
    ~ApplicationOverlay() = default;

    bool needsSaving() const { return edited; }
    void settingsChanged() { edited = true; }

    // Leaves the edited flag as it is.
    void encode(Base::Archiver& archiver);
    void decode(Base::Unarchiver& unarchiver);

    std::string configurationName;
    std::string appId;
    std::string description;
    std::string category;
    bool disableApplication;
    bool edited;
};

// For std::find_if over a configuration's overlays or applications; names
// and identifiers compare exactly, case included.
class KYM_EXPORT EqualOverlayOrApp {
public:
    EqualOverlayOrApp(const std::string& configurationName, const std::string& applicationId);
    EqualOverlayOrApp(const EqualOverlayOrApp&) = default;
    EqualOverlayOrApp& operator=(const EqualOverlayOrApp&) = default;
    ~EqualOverlayOrApp() = default;

    bool operator()(const ApplicationOverlay& overlay) const;
    bool operator()(const ConfigApplication& application) const;

private:
    std::string mApplicationId;
    std::string mConfigurationName;
};

} // namespace Kym
