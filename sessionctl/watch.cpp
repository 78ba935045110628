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

// The store publishes changes of its keys only if it is configured to.
constexpr int pollMilliseconds = 1000;

// Output is written line by line, and there is nothing to clean up.
void exitOnSignal(int /*signal*/) {
    _exit(exit_status::success);
}

int printEvent(const Options& options, const char* event, const SessionView& view) {
    const std::string time = currentTimestamp();
    if (options.json) {
        return writeOutput(formatJson({{"time", time},
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
                       formatTable({{view.id, view.user, view.client, view.fault}}));
}

// By member of the collection.
using Views = std::map<std::string, SessionView>;

// Reports what has changed since `known`, and updates that. Returns 0, or the error of the output.
int reportChanges(const Options& options, redisContext* connection, const char* eventForNew,
                  Views& known) {
    Views now;
    for (const std::string& member : readMembers(connection)) {
        const auto found = known.find(member);
        if (found != known.end()) {
            now.insert(*found);
        } else if (now.find(member) == now.end()) {
            const SessionView view = readMember(connection, member);
            now.emplace(member, view);
            if (const int error = printEvent(options, eventForNew, view); error != 0) {
                return error;
            }
        }
    }
    for (const auto& [member, view] : known) {
        if (now.find(member) != now.end()) {
            continue;
        }
        if (const int error = printEvent(options, "gone", view); error != 0) {
            return error;
        }
    }
    known = std::move(now);
    return 0;
}

}  // namespace

int runWatch(const Options& options) {
    const OpenStore opened = openStore(options.timeout);
    signal(SIGINT, exitOnSignal);
    signal(SIGTERM, exitOnSignal);
    Views known;
    const char* eventForNew = "present";
    for (;;) {
        const int error = reportChanges(options, opened.connection.get(), eventForNew, known);
        if (error != 0) {
            // A reader that has closed the output wants no more.
            return error == EPIPE ? exit_status::success : exit_status::failure;
        }
        // Asks for no event: only a closed output ends the wait early.
        pollfd output{.fd = STDOUT_FILENO, .events = 0, .revents = 0};
        if (poll(&output, 1, pollMilliseconds) != 0) {
            return exit_status::success;
        }
        eventForNew = "new";
    }
}

}  // namespace session_service::console
