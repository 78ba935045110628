// Logging out: the delete-session thread, what it does with a request, and the deletion
// that expiry shares with it.
#pragma once

#include <string>

#include "frame/worker_context.h"
#include "protocol/replies.h"
#include "store/commands.h"

namespace session_service {

// The thread's body; the argument is the WorkerContext. Returns null when the thread's connection
// cannot be opened or has ended, on the exit notice, and after an exception, which is logged.
void* deleteSessionThread(void* workerContext);

// Serves the request at `requestKey` over a connection of its own. Who may delete a
// session was settled before the request got here. An empty request key is ignored;
// a missing store, return channel or target is logged and not answered. Otherwise the
// reply key is published last; an empty one only by the refusals for the session's type and for a
// disabled service. Waits for the data mutex at most dataMutexSeconds.
void handleDeleteSessionRequest(const std::string& requestKey, const std::string& replyKey,
                                WorkerContext& context);

// Removes the session with the (bare) identifier, its token record and its collection
// entry, and sends the life-cycle events and the audit entry. Nothing is rolled back. The
// reply is written when somebody waits for it; expiry passes an empty one. `context` only names the
// mutex that must be held.
void deleteSession(redisContext* connection, const std::string& sessionId, Reply& reply,
                   WorkerContext& context) TSA_REQUIRES(context.dataMutex);

}  // namespace session_service
