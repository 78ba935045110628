// Checks of the files that the daemon uses. Each adds a finding for everything that is wrong, or
// one that says that all is well.
#pragma once

#include "sessionctl/report.h"

namespace session_service::console {

// The daemon's own settings, and whether the log can be written.
void checkConfiguration(Report& report, const char* path);

// The group attribute and the groups of the roles.
void checkGroups(Report& report, const char* path);

// The privilege values of the roles.
void checkPrivileges(Report& report, const char* path);

// The properties that outlive the store.
void checkPersistentProperties(Report& report, const char* path);

// The store's socket, which may be empty for a port, and the password beside it.
void checkStoreFiles(Report& report, const std::string& socket);

// Whether others may change the file, which may be missing.
void checkOwnership(Report& report, const char* path);

// The key that passwords are encrypted with.
void checkKeyFile(Report& report, const char* path);

}  // namespace session_service::console
