#include "sessionctl/counts.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <string_view>

#include "events/audit_log.h"
#include "frame/configuration.h"
#include "platform/config_file.h"
#include "sessionctl/local_moment.h"
#include "sessionctl/output.h"
#include "sessionctl/session_view.h"
#include "sessionctl/store_access.h"
#include "sessions/collection.h"
#include "sessions/create_session.h"
#include "sessions/records.h"
#include "store/resource_names.h"

namespace session_service::console {
namespace {

using nlohmann::json;
using Kind = store::Answer::Kind;

// The folders in which the front end's logs may be.
constexpr std::array logFolders{"/var/log/session-service-frontend", "/var/log/nginx"};
constexpr const char* accessLog = "access.log";
constexpr const char* refusedLoginLog = "refused-logins.log";

std::string pathOfLog(const char* name) {
    std::string path;
    for (const char* folder : logFolders) {
        path = std::string(folder) + '/' + name;
        if (access(path.c_str(), F_OK) == 0) {
            break;
        }
    }
    return path;
}

// As the front end writes them: words of its own, and the last parts of message identifiers.
constexpr std::array reasons{"wrong name or password",
                             "InsufficientPrivilege",
                             "SessionLimitExceeded",
                             "too many sessions of this user",
                             "the last session is for managers",
                             "ServiceDisabled",
                             "no turn in time",
                             "too many logins",
                             "name too long",
                             "StringValueTooLong",
                             "unavailable",
                             otherReason};

// The text between brackets, which begins at `at`; moves that behind it.
std::string takeBracketed(const std::string& line, std::size_t& at) {
    const std::size_t begin = line.find('[', at);
    const std::size_t end = line.find(']', at);
    if (begin == std::string::npos || end == std::string::npos || end < begin) {
        return {};
    }
    at = end + 1;
    return line.substr(begin + 1, end - begin - 1);
}

// The collection of audit entries, and the list of its members; empty when there is none.
std::string findAuditMembers(redisContext* connection) {
    const std::string collection =
        getConfigValue(configurationFile, auditSetting, settingBufferSize);
    if (collection.empty()) {
        return {};
    }
    constexpr std::string_view prefix = "&&Array Members ";
    for (const auto& [name, value] : store::fieldsOf(ask(connection, {"HGETALL", collection}))) {
        if (name.starts_with(prefix)) {
            return name.substr(prefix.size());
        }
    }
    return {};
}

// The session that an entry is about.
std::string originOf(const std::string& links) {
    const json parsed = json::parse(links, nullptr, false);
    const json::json_pointer origin("/OriginOfCondition/@odata.id");
    if (parsed.is_discarded() || !parsed.is_structured() || !parsed.contains(origin) ||
        !parsed.at(origin).is_string()) {
        return {};
    }
    return parsed.at(origin);
}

// Empty for an entry about something else.
std::optional<AuditEntry> readAuditEntry(redisContext* connection, const std::string& uri) {
    const store::Answer answer = ask(connection, {"HMGET", uri, "MessageId", "Created", "Links"});
    if (answer.elements.size() != 3) {
        return std::nullopt;
    }
    const std::string message = plainValue(answer.elements[0].text);
    const auto time = parseTimestamp(plainValue(answer.elements[1].text));
    AuditEntry entry{.uri = uri,
                     .isLogin = message.ends_with(".UserLogin"),
                     .time = time.value_or(0),
                     .session = originOf(answer.elements[2].text)};
    if ((!entry.isLogin && !message.ends_with(".UserLogout")) || !time ||
        !entry.session.starts_with(sessionUriPrefix)) {
        return std::nullopt;
    }
    return entry;
}

struct AuditTrail {
    std::vector<AuditEntry> entries;  // oldest first
    std::string last;                 // the URI of the newest one, whatever it is about
};

// The entries behind `last`; all if that is no longer there.
AuditTrail readAuditTrail(redisContext* connection, const std::string& members,
                          const std::string& last) {
    const store::Answer list = ask(connection, {"LRANGE", members, "0", "-1"});
    AuditTrail trail{.entries = {}, .last = last};
    bool isFirst = true;
    for (const store::Answer& element : list.elements) {
        if (!element.text.starts_with(memberPrefix)) {
            continue;
        }
        const std::string uri = element.text.substr(memberPrefix.size());
        if (uri == last) {
            break;
        }
        if (isFirst) {
            trail.last = uri;
            isFirst = false;
        }
        if (auto entry = readAuditEntry(connection, uri)) {
            trail.entries.push_back(std::move(*entry));
        }
    }
    std::reverse(trail.entries.begin(), trail.entries.end());
    return trail;
}

template <typename Number>
void add(std::optional<Number>& count, Number number) {
    count = count.value_or(0) + number;
}

template <typename Container>
void forgetSome(Container& remembered) {
    constexpr std::size_t maxRemembered = 64;
    while (remembered.size() > maxRemembered) {
        remembered.erase(remembered.begin());
    }
}

template <typename Value>
void load(const json& state, const char* name, std::optional<Value>& value) {
    if (!state.at(name).is_null()) {
        value = state.at(name).get<Value>();
    }
}

json toJson(const std::optional<LogPosition>& position) {
    return position ? json{{"inode", position->inode},
                           {"offset", position->offset},
                           {"beginning", position->beginning}}
                    : json();
}

std::optional<LogPosition> positionFrom(const json& state) {
    if (state.is_null()) {
        return std::nullopt;
    }
    return LogPosition{state.at("inode").get<std::uint64_t>(),
                       state.at("offset").get<std::uint64_t>(),
                       state.at("beginning").get<std::uint64_t>()};
}

}  // namespace

std::vector<std::string> refusalReasons() {
    return {reasons.begin(), reasons.end()};
}

// 192.0.2.1 [2026-01-02T03:04:05+00:00] "name" reason
std::optional<RefusedLogin> parseRefusedLogin(const std::string& line) {
    std::size_t at = 0;
    const auto time = parseTimestamp(takeBracketed(line, at));
    if (!time || line.compare(at, 2, " \"") != 0) {
        return std::nullopt;
    }
    // The end of the name: the next quote that no backslash makes a part of it.
    std::size_t end = at + 2;
    while (end < line.size() && line[end] != '"') {
        end += line[end] == '\\' ? 2U : 1U;
    }
    if (end + 2 > line.size()) {
        return std::nullopt;
    }
    std::string reason = line.substr(end + 2);
    if (const std::size_t dot = reason.rfind('.'); dot != std::string::npos) {
        reason.erase(0, dot + 1);
    }
    const bool known = std::find(reasons.begin(), reasons.end(), reason) != reasons.end();
    return RefusedLogin{*time, known ? reason : otherReason};
}

// 192.0.2.1 [2026-01-02T03:04:05+00:00] "GET /path" 200 12 0.003
std::optional<Access> parseAccess(const std::string& line) {
    std::size_t at = 0;
    const auto time = parseTimestamp(takeBracketed(line, at));
    const std::size_t end = line.rfind('"');
    const std::size_t blank = line.find(' ', at + 2);
    if (!time || line.compare(at, 2, " \"") != 0 || end == std::string::npos ||
        blank == std::string::npos || blank > end) {
        return std::nullopt;
    }
    Access access{.time = *time,
                  .method = line.substr(at + 2, blank - at - 2),
                  .path = line.substr(blank + 1, end - blank - 1)};
    const std::string_view rest = std::string_view(line).substr(std::min(end + 2, line.size()));
    const auto [last, error] =
        std::from_chars(rest.data(), rest.data() + rest.size(), access.status);
    return error == std::errc() ? std::optional(access) : std::nullopt;
}

void Counter::readRefusedLogins() {
    const auto position =
        readLog(pathOfLog(refusedLoginLog), refusedPosition, [&](const std::string& line) {
            if (const auto login = parseRefusedLogin(line)) {
                if (!counted.refused) {
                    counted.refused.emplace();
                }
                ++(*counted.refused)[login->reason];
                counted.refusedSince = counted.refusedSince.value_or(login->time);
            }
        });
    if (position) {
        refusedPosition = position;
        if (!counted.refused) {
            counted.refused.emplace();
        }
    }
}

void Counter::addAccess(const std::string& line) {
    constexpr int firstSuccess = 200;
    constexpr int firstRedirection = 300;
    const auto access = parseAccess(line);
    if (!access) {
        return;
    }
    counted.accessSince = counted.accessSince.value_or(access->time);
    if (access->status < firstSuccess || access->status >= firstRedirection) {
        return;
    }
    std::string path = access->path;
    if (path.ends_with('/')) {
        path.pop_back();
    }
    if (access->method == "PATCH" && path == serviceUri) {
        add(counted.changes, 1LL);
    } else if (access->method == "DELETE" && path.starts_with(sessionUriPrefix)) {
        requestedLogouts.insert(path);
    }
}

void Counter::readAccessLog() {
    const auto position = readLog(pathOfLog(accessLog), accessPosition,
                                  [this](const std::string& line) { addAccess(line); });
    if (position) {
        accessPosition = position;
        add(counted.changes, 0LL);
    }
}

// Counts back from the sessions that there are now.
void Counter::updateMaxSessions(const std::vector<AuditEntry>& entries, int sessionsNow) {
    int count = sessionsNow;
    int maxCount = std::max(counted.maxSessions.value_or(0), count);
    for (auto entry = entries.rbegin(); entry != entries.rend(); ++entry) {
        // Entries may be missing: of what a full log did not take, or an operator removed.
        count = std::clamp(count + (entry->isLogin ? -1 : 1), 0, session_service::maxSessions);
        maxCount = std::max(maxCount, count);
    }
    counted.maxSessions = maxCount;
}

void Counter::addAuditEntries(const std::vector<AuditEntry>& entries, int sessionsNow,
                              long long timeout) {
    updateMaxSessions(entries, sessionsNow);
    add(counted.admitted, 0LL);
    // Without its log nobody knows what the front end was asked for.
    if (accessPosition) {
        add(counted.logouts, 0LL);
        add(counted.expiries, 0LL);
    }
    for (const AuditEntry& entry : entries) {
        counted.auditSince = counted.auditSince.value_or(entry.time);
        if (entry.isLogin) {
            add(counted.admitted, 1LL);
            openSessions[entry.session] = entry.time;
            continue;
        }
        const auto created = openSessions.find(entry.session);
        const bool isYoung =
            created != openSessions.end() && entry.time - created->second < timeout;
        const bool isRequested = requestedLogouts.erase(entry.session) > 0;
        if (accessPosition) {
            add(isRequested || isYoung ? counted.logouts : counted.expiries, 1LL);
        }
        openSessions.erase(entry.session);
    }
}

void Counter::update(redisContext* connection, int sessionsNow, long long timeout) {
    // The audit log first: what the front end logs of a logout comes behind it.
    const std::string members = findAuditMembers(connection);
    AuditTrail trail;
    if (!members.empty()) {
        trail = readAuditTrail(connection, members, lastAuditEntry);
    }
    readRefusedLogins();
    readAccessLog();
    if (!members.empty()) {
        lastAuditEntry = trail.last;
        addAuditEntries(trail.entries, sessionsNow, timeout);
    }
    // What the audit log did not take would be remembered for good.
    forgetSome(requestedLogouts);
    forgetSome(openSessions);
}

Counter Counter::fromState(const json& state) {
    Counter counter;
    Counts& counts = counter.counted;
    load(state, "admitted", counts.admitted);
    load(state, "refused", counts.refused);
    load(state, "logouts", counts.logouts);
    load(state, "expiries", counts.expiries);
    load(state, "changes", counts.changes);
    load(state, "maxSessions", counts.maxSessions);
    load(state, "auditSince", counts.auditSince);
    load(state, "refusedSince", counts.refusedSince);
    load(state, "accessSince", counts.accessSince);
    state.at("lastAuditEntry").get_to(counter.lastAuditEntry);
    state.at("openSessions").get_to(counter.openSessions);
    state.at("requestedLogouts").get_to(counter.requestedLogouts);
    counter.refusedPosition = positionFrom(state.at("refusedPosition"));
    counter.accessPosition = positionFrom(state.at("accessPosition"));
    return counter;
}

json Counter::toState() const {
    return {{"admitted", orNull(counted.admitted)},
            {"refused", orNull(counted.refused)},
            {"logouts", orNull(counted.logouts)},
            {"expiries", orNull(counted.expiries)},
            {"changes", orNull(counted.changes)},
            {"maxSessions", orNull(counted.maxSessions)},
            {"auditSince", orNull(counted.auditSince)},
            {"refusedSince", orNull(counted.refusedSince)},
            {"accessSince", orNull(counted.accessSince)},
            {"lastAuditEntry", lastAuditEntry},
            {"openSessions", openSessions},
            {"requestedLogouts", requestedLogouts},
            {"refusedPosition", toJson(refusedPosition)},
            {"accessPosition", toJson(accessPosition)}};
}

}  // namespace session_service::console
