#include "support/hostile_requests.h"

#include <algorithm>
#include <array>
#include <utility>

#include "testbed/fake_front_end.h"

namespace testbed {

namespace {

using namespace std::string_literals;

constexpr std::size_t megabyte = std::size_t{1024} * 1024;
constexpr std::array channels{createChannel, deleteChannel, patchChannel};
const Words victims{"victim0", "victim1", "victim2", "victim3"};

// The commands among them would create the file /tmp/started.
const Words texts{
    "",
    " ",
    "   ",
    "\"",
    "\"\"",
    "'",
    "\\",
    "%s%n%d%%100%x %*s%99999999d",
    "$(touch /tmp/started)",
    "`touch /tmp/started`",
    "; touch /tmp/started ;",
    "| touch /tmp/started &",
    "'; touch /tmp/started; '",
    "'`touch /tmp/started`'",
    "'$(touch /tmp/started)'",
    "' | touch /tmp/started | '",
    "'\ntouch /tmp/started\n'",
    "\n",
    "300\nServiceEnabled=false",
    "x\nNov 21 01:39:00 1700000000 [Error]: forged",
    "\r\nFLUSHALL\r\n",
    "x\r\n*1\r\n$8\r\nFLUSHALL\r\n",
    "before\0after"s,
    "\0"s,
    "\x01\x1b[2J\x7f\b\t",
    "\xff\xfe\x80",
    "J\xc3\xbcrgen \xe2\x82\xac",
    "--help",
    "-1",
    "0",
    "1",
    "3,x,99999999999,,-4",
    "99999999999999999999",
    "1e999",
    "0x1F",
    "1.5",
    "true",
    "false",
    "null",
    "{\"a\": {\"b\": [null, 1e999]}}",
    "{\"a\":",
    "\"Redfish\"",
    "Redfish",
    "PATCH",
    "POST",
    "&&",
    "&&EXIT",
    "&&ObjectRef",
    "&&ObjectRef x",
    "&&Object a b",
    "*",
    "?[a-z]",
    "/",
    "//",
    "a/b/c",
    "../../../etc/shadow",
    "/tmp/started",
    "Members",
    std::string(511, 'k'),
    std::string(600, '/'),
    std::string(70'000, '%'),
};

// No comma: each one in a list of privileges that are no numbers makes a log line.
constexpr std::array largePieces{"m",  "%s", "\"",      "'",    " ",  "a ",
                                 "\\", "[",  "{\"a\":", "\xff", "\n", "/"};

// What the daemon reads of the service's own keys and of everybody's, by kind of key.
struct KnownKey {
    std::string key;
    Words fields;
};
const std::vector<KnownKey> knownKeys{
    {serviceUri, {"ServiceEnabled", "SessionTimeout", "@odata.etag"}},
    {sessionsUri, {"Members@odata.count", "@odata.etag"}},
    {eventServiceUri, {eventGroupCounter}},
    {"webDefaultValue", {"REDIS_CONNECTION_DEFAULT_TIMEOUT", "MAX_EVENT_GROUP_ID"}},
    {"redisSHAScripts", {"resourceChange", "logGeneratorHelper"}},
    {auditEntriesUri, {"&&MaxEntries", "&&LastId"}},
    {eventStream, {"Action"}},
    {"/redfish/v1/AccountService/Accounts/hostile", {"&&OwnerName"}},
    {"/redfish/v1/SessionService/Sessions/victim0", {"SessionType", "UserName", "Id"}},
    {"/redfish/v1/SessionService/Sessions/victim1", {"SessionType", "UserName", "Id"}},
    {"&&/redfish/v1/SessionService/Sessions/victim1", {"XAUTH"}},
    {"&&/redfish/v1/SessionService/Sessions/victim2", {"XAUTH"}},
    {"&&X-AUTH-TOKEN-victim2", {"LastAccessed", "Timeout", "UserName", "SessionID"}},
    {"&&X-AUTH-TOKEN-victim3", {"LastAccessed", "Timeout", "UserName", "SessionID"}},
};

// Every field that a request or a body may have, and some that belong elsewhere.
const Words requestFields{
    "&&ReturnChannel", "&&RequestData",   "&&OperationPrivileges",
    "&&RemoteIP",      "&&Origin",        "&&TargetURI",
    "&&RequestMethod", "&&ResponseData",  "&&ReturnStatus",
    "&&ExtendedInfo",  "UserName",        "Password",
    "SessionTimeout",  "ServiceEnabled",  "SessionType",
    "XAUTH",           "/SessionTimeout", "@odata.etag",
};

const Words notices{
    "",           " ", "  ",      "&&EXIT ",   " &&EXIT",       "&&EXIT &&EXIT",
    "&&EXI",      "T", "&&",      "EXIT",      "&&exit",        "&&EXIT\n",
    "\"&&EXIT\"", "x", "a b c d", "\0&&EXIT"s, "\xff\x01 \xfe",
};

std::string sessionUri(const std::string& identifier) {
    return std::string(sessionsUri) + "/" + identifier;
}

std::string lastSegment(const std::string& uri) {
    return uri.substr(uri.rfind('/') + 1);
}

std::string repeatedUpTo(const std::string& piece, std::size_t size) {
    std::string repeated = piece;
    while (repeated.size() < size) {
        repeated += repeated;
    }
    return repeated;
}

std::string readable(const std::string& text) {
    constexpr const char* digits = "0123456789abcdef";
    constexpr std::size_t maxShown = 120;
    std::string shown;
    for (const char character : text.substr(0, maxShown)) {
        const auto code = static_cast<unsigned char>(character);
        if (code < 0x20 || code >= 0x7f || character == '\\' || character == '"') {
            shown += "\\x";
            shown += digits[code / 16];
            shown += digits[code % 16];
        } else {
            shown += character;
        }
    }
    const std::string rest =
        text.size() > maxShown ? "... (" + std::to_string(text.size()) + " bytes)" : "";
    return '"' + shown + '"' + rest;
}

std::string toText(const Words& command) {
    std::string line = " ";
    for (const std::string& word : command) {
        line += ' ' + readable(word);
    }
    return line + '\n';
}

}  // namespace

std::string toText(const HostileRequest& request) {
    std::string lines;
    for (const Words& command : request.preparation) {
        lines += toText(command);
    }
    return lines + toText({"PUBLISH", request.channel, request.notice});
}

HostileRequests::HostileRequests(unsigned seed, ForeignNames names)
    : random(seed), foreign(std::move(names)) {}

HostileRequest HostileRequests::next() {
    if (oneIn(40)) {
        return echo();
    }
    HostileRequest request;
    const std::string requestKey = ownKey("request");
    const std::string bodyKey = ownKey("body");
    if (oneIn(8)) {
        writeHash(request.preparation, ownKey("source"), body());
        writeList(request.preparation, ownKey("list"));
    }
    writeHash(request.preparation, bodyKey, body());
    Fields fields = record();
    if (!oneIn(15)) {
        fields["&&RequestData"] = bodyKey;
    }
    writeHash(request.preparation, requestKey, std::move(fields));
    if (oneIn(4)) {
        writeHash(request.preparation, requestKey + "/Checklist", {{"/SessionTimeout", text()}});
    }
    if (oneIn(6)) {
        corruptService(request.preparation);
    }
    request.channel = channels.at(below(channels.size()));
    request.notice = notice(requestKey);
    return request;
}

std::vector<Words> HostileRequests::insertVictims() {
    std::vector<Words> commands;
    const std::string now = std::to_string(uptime());
    for (const std::string& victim : victims) {
        const std::string uri = sessionUri(victim);
        commands.push_back({"HSET", uri, "SessionType", "\"Redfish\"", "UserName", "\"victim\"",
                            "Id", '"' + victim + '"'});
        commands.push_back({"HSET", tokenReferenceKey(uri), "XAUTH", '"' + victim + '"'});
        commands.push_back({"HSET", tokenKey(victim), "UserName", "victim", "Privilege", "9",
                            "SessionID", uri, "LastAccessed", now, "Timeout", "86400"});
        commands.push_back({"RPUSH", membersKey, "&&ObjectRef " + uri});
        commands.push_back({"HINCRBY", sessionsUri, "Members@odata.count", "1"});
    }
    return commands;
}

const std::string& HostileRequests::pick(const Words& words) {
    return words.at(below(static_cast<unsigned>(words.size())));
}

std::string HostileRequests::text() {
    if (oneIn(200)) {
        return largeText();
    }
    switch (below(8)) {
        case 0:
            return randomBytes();
        case 1:
            return pick(texts) + pick(texts);
        case 2:
            return pick(texts) + ' ' + pick(foreign.keys);
        default:
            return pick(texts);
    }
}

std::string HostileRequests::largeText() {
    return repeatedUpTo(largePieces.at(below(largePieces.size())), megabyte);
}

std::string HostileRequests::randomBytes() {
    std::string bytes(1 + below(200), '\0');
    for (char& byte : bytes) {
        byte = static_cast<char>(below(256));
    }
    return bytes;
}

// A text, or a name of somebody's.
std::string HostileRequests::anything() {
    switch (below(6)) {
        case 0:
        case 1:
            return pick(foreign.keys);
        case 2:
            return ownKey("request");
        case 3:
            return sessionUri(pick(victims));
        default:
            return text();
    }
}

std::string HostileRequests::ownKey(const char* purpose) {
    return std::string("&&/hostile/") + purpose + "/" + std::to_string(below(6));
}

std::string HostileRequests::tokenField() {
    static const Words tokens{"&&Object", "&&Array", "&&ObjectRef", "&&Array", "&&object", "&&"};
    const std::string property = oneIn(2) ? "SessionTimeout" : text();
    std::string field = pick(tokens) + ' ' + property + ' ';
    switch (below(4)) {
        case 0:
            return field + ownKey("source");
        case 1:
            return field + ownKey("list");
        case 2:
            return field + pick(foreign.keys);
        default:
            return oneIn(2) ? field + text() : field;
    }
}

std::string HostileRequests::replyKey() {
    switch (below(8)) {
        case 0:
            return anything();
        case 1:
            return pick(foreign.keys);
        default:
            return "&&/hostile/reply/" + std::to_string(++replyCount) + "/status";
    }
}

std::string HostileRequests::notice(const std::string& requestKey) {
    std::string notice;
    switch (below(12)) {
        case 0:
            notice = pick(notices);
            break;
        case 1:
            notice = oneIn(3) ? requestKey : text();
            break;
        case 2:
            notice = anything() + ' ' + anything();
            break;
        case 3:
            notice = oneIn(8) ? largeText() : requestKey + ' ' + requestKey;
            break;
        default:
            notice = requestKey + ' ' + replyKey();
            break;
    }
    // The one notice that ends a thread is meant to.
    return notice.c_str() == "&&EXIT"s ? "&&EXIT " : notice;
}

Fields HostileRequests::body() {
    Fields fields{{"UserName", "\"admin\""},
                  {"Password", oneIn(4) ? pick(foreign.passwords) : foreign.passwords.front()},
                  {"SessionTimeout", oneIn(3) ? text() : std::to_string(300 + below(3))}};
    if (oneIn(2)) {
        fields["UserName"] = '"' + text() + '"';
    }
    for (unsigned tokens = below(4); tokens > 0; --tokens) {
        fields[tokenField()] = text();
    }
    if (oneIn(3)) {
        fields.erase("SessionTimeout");
    }
    mutate(fields);
    return fields;
}

Fields HostileRequests::record() {
    Fields fields{{"&&ReturnChannel", ownKey("return")},
                  {"&&OperationPrivileges", "1"},
                  {"&&RemoteIP", "192.0.2.66"},
                  {"&&Origin", "Redfish"},
                  {"&&TargetURI", oneIn(2) ? serviceUri : sessionUri(pick(victims))},
                  {"&&RequestMethod", "PATCH"}};
    mutate(fields);
    return fields;
}

void HostileRequests::mutate(Fields& fields) {
    for (unsigned mutations = below(4); mutations > 0; --mutations) {
        if (oneIn(3)) {
            fields.erase(pick(requestFields));
        } else {
            const std::string field = oneIn(10) ? text() : pick(requestFields);
            fields[field] = anything();
        }
    }
}

// Whether a deletion of this target would delete a session that has to stay.
bool HostileRequests::namesProtectedSession(const std::string& target) const {
    const std::string identifier = lastSegment(target.c_str());
    return std::any_of(foreign.sessions.begin(), foreign.sessions.end(),
                       [&](const std::string& uri) { return lastSegment(uri) == identifier; });
}

void HostileRequests::writeHash(std::vector<Words>& commands, const std::string& key,
                                Fields fields) {
    if (oneIn(15)) {
        writeOtherKind(commands, key);
        return;
    }
    const auto target = fields.find("&&TargetURI");
    if (target != fields.end() && namesProtectedSession(target->second)) {
        target->second = sessionUri(pick(victims));
    }
    commands.push_back({"DEL", key});
    Words command{"HSET", key};
    for (const auto& [field, value] : fields) {
        command.push_back(field);
        command.push_back(value);
    }
    if (!fields.empty() && !oneIn(30)) {
        commands.push_back(std::move(command));
    }
}

void HostileRequests::writeOtherKind(std::vector<Words>& commands, const std::string& key) {
    commands.push_back({"DEL", key});
    switch (below(5)) {
        case 0:
            commands.push_back({"SET", key, anything()});
            break;
        case 1:
            commands.push_back({"SADD", key, anything(), anything()});
            break;
        case 2:
            commands.push_back({"ZADD", key, "1", anything()});
            break;
        case 3:
            commands.push_back({"XADD", key, "*", "field", anything()});
            break;
        default:
            writeList(commands, key);
            break;
    }
}

void HostileRequests::writeList(std::vector<Words>& commands, const std::string& key) {
    static const Words tokens{"&&ObjectRef ", "&&Object ", "&&Array ", ""};
    commands.push_back({"DEL", key});
    Words command{"RPUSH", key};
    for (unsigned elements = 1 + below(6); elements > 0; --elements) {
        const std::string& token = pick(tokens);
        command.push_back(token + anything());
    }
    commands.push_back(std::move(command));
}

void HostileRequests::corruptService(std::vector<Words>& commands) {
    if (oneIn(6)) {
        writeList(commands, membersKey);
        return;
    }
    const KnownKey& known = knownKeys.at(below(static_cast<unsigned>(knownKeys.size())));
    switch (below(4)) {
        case 0:
            writeOtherKind(commands, known.key);
            break;
        case 1:
            commands.push_back({"DEL", known.key});
            break;
        default:
            const std::string& field = pick(known.fields);
            commands.push_back({"HSET", known.key, field, anything()});
            break;
    }
}

// A request whose reply the daemon takes for a notice. Its reply key names no request: one
// that did would have the daemon call itself for ever, just as it was told.
HostileRequest HostileRequests::echo() {
    const std::string key = "&&/hostile/echo";
    HostileRequest request;
    request.channel = channels.at(below(channels.size()));
    const std::string returnChannel = channels.at(below(channels.size()));
    request.preparation.push_back({"DEL", key});
    request.preparation.push_back({"HSET", key, "&&ReturnChannel", returnChannel, "&&TargetURI",
                                   serviceUri, "&&RequestData", "&&/hostile/nothing"});
    request.notice = key + " &&/hostile/reply/" + std::to_string(++replyCount) + "/echo";
    return request;
}

}  // namespace testbed
