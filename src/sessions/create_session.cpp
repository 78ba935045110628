#include "sessions/create_session.h"

#include <pthread.h>

#include <vector>

#include "auth/pam_login.h"
#include "auth/privileges.h"
#include "base/secret.h"
#include "events/audit_log.h"
#include "events/event_group.h"
#include "events/life_cycle.h"
#include "frame/logger.h"
#include "frame/thread_body.h"
#include "platform/data_decryption.h"
#include "protocol/replies.h"
#include "protocol/request_channels.h"
#include "sessions/collection.h"
#include "sessions/identifiers.h"
#include "sessions/records.h"
#include "store/entity_tag.h"
#include "store/resource_names.h"

namespace session_service {
namespace {

const std::string locationField = "&&Location";
const std::string tokenField = "&&X-Auth-Token";

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

// Counts the sessions, under the data mutex if it can be taken in time. False, with the reply
// written, when there are too many or it could not.
bool checkSessionLimit(redisContext* connection, Reply& reply, WorkerContext& context) {
    MutexGuard lock(context.dataMutex, MutexGuard::Deferred{});
    const bool locked = lock.tryFor(dataMutexSeconds);
    const int count = countRedfishSessions(connection);
    if (locked && count < maxSessions) {
        return true;
    }
    writeReply(connection, reply,
               {reply_status::unavailable,
                count >= maxSessions ? message_id::sessionLimitExceeded : nullptr});
    return false;
}

bool hasPrivilegeFor(const LoginRequest& request, const std::string& privilege) {
    std::vector<std::int32_t> required;
    if (!request.operationPrivileges.empty()) {
        required = parsePrivilegeList(request.operationPrivileges);
    }
    return hasRequiredPrivilege(parseUserPrivilege(privilege), required);
}

// Completes a session whose resource is there: entity tag, token reference, token record,
// collection entry. False, with the reply written, when one of the last two fails.
bool completeSession(redisContext* connection, Reply& reply, const NewSession& session) {
    updateEtag(connection, sessionUriOf(session.id));
    writeTokenReference(connection, session);
    const std::string timeout = store::hget(connection, serviceUri, sessionTimeoutField);
    if (!writeMetaSessionRecord(connection, session, timeout)) {
        logger->error("Failed to create meta session table.");
        writeReply(connection, reply, {reply_status::failure, message_id::databaseOperationError});
        return false;
    }
    if (!addSessionMember(connection, session.id.c_str())) {
        logger->error("Failed to add session entry to Members.");
        writeReply(connection, reply, {reply_status::failure, message_id::unprocessableEntity});
        return false;
    }
    return true;
}

void writeSuccess(redisContext* connection, Reply& reply, const NewSession& session) {
    if (!isExpected(reply)) {
        return;
    }
    Outcome outcome{reply_status::ok, message_id::created};
    if (session.mustChangePassword) {
        outcome.messageId = message_id::passwordChangeRequired;
        outcome.arguments.push_back(findAccountByOwner(connection, session.userName));
    }
    reply.fields[locationField] = sessionUriOf(session.id);
    reply.fields[tokenField] = session.token.text;
    writeReply(connection, reply, outcome);
    wipe(reply.fields[tokenField]);
}

// Checks the login and creates the session: resource, token, collection entry, reply,
// life-cycle events and audit entry. What was written before a failure stays. The reply
// is written, not published.
void createSession(redisContext* connection, const LoginRequest& request, WorkerContext& context) {
    Reply reply = composeReplyKeys(request.replyKey);

    if (store::hget(connection, serviceUri, serviceEnabledField) == "false") {
        logger->debug("SessionService disabled.");
        writeReplyFieldByField(connection, composeEarlyReply(request.replyKey),
                               {reply_status::unavailable, message_id::serviceDisabled});
        return;
    }
    if (!checkSessionLimit(connection, reply, context)) {
        return;
    }
    const LoginResult login =
        authenticateUser(request.userName, request.password.text, request.remoteIp);
    if (login.decision == LoginDecision::refused) {
        writeReply(connection, reply, {reply_status::authFailed, message_id::invalidCredentials});
        return;
    }
    if (!hasPrivilegeFor(request, login.privilege)) {
        writeReply(connection, reply, {reply_status::forbidden, message_id::insufficientPrivilege});
        return;
    }

    const NewSession session{
        .id = generateSessionId(connection),
        .token = {generateToken(connection)},
        .userName = request.userName,
        .remoteIp = request.remoteIp,
        .origin = request.origin,
        .privilege = login.privilege,
        .mustChangePassword = login.decision == LoginDecision::mustChangePassword,
    };
    const std::string uri = sessionUriOf(session.id);
    if (!writeSessionRecord(connection, session)) {
        logger->error("Failed to add session entry.");
        writeReply(connection, reply, {reply_status::failure, message_id::databaseOperationError});
        return;
    }
    const std::string groupId = std::to_string(nextEventGroupId(connection));
    EventList events;
    appendEvent(events, "add", uri, "Session", groupId);
    if (!completeSession(connection, reply, session)) {
        generateLifeCycleEvents(connection, events);
        return;
    }
    pthread_cond_signal(&context.dataReady);

    store::hset(connection, request.returnChannel, responseDataField, "");
    writeSuccess(connection, reply, session);
    appendEvent(events, "change", collectionUri, "SessionCollection", groupId);
    generateLifeCycleEvents(connection, events);
    generateAuditLogEntry(connection, session.userName, "AuditEvent.1.1.UserLogin", uri);
}

}  // namespace

void handleCreateSessionRequest(const std::string& requestKey, const std::string& replyKey,
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
    FieldMap record;
    store::hgetall(connection, requestKey, record);
    const std::string returnChannel = fieldOf(record, returnChannelField);
    if (returnChannel.empty()) {
        logger->error("Create session: &&ReturnChannel not found.");
        return;
    }
    const std::string requestData = fieldOf(record, requestDataField);
    if (requestData.empty()) {
        logger->error("Create session: &&RequestData not found.");
        return;
    }
    const std::string userName = stripQuotes(store::hget(connection, requestData, userNameField));
    const std::string encrypted = stripQuotes(store::hget(connection, requestData, "Password"));
    const LoginRequest request{
        userName,
        {decryptHexString(encrypted, keyFile)},
        fieldOf(record, operationPrivilegesField),
        returnChannel,
        replyKey,
        fieldOf(record, remoteIpField),
        fieldOf(record, originField),
    };

    if (request.password.text.size() > maxPasswordLength) {
        logger->debug("Password exceeds maxlength.");
        writeReplyFieldByField(connection, composeEarlyReply(replyKey),
                               {reply_status::failure,
                                message_id::stringValueTooLong,
                                {"(password string)", std::to_string(maxPasswordLength)}});
    } else {
        createSession(connection, request, context);
    }
    store::publish(connection, returnChannel, replyKey);
}

void* createSessionThread(void* workerContext) {
    runThreadBody(createChannel.c_str(), [workerContext] {
        logger->debug("Create session thread is running ...");
        serveRequests(createChannel, [workerContext](const Notice& notice) {
            handleCreateSessionRequest(notice.requestKey, notice.replyKey,
                                       *static_cast<WorkerContext*>(workerContext));
        });
    });
    return nullptr;
}

}  // namespace session_service
