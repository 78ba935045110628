// Audit entries for logins and logouts.
#pragma once

#include <string>

#include "store/commands.h"

namespace session_service {

// The script that makes entries, and the setting that names their collection.
inline constexpr const char* auditScript = "logGeneratorHelper";
inline constexpr const char* auditSetting = "LogEntryCollection";

// Has the log service's script in the store make an entry in the collection that the
// setting LogEntryCollection (read once per process) names. `messageArg` is the message's
// one argument (the user name); it splits at blanks and vanishes when empty. `origin` is
// the URI of the resource concerned. Every outcome but success and a lost connection is
// logged; none is reported.
void generateAuditLogEntry(redisContext* connection, const std::string& messageArg,
                           const std::string& messageId, const std::string& origin);

// Local time in whole seconds with the zone's offset: 2024-05-06T07:08:09+08:00.
std::string currentTimestamp();

}  // namespace session_service
