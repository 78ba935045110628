#include <poll.h>
#include <signal.h>

#include <algorithm>
#include <cstdio>

#include "frame/resource_names.h"
#include "protocol/replies.h"
#include "protocol/request_channels.h"
#include "sessionctl/commands.h"
#include "sessionctl/interruption.h"
#include "sessionctl/output.h"
#include "sessionctl/session_view.h"
#include "sessionctl/store_access.h"
#include "sessions/identifiers.h"
#include "sessions/records.h"

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

Keys drawKeys() {
    constexpr unsigned bytes = 16;
    const std::string prefix = "&&/sessionctl/" + generateRandomHex(bytes);
    return {prefix + "/request", prefix + "/reply"};
}

// Takes the request back, and clears the reply away unless the daemon may still write it; that
// ends by itself. False when the store did not answer.
bool clearAway(redisContext* store, const Keys& keys, bool replyMayCome) {
    return store::send(store, {"DEL", keys.request}) &&
           (replyMayCome || store::send(store, {"DEL", keys.reply}));
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
        throw Problem(failed, "The store does not take the request: " + harmless(answer.text));
    }
}

// Stores the request and announces it in one step: nothing stays for ever, whenever this process
// or the store ends, for the entries end by themselves, and the daemon adds to the reply without
// giving it a longer life. Returns how many listened.
long long announce(redisContext* store, const Keys& keys, const std::string& id,
                   std::chrono::seconds patience) {
    const std::string lifetime = std::to_string(patience.count() + 60);
    const std::string notice = keys.request + ' ' + keys.reply;
    requireTaken(ask(store, {"MULTI"}));
    requireTaken(ask(store, {"HSET", keys.request, requestMethodField, "DELETE", targetUriField,
                             sessionUriOf(id), returnChannelField, keys.reply}));
    requireTaken(ask(store, {"EXPIRE", keys.request, lifetime}));
    requireTaken(ask(store, {"HSET", keys.reply, "&&RequestKey", keys.request}));
    requireTaken(ask(store, {"EXPIRE", keys.reply, lifetime}));
    requireTaken(ask(store, {"PUBLISH", deleteChannel, notice}));
    const store::Answer outcome = store::ask(store, {"EXEC"});
    if (outcome.kind == Kind::lost) {
        throwUncertain();
    }
    requireTaken(outcome);
    return outcome.elements.empty() ? 0 : outcome.elements.back().integer;
}

// Waits for the announcement that the reply is there. False when it did not come in time, or
// before a signal.
bool waitForReply(const Interruption& interruption, redisContext* subscription,
                  const std::string& replyKey, std::chrono::seconds patience) {
    const Clock::time_point end = Clock::now() + patience;
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
        const auto announcement = store::readAnnouncement(subscription);
        if (!announcement) {
            throwUncertain();
        }
        if (announcement->text == replyKey) {
            return true;
        }
    }
}

// Reads the reply and removes its messages.
DaemonReply takeReply(redisContext* store, const std::string& replyKey) {
    const Fields fields = store::fieldsOf(ask(store, {"HGETALL", replyKey}));
    DaemonReply reply{.status = fieldOf(fields, returnStatusField), .messages = {}};
    const std::string list = fieldOf(fields, extendedInfoField);
    const store::Answer entries = ask(store, {"LRANGE", list, "0", "-1"});
    for (const store::Answer& entry : entries.elements) {
        const Fields message = store::fieldsOf(ask(store, {"HGETALL", entry.text}));
        reply.messages.insert(reply.messages.begin(), fieldOf(message, messageIdField));
        ask(store, {"DEL", entry.text, fieldOf(message, messageArgsField)});
    }
    ask(store, {"DEL", list});
    return reply;
}

DaemonReply exchange(const Options& options, redisContext* store, const std::string& id) {
    const Keys keys = drawKeys();
    const OpenStore subscription = openStore(options.patience);
    if (!store::subscribe(subscription.connection.get(), keys.reply)) {
        throw Problem(storeUnreachable, "The store has stopped answering.");
    }
    int signal = 0;
    {
        const Interruption interruption;
        if (announce(store, keys, id, options.patience) == 0) {
            clearAway(store, keys, false);
            throw Problem(failed,
                          "Nobody listens for deletions: the daemon is not running, or no longer "
                          "serves. Start it again.");
        }
        if (waitForReply(interruption, subscription.connection.get(), keys.reply,
                         options.patience)) {
            DaemonReply reply = takeReply(store, keys.reply);
            clearAway(store, keys, false);
            return reply;
        }
        if (!clearAway(store, keys, true)) {
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
    if (message == serviceDisabledMessage) {
        return "the service is switched off; switch it on to delete sessions";
    }
    if (message == unprocessableMessage) {
        return "it is no session of the type Redfish";
    }
    if (message == temporarilyUnavailableMessage) {
        return "the sessions are busy; try again";
    }
    if (message == databaseOperationError) {
        return "the session may have ended and be a member still: try \"sessionctl check\", and "
               "see the daemon's log";
    }
    return "";
}

std::string explain(const DaemonReply& reply) {
    std::string text = reply.status.empty() ? "no status" : harmless(reply.status);
    for (const std::string& message : reply.messages) {
        const std::string meaning = meaningOf(message);
        text += ", " + harmless(message) + (meaning.empty() ? "" : " (" + meaning + ")");
    }
    return text;
}

}  // namespace

int removeSession(const Options& options, const std::string& id) {
    const OpenStore opened = openStore(options.patience);
    redisContext* store = opened.connection.get();
    const SessionView view = readSession(store, id);
    if (!view.recorded) {
        // What the list names can be taken out of it, even when nothing else is left.
        const std::vector<std::string> members = readMembers(store);
        if (std::find(members.begin(), members.end(), memberOf(id)) == members.end()) {
            throw Problem(failed, "There is no session " + harmless(id) + ".");
        }
    }
    const DaemonReply reply = exchange(options, store, id);
    const bool deleted = reply.status == deletedStatus;
    bool printed = true;
    if (options.json) {
        printed = print(jsonText({{"id", id},
                                  {"user", view.user},
                                  {"deleted", deleted},
                                  {"status", reply.status},
                                  {"messages", reply.messages}}));
    } else if (deleted) {
        printed = print("Session " + harmless(id) +
                        (view.user.empty() ? "" : " of " + harmless(view.user)) + " is deleted.\n");
    } else {
        throw Problem(failed, "The daemon answers: " + explain(reply) + ".");
    }
    return deleted && printed ? done : failed;
}

}  // namespace session_service::console
