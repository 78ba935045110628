// Stands between the daemon and its store and passes everything on, until a test wants a
// connection to end at a certain command, a command to wait, or no more connections.
#pragma once

#include <atomic>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

#include "testbed/controller.h"

namespace testbed {

class StoreRelay {
  public:
    // What becomes of a command.
    struct Verdict {
        enum class Fate {
            passed,     // to the store, and its reply back
            cut,        // the connection ends, the store sees nothing
            cutAfter,   // the store executes it, the connection ends in place of the reply
            truncated,  // the store executes it, the connection ends inside the reply
            answered    // with `reply`, the store sees nothing
        };
        Fate fate = Fate::passed;
        std::string reply;  // as it goes over the wire

        static const Verdict pass;
        static const Verdict cut;
        static const Verdict cutAfter;
        static const Verdict truncate;
        static Verdict answer(std::string reply) { return {Fate::answered, std::move(reply)}; }
    };
    // Decides on a command of the daemon's before the store sees it. May block, which holds
    // the command. Called by one thread for each connection, so several may be inside at
    // once.
    using Judge = std::function<Verdict(const Words& command)>;

    // Leads the daemon, which has not been started yet, to the relay. The controller has to
    // outlive it.
    explicit StoreRelay(Controller& controller);
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

inline const StoreRelay::Verdict StoreRelay::Verdict::pass{Fate::passed, {}};
inline const StoreRelay::Verdict StoreRelay::Verdict::cut{Fate::cut, {}};
inline const StoreRelay::Verdict StoreRelay::Verdict::cutAfter{Fate::cutAfter, {}};
inline const StoreRelay::Verdict StoreRelay::Verdict::truncate{Fate::truncated, {}};

}  // namespace testbed
