// The commands of sessionctl. Each prints what it found, or with `json` one document of it,
// and returns the exit status; throws Problem when it cannot do its work.
#pragma once

#include <chrono>
#include <string>

namespace session_service::console {

struct Options {
    bool json = false;
    std::chrono::seconds timeout{10};  // with the store and with the daemon's reply
};

int runList(const Options& options);

int runShow(const Options& options, const std::string& id);

// Sends a deletion through the daemon, as a front end does. A member of the collection
// without a session record can be deleted, too.
int runDelete(const Options& options, const std::string& id);

// Asks for the password and tries it as the daemon would; makes no session.
int runLogin(const Options& options, const std::string& user);

// Follows the collection until SIGINT or SIGTERM, or until nobody reads the output any more.
int runWatch(const Options& options);

int runCheck(const Options& options);

}  // namespace session_service::console
