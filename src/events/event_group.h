// Event group identifiers: they tell the event service which life-cycle events belong to
// one request. The counter lies in the store and is shared with other services.
#pragma once

#include <cstdint>

#include "store/commands.h"

namespace session_service {

// In the hash of default values: the largest identifier.
inline constexpr const char* maxEventGroupField = "MAX_EVENT_GROUP_ID";

// The largest identifier, at least 1. A valid setting in the store is read once and kept
// for the life of the process; while there is none the result is 2147483647 (what is
// wrong with the setting is logged at debug level, but for a fraction, which is not).
std::int32_t maxEventGroupId(redisContext* connection);

// The next identifier, 1 to the maximum, after which it starts again at 1. To be called once per
// request. Store failures are logged at debug level and never reported.
std::uint32_t nextEventGroupId(redisContext* connection);

}  // namespace session_service
