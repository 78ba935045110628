#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <map>

#include "events/audit_log.h"
#include "sessionctl/commands.h"
#include "sessionctl/output.h"
#include "sessionctl/session_view.h"
#include "sessionctl/store_access.h"

namespace session_service::console {
namespace {

// The store tells nobody of changes unless it is configured to.
constexpr int pauseMilliseconds = 1000;

// Whole lines have been written, and nothing is to be cleared away.
void end(int /*signal*/) {
    _exit(done);
}

bool report(const Options& options, const char* event, const SessionView& view) {
    const std::string time = currentTimestamp();
    if (options.json) {
        return print(jsonText({{"time", time},
                               {"event", event},
                               {"id", view.id},
                               {"user", view.user},
                               {"client", view.client}},
                              -1));
    }
    constexpr std::size_t eventWidth = sizeof("present");
    std::string padded = event;
    padded.resize(eventWidth, ' ');
    return print(time + "  " + padded + ' ' +
                 tableText({{view.id, view.user, view.client, view.fault}}));
}

// By member of the collection.
using Views = std::map<std::string, SessionView>;

// Reports what changed since the last look. False when nobody reads any more.
bool look(const Options& options, redisContext* store, const char* newcomer, Views& known) {
    Views now;
    for (const std::string& member : readMembers(store)) {
        const auto found = known.find(member);
        if (found != known.end()) {
            now.insert(*found);
        } else if (now.find(member) == now.end()) {
            const SessionView view = readMember(store, member);
            now.emplace(member, view);
            if (!report(options, newcomer, view)) {
                return false;
            }
        }
    }
    for (const auto& [member, view] : known) {
        if (now.find(member) == now.end() && !report(options, "gone", view)) {
            return false;
        }
    }
    known = std::move(now);
    return true;
}

}  // namespace

int watchSessions(const Options& options) {
    const OpenStore store = openStore(options.patience);
    signal(SIGINT, end);
    signal(SIGTERM, end);
    Views known;
    const char* newcomer = "present";
    while (look(options, store.connection.get(), newcomer, known)) {
        // No event is asked for: what ends the wait early is that nobody reads any more.
        pollfd output{.fd = STDOUT_FILENO, .events = 0, .revents = 0};
        if (poll(&output, 1, pauseMilliseconds) != 0) {
            return done;
        }
        newcomer = "new";
    }
    return errno == EPIPE ? done : failed;
}

}  // namespace session_service::console
