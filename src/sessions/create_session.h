// Logging in: the create-session thread and what it does with a request.
#pragma once

#include <cstddef>
#include <string>

#include "frame/worker_context.h"

namespace session_service {

inline constexpr std::size_t maxPasswordLength = 1024;
inline constexpr int maxSessions = 8;

// What passwords are decrypted with.
inline constexpr const char* keyFile = "/var/nginx/pkey.tmp";

// The thread's body; the argument is the WorkerContext. Returns null when the thread's connection
// cannot be opened or has ended, on the exit notice, and after an exception, which is logged.
void* createSessionThread(void* workerContext);

// Serves the request at `requestKey` over a connection of its own: reads the request,
// decrypts the password, logs the user in and creates the session, with its reply, life-cycle
// events and audit entry. Publishes the reply key last, on every path that knows a return
// channel. An empty request key is ignored; a missing store, return channel or body is logged
// and not answered. What was written before a failure stays. Blocks for as long as
// authentication takes.
void handleCreateSessionRequest(const std::string& requestKey, const std::string& replyKey,
                                WorkerContext& context);

}  // namespace session_service
