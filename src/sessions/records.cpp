#include "sessions/records.h"

#include <sys/sysinfo.h>

#include <utility>

#include "base/number.h"
#include "protocol/replies.h"
#include "protocol/request_channels.h"
#include "sessions/collection.h"

namespace session_service {
namespace {

const std::string tokenRecordPrefix = "&&X-AUTH-TOKEN-";

}  // namespace

std::string sessionUriOf(const std::string& id) {
    return sessionUriPrefix + id;
}

std::string tokenReferenceKeyOf(const std::string& uri) {
    return "&&" + uri;
}

SecretText tokenRecordKeyOf(const std::string& token) {
    return {tokenRecordPrefix + token};
}

std::string stripQuotes(const std::string& text) {
    const bool quoted = text.size() >= 2 && text.front() == '"' && text.back() == '"';
    return quoted ? text.substr(1, text.size() - 2) : text;
}

void removeSubstring(std::string& text, const std::string& part) {
    const std::size_t position = text.find(part);
    if (position != std::string::npos) {
        text.erase(position, part.size());
    }
}

bool writeSessionRecord(redisContext* connection, const NewSession& session) {
    const std::string uri = sessionUriOf(session.id);
    FieldMap fields = {
        {"@odata.context", "\"/redfish/v1/$metadata#Session.Session\""},
        {"@odata.type", quoteArg("#Session.v1_3_0.Session")},
        {"Id", quoteArg(session.id)},
        {"Name", "\"User Session\""},
        {"Description", "\"This resource represents a session for a Redfish implementation.\""},
        {userNameField, quoteArg(session.userName)},
        {"Password", "null"},
        {"@odata.id", quoteArg(uri)},
        {"@odata.etag", "0"},
        {ownerNameField, session.userName},
        {"&&RemoteIP", session.remoteIp},
        {clientAddressField, quoteArg(session.remoteIp)},
        {"&&AllowMethod", "GET,HEAD,DELETE"},
        {sessionTypeField, redfishSessionType},
    };
    if (!session.origin.empty()) {
        fields[originField] = session.origin;
    }
    return store::hsetMany(connection, uri, fields);
}

void writeTokenReference(redisContext* connection, const NewSession& session) {
    const std::string uri = sessionUriOf(session.id);
    const SecretText quotedToken{quoteArg(session.token.text)};
    store::hset(connection, tokenReferenceKeyOf(uri), tokenReferenceField, quotedToken.text);
    store::hset(connection, uri, "&&CRUDprefix", "&&/redfish/v1/SessionService/Sessions");
}

bool writeMetaSessionRecord(redisContext* connection, const NewSession& session,
                            const std::string& timeout) {
    FieldMap fields = {
        {userNameField, session.userName},
        {privilegeField, session.privilege},
        {"SessionID", sessionUriOf(session.id)},
        {lastAccessedField, std::to_string(uptimeSeconds())},
        {timeoutField, timeout},
    };
    if (!session.origin.empty()) {
        fields[originField] = session.origin;
    }
    if (session.mustChangePassword) {
        fields[passwordChangeField] = "";
    }
    const SecretText key = tokenRecordKeyOf(session.token.text);
    return store::hsetMany(connection, key.text, fields);
}

bool isSessionIdTaken(redisContext* connection, const std::string& id) {
    return !store::hget(connection, sessionUriOf(id), "Id").empty();
}

bool isTokenTaken(redisContext* connection, const std::string& token) {
    const SecretText key = tokenRecordKeyOf(token);
    return !store::hget(connection, key.text, userNameField).empty();
}

bool isRedfishSession(redisContext* connection, const std::string& uri) {
    return store::hget(connection, uri, sessionTypeField) == redfishSessionType;
}

SecretText tokenRecordKeyForExpiry(redisContext* connection, const std::string& uri) {
    const SecretText quoted{store::hget(connection, tokenReferenceKeyOf(uri), tokenReferenceField)};
    const SecretText token{stripQuotes(quoted.text)};
    return tokenRecordKeyOf(token.text);
}

bool tokenRecordKeyForDeletion(redisContext* connection, const std::string& uri, SecretText& key) {
    store::FieldReply reply =
        store::hgetReply(connection, tokenReferenceKeyOf(uri), tokenReferenceField);
    if (reply.kind == store::FieldReply::Kind::lost) {
        return false;
    }
    const SecretText quoted{reply.text ? std::move(*reply.text) : "(nil)"};
    key.text = tokenRecordPrefix + quoted.text;
    removeSubstring(key.text, "\"");
    removeSubstring(key.text, "\"");
    return true;
}

Activity readActivity(redisContext* connection, const std::string& tokenRecordKey) {
    const std::int32_t lastAccessed =
        parseSeconds(store::hget(connection, tokenRecordKey, lastAccessedField));
    const std::int32_t timeout =
        parseSeconds(store::hget(connection, tokenRecordKey, timeoutField));
    return {lastAccessed, timeout};
}

std::int32_t parseSeconds(const std::string& text) {
    return static_cast<std::int32_t>(parseInt64(text).value);
}

long uptimeSeconds() {
    struct sysinfo info {};
    sysinfo(&info);
    return info.uptime;
}

void removeSessionKeys(redisContext* connection, const std::string& tokenRecordKey,
                       const std::string& uri) {
    const std::string tokenReferenceKey = tokenReferenceKeyOf(uri);
    // Targets come from clients: "Members" and its like name lists of this service.
    if (tokenReferenceKey == membersKey || tokenReferenceKey == createQueue ||
        tokenReferenceKey == deleteQueue) {
        store::send(connection, {"UNLINK", tokenRecordKey, uri});
    } else {
        store::send(connection, {"UNLINK", tokenRecordKey, uri, tokenReferenceKey});
    }
}

}  // namespace session_service
