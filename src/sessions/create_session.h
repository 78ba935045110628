// Logging in: the create-session thread and what it does with a request.
#pragma once

#include <cstddef>
#include <string>

#include "base/secret.h"
#include "frame/worker_context.h"
#include "store/commands.h"

namespace session_service {

inline constexpr std::size_t maxPasswordLength = 1024;
inline constexpr int maxSessions = 8;

// A login as the front end asked for it.
struct LoginRequest {
    std::string userName;
    SecretText password;
    std::string operationPrivileges;  // comma-separated masks; empty: none is required
    std::string returnChannel;
    std::string replyKey;
    std::string remoteIp;
    std::string origin;  // may be empty
};

// The thread's body; the argument is the WorkerContext. Returns null when the thread's
// connection has ended or the exit notice arrived.
void* createSessionThread(void* workerContext);

// Serves the request at `requestKey` over a connection of its own: reads the request,
// deciphers the password, logs the user in, and publishes the reply key last, on every
// path that knows a return channel. An empty request key is ignored; a missing store,
// return channel or body is logged and not answered. Returns 1 when a session was
// created, else 0. Blocks for as long as authentication takes.
int handleCreateSessionRequest(const std::string& requestKey, const std::string& replyKey,
                               WorkerContext& context);

// Checks the login and creates the session: resource, token, collection entry, reply,
// life-cycle events and audit entry. What was written before a failure stays. The reply
// is written, not published. Returns 1 when the session was created, else 0.
int createSession(redisContext* store, const LoginRequest& request, WorkerContext& context);

}  // namespace session_service
