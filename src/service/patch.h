// PATCH requests to the service resource.
#pragma once

#include <string>

#include "store/commands.h"

namespace session_service {

// What a request body asks for.
enum class BodyStatus {
    valid = 0,
    empty = 1,
    unreadable = 2,
};

// Reads and converts the body hash at `bodyKey`. `properties` gets SessionTimeout where
// the body gives it a value; `changed` is set when that differs, as text, from what the
// target holds. What is wrong with the body is logged.
BodyStatus validateBody(redisContext* connection, const std::string& targetUri,
                        const std::string& bodyKey, bool& changed, FieldMap& properties);

// The worker's body; its argument is not used. Serves requests one after another until its
// subscription ends, then returns null.
void* patchThread(void* unused);

}  // namespace session_service
