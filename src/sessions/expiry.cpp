#include "sessions/expiry.h"

#include <unistd.h>

#include <cstdint>

#include "frame/logger.h"
#include "frame/thread_body.h"
#include "frame/worker_context.h"
#include "sessions/collection.h"
#include "sessions/delete_session.h"
#include "sessions/records.h"

namespace session_service {
namespace {

constexpr useconds_t passInterval = 1'000'000;
// What is longer is cut.
constexpr std::size_t maxUriLength = 511;

bool hasExpired(redisContext* connection, const std::string& uri) {
    const SecretText tokenRecordKey = tokenRecordKeyForExpiry(connection, uri);
    const Activity activity = readActivity(connection, tokenRecordKey.text);
    return std::int64_t{uptimeSeconds()} - activity.lastAccessed >= activity.timeout;
}

void expireIdleSessions(redisContext* connection, WorkerContext& context)
    TSA_REQUIRES(context.dataMutex) {
    for (const std::string& uri : memberUris(connection)) {
        if (isRedfishSession(connection, uri) && hasExpired(connection, uri)) {
            std::string id = uri.substr(0, maxUriLength);
            removeSubstring(id, sessionUriPrefix);
            Reply noReply;
            deleteSession(connection, id, noReply, context);
        }
    }
}

void expireUntilStopped(WorkerContext& context) {
    logger->debug("Timeout session thread is running ...");
    const ConnectionPtr connection = store::connect();
    if (!connection) {
        logger->error("Failed to connect to Redis.");
        return;
    }
    while (!shouldStop(context.stopMutex)) {
        usleep(passInterval);
        const MutexGuard lock(context.dataMutex);
        expireIdleSessions(connection.get(), context);
    }
}

}  // namespace

void* sessionTimeoutThread(void* workerContext) {
    runThreadBody("the session timeout", [workerContext] {
        expireUntilStopped(*static_cast<WorkerContext*>(workerContext));
    });
    return nullptr;
}

}  // namespace session_service
