#include "sessions/delete_session.h"

#include "events/audit_log.h"
#include "events/event_group.h"
#include "events/life_cycle.h"
#include "frame/logger.h"
#include "frame/thread_body.h"
#include "protocol/request_channels.h"
#include "sessions/collection.h"
#include "sessions/records.h"
#include "store/resource_names.h"

namespace session_service {
namespace {

// Writes the reply to a deletion that failed, with an empty body.
void refuse(redisContext* connection, Reply& reply, const Outcome& outcome) {
    reply.fields[responseDataField] = "";
    writeReply(connection, reply, outcome);
}

// A lost store before anything was removed. Expiry, for which nobody waits, stays silent about it.
void refuseForLostStore(redisContext* connection, Reply& reply, const char* logText) {
    if (isExpected(reply)) {
        logger->error("%s", logText);
        refuse(connection, reply, {reply_status::failure, message_id::databaseOperationError});
    }
}

// Deletes under the data mutex and publishes the reply.
void deleteUnderLock(redisContext* connection, const std::string& sessionId,
                     const std::string& returnChannel, const std::string& replyKey,
                     WorkerContext& context) {
    Reply reply = composeReplyKeys(replyKey);
    MutexGuard lock(context.dataMutex, MutexGuard::Deferred{});
    if (lock.tryFor(dataMutexSeconds)) {
        deleteSession(connection, sessionId, reply, context);
        lock.unlock();
    } else {
        const std::string retryAfterSeconds = "1";
        refuse(connection, reply,
               {reply_status::unavailable,
                message_id::serviceTemporarilyUnavailable,
                {retryAfterSeconds}});
    }
    if (isExpected(reply)) {
        store::publish(connection, returnChannel, replyKey);
    }
}

// Answers a request that is refused before its session is looked for.
void refuseEarly(redisContext* connection, const std::string& returnChannel,
                 const std::string& replyKey, const Outcome& outcome) {
    writeReplyFieldByField(connection, composeEarlyReply(replyKey), outcome);
    store::publish(connection, returnChannel, replyKey);
}

}  // namespace

void deleteSession(redisContext* connection, const std::string& sessionId, Reply& reply,
                   WorkerContext& /*context*/) {
    const std::string uri = sessionUriOf(sessionId);
    if (!canReadMembers(connection)) {
        refuseForLostStore(connection, reply, "Failed to get sessions.");
        return;
    }
    SecretText tokenRecordKey;
    if (!tokenRecordKeyForDeletion(connection, uri, tokenRecordKey)) {
        refuseForLostStore(connection, reply, "Failed to delete session.");
        return;
    }
    const std::string userName = stripQuotes(store::hget(connection, uri, userNameField));
    removeSessionKeys(connection, tokenRecordKey.text, uri);

    const std::string groupId = std::to_string(nextEventGroupId(connection));
    EventList events;
    appendEvent(events, "delete", uri, "Session", groupId);
    if (!hasMemberCount(connection)) {
        logger->error("Failed to get sessions.");
        refuse(connection, reply, {reply_status::failure, message_id::databaseOperationError});
        generateLifeCycleEvents(connection, events);
        return;
    }
    removeSessionMember(connection, uri);
    writeReply(connection, reply, {reply_status::okEmpty});
    appendEvent(events, "change", collectionUri, "SessionCollection", groupId);
    generateLifeCycleEvents(connection, events);
    generateAuditLogEntry(connection, userName, "AuditEvent.1.1.UserLogout", uri);
}

void handleDeleteSessionRequest(const std::string& requestKey, const std::string& replyKey,
                                WorkerContext& context) {
    if (requestKey.empty()) {
        return;
    }
    const ConnectionPtr opened = store::connect();
    if (!opened) {
        logger->error("Failed to connect to Redis.");
        return;
    }
    redisContext* connection = opened.get();
    const std::string returnChannel = store::hget(connection, requestKey, returnChannelField);
    if (returnChannel.empty()) {
        logger->error("ReturnChannel is not found.");
        return;
    }
    const std::string targetUri = store::hget(connection, requestKey, targetUriField);
    if (targetUri.empty()) {
        logger->error("%s is not found.", targetUriField.c_str());
        return;
    }
    const std::string sessionType = store::hget(connection, targetUri, sessionTypeField);
    if (!sessionType.empty() && sessionType != redfishSessionType) {
        logger->error("Request SessionType is not Redfish.");
        refuseEarly(connection, returnChannel, replyKey,
                    {reply_status::failure, message_id::unprocessableEntity});
        return;
    }
    if (store::hget(connection, serviceUri, serviceEnabledField) == "false") {
        logger->debug("Session Service disabled.");
        refuseEarly(connection, returnChannel, replyKey,
                    {reply_status::unavailable, message_id::serviceDisabled});
        return;
    }
    // Without a slash the whole URI is the identifier: npos + 1 is 0.
    const std::string sessionId = targetUri.substr(targetUri.rfind('/') + 1);
    deleteUnderLock(connection, sessionId, returnChannel, replyKey, context);
}

void* deleteSessionThread(void* workerContext) {
    runThreadBody(deleteChannel.c_str(), [workerContext] {
        logger->debug("Delete session thread is running ...");
        serveRequests(deleteChannel, [workerContext](const Notice& notice) {
            handleDeleteSessionRequest(notice.requestKey, notice.replyKey,
                                       *static_cast<WorkerContext*>(workerContext));
        });
    });
    return nullptr;
}

}  // namespace session_service
