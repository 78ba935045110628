// Watches the commands that the store carries out.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "testbed/store_client.h"

namespace testbed {

struct MonitoredCommand {
    std::chrono::microseconds at{};  // by the server's clock
    // The address of who sent it: "127.0.0.1:PORT", "unix:PATH" for everybody on the
    // Unix socket, "lua" for a script.
    std::string client;
    Words words;
};

class Monitor {
  public:
    // Watches from here on.
    Monitor(const std::string& socketPath, const std::string& password);

    // Blocks until a command fulfils the condition, and returns all that came since the
    // last call, that one included. Throws Failure when none comes.
    std::vector<MonitoredCommand> until(
        const std::function<bool(const MonitoredCommand&)>& condition);
    // All that the store has carried out since the last call and up to now.
    std::vector<MonitoredCommand> soFar();

  private:
    StoreClient monitorConnection;
    StoreClient markConnection;
    unsigned lastMark = 0;
};

// The commands of one client, in order.
std::vector<Words> commandsOf(const std::vector<MonitoredCommand>& commands,
                              const std::string& client);

}  // namespace testbed
