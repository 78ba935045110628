#include "sessionctl/session_view.h"

#include <utility>

#include "base/number.h"
#include "base/secret.h"
#include "sessionctl/output.h"
#include "sessionctl/store_access.h"
#include "sessions/collection.h"
#include "sessions/records.h"
#include "store/resource_names.h"

namespace session_service::console {
namespace {

using Kind = store::Answer::Kind;

std::string faultOf(const store::Answer& refusal, const char* key) {
    return key + (refusal.text.starts_with("WRONGTYPE")
                      ? std::string(" is no hash")
                      : " cannot be read: " + escaped(refusal.text));
}

long long secondsOf(const Fields& fields, const char* name) {
    return parseSeconds(fieldOf(fields, name));
}

// The entity tag is the time of the last change in milliseconds, and a login is the only one.
std::optional<std::time_t> loginTimeOf(const Fields& resource) {
    const auto milliseconds = parseInt64(stripQuotes(fieldOf(resource, "@odata.etag"))).value;
    if (milliseconds <= 0) {
        return std::nullopt;
    }
    return milliseconds / 1000;
}

// Reads the token record. As in the daemon, a time that cannot be read counts as 0, so that the
// session expires.
void readTokenRecord(redisContext* connection, const std::string& uri, SessionView& view) {
    store::Answer reference =
        ask(connection, {"HGET", tokenReferenceKeyOf(uri), tokenReferenceField});
    const SecretText quoted{reference.kind == Kind::text ? std::move(reference.text)
                                                         : std::string()};
    if (quoted.text.empty()) {
        view.fault = "no token";
    } else {
        const SecretText token{stripQuotes(quoted.text)};
        const SecretText key = tokenRecordKeyOf(token.text);
        const store::Answer answer = ask(connection, {"HGETALL", key.text});
        view.tokenRecord = store::fieldsOf(answer);
        if (answer.kind == Kind::refused) {
            view.fault = faultOf(answer, "its token record");
        } else if (view.tokenRecord.empty()) {
            view.fault = "no token record";
        }
    }
    const long long idle = uptimeSeconds() - secondsOf(view.tokenRecord, lastAccessedField);
    const long long timeout = secondsOf(view.tokenRecord, timeoutField);
    view.expiresIn = timeout - idle;
    if (!view.tokenRecord.empty()) {
        view.idle = idle;
        view.timeout = timeout;
    }
}

}  // namespace

std::vector<std::string> readMembers(redisContext* connection) {
    const store::Answer answer = ask(connection, {"LRANGE", membersKey, "0", "-1"});
    if (answer.kind == Kind::refused) {
        throw CommandError(exit_status::failure, "The list of sessions, " + membersKey +
                                                     ", cannot be read: " + escaped(answer.text) +
                                                     ".");
    }
    std::vector<std::string> members;
    for (const store::Answer& element : answer.elements) {
        members.push_back(element.text);
    }
    return members;
}

SessionView readMember(redisContext* connection, const std::string& member) {
    const std::string prefix = memberFor("");
    const std::string id = member.starts_with(prefix) ? member.substr(prefix.size()) : "";
    if (id.empty() || id.find('/') != std::string::npos) {
        return {.id = member, .fault = namesNoSession};
    }
    return readSession(connection, id);
}

SessionView readSession(redisContext* connection, const std::string& id) {
    const std::string uri = sessionUriOf(id);
    const store::Answer answer = ask(connection, {"HGETALL", uri});
    SessionView view{.id = id, .resource = store::fieldsOf(answer)};
    if (view.resource.empty()) {
        view.fault = answer.kind == Kind::refused ? faultOf(answer, "its key") : noSessionRecord;
        return view;
    }
    view.hasResource = true;
    view.user = plainValue(fieldOf(view.resource, userNameField));
    view.client = plainValue(fieldOf(view.resource, clientAddressField));
    view.countsTowardLimit = fieldOf(view.resource, sessionTypeField) == redfishSessionType;
    view.loginTime = loginTimeOf(view.resource);
    readTokenRecord(connection, uri, view);
    if (!view.countsTowardLimit) {
        view.expiresIn.reset();
        view.fault = "not of type Redfish: it never expires";
    }
    return view;
}

std::string memberFor(const std::string& id) {
    return memberPrefix + sessionUriOf(id);
}

std::string plainValue(const std::string& stored) {
    const nlohmann::json value = jsonValue(stored);
    return value.is_string() ? value.get<std::string>() : stored;
}

nlohmann::json jsonValue(const std::string& stored) {
    if (!stored.empty() && stored.front() != '{' && stored.front() != '[') {
        nlohmann::json value = nlohmann::json::parse(stored, nullptr, false);
        if (!value.is_discarded() && !value.is_structured()) {
            return value;
        }
    }
    // The daemon stores names with whatever bytes they have, even those that JSON does not allow.
    return stripQuotes(stored);
}

}  // namespace session_service::console
