// The store as the daemon finds it, with an explanation where it cannot be used.
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
};

// Finds the store, connects and authenticates as the daemon does, and asks for a sign of
// life. Each wait for the connection ends after `timeout`.
// Throws Problem, with the status storeUnreachable, when the store cannot be used.
OpenStore openStore(std::chrono::seconds timeout);

// A command that the store has to answer: throws Problem, with the status
// storeUnreachable, when it does not.
store::Answer ask(redisContext* connection, std::initializer_list<std::string_view> arguments);

}  // namespace session_service::console
