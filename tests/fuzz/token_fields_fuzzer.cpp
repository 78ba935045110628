// The fields of a session in the store: tokens with and without quotes, names, times and members
// of the collection. Whatever they hold, deletion and expiry touch the keys of that session only.
// The lines of the input: the stored token, a session's identifier, its user name, its last use,
// its timeout, its member of the collection.
#include <pthread.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>

#include "frame/worker_context.h"
#include "protocol/replies.h"
#include "protocol/request_channels.h"
#include "sessions/collection.h"
#include "sessions/delete_session.h"
#include "sessions/expiry.h"
#include "sessions/records.h"
#include "store/resource_names.h"
#include "support/captured_stream.h"
#include "support/fake_store.h"
#include "support/input.h"
#include "support/log_lines.h"
#include "support/require.h"

namespace session_service {
namespace {

struct Fields {
    std::string storedToken;
    std::string id;
    std::string userName;
    std::string lastAccessed;
    std::string timeout;
    std::string member;
};

WorkerContext context{
    {PTHREAD_MUTEX_INITIALIZER}, {PTHREAD_MUTEX_INITIALIZER}, PTHREAD_COND_INITIALIZER};

void tryQuotes(const std::string& text) {
    require(stripQuotes('"' + text + '"') == text, "one enclosing pair of quotes goes");
    const std::string stripped = stripQuotes(text);
    require(stripped == text || '"' + stripped + '"' == text, "nothing but such a pair goes");

    const std::string quoted = quoteArg(text);
    const std::string inside = stripQuotes(quoted);
    std::string unescaped;
    for (std::size_t i = 0; i < inside.size(); ++i) {
        require(inside[i] != '"', "no quote inside ends the quoted text");
        if (inside[i] == '\\') {
            ++i;
            require(i < inside.size(), "a backslash escapes something");
        }
        unescaped += inside[i];
    }
    require(quoted.size() == inside.size() + 2 && unescaped == text, "quoting loses nothing");
}

void tryRemoval(const std::string& text, const std::string& removed) {
    std::string left = text;
    std::string expected = text;
    const std::size_t position = text.find(removed);
    if (position != std::string::npos) {
        expected.erase(position, removed.size());
    }
    removeSubstring(left, removed);
    require(left == expected, "the first occurrence goes");
}

// Without its first two quotes.
std::string deletedTokenKey(const std::string& storedToken) {
    std::string key = "&&X-AUTH-TOKEN-" + storedToken;
    for (int quote = 0; quote < 2; ++quote) {
        const std::size_t position = key.find('"');
        if (position != std::string::npos) {
            key.erase(position, 1);
        }
    }
    return key;
}

// The replies to the commands of a deletion.
Replies deletionReplies(const Fields& fields) {
    return {resp::array({}),
            resp::bulk(fields.storedToken),
            resp::bulk(fields.userName),
            resp::integer(3),   // UNLINK
            resp::integer(17),  // the event group
            resp::nil(),        // has no maximum
            resp::bulk("1"),
            resp::integer(1)};  // LREM
}

// The commands of a deletion up to the one that removes the session from the collection.
Commands deletionCommands(const std::string& id, const std::string& storedToken) {
    const std::string uri = sessionUriPrefix + id;
    const std::string reference = "&&" + uri;
    Command unlink{"UNLINK", deletedTokenKey(storedToken), uri};
    if (reference != membersKey && reference != createQueue && reference != deleteQueue) {
        unlink.push_back(reference);
    }
    return {{"LRANGE", membersKey, "0", "-1"},
            {"HGET", reference, "XAUTH"},
            {"HGET", uri, "UserName"},
            unlink,
            {"HINCRBY", "/redfish/v1/EventService", "&&EVENT_GROUP_ID_COUNTER", "1"},
            {"HGET", defaultValuesKey, "MAX_EVENT_GROUP_ID"},
            {"HGET", collectionUri, membersCountField},
            {"LREM", membersKey, "-1", memberPrefix + uri}};
}

bool startsWith(const Commands& commands, const Commands& expected) {
    return commands.size() >= expected.size() &&
           std::equal(expected.begin(), expected.end(), commands.begin());
}

void tryDeletion(const Fields& fields) {
    const FakeConnection connection(deletionReplies(fields));
    const CapturedStream log(stderr);
    Reply nobodyWaits;
    const MutexGuard lock(context.dataMutex);
    deleteSession(connection.get(), fields.id, nobodyWaits, context);
    require(startsWith(connection.takeCommands(), deletionCommands(fields.id, fields.storedToken)),
            "a deletion names the session's own keys");
    require(isLog(log.written()), "a deletion logs whole lines");
}

// Both as 32 bits, whatever the text.
bool hasExpired(const Fields& fields, long uptime) {
    const auto seconds = [](const std::string& text) {
        return static_cast<std::int32_t>(std::strtoll(text.c_str(), nullptr, 10));
    };
    return std::int64_t{uptime} - seconds(fields.lastAccessed) >= seconds(fields.timeout);
}

// One pass over a collection of one member.
void tryExpiry(const Fields& fields) {
    const std::string uri =
        fields.member.substr(std::min(fields.member.size(), memberPrefix.size()));
    const std::string tokenKey = "&&X-AUTH-TOKEN-" + stripQuotes(fields.storedToken);
    Replies replies{resp::bulkArray({fields.member}), resp::bulk(redfishSessionType),
                    resp::bulk(fields.storedToken), resp::bulk(fields.lastAccessed),
                    resp::bulk(fields.timeout)};
    const Replies deletion = deletionReplies(fields);
    replies.insert(replies.end(), deletion.begin(), deletion.end());
    Commands reads{{"LRANGE", membersKey, "0", "-1"},
                   {"HGET", uri, "SessionType"},
                   {"HGET", "&&" + uri, "XAUTH"},
                   {"HGET", tokenKey, "LastAccessed"},
                   {"HGET", tokenKey, "Timeout"}};

    FakeStore server({replies});
    const CapturedStream log(stderr);
    const long before = uptimeSeconds();
    pthread_mutex_lock(&context.stopMutex.handle);
    sessionTimeoutThread(&context);
    const long after = uptimeSeconds();
    require(isLog(log.written()), "an expiry logs whole lines");

    const Commands commands = server.connections()[0].takeCommands();
    require(startsWith(commands, reads), "a pass reads the fields of its session");
    const bool expired = commands.size() > reads.size();
    require(expired == hasExpired(fields, before) || expired == hasExpired(fields, after),
            "a session expires when its idle time has reached its timeout");
    if (expired) {
        std::string id = uri.substr(0, 511);
        const std::size_t position = id.find(sessionUriPrefix);
        if (position != std::string::npos) {
            id.erase(position, sessionUriPrefix.size());
        }
        const Commands expected = deletionCommands(id, fields.storedToken);
        reads.insert(reads.end(), expected.begin(), expected.end());
        require(startsWith(commands, reads), "an expiry deletes its session");
    }
}

// The value that a command sets the field to.
std::string valueOf(const Command& command, const std::string& field) {
    for (std::size_t i = 2; i + 1 < command.size(); i += 2) {
        if (command[i] == field) {
            return command[i + 1];
        }
    }
    return "(none)";
}

void tryRecords(const Fields& fields) {
    const NewSession session{.id = fields.id,
                             .token = {fields.storedToken},
                             .userName = fields.userName,
                             .remoteIp = fields.lastAccessed,
                             .origin = fields.member,
                             .privilege = fields.timeout};
    const FakeConnection connection(Replies(4, resp::integer(1)));
    require(writeSessionRecord(connection.get(), session) &&
                writeMetaSessionRecord(connection.get(), session, fields.timeout),
            "records are written");
    writeTokenReference(connection.get(), session);

    const Commands commands = connection.takeCommands();
    require(commands.size() == 4, "a record is one command");
    const std::string uri = sessionUriPrefix + fields.id;
    const std::size_t origin = fields.member.empty() ? 0 : 2;
    require(commands[0].size() == 2 + 28 + origin && commands[0][1] == uri &&
                valueOf(commands[0], "UserName") == quoteArg(fields.userName) &&
                valueOf(commands[0], "&&OwnerName") == fields.userName,
            "the resource holds the user name, whatever it is");
    require(commands[1].size() == 2 + 10 + origin &&
                commands[1][1] == "&&X-AUTH-TOKEN-" + fields.storedToken &&
                valueOf(commands[1], "SessionID") == uri &&
                valueOf(commands[1], "UserName") == fields.userName,
            "the token record names its session");
    require(commands[2] == Command{"HSET", "&&" + uri, "XAUTH", quoteArg(fields.storedToken)},
            "the token reference holds the quoted token");
}

}  // namespace
}  // namespace session_service

// A fake of the wait before a pass: it is over at once, and the pass is the last one.
extern "C" int usleep(useconds_t /*time*/) {
    pthread_mutex_unlock(&session_service::context.stopMutex.handle);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace session_service;
    openLog();
    std::string_view input = textOf(data, size);
    Fields fields;
    for (std::string* field : {&fields.storedToken, &fields.id, &fields.userName,
                               &fields.lastAccessed, &fields.timeout, &fields.member}) {
        *field = upToNull(takeLine(input));
        tryQuotes(*field);
        tryRemoval(*field, fields.storedToken);
    }
    tryRemoval(fields.member, sessionUriPrefix);
    tryDeletion(fields);
    tryExpiry(fields);
    tryRecords(fields);
    return 0;
}
