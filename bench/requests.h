// Requests that are repeated under the same names, sent to the daemon or to the baseline that is
// measured beside it.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "bench/baseline.h"
#include "testbed/controller.h"

namespace bench {

enum class Server { daemon, baseline };
enum class Kind { login, logout, change };

class RepeatedRequests {
  public:
    // All logins are the user's. The controller has been started.
    RepeatedRequests(testbed::Controller& host, const std::string& user);

    // Records the commands that the daemon sends for requests of these kinds, a login before its
    // logout, and starts baselines that replay them.
    void recordBaselines(const std::vector<Kind>& kinds);
    // How many commands a request sends, its own AUTH and its last PUBLISH included.
    std::size_t commandsOf(Kind kind) const { return recordings.at(kind).size(); }

    // Sends a request and waits for its reply. A logout is that of the last login. Returns the
    // seconds from the notice to the arrival of the reply.
    double send(Kind kind, Server server);

  private:
    struct RepeatedRequest {
        testbed::Request request;
        std::unique_ptr<Baseline> baseline{};
    };

    void prepare(Kind kind);
    Recording recordingOf(Kind kind);
    testbed::Request& requestOf(Kind kind) { return requests.at(kind).request; }

    testbed::Controller& controller;
    testbed::StoreClient store;
    testbed::FakeFrontEnd frontEnd;
    std::map<Kind, RepeatedRequest> requests;
    std::map<Kind, Recording> recordings;
    int timeout = 300;
};

}  // namespace bench
