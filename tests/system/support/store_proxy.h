// A proxy between the daemon and its store. It passes everything on until a test wants a
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

class StoreProxy {
  public:
    // What becomes of a command.
    struct Verdict {
        enum class Action {
            pass,      // to the store, and its reply back
            cut,       // the connection ends, the store sees nothing
            cutAfter,  // the store executes it, the connection ends in place of the reply
            truncate,  // the store executes it, the connection ends inside the reply
            reply      // the proxy replies with `bytes`, the store sees nothing
        };
        Action action = Action::pass;
        std::string bytes;

        static const Verdict pass;
        static const Verdict cut;
        static const Verdict cutAfter;
        static const Verdict truncate;
        static Verdict reply(std::string bytes) { return {Action::reply, std::move(bytes)}; }
    };
    // Decides on a command of the daemon's before the store sees it. May block, which delays
    // the command. Called by one thread for each connection, so several may be inside at
    // once.
    using Filter = std::function<Verdict(const Words& command)>;

    // Leads the daemon, which has not been started yet, to the proxy. The controller has to
    // outlive it.
    explicit StoreProxy(Controller& controller);
    // Ends all connections. A filter that still blocks has to return for it.
    ~StoreProxy();
    StoreProxy(const StoreProxy&) = delete;
    StoreProxy& operator=(const StoreProxy&) = delete;

    void setFilter(Filter newFilter);
    // Whether a connection that comes from now on is ended at once.
    void refuseConnections(bool refuse) { refusing = refuse; }
    // How many connections came so far, the refused ones included.
    int connections() const { return connectionCount; }

  private:
    void accept();
    void serve(int client);
    Verdict verdictOn(const Words& command);

    std::string storePath;
    int listener = -1;
    int stop = -1;     // readable once everything has to end
    std::mutex mutex;  // guards filter
    Filter filter;
    std::atomic<bool> refusing = false;
    std::atomic<int> connectionCount = 0;
    std::list<std::thread> servers;
    std::thread acceptor;
};

inline const StoreProxy::Verdict StoreProxy::Verdict::pass{Action::pass, {}};
inline const StoreProxy::Verdict StoreProxy::Verdict::cut{Action::cut, {}};
inline const StoreProxy::Verdict StoreProxy::Verdict::cutAfter{Action::cutAfter, {}};
inline const StoreProxy::Verdict StoreProxy::Verdict::truncate{Action::truncate, {}};

}  // namespace testbed
