#include "sessions/create_session.h"

#include <pthread.h>

#include <array>

#include "auth/pam_login.h"
#include "auth/privileges.h"
#include "events/audit_log.h"
#include "events/event_group.h"
#include "events/life_cycle.h"
#include "frame/file_names.h"
#include "frame/logger.h"
#include "frame/resource_names.h"
#include "platform/data_decryption.h"
#include "protocol/replies.h"
#include "protocol/request_channels.h"
#include "sessions/collection.h"
#include "sessions/identifiers.h"
#include "sessions/records.h"

namespace session_service {
namespace {

const std::string tokenField = "&&X-Auth-Token";

// A reply in the making.
struct Reply {
    ReplyFields fields;
    MessageInfo message;
};

// Completes and writes the reply of a login that did not make it. Without an identifier
// the reply carries no message.
void refuse(redisContext* store, Reply& reply, const char* status, const char* messageId) {
    reply.fields[returnStatusField] = status;
    if (messageId) {
        reply.message[messageIdItem] = messageId;
    }
    writeReply(store, reply.fields, reply.message);
}

// Counts the sessions under the data mutex. False, with the reply written, when there are
// too many or the mutex was not to be had in time.
bool checkSessionLimit(redisContext* store, Reply& reply, WorkerContext& context) {
    const HeldMutex lock(tryLockFor(context.dataMutex, dataMutexSeconds) ? &context.dataMutex
                                                                         : nullptr);
    const int count = countRedfishSessions(store);
    if (lock && count < maxSessions) {
        return true;
    }
    refuse(store, reply, "UNAVAILABLE",
           count >= maxSessions ? "Base.1.12.SessionLimitExceeded" : nullptr);
    return false;
}

// What a login may do.
struct Authorization {
    std::string privilege;  // decimal text
    bool mustChangePassword = false;
};

// Checks who the user is and what the user may do. False, with the reply written, when
// the login is refused.
bool authorize(redisContext* store, Reply& reply, const LoginRequest& request,
               Authorization& authorization) {
    constexpr int privilegeSize = 512;
    std::array<char, privilegeSize> privilege{};
    const int result = authenticateUser(request.userName.c_str(), request.password.text.c_str(),
                                        request.remoteIp.c_str(), privilege.data(), privilegeSize);
    if (result < 0) {
        refuse(store, reply, "AUTH_FAILED", "ExtendedError.1.2.InvalidCredentials");
        return false;
    }
    authorization.mustChangePassword = result == loginNeedsNewPassword;
    authorization.privilege = privilege.data();

    std::vector<std::int32_t> required;
    if (!request.operationPrivileges.empty()) {
        required = parsePrivilegeList(request.operationPrivileges);
    }
    if (!hasRequiredPrivilege(parseUserPrivilege(authorization.privilege), required)) {
        refuse(store, reply, "FORBIDDEN", "Base.1.12.InsufficientPrivilege");
        return false;
    }
    return true;
}

// Writes the token reference, the token record and the collection entry of a session
// whose resource is there. False, with the reply written, when one of them fails.
bool completeSession(redisContext* store, Reply& reply, const NewSession& session) {
    updateEtag(store, sessionUriOf(session.id));
    writeTokenReference(store, session);
    const std::string timeout = store::hget(store, serviceUri, sessionTimeoutField);
    if (!writeMetaSessionRecord(store, session, timeout)) {
        logger->error("Failed to create meta session table.");
        refuse(store, reply, "FAILURE", databaseOperationError);
        return false;
    }
    if (!addSessionMember(store, session.id.c_str())) {
        logger->error("Failed to add session entry to Members.");
        refuse(store, reply, "FAILURE", unprocessableMessage);
        return false;
    }
    return true;
}

void writeSuccess(redisContext* store, Reply& reply, const NewSession& session) {
    if (fieldOf(reply.fields, replyKeyItem).empty()) {
        return;
    }
    MessageArguments arguments;
    reply.fields[returnStatusField] = "OK";
    reply.fields["&&Location"] = sessionUriOf(session.id);
    reply.fields[tokenField] = session.token.text;
    if (session.mustChangePassword) {
        reply.message[messageIdItem] = "Base.1.12.PasswordChangeRequired";
        arguments.push_back(findAccountByOwner(store, session.userName));
    } else {
        reply.message[messageIdItem] = "Base.1.12.Created";
    }
    writeReply(store, reply.fields, reply.message, arguments);
    wipe(reply.fields[tokenField]);
}

}  // namespace

int createSession(redisContext* store, const LoginRequest& request, WorkerContext& context) {
    Reply reply;
    composeReplyKeys(request.replyKey, reply.fields, reply.message);

    if (store::hget(store, serviceUri, serviceEnabledField) == "false") {
        logger->debug("SessionService disabled.");
        writeEarlyRefusal(store, request.replyKey, "UNAVAILABLE", serviceDisabledMessage);
        return 0;
    }
    if (!checkSessionLimit(store, reply, context)) {
        return 0;
    }
    Authorization authorization;
    if (!authorize(store, reply, request, authorization)) {
        return 0;
    }

    const NewSession session{
        .id = generateSessionId(store),
        .token = {generateToken(store)},
        .userName = request.userName,
        .remoteIp = request.remoteIp,
        .origin = request.origin,
        .privilege = authorization.privilege,
        .mustChangePassword = authorization.mustChangePassword,
    };
    const std::string uri = sessionUriOf(session.id);
    if (!writeSessionRecord(store, session)) {
        logger->error("Failed to add session entry.");
        refuse(store, reply, "FAILURE", databaseOperationError);
        return 0;
    }
    const std::string groupId = std::to_string(nextEventGroupId(store));
    EventList events;
    appendEvent(events, "add", uri, "Session", groupId);
    if (!completeSession(store, reply, session)) {
        generateLifeCycleEvents(store, events);
        return 0;
    }
    pthread_cond_signal(&context.dataReady);

    store::hset(store, request.returnChannel, responseDataField, "");
    writeSuccess(store, reply, session);
    appendEvent(events, "change", collectionUri, "SessionCollection", groupId);
    generateLifeCycleEvents(store, events);
    generateAuditLogEntry(store, session.userName, "AuditEvent.1.1.UserLogin", uri);
    return 1;
}

int handleCreateSessionRequest(const std::string& requestKey, const std::string& replyKey,
                               WorkerContext& context) {
    if (requestKey.empty()) {
        return 0;
    }
    const ConnectionPtr store = store::connect();
    if (!store) {
        logger->error("Failed to connect to Redis.");
        return 0;
    }
    FieldMap record;
    store::hgetall(store.get(), requestKey, record);
    const std::string returnChannel = fieldOf(record, returnChannelField);
    if (returnChannel.empty()) {
        logger->error("Create session: &&ReturnChannel not found.");
        return 0;
    }
    const std::string requestData = fieldOf(record, requestDataField);
    if (requestData.empty()) {
        logger->error("Create session: &&RequestData not found.");
        return 0;
    }
    const std::string userName = stripQuotes(store::hget(store.get(), requestData, userNameField));
    const std::string cipher = stripQuotes(store::hget(store.get(), requestData, "Password"));
    const LoginRequest request{
        userName,
        {decryptHexString(cipher, keyFile)},
        fieldOf(record, operationPrivilegesField),
        returnChannel,
        replyKey,
        fieldOf(record, remoteIpField),
        fieldOf(record, originField),
    };

    int created = 0;
    if (request.password.text.size() > maxPasswordLength) {
        logger->debug("Password exceeds maxlength.");
        writeEarlyRefusal(store.get(), replyKey, "FAILURE", "Base.1.12.StringValueTooLong",
                          {"(password string)", std::to_string(maxPasswordLength)});
    } else {
        created = createSession(store.get(), request, context);
    }
    store::publish(store.get(), returnChannel, replyKey);
    return created;
}

void* createSessionThread(void* workerContext) {
    logger->debug("Create session thread is running ...");
    serveRequests(
        createChannel, *static_cast<WorkerContext*>(workerContext),
        [](const std::string& requestKey, const std::string& replyKey, WorkerContext& context) {
            handleCreateSessionRequest(requestKey, replyKey, context);
        });
    return nullptr;
}

}  // namespace session_service
