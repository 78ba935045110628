// What the session service writes to the store for the event and log services.
#pragma once

#include <string>
#include <vector>

#include "testbed/store_client.h"

namespace testbed {

// The life cycle events, oldest first: action, resource, resource type, event group identifier.
std::vector<Words> lifeCycleEvents(StoreClient& store);

// The audit entries, oldest first, as stored: message identifier, arguments, links.
std::vector<Words> auditEntries(StoreClient& store);

}  // namespace testbed
