// Access to the store that the daemon uses, with explanations where it fails.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "store/commands.h"
#include "store/query.h"

namespace session_service::console {

struct OpenStore {
    ConnectionPtr connection;
    std::string address;
    std::string socket;  // its path; empty for a port
    bool hasPassword = false;
};

// Finds the store, connects and authenticates as the daemon does, and pings it. Each reply that
// does not come within `timeout` loses the connection.
// Throws CommandError with exit_status::storeUnavailable when the store cannot be used.
OpenStore openStore(std::chrono::seconds timeout);

// Sends a command and returns the reply. Throws CommandError with exit_status::storeUnavailable
// when there is none.
store::Answer ask(redisContext* connection, std::initializer_list<std::string_view> arguments);

}  // namespace session_service::console
