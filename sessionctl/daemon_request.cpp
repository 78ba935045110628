#include "sessionctl/daemon_request.h"

#include <poll.h>
#include <signal.h>

#include <cstdio>

#include "protocol/replies.h"
#include "protocol/request_channels.h"
#include "sessionctl/output.h"
#include "sessionctl/session_view.h"
#include "sessionctl/signal_catcher.h"
#include "sessionctl/store_access.h"
#include "sessions/identifiers.h"

namespace session_service::console {
namespace {

using Kind = store::Answer::Kind;
using Clock = std::chrono::steady_clock;

// No other request has these keys. That of the reply is also the name of the return channel.
struct RequestKeys {
    std::string request;
    std::string body;
    std::string reply;
};

RequestKeys generateKeys() {
    constexpr unsigned bytes = 16;
    const std::string prefix = "&&/sessionctl/" + generateRandomHex(bytes);
    return {prefix + "/request", prefix + "/body", prefix + "/reply"};
}

// Withdraws the request, and removes the reply unless the daemon may still be writing it: in that
// case it expires. False when the store did not answer.
bool cleanUp(redisContext* connection, const RequestKeys& keys, bool replyPending) {
    return store::send(connection, {"DEL", keys.request, keys.body}) &&
           (replyPending || store::send(connection, {"DEL", keys.reply}));
}

[[noreturn]] void failUncertain(const DaemonRequest& request) {
    throw CommandError(exit_status::storeUnavailable,
                       std::string("The store has stopped answering. The ") + request.noun +
                           " may still be carried out.");
}

void requireAccepted(const store::Answer& answer) {
    if (answer.kind == Kind::refused) {
        throw CommandError(exit_status::failure,
                           "The store does not take the request: " + escaped(answer.text));
    }
}

// Stores the request and publishes its notice in one transaction, so that nothing is left for good
// whenever this process or the store ends: all keys expire, and the daemon's reply does not change
// that. Returns the number of subscribers that got the notice.
long long publishRequest(redisContext* connection, const RequestKeys& keys,
                         const DaemonRequest& request, std::chrono::seconds timeout) {
    const std::string lifetime = std::to_string(timeout.count() + 60);
    const std::string notice = keys.request + ' ' + keys.reply;
    requireAccepted(ask(connection, {"MULTI"}));
    requireAccepted(
        ask(connection, {"HSET", keys.request, requestMethodField, request.method, targetUriField,
                         request.target, returnChannelField, keys.reply}));
    for (const auto& [name, value] : request.body) {
        requireAccepted(ask(connection, {"HSET", keys.body, name, value}));
        requireAccepted(ask(connection, {"EXPIRE", keys.body, lifetime}));
        requireAccepted(ask(connection, {"HSET", keys.request, requestDataField, keys.body}));
    }
    requireAccepted(ask(connection, {"EXPIRE", keys.request, lifetime}));
    requireAccepted(ask(connection, {"HSET", keys.reply, "&&RequestKey", keys.request}));
    requireAccepted(ask(connection, {"EXPIRE", keys.reply, lifetime}));
    requireAccepted(ask(connection, {"PUBLISH", request.channel, notice}));
    const store::Answer outcome = store::ask(connection, {"EXEC"});
    if (outcome.kind == Kind::lost) {
        failUncertain(request);
    }
    requireAccepted(outcome);
    return outcome.elements.empty() ? 0 : outcome.elements.back().integer;
}

// Waits until the daemon publishes the reply. False when it does not in time, or when a signal
// came.
bool waitForReply(const SignalCatcher& signals, redisContext* subscription,
                  const std::string& replyKey, const DaemonRequest& request,
                  std::chrono::seconds timeout) {
    const Clock::time_point end = Clock::now() + timeout;
    for (;;) {
        const Clock::duration left = end - Clock::now();
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(left);
        const std::chrono::nanoseconds rest = left - seconds;
        const timespec limit{.tv_sec = static_cast<time_t>(seconds.count()),
                             .tv_nsec = static_cast<long>(rest.count())};
        if (left <= Clock::duration::zero() ||
            signals.wait(store::descriptorOf(subscription), POLLIN, &limit) == 0) {
            return false;
        }
        const auto notice = store::readNotice(subscription);
        if (!notice) {
            failUncertain(request);
        }
        if (notice->text == replyKey) {
            return true;
        }
    }
}

// Reads the reply and removes its messages.
DaemonReply consumeReply(redisContext* connection, const std::string& replyKey) {
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

const char* explainMessage(const std::string& message) {
    if (message == message_id::serviceDisabled) {
        return "the service is switched off; \"sessionctl enable\" switches it on";
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
    if (message == message_id::operationFailed) {
        return "the store refused the change; see the daemon's log";
    }
    return "";
}

}  // namespace

DaemonReply requestFromDaemon(const Options& options, redisContext* connection,
                              const DaemonRequest& request) {
    const RequestKeys keys = generateKeys();
    const OpenStore subscription = openStore(options.timeout);
    if (!store::subscribe(subscription.connection.get(), keys.reply)) {
        throw CommandError(exit_status::storeUnavailable, "The store has stopped answering.");
    }
    int signal = 0;
    {
        const SignalCatcher signals;
        if (publishRequest(connection, keys, request, options.timeout) == 0) {
            cleanUp(connection, keys, false);
            throw CommandError(
                exit_status::failure,
                std::string("Nobody listens for ") + request.pluralNoun +
                    ": the daemon is not running, or no longer serves. Start it again.");
        }
        if (waitForReply(signals, subscription.connection.get(), keys.reply, request,
                         options.timeout)) {
            DaemonReply reply = consumeReply(connection, keys.reply);
            cleanUp(connection, keys, false);
            return reply;
        }
        if (!cleanUp(connection, keys, true)) {
            failUncertain(request);
        }
        signal = SignalCatcher::caught();
    }
    const std::string takenBack =
        std::string("The ") + request.noun + " was taken back, unless it is being carried out.";
    if (signal != 0) {
        std::fprintf(stderr, "sessionctl: %s\n", takenBack.c_str());
        raise(signal);
    }
    throw CommandError(exit_status::failure, "The daemon has not answered. " + takenBack);
}

std::string describe(const DaemonReply& reply) {
    std::string text = reply.status.empty() ? "no status" : escaped(reply.status);
    for (const std::string& message : reply.messages) {
        const std::string meaning = explainMessage(message);
        text += ", " + escaped(message) + (meaning.empty() ? "" : " (" + meaning + ")");
    }
    return text;
}

}  // namespace session_service::console
