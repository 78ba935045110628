#include "sessions/expiry.h"

#include <pthread.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include "base/secret.h"
#include "frame/logger.h"
#include "frame/resource_names.h"
#include "frame/worker_context.h"
#include "sessions/collection.h"
#include "sessions/delete_session.h"
#include "sessions/records.h"
#include "store/commands.h"

namespace session_service {
namespace {

constexpr useconds_t passInterval = 1'000'000;

bool hasExpired(redisContext* store, const std::string& uri) {
    const SecretText quotedToken{
        store::hget(store, tokenReferencePrefix + uri, tokenReferenceField)};
    const SecretText token{stripQuotes(quotedToken.text)};
    const SecretText recordKey{tokenRecordPrefix + token.text};
    const std::int32_t lastAccessed =
        parseSeconds(store::hget(store, recordKey.text, lastAccessedField));
    const std::int32_t timeout = parseSeconds(store::hget(store, recordKey.text, timeoutField));
    return std::int64_t{uptimeSeconds()} - lastAccessed >= timeout;
}

void expireSession(redisContext* store, const std::string& uri, WorkerContext& context) {
    char id[512] = {};
    std::snprintf(id, sizeof(id), "%s", uri.c_str());
    removeSubstring(id, sessionUriPrefix.c_str());
    deleteSession(store, id, {}, {}, context);
}

void expireIdleSessions(redisContext* store, WorkerContext& context) {
    std::vector<std::string> members;
    store::lrange(store, membersKey, members);
    for (const std::string& member : members) {
        const std::string uri = memberUri(member);
        if (store::hget(store, uri, sessionTypeField) == redfishSessionType &&
            hasExpired(store, uri)) {
            expireSession(store, uri, context);
        }
    }
}

}  // namespace

int removeSubstring(char* buffer, const char* text) {
    if (!buffer || !text) {
        return 0;
    }
    char* found = std::strstr(buffer, text);
    if (!found) {
        return 0;
    }
    const char* rest = found + std::strlen(text);
    std::memmove(found, rest, std::strlen(rest) + 1);
    return 1;
}

void* sessionTimeoutThread(void* workerContext) {
    WorkerContext& context = *static_cast<WorkerContext*>(workerContext);
    logger->debug("Timeout session thread is running ...");
    const ConnectionPtr store = store::connect();
    if (!store) {
        logger->error("Failed to connect to Redis.");
        return nullptr;
    }
    try {
        while (!shouldStop(context.stopMutex)) {
            usleep(passInterval);
            pthread_mutex_lock(&context.dataMutex);
            const HeldMutex lock(&context.dataMutex);
            expireIdleSessions(store.get(), context);
        }
    } catch (const std::exception& failure) {
        logger->error("The thread of the session timeout ends: %s", failure.what());
    }
    return nullptr;
}

}  // namespace session_service
