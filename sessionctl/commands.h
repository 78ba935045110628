// The commands of sessionctl. Each prints its result, as a JSON document if asked for, and returns
// the exit status; throws CommandError when it cannot do its work.
#pragma once

#include <chrono>
#include <string>

namespace session_service::console {

struct Options {
    bool json = false;
    std::chrono::seconds timeout{10};  // of the store, and of the daemon's reply
};

int runList(const Options& options);

int runShow(const Options& options, const std::string& id);

// Has the daemon delete the session, as a front end does. A member of the collection without a
// session record can be deleted, too.
int runDelete(const Options& options, const std::string& id);

// Asks for the password and tries it as the daemon would, without creating a session.
int runLogin(const Options& options, const std::string& user);

// Reports changes of the collection until SIGINT or SIGTERM, or until the output is closed.
int runWatch(const Options& options);

int runCheck(const Options& options);

}  // namespace session_service::console
