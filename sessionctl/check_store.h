// Whether the store holds what the daemon needs, and whether the daemon serves. Each check
// adds one finding for everything that is wrong, or one that says that nothing is.
// All throw Problem when the store stops answering.
#pragma once

#include "sessionctl/report.h"

struct redisContext;

namespace session_service::console {

// The server's version, and that it takes writes.
void checkServer(Report& report, redisContext* connection);

// The service resource, the collection and its members, and the places that are left.
void checkResources(Report& report, redisContext* connection);

// The settings that lie in the store.
void checkStoredSettings(Report& report, redisContext* connection);

// The scripts of the event and log services, as far as the configuration asks for them.
void checkScripts(Report& report, redisContext* connection);

// The queues that name the channels, and the daemon at their ends.
void checkDaemon(Report& report, redisContext* connection);

}  // namespace session_service::console
