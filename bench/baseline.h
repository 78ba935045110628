// The baseline of a piece of the daemon's work: the very commands that the daemon sent for it,
// sent by a loop that does nothing else.
#pragma once

#include <string>
#include <thread>
#include <vector>

#include "testbed/controller.h"

namespace bench {

// Commands in the form in which they are sent over a connection, in order.
using Recording = std::vector<std::string>;

// Makes a recording of what a monitor saw, without the commands of scripts. The monitor does not
// show the password of AUTH; it is put in again.
Recording record(const std::vector<testbed::MonitoredCommand>& commands,
                 const std::string& password);

// The command with which every connection begins.
std::string authentication(const std::string& password);

// Opens a connection to the store, sends the commands, each after the reply to the one before,
// and closes it. Throws Failure when the store is lost.
void replay(const std::string& socketPath, const Recording& recording);

// Replays a recording for each notice that it gets, as the daemon gets its own: over a
// subscribed connection, on a thread of its own.
class Baseline {
  public:
    Baseline(const testbed::Controller& controller, std::string noticeChannel, Recording commands);
    ~Baseline();
    Baseline(const Baseline&) = delete;
    Baseline& operator=(const Baseline&) = delete;

    // Publishes a notice.
    void notify() { store.publish(channel, "go"); }

  private:
    void serve(const std::string& password);

    std::string socketPath;
    std::string channel;
    Recording recording;
    testbed::StoreClient store;
    std::thread thread;
};

}  // namespace bench
