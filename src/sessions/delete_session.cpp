#include "sessions/delete_session.h"

#include <pthread.h>

#include <optional>

#include "base/secret.h"
#include "events/audit_log.h"
#include "events/event_group.h"
#include "events/life_cycle.h"
#include "frame/logger.h"
#include "frame/resource_names.h"
#include "protocol/request_channels.h"
#include "sessions/collection.h"
#include "sessions/records.h"

namespace session_service {
namespace {

bool wantsReply(const ReplyFields& fields) {
    return !fieldOf(fields, replyKeyItem).empty();
}

// Completes and writes a reply with an empty body.
void replyWithoutData(redisContext* store, ReplyFields& fields, MessageInfo& message,
                      const char* status, const char* messageId,
                      const MessageArguments& arguments = {}) {
    fields[returnStatusField] = status;
    fields[responseDataField] = "";
    message[messageIdItem] = messageId;
    writeReply(store, fields, message, arguments);
}

// A store failure before anything was removed; expiry stays silent about it.
void reportLostStore(redisContext* store, ReplyFields& fields, MessageInfo& message,
                     const char* logText) {
    if (wantsReply(fields)) {
        logger->error("%s", logText);
        replyWithoutData(store, fields, message, "FAILURE", databaseOperationError);
    }
}

void eraseFirst(std::string& text, char character) {
    const std::size_t position = text.find(character);
    if (position != std::string::npos) {
        text.erase(position, 1);
    }
}

// Removes what a session's own keys hold.
void removeKeys(redisContext* store, const std::string& tokenKey, const std::string& uri) {
    const std::string tokenReference = tokenReferencePrefix + uri;
    // Targets come from clients: "Members" and its like name lists of this service.
    if (tokenReference == membersKey || tokenReference == createQueue ||
        tokenReference == deleteQueue) {
        store::send(store, {"UNLINK", tokenKey, uri});
    } else {
        store::send(store, {"UNLINK", tokenKey, uri, tokenReference});
    }
}

// Takes the session out of the members list. True when it was in it.
bool removeMember(redisContext* store, const std::string& uri) {
    if (store::sendForInteger(store, {"LREM", membersKey, "-1", memberPrefix + uri}) != 1) {
        return false;
    }
    store::send(store, {"HINCRBY", collectionUri, membersCountField, "-1"});
    updateEtag(store, collectionUri);
    return true;
}

// Deletes under the data mutex and publishes the reply.
void deleteUnderLock(redisContext* store, const std::string& sessionId,
                     const std::string& returnChannel, const std::string& replyKey,
                     WorkerContext& context) {
    ReplyFields fields;
    MessageInfo message;
    composeReplyKeys(replyKey, fields, message);
    const bool answered = wantsReply(fields);
    if (tryLockFor(context.dataMutex, dataMutexSeconds)) {
        const HeldMutex lock(&context.dataMutex);
        deleteSession(store, sessionId, fields, message, context);
    } else if (answered) {
        const std::string retryAfterSeconds = "1";
        replyWithoutData(store, fields, message, "UNAVAILABLE", temporarilyUnavailableMessage,
                         {retryAfterSeconds});
    }
    if (answered) {
        store::publish(store, returnChannel, replyKey);
    }
}

}  // namespace

int deleteSession(redisContext* store, const std::string& sessionId, ReplyFields fields,
                  MessageInfo message, WorkerContext& /*context*/) {
    const std::string uri = sessionUriOf(sessionId);
    if (!store::send(store, {"LRANGE", membersKey, "0", "-1"})) {
        reportLostStore(store, fields, message, "Failed to get sessions.");
        return 0;
    }
    std::optional<std::string> quotedToken =
        store::hgetReply(store, tokenReferencePrefix + uri, tokenReferenceField, "(nil)");
    if (!quotedToken) {
        reportLostStore(store, fields, message, "Failed to delete session.");
        return 0;
    }
    SecretText tokenKey{tokenRecordPrefix + *quotedToken};
    wipe(*quotedToken);
    eraseFirst(tokenKey.text, '"');
    eraseFirst(tokenKey.text, '"');

    const std::string userName = stripQuotes(store::hget(store, uri, userNameField));
    removeKeys(store, tokenKey.text, uri);

    const std::string groupId = std::to_string(nextEventGroupId(store));
    EventList events;
    appendEvent(events, "delete", uri, "Session", groupId);
    if (store::hget(store, collectionUri, membersCountField).empty()) {
        logger->error("Failed to get sessions.");
        replyWithoutData(store, fields, message, "FAILURE", databaseOperationError);
        generateLifeCycleEvents(store, events);
        return 0;
    }
    const bool removed = removeMember(store, uri);
    if (wantsReply(fields)) {
        fields[returnStatusField] = deletedStatus;
        writeReply(store, fields, message);
    }
    appendEvent(events, "change", collectionUri, "SessionCollection", groupId);
    generateLifeCycleEvents(store, events);
    generateAuditLogEntry(store, userName, "AuditEvent.1.1.UserLogout", uri);
    return removed ? 1 : 0;
}

void handleDeleteSessionRequest(const std::string& requestKey, const std::string& replyKey,
                                WorkerContext& context) {
    if (requestKey.empty()) {
        return;
    }
    const ConnectionPtr store = store::connect();
    if (!store) {
        logger->error("Failed to connect to Redis.");
        return;
    }
    const std::string returnChannel = store::hget(store.get(), requestKey, returnChannelField);
    if (returnChannel.empty()) {
        logger->error("ReturnChannel is not found.");
        return;
    }
    const std::string targetUri = store::hget(store.get(), requestKey, targetUriField);
    if (targetUri.empty()) {
        logger->error("%s is not found.", targetUriField.c_str());
        return;
    }
    const std::string sessionType = store::hget(store.get(), targetUri, sessionTypeField);
    if (!sessionType.empty() && sessionType != redfishSessionType) {
        logger->error("Request SessionType is not Redfish.");
        writeEarlyRefusal(store.get(), replyKey, "FAILURE", unprocessableMessage);
        store::publish(store.get(), returnChannel, replyKey);
        return;
    }
    if (store::hget(store.get(), serviceUri, serviceEnabledField) == "false") {
        logger->debug("Session Service disabled.");
        writeEarlyRefusal(store.get(), replyKey, "UNAVAILABLE", serviceDisabledMessage);
        store::publish(store.get(), returnChannel, replyKey);
        return;
    }
    // Without a slash the whole URI is the identifier: npos + 1 is 0.
    const std::string sessionId = targetUri.substr(targetUri.rfind('/') + 1);
    deleteUnderLock(store.get(), sessionId, returnChannel, replyKey, context);
}

void* deleteSessionThread(void* workerContext) {
    logger->debug("Delete session thread is running ...");
    serveRequests(deleteChannel, *static_cast<WorkerContext*>(workerContext),
                  handleDeleteSessionRequest);
    return nullptr;
}

}  // namespace session_service
