// Passes of the expiry over collections of any size, and their baselines.
#pragma once

#include <map>
#include <vector>

#include "bench/requests.h"

namespace bench {

class ExpiryPass {
  public:
    // Inserts sessions that do not expire. From then on the daemon is stopped between passes.
    ExpiryPass(testbed::Controller& host, int maxSessions);
    ~ExpiryPass();
    ExpiryPass(const ExpiryPass&) = delete;
    ExpiryPass& operator=(const ExpiryPass&) = delete;

    // How many commands a pass over so many sessions sends.
    static int commandsOf(int sessions) { return 1 + 4 * sessions; }
    // Runs one pass over so many sessions; returns the seconds from its first command to its
    // last, by the store's clock.
    double run(int sessions, Server server);

  private:
    void letExpiryRun();
    static std::vector<testbed::MonitoredCommand> passAmong(
        const std::vector<testbed::MonitoredCommand>& commands, int sessions);

    testbed::Controller& controller;
    testbed::StoreClient store;
    testbed::Words members;
    std::map<int, Recording> recordings;
};

}  // namespace bench
