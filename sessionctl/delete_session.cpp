#include <poll.h>
#include <signal.h>

#include <algorithm>
#include <cstdio>

#include "protocol/replies.h"
#include "protocol/request_channels.h"
#include "sessionctl/commands.h"
#include "sessionctl/interruption.h"
#include "sessionctl/output.h"
#include "sessionctl/session_view.h"
#include "sessionctl/store_access.h"
#include "sessions/identifiers.h"
#include "sessions/records.h"
#include "store/resource_names.h"

namespace session_service::console {
namespace {

using nlohmann::json;
using Kind = store::Answer::Kind;
using Clock = std::chrono::steady_clock;

// Of this request alone. The reply's key is the return channel's name as well.
struct Keys {
    std::string request;
    std::string reply;
};

Keys generateKeys() {
    constexpr unsigned bytes = 16;
    const std::string prefix = "&&/sessionctl/" + generateRandomHex(bytes);
    return {prefix + "/request", prefix + "/reply"};
}

// Takes the request back, and clears the reply away unless the daemon may still write it; that
// ends by itself. False when the store did not answer.
bool clearAway(redisContext* connection, const Keys& keys, bool replyMayCome) {
    return store::send(connection, {"DEL", keys.request}) &&
           (replyMayCome || store::send(connection, {"DEL", keys.reply}));
}

struct DaemonReply {
    std::string status;
    std::vector<std::string> messages;  // oldest first
};

[[noreturn]] void throwUncertain() {
    throw Problem(storeUnreachable,
                  "The store has stopped answering. The deletion may still be carried out.");
}

void requireTaken(const store::Answer& answer) {
    if (answer.kind == Kind::refused) {
        throw Problem(failed, "The store does not take the request: " + escaped(answer.text));
    }
}

// Stores the request and publishes its notice in one step: nothing stays for ever, whenever this
// process or the store ends, for the entries end by themselves, and the daemon adds to the reply
// without giving it a longer life. Returns how many listened.
long long publishRequest(redisContext* connection, const Keys& keys, const std::string& id,
                         std::chrono::seconds timeout) {
    const std::string lifetime = std::to_string(timeout.count() + 60);
    const std::string notice = keys.request + ' ' + keys.reply;
    requireTaken(ask(connection, {"MULTI"}));
    requireTaken(
        ask(connection, {"HSET", keys.request, requestMethodField, "DELETE", targetUriField,
                         sessionUriOf(id), returnChannelField, keys.reply}));
    requireTaken(ask(connection, {"EXPIRE", keys.request, lifetime}));
    requireTaken(ask(connection, {"HSET", keys.reply, "&&RequestKey", keys.request}));
    requireTaken(ask(connection, {"EXPIRE", keys.reply, lifetime}));
    requireTaken(ask(connection, {"PUBLISH", deleteChannel, notice}));
    const store::Answer outcome = store::ask(connection, {"EXEC"});
    if (outcome.kind == Kind::lost) {
        throwUncertain();
    }
    requireTaken(outcome);
    return outcome.elements.empty() ? 0 : outcome.elements.back().integer;
}

// Waits for the word that the reply is there. False when it did not come in time, or
// before a signal.
bool waitForReply(const Interruption& interruption, redisContext* subscription,
                  const std::string& replyKey, std::chrono::seconds timeout) {
    const Clock::time_point end = Clock::now() + timeout;
    for (;;) {
        const Clock::duration left = end - Clock::now();
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(left);
        const std::chrono::nanoseconds rest = left - seconds;
        const timespec limit{.tv_sec = static_cast<time_t>(seconds.count()),
                             .tv_nsec = static_cast<long>(rest.count())};
        if (left <= Clock::duration::zero() ||
            interruption.wait(store::descriptorOf(subscription), POLLIN, &limit) == 0) {
            return false;
        }
        const auto published = store::readNotice(subscription);
        if (!published) {
            throwUncertain();
        }
        if (published->text == replyKey) {
            return true;
        }
    }
}

// Reads the reply and removes its messages.
DaemonReply takeReply(redisContext* connection, const std::string& replyKey) {
    const Fields fields = store::fieldsOf(ask(connection, {"HGETALL", replyKey}));
    DaemonReply reply{.status = fieldOf(fields, returnStatusField), .messages = {}};
    const std::string list = fieldOf(fields, extendedInfoField);
    const store::Answer entries = ask(connection, {"LRANGE", list, "0", "-1"});
    for (const store::Answer& entry : entries.elements) {
        const Fields message = store::fieldsOf(ask(connection, {"HGETALL", entry.text}));
        reply.messages.insert(reply.messages.begin(), fieldOf(message, messageIdField));
        ask(connection, {"DEL", entry.text, fieldOf(message, messageArgsField)});
    }
    ask(connection, {"DEL", list});
    return reply;
}

DaemonReply requestDeletion(const Options& options, redisContext* connection,
                            const std::string& id) {
    const Keys keys = generateKeys();
    const OpenStore subscription = openStore(options.timeout);
    if (!store::subscribe(subscription.connection.get(), keys.reply)) {
        throw Problem(storeUnreachable, "The store has stopped answering.");
    }
    int signal = 0;
    {
        const Interruption interruption;
        if (publishRequest(connection, keys, id, options.timeout) == 0) {
            clearAway(connection, keys, false);
            throw Problem(failed,
                          "Nobody listens for deletions: the daemon is not running, or no longer "
                          "serves. Start it again.");
        }
        if (waitForReply(interruption, subscription.connection.get(), keys.reply,
                         options.timeout)) {
            DaemonReply reply = takeReply(connection, keys.reply);
            clearAway(connection, keys, false);
            return reply;
        }
        if (!clearAway(connection, keys, true)) {
            throwUncertain();
        }
        signal = Interruption::caught();
    }
    const std::string takenBack = "The deletion was taken back, unless it is being carried out.";
    if (signal != 0) {
        std::fprintf(stderr, "sessionctl: %s\n", takenBack.c_str());
        raise(signal);
    }
    throw Problem(failed, "The daemon has not answered. " + takenBack);
}

const char* meaningOf(const std::string& message) {
    if (message == message_id::serviceDisabled) {
        return "the service is switched off; switch it on to delete sessions";
    }
    if (message == message_id::unprocessableEntity) {
        return "it is no session of the type Redfish";
    }
    if (message == message_id::serviceTemporarilyUnavailable) {
        return "the sessions are busy; try again";
    }
    if (message == message_id::databaseOperationError) {
        return "the session may have ended and be a member still: try \"sessionctl check\", and "
               "see the daemon's log";
    }
    return "";
}

std::string explain(const DaemonReply& reply) {
    std::string text = reply.status.empty() ? "no status" : escaped(reply.status);
    for (const std::string& message : reply.messages) {
        const std::string meaning = meaningOf(message);
        text += ", " + escaped(message) + (meaning.empty() ? "" : " (" + meaning + ")");
    }
    return text;
}

}  // namespace

int runDelete(const Options& options, const std::string& id) {
    const OpenStore opened = openStore(options.timeout);
    redisContext* connection = opened.connection.get();
    const SessionView view = readSession(connection, id);
    if (!view.recorded) {
        // What the list names can be taken out of it, even when nothing else is left.
        const std::vector<std::string> members = readMembers(connection);
        if (std::find(members.begin(), members.end(), memberOf(id)) == members.end()) {
            throw Problem(failed, "There is no session " + escaped(id) + ".");
        }
    }
    const DaemonReply reply = requestDeletion(options, connection, id);
    const bool deleted = reply.status == status::okEmpty;
    bool printed = true;
    if (options.json) {
        printed = print(jsonText({{"id", id},
                                  {"user", view.user},
                                  {"deleted", deleted},
                                  {"status", reply.status},
                                  {"messages", reply.messages}}));
    } else if (deleted) {
        printed = print("Session " + escaped(id) +
                        (view.user.empty() ? "" : " of " + escaped(view.user)) + " is deleted.\n");
    } else {
        throw Problem(failed, "The daemon answers: " + explain(reply) + ".");
    }
    return deleted && printed ? done : failed;
}

}  // namespace session_service::console
