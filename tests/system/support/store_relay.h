// Stands between the daemon and its store and passes everything on, until a test wants a
// connection to end at a certain command, a command to wait, or no more connections.
#pragma once

#include <atomic>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <thread>

#include "controller/bench_controller.h"

namespace bench {

class StoreRelay {
  public:
    enum class Verdict { pass, cut };
    // Decides on a command of the daemon's before the store sees it: passes it on or ends
    // the connection. May block, which holds the command. Called by one thread for each
    // connection, so several may be inside at once.
    using Judge = std::function<Verdict(const Words& command)>;

    // Leads the daemon, which has not been started yet, to the relay. The controller has to
    // outlive it.
    explicit StoreRelay(BenchController& controller);
    // Ends all connections. A judge that still blocks has to return for it.
    ~StoreRelay();
    StoreRelay(const StoreRelay&) = delete;
    StoreRelay& operator=(const StoreRelay&) = delete;

    void judge(Judge judge);
    // Whether a connection that comes from now on is ended at once.
    void refuseConnections(bool refuse) { refusing_ = refuse; }
    // How many connections came so far, the refused ones included.
    int connections() const { return connections_; }

  private:
    void accept();
    void serve(int client);
    Verdict ask(const Words& command);

    std::string storePath_;
    int listener_ = -1;
    int stop_ = -1;  // readable once everything has to end
    std::mutex mutex_;
    Judge judge_;
    std::atomic<bool> refusing_ = false;
    std::atomic<int> connections_ = 0;
    std::list<std::thread> servers_;
    std::thread acceptor_;
};

}  // namespace bench
