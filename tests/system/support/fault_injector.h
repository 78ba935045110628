// Faults of the store, injected at one command after the other of what the daemon does.
//
// A FaultInjector is a proxy between daemon and store that passes everything on, and records
// the commands. A test that injects a fault at each command of one request looks like this:
//
//     FaultInjector injector{controller};  // a member of the fixture
//
//     startStore(), startDaemon();
//     injector.record(injector.newConnections());  // a request without a fault: its commands
//     login();
//     const std::vector<FaultInjector::SentCommand> commands = injector.recorded();
//     for (std::size_t n = 0; n < commands.size(); ++n) {
//         if (fault.fits(commands[n].words)) {
//             injector.inject(fault, n, injector.newConnections());
//             ... the request once more, and what came of it
//         }
//     }
//
// For the lasting connection of a thread, such as that of the expiry, select it by the commands
// that it sends instead of by newConnections().
#pragma once

#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "support/store_proxy.h"

namespace testbed {

// What happens to a command.
struct Fault {
    const char* name;
    StoreProxy::Verdict verdict;
    // What the reply gives as the reason of a failure: the text of an error, the second
    // element of an array of two. None: it gives no reason.
    std::optional<std::string> reason{};

    // The connection ends; otherwise the command gets a reply, but is not executed.
    bool endsConnection() const { return verdict.action != StoreProxy::Verdict::Action::reply; }
    bool isExecuted() const {
        return verdict.action == StoreProxy::Verdict::Action::cutAfter ||
               verdict.action == StoreProxy::Verdict::Action::truncate;
    }
    bool isError() const { return !endsConnection() && verdict.bytes.front() == '-'; }
    // False where the reply may just as well be a right one for the command.
    bool fits(const Words& command) const;
};
std::ostream& operator<<(std::ostream& out, const Fault& fault);
// For the names of tests whose parameter is a fault.
inline constexpr auto nameOfFault = [](const auto& instance) { return instance.param.name; };

// The connection cut before and after the command, a truncated reply, refusals (an error, out of
// memory, read only), and replies of each kind. Their names are fit for tests' names.
const std::vector<Fault>& storeFaults();
// The last of them: an array of two elements without text. A command that asks for an array
// takes it for one, and the daemon's thread ends of it.
const Fault& arrayWithoutTexts();

class FaultInjector {
  public:
    struct SentCommand {
        int connection;  // counted from 0, in the order of their first commands
        Words words;
        bool executed;  // by the store
    };
    using Selector = std::function<bool(const SentCommand& sent)>;

    // Leads the daemon, which has not been started yet, to the proxy. The controller has to
    // outlive it.
    explicit FaultInjector(Controller& controller);

    // Selects the commands of connections that have not sent anything yet. Once the daemon
    // serves, these are the connections of requests.
    Selector newConnections() const;

    // Begins a new record, of the selected commands only.
    void record(Selector selector);
    // The same, and injects the fault at one of them, counted from 0.
    void inject(const Fault& fault, std::size_t position, Selector selector);
    // The same with a filter, which may block.
    void inject(StoreProxy::Filter filter, std::size_t position, Selector selector);
    // The record as it stands.
    std::vector<SentCommand> recorded() const;

    // From now on the expiry finds no sessions, so that it leaves alone what a fault has left
    // behind. To be called once the daemon serves.
    void hideSessionsFromExpiry();

  private:
    StoreProxy::Verdict verdictOn(const Words& command);
    void begin(StoreProxy::Filter filter, std::size_t position, Selector selector);

    mutable std::mutex mutex;
    std::map<std::thread::id, int> connections;
    std::vector<SentCommand> sentCommands;
    std::size_t recordBegin = 0;
    Selector selected;
    StoreProxy::Filter faultFilter;
    std::size_t faultPosition = 0;
    std::size_t selectedCount = 0;
    int firstConnectionWithSessions = 0;
    StoreProxy proxy;
};

}  // namespace testbed
