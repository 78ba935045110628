// Watches the commands that the store executes.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "testbed/store_client.h"

namespace testbed {

struct MonitoredCommand {
    std::chrono::microseconds at{};  // by the server's clock
    // The address of the client: "127.0.0.1:PORT", "unix:PATH" for all clients of the Unix
    // socket, "lua" for a script.
    std::string client;
    Words words;
};

class Monitor {
  public:
    // Watches from here on.
    Monitor(const std::string& socketPath, const std::string& password);

    // Blocks until a command meets the condition, and returns all that came since the last
    // call, that one included. Throws Failure when none comes.
    std::vector<MonitoredCommand> until(
        const std::function<bool(const MonitoredCommand&)>& condition);
    // All commands that the store has executed since the last call.
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
