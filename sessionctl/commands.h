// The commands of sessionctl. Each prints its result, as a JSON document if asked for, and returns
// the exit status; throws CommandError when it cannot do its work.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace session_service::console {

struct Options {
    bool json = false;
    std::chrono::seconds timeout{10};  // of the store, and of the daemon's reply
};

int runList(const Options& options);

int runShow(const Options& options, const std::string& id);

// Which sessions to delete.
struct Deletions {
    std::vector<std::string> ids{};
    std::optional<std::string> user{};  // all of this user's
    bool all = false;
    bool confirmed = false;  // do not ask before all are deleted
};

// Has the daemon delete the sessions, one after another, as a front end does. A member of the
// collection without a session record can be deleted, too. Asks before it deletes all if it is used
// at a terminal.
int runDelete(const Options& options, const Deletions& deletions);

// The range of the session timeout, as the front end has it.
inline constexpr int minSessionTimeout = 30;
inline constexpr int maxSessionTimeout = 86400;

// Has the daemon change the session timeout, as a front end does.
int runTimeout(const Options& options, int seconds);

// Switches logins and deletions on or off. The daemon does not do that on request: writes it into
// the store, with the event that belongs to it.
int runEnable(const Options& options, bool enabled);

// Asks for the password and tries it as the daemon would, without creating a session.
int runLogin(const Options& options, const std::string& user);

// Reports changes of the collection until SIGINT or SIGTERM, or until the output is closed.
int runWatch(const Options& options);

int runCheck(const Options& options);

struct StatsOptions {
    std::optional<pid_t> daemon{};  // its process, if it could be found
    bool prometheus = false;        // write metrics instead of a table
    std::string output{};           // a file to write them to; empty: standard output
    std::string state{};            // a file that keeps the counts between calls; empty: none
};

// Shows what has been counted: sessions, logins, logouts, and what the daemon takes.
int runStats(const Options& options, const StatsOptions& stats);

}  // namespace session_service::console
