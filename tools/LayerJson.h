// The JSON of a layer's entries, as the listing commands print them and as
// kym export writes them and kym import reads them back.
#pragma once

#include "Output.h"

#include "kym/ApplicationOverlay.h"
#include "kym/ConfigApplication.h"
#include "kym/EnvironmentVariable.h"
#include "kym/SettingsProtocol.h"
#include "kym/SiteSettings.h"
#include "kym/SystemInfo.h"

#include <string>
#include <vector>

namespace KymTool {

// One of the three variable lists of a layer or an application.
struct VariableList {
    std::string name;  // common, unix or windows
    Kym::EnvVariableListSource* source = nullptr;
    // The records themselves: the table has no column for the comment.
    std::vector<Kym::EnvironmentVariable>* records = nullptr;
    std::string description;  // "the unix list of department Design"
};
extern const char* const VariableListNames[3];
// `where` describes the owner: "department Design", "application nx of the base settings".
VariableList variableList(Kym::SettingsProtocol& owner, const std::string& listName, const std::string& where);
// The row of the first variable of that name, or -1.
int variableRow(const VariableList& list, const std::string& name);

Json variableJson(const Kym::EnvironmentVariable& variable);
Json applicationJson(Kym::ApplicationListSource& applications, int row);
Json overlayJson(const Kym::ApplicationOverlay& overlay);

// The site settings by their keys of kym site set; on/off ones as true or false.
Json siteSettingsJson(const Kym::SiteSettings& site);
std::vector<std::string> siteSettingKeys();
// Throws UsageError for a key that is not a site setting.
void setSiteSetting(Kym::SiteSettings& site, const std::string& key, const std::string& text);

// Every member of the system information by its name.
Json systemInfoJson(const Kym::SystemInfo& info);
std::vector<std::string> systemInfoMembers();
// Throws UsageError for a name that is not a member.
void setSystemInfoMember(Kym::SystemInfo& info, const std::string& name, const std::string& text);

// An application identifier is one word; throws with the reason otherwise.
void checkAppId(const std::string& appId);

} // namespace KymTool
