// Event group identifiers: they tell the event service which life-cycle events belong to
// one request. The counter lies in the store and is shared with other services.
#pragma once

#include <cstdint>

#include "store/commands.h"

namespace session_service {

// The largest identifier, at least 1. A valid setting in the store is read once and kept
// for the life of the process; while there is none the result is 2147483647 (what is
// wrong with the setting is logged at debug level, but for a fraction, which is not).
std::int32_t maxEventGroupId(redisContext* store);

// Draws the next identifier, 1 to the maximum, after which it starts again at 1. Drawn
// once per request. Store failures are logged at debug level and never reported.
std::uint32_t nextEventGroupId(redisContext* store);

}  // namespace session_service
