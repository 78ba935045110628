// The floor under a piece of the daemon's work: the very commands that it sent, sent by a
// loop that does nothing else.
#pragma once

#include <string>
#include <thread>
#include <vector>

#include "testbed/controller.h"

namespace testbed {

// Commands as they go over a connection, one after the other.
using Recording = std::vector<std::string>;

// What the monitor saw, without what scripts did. AUTH, which it does not tell, gets back its
// password.
Recording record(const std::vector<MonitoredCommand>& commands, const std::string& password);

// The command with which every connection begins.
std::string authentication(const std::string& password);

// Opens a connection to the store, sends the commands, each after the reply to the one before,
// and closes it. Throws Failure when the store is lost.
void replay(const std::string& socketPath, const Recording& recording);

// Replays a recording for each notice that it gets, as the daemon gets its own: over a
// subscribed connection, on a thread of its own.
class Floor {
  public:
    Floor(const Controller& controller, std::string channel, Recording recording);
    ~Floor();
    Floor(const Floor&) = delete;
    Floor& operator=(const Floor&) = delete;

    void announce() { store_.publish(channel_, "go"); }

  private:
    void serve(const std::string& password);

    std::string socketPath_;
    std::string channel_;
    Recording recording_;
    StoreClient store_;
    std::thread thread_;
};

}  // namespace testbed
