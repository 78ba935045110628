// Whether the files are as the daemon needs them. Each check adds one finding for everything
// that is wrong, or one that says that nothing is.
#pragma once

#include "sessionctl/report.h"

namespace session_service::console {

// The daemon's own settings, and whether it can write its log.
void checkConfiguration(Report& report, const char* path);

// The group attribute and the roles' groups.
void checkGroups(Report& report, const char* path);

// The roles' privilege values.
void checkPrivileges(Report& report, const char* path);

// The properties that outlive the store.
void checkProperties(Report& report, const char* path);

// The key of the passwords' encipherment.
void checkKey(Report& report, const char* path);

}  // namespace session_service::console
