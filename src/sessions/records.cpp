#include "sessions/records.h"

#include <sys/sysinfo.h>

#include <cstdlib>

#include "frame/resource_names.h"
#include "protocol/replies.h"
#include "protocol/request_channels.h"

namespace session_service {

std::string sessionUriOf(const std::string& id) {
    return sessionUriPrefix + id;
}

std::string stripQuotes(const std::string& text) {
    const bool quoted = text.size() >= 2 && text.front() == '"' && text.back() == '"';
    return quoted ? text.substr(1, text.size() - 2) : text;
}

bool writeSessionRecord(redisContext* store, const NewSession& session) {
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
        {"&&OwnerName", session.userName},
        {"&&RemoteIP", session.remoteIp},
        {clientAddressField, quoteArg(session.remoteIp)},
        {"&&AllowMethod", "GET,HEAD,DELETE"},
        {sessionTypeField, redfishSessionType},
    };
    if (!session.origin.empty()) {
        fields[originField] = session.origin;
    }
    return store::hsetMany(store, uri, fields);
}

void writeTokenReference(redisContext* store, const NewSession& session) {
    const std::string uri = sessionUriOf(session.id);
    const SecretText quotedToken{quoteArg(session.token.text)};
    store::hset(store, tokenReferencePrefix + uri, tokenReferenceField, quotedToken.text);
    store::hset(store, uri, "&&CRUDprefix", "&&/redfish/v1/SessionService/Sessions");
}

bool writeMetaSessionRecord(redisContext* store, const NewSession& session,
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
    const SecretText key{tokenRecordPrefix + session.token.text};
    return store::hsetMany(store, key.text, fields);
}

std::int32_t parseSeconds(const std::string& text) {
    return static_cast<std::int32_t>(std::strtoll(text.c_str(), nullptr, 10));
}

long uptimeSeconds() {
    struct sysinfo info {};
    sysinfo(&info);
    return info.uptime;
}

}  // namespace session_service
