// Resource life-cycle events: what the event service is told of every change.
#pragma once

#include <string>
#include <vector>

#include "store/commands.h"

namespace session_service {

// The script that takes events, and the setting that switches them.
inline constexpr const char* eventScript = "resourceChange";
inline constexpr const char* eventSetting = "GenerateResourceEvent";

// A flat list in groups of five: action, resource URI, resource type, "EventGroupId",
// decimal group identifier.
using EventList = std::vector<std::string>;

// Appends one group to the list.
void appendEvent(EventList& events, const char* action, const std::string& uri, const char* type,
                 const std::string& groupId);

// Hands the list to the event service's script in the store, every item as one key.
// Does nothing when the setting GenerateResourceEvent (read once per process) switches events off.
// Failures are logged as errors, but for a list of fewer than two items and a lost
// connection, which are silent.
void generateLifeCycleEvents(redisContext* connection, const EventList& events);

}  // namespace session_service
