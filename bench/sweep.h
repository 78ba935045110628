// Passes of the sweeper over collections of any size, and the floor under them.
#pragma once

#include "bench/requests.h"

namespace testbed {

class Sweep {
  public:
    // Plants sessions that do not expire. From then on the daemon stands still between passes.
    Sweep(Controller& controller, int maxSessions);
    ~Sweep();
    Sweep(const Sweep&) = delete;
    Sweep& operator=(const Sweep&) = delete;

    // How many commands a pass over so many sessions sends.
    static int commandsOf(int sessions) { return 1 + 4 * sessions; }
    // Has one pass made over so many sessions; returns the seconds from its first command to its
    // last, by the store's clock.
    double pass(int sessions, Server server);

  private:
    void letSweep();
    static std::vector<MonitoredCommand> passAmong(const std::vector<MonitoredCommand>& commands,
                                                   int sessions);

    Controller& controller_;
    StoreClient store_;
    Words members_;
    std::map<int, Recording> recordings_;
};

}  // namespace testbed
