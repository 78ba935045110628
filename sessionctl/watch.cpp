#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <map>

#include "sessionctl/commands.h"
#include "sessionctl/local_moment.h"
#include "sessionctl/output.h"
#include "sessionctl/session_view.h"
#include "sessionctl/store_access.h"
#include "sessionctl/terminal.h"
#include "sessions/create_session.h"
#include "sessions/records.h"

namespace session_service::console {
namespace {

// The store publishes changes of its keys only if it is configured to.
constexpr int pollMilliseconds = 1000;

// Takes the line away that says that nothing happens.
constexpr std::string_view eraseLine = "\r\x1b[K";

// Output is written line by line, and there is nothing to clean up but that line.
void exitOnSignal(int /*signal*/) {
    if (isTerminal()) {
        [[maybe_unused]] const ssize_t written =
            write(STDOUT_FILENO, eraseLine.data(), eraseLine.size());
    }
    _exit(exit_status::success);
}

// What has become of a session. For programs, the ends are one event with a reason.
struct Event {
    const char* name;
    const char* programName;
    const char* reason;  // null: none, or not known
    Style style;
};
constexpr Event present{"present", "present", nullptr, Style::plain};
constexpr Event added{"new", "new", nullptr, Style::good};
constexpr Event loggedOut{"logged out", "gone", "loggedOut", Style::notable};
constexpr Event expired{"expired", "gone", "expired", Style::notable};
constexpr Event gone{"gone", "gone", nullptr, Style::notable};

// A session of the collection, with what is needed to tell how it has ended.
struct Watched {
    SessionView view;
    SecretText tokenRecordKey{};
    Activity activity{};
};

class Watch {
  public:
    Watch(const Options& given, redisContext* store)
        : options(given), connection(store), saysThatItWaits(isTerminal() && !given.json) {}
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;
    ~Watch() {
        if (saysThatItWaits) {
            writeOutput(std::string(eraseLine));
        }
    }

    // Reports what has changed since the last call. Returns 0, or the error of the output.
    int reportChanges() {
        std::map<std::string, Watched> now;
        for (const std::string& member : readMembers(connection)) {
            if (now.find(member) != now.end()) {
                continue;
            }
            const auto found = known.find(member);
            if (found != known.end()) {
                refreshActivity(found->second);
                now.insert(*found);
                continue;
            }
            const Watched watched = readWatched(member);
            now.emplace(member, watched);
            if (const int error = printEvent(isFirst ? present : added, watched.view); error != 0) {
                return error;
            }
        }
        for (const auto& [member, watched] : known) {
            if (now.find(member) == now.end()) {
                if (const int error = printEvent(endOf(watched), watched.view); error != 0) {
                    return error;
                }
            }
        }
        known = std::move(now);
        isFirst = false;
        return 0;
    }

    // Says on a terminal that nothing happens.
    int showWaiting() {
        if (!saysThatItWaits) {
            return 0;
        }
        std::string line = "Waiting since " + formatTimeOfDay(lastChange) + "; " +
                           std::to_string(known.size()) + " of " + std::to_string(maxSessions) +
                           " taken.";
        line = cutToColumns(line, terminalWidth() - 1);
        return writeOutput(std::string(eraseLine) + styled(Style::faint, line));
    }

  private:
    Watched readWatched(const std::string& member) {
        Watched watched{.view = readMember(connection, member)};
        if (watched.view.hasResource) {
            watched.tokenRecordKey =
                tokenRecordKeyForExpiry(connection, sessionUriOf(watched.view.id));
            refreshActivity(watched);
        }
        return watched;
    }

    // A record that has gone since the list was read leaves the activity as it was.
    void refreshActivity(Watched& watched) {
        if (!watched.tokenRecordKey.text.empty()) {
            const Activity activity = readActivity(connection, watched.tokenRecordKey.text);
            if (activity.timeout != 0) {
                watched.activity = activity;
            }
        }
    }

    // By the daemon's own rule. A logout in the second in which the session would have expired
    // counts as its expiry.
    static const Event& endOf(const Watched& watched) {
        if (!watched.view.countsTowardLimit) {
            return gone;
        }
        const long long idle = uptimeSeconds() - watched.activity.lastAccessed;
        return idle >= watched.activity.timeout ? expired : loggedOut;
    }

    int printEvent(const Event& event, const SessionView& view) {
        lastChange = std::time(nullptr);
        if (options.json) {
            nlohmann::json document{{"time", formatTimestamp(lastChange)},
                                    {"event", event.programName},
                                    {"id", view.id},
                                    {"user", view.user},
                                    {"client", view.client}};
            if (event.reason) {
                document["reason"] = event.reason;
            }
            return writeOutput(formatJson(document, -1));
        }
        constexpr std::size_t eventWidth = sizeof("logged out");
        constexpr std::size_t narrow = 80;
        const std::size_t width = terminalWidth();
        const bool isNarrow = width != 0 && width < narrow;
        const std::string time =
            isNarrow ? formatTimeOfDay(lastChange) + ' ' : formatTimestamp(lastChange) + "  ";
        std::string name = event.name;
        name.resize(eventWidth, ' ');
        std::string session = formatTable({{view.id, view.user, view.client, view.fault}});
        session.pop_back();
        if (width != 0) {
            const std::size_t taken = time.size() + eventWidth + 1;
            session = cutToColumns(session, width > taken ? width - taken : 1);
        }
        return writeOutput(std::string(saysThatItWaits ? eraseLine : "") + time +
                           styled(event.style, name) + ' ' + session + '\n');
    }

    const Options& options;
    redisContext* connection;
    const bool saysThatItWaits;
    std::map<std::string, Watched> known;  // by member of the collection
    std::time_t lastChange = std::time(nullptr);
    bool isFirst = true;
};

}  // namespace

int runWatch(const Options& options) {
    const OpenStore opened = openStore(options.timeout);
    const bool toTerminal = isTerminal();
    signal(SIGINT, exitOnSignal);
    signal(SIGTERM, exitOnSignal);
    if (!toTerminal && isatty(STDERR_FILENO) == 1) {
        std::fputs("sessionctl: Waiting for changes, until interrupted.\n", stderr);
    }
    Watch watch(options, opened.connection.get());
    for (;;) {
        int error = watch.reportChanges();
        if (error == 0) {
            error = watch.showWaiting();
        }
        if (error == EPIPE) {
            // A reader that has closed the output wants no more.
            return exit_status::success;
        }
        if (error != 0) {
            sayOutputFailed(error);
            return exit_status::failure;
        }
        // Asks for no event: only a closed output ends the wait early.
        pollfd output{.fd = STDOUT_FILENO, .events = 0, .revents = 0};
        if (poll(&output, 1, pollMilliseconds) != 0) {
            return exit_status::success;
        }
    }
}

}  // namespace session_service::console
