// What the session service's work leaves in the store for the event and log services.
#pragma once

#include <string>
#include <vector>

#include "testbed/monitor.h"
#include "testbed/store_client.h"

namespace testbed {

// The recorded changes of resources, oldest first: action, resource, resource type, event
// group identifier.
std::vector<Words> lifeCycleEvents(StoreClient& store);

// The audit entries, oldest first, as stored: message identifier, arguments, links.
std::vector<Words> auditEntries(StoreClient& store);

// The commands of one client, in order.
std::vector<Words> commandsOf(const std::vector<MonitoredCommand>& commands,
                              const std::string& client);

}  // namespace testbed
