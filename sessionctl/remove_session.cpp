#include <algorithm>

#include "frame/resource_names.h"
#include "protocol/replies.h"
#include "protocol/request_channels.h"
#include "sessionctl/commands.h"
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

// Clears them away. The reply's stays, to end by itself, where the daemon may still write it.
struct Leftovers {
    redisContext* store;
    Keys keys;
    bool replyMayCome = false;

    ~Leftovers() {
        store::send(store, {"DEL", keys.request});
        if (!replyMayCome) {
            store::send(store, {"DEL", keys.reply});
        }
    }
};

struct DaemonReply {
    std::string status;
    std::vector<std::string> messages;  // oldest first
};

void require(const store::Answer& answer, Kind kind) {
    if (answer.kind != kind) {
        throw Problem(failed, "The store does not take the request: " + harmless(answer.text));
    }
}

// Both entries end by themselves should this process be ended; the daemon adds to the reply
// without giving it a longer life.
void storeRequest(redisContext* store, const Keys& keys, const std::string& id,
                  std::chrono::seconds patience) {
    const std::string lifetime = std::to_string(patience.count() + 60);
    require(ask(store, {"HSET", keys.request, requestMethodField, "DELETE", targetUriField,
                        sessionUriOf(id), returnChannelField, keys.reply}),
            Kind::integer);
    require(ask(store, {"EXPIRE", keys.request, lifetime}), Kind::integer);
    require(ask(store, {"HSET", keys.reply, "&&RequestKey", keys.request}), Kind::integer);
    require(ask(store, {"EXPIRE", keys.reply, lifetime}), Kind::integer);
}

// Waits for the announcement that the reply is there.
bool waitForReply(redisContext* subscription, const std::string& replyKey,
                  std::chrono::seconds patience) {
    const Clock::time_point end = Clock::now() + patience;
    while (Clock::now() < end) {
        const auto announcement = store::readAnnouncement(subscription);
        if (!announcement) {
            return false;
        }
        if (announcement->text == replyKey) {
            return true;
        }
    }
    return false;
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
    Leftovers leftovers{.store = store, .keys = drawKeys()};
    const Keys& keys = leftovers.keys;
    const OpenStore subscription = openStore(options.patience);
    if (!store::subscribe(subscription.connection.get(), keys.reply)) {
        throw Problem(storeUnreachable, "The store has stopped answering.");
    }
    storeRequest(store, keys, id, options.patience);
    const store::Answer receivers =
        ask(store, {"PUBLISH", deleteChannel, keys.request + ' ' + keys.reply});
    require(receivers, Kind::integer);
    if (receivers.integer == 0) {
        throw Problem(failed,
                      "Nobody listens for deletions: the daemon is not running, or no longer "
                      "serves. Start it again.");
    }
    if (!waitForReply(subscription.connection.get(), keys.reply, options.patience)) {
        leftovers.replyMayCome = true;
        throw Problem(failed,
                      "The daemon has not answered. The deletion was taken back, unless "
                      "it is being carried out.");
    }
    return takeReply(store, keys.reply);
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
        return "the collection has no count, or the store failed; see the daemon's log";
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
        throw Problem(failed, "The daemon refuses: " + explain(reply) + ".");
    }
    return deleted && printed ? done : failed;
}

}  // namespace session_service::console
