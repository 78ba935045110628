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

// Whole lines have been written, and there is nothing to clean up.
void end(int /*signal*/) {
    _exit(done);
}

int report(const Options& options, const char* event, const SessionView& view) {
    const std::string time = currentTimestamp();
    if (options.json) {
        return writeOutput(jsonText({{"time", time},
                                     {"event", event},
                                     {"id", view.id},
                                     {"user", view.user},
                                     {"client", view.client}},
                                    -1));
    }
    constexpr std::size_t eventWidth = sizeof("present");
    std::string padded = event;
    padded.resize(eventWidth, ' ');
    return writeOutput(time + "  " + padded + ' ' +
                       tableText({{view.id, view.user, view.client, view.fault}}));
}

// By member of the collection.
using Views = std::map<std::string, SessionView>;

// Reports what changed since the last look. Returns 0, or the error of the output.
int look(const Options& options, redisContext* connection, const char* newcomer, Views& known) {
    Views now;
    for (const std::string& member : readMembers(connection)) {
        const auto found = known.find(member);
        if (found != known.end()) {
            now.insert(*found);
        } else if (now.find(member) == now.end()) {
            const SessionView view = readMember(connection, member);
            now.emplace(member, view);
            if (const int error = report(options, newcomer, view); error != 0) {
                return error;
            }
        }
    }
    for (const auto& [member, view] : known) {
        if (now.find(member) != now.end()) {
            continue;
        }
        if (const int error = report(options, "gone", view); error != 0) {
            return error;
        }
    }
    known = std::move(now);
    return 0;
}

}  // namespace

int runWatch(const Options& options) {
    const OpenStore opened = openStore(options.timeout);
    signal(SIGINT, end);
    signal(SIGTERM, end);
    Views known;
    const char* newcomer = "present";
    for (;;) {
        const int error = look(options, opened.connection.get(), newcomer, known);
        if (error != 0) {
            // Nobody reads any more.
            return error == EPIPE ? done : failed;
        }
        // No event is asked for: what ends the wait early is that nobody reads any more.
        pollfd output{.fd = STDOUT_FILENO, .events = 0, .revents = 0};
        if (poll(&output, 1, pauseMilliseconds) != 0) {
            return done;
        }
        newcomer = "new";
    }
}

}  // namespace session_service::console
