// PATCH requests to the service resource.
#pragma once

#include <string>

#include "store/commands.h"

namespace session_service {

// What a request body asks for.
enum class BodyStatus {
    valid,
    empty,
    unreadable,
};

// Reads and converts the body hash at `bodyKey`. `properties` gets SessionTimeout where
// the body gives it a value; `changed` becomes true when that differs, as text, from
// what the target holds, and is left alone otherwise. What is wrong with the body is logged.
BodyStatus validateBody(redisContext* connection, const std::string& targetUri,
                        const std::string& bodyKey, bool& changed, FieldMap& properties);

// The worker's body; its argument is not used. Serves requests one after another until its
// subscription ends, then returns null; the same, logged, when it cannot connect or subscribe or
// after an exception.
void* patchThread(void* unused);

}  // namespace session_service
