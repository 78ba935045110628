// Checks of the store and of the running daemon. Each adds a finding for everything that is wrong,
// or one that says that all is well.
// All throw CommandError when the store stops answering.
#pragma once

#include "sessionctl/report.h"

struct redisContext;

namespace session_service::console {

// The version of the server, whether it accepts writes, and whether it keeps what it holds to
// itself.
void checkServer(Report& report, redisContext* connection, bool hasPassword);

// The service resource, and the collection with its members and their limit.
void checkResources(Report& report, redisContext* connection);

// The settings that are in the store.
void checkStoredSettings(Report& report, redisContext* connection);

// The scripts of the event and log services that the configuration asks for.
void checkScripts(Report& report, redisContext* connection);

// The queues that name the request channels, and their subscriber, the daemon.
void checkDaemon(Report& report, redisContext* connection);

}  // namespace session_service::console
