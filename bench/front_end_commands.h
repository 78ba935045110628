// What the web front end has the store do for its requests: recorded from the real one, and sent
// straight to the store by a loop that does nothing else. The daemon does its part as ever.
#pragma once

#include <vector>

#include "bench/bare_connection.h"
#include "testbed/controller.h"

namespace bench {

// The commands of one request, with marks in place of what differs from request to request.
struct RequestCommands {
    // In one round trip: up to the one that publishes the notice, if any.
    std::vector<testbed::Words> ask;
    // In another one, once the daemon has answered.
    std::vector<testbed::Words> take;
};

struct FrontEndCommands {
    RequestCommands login;
    RequestCommands read;  // of the client's own session
    RequestCommands logout;
    // The text of the key file with which the password was encrypted.
    std::string key;
};

// Records them on a controller of its own. No web front end may run in this process.
FrontEndCommands recordFrontEnd();

// Sends them. A front end has made each of these requests before, so that the store knows the
// scripts, and the daemon has the same key. There is one such loop at a time. All functions block
// until the request has been answered, and throw Failure when it was refused.
class FrontEndLoop {
  public:
    FrontEndLoop(const testbed::Controller& controller, FrontEndCommands commands);

    struct Session {
        std::string uri;
        std::string token;
    };
    Session login();
    void read(const Session& session);
    void logout(const Session& session);

  private:
    // Returns the reply to the last command.
    ReplyPtr run(const RequestCommands& request, const Session& session = {});
    ReplyPtr send(const std::vector<testbed::Words>& commands, const Session& session);

    FrontEndCommands recorded;
    BareConnection connection;
    BareConnection subscription;
};

}  // namespace bench
