// Faults of the store, put into one command after the other of what the daemon does.
//
// FaultyStore stands between daemon and store, passes everything on, and keeps what it
// saw. A walk over the commands of one request looks like this:
//
//     FaultyStore faulty{controller};  // a member of the fixture
//
//     startStore(), startDaemon();
//     faulty.watch(faulty.openedFromNowOn());  // an undisturbed request: its commands
//     login();
//     const std::vector<FaultyStore::Sent> road = faulty.seen();
//     for (std::size_t n = 0; n < road.size(); ++n) {
//         if (fault.fits(road[n].words)) {
//             faulty.strike(fault, n, faulty.openedFromNowOn());
//             ... the request once more, and what came of it
//         }
//     }
//
// For a thread's lasting connection, such as that of the expiry, say in the place of
// openedFromNowOn() which commands it sends.
#pragma once

#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "support/store_relay.h"

namespace testbed {

// What befalls a command.
struct Fault {
    const char* name;
    StoreRelay::Verdict verdict;
    // What the answer gives as the reason of a failure: the text of an error, the second
    // element of an array of two. None: it gives no reason.
    std::optional<std::string> reason{};

    // The connection ends; otherwise the command is answered, but not carried out.
    bool endsTheConnection() const { return verdict.fate != StoreRelay::Verdict::Fate::answered; }
    bool isCarriedOut() const {
        return verdict.fate == StoreRelay::Verdict::Fate::cutAfter ||
               verdict.fate == StoreRelay::Verdict::Fate::truncated;
    }
    bool isError() const { return !endsTheConnection() && verdict.reply.front() == '-'; }
    // False where the command may well be answered in this way.
    bool fits(const Words& command) const;
};
std::ostream& operator<<(std::ostream& out, const Fault& fault);
// For the names of tests whose parameter is a fault.
inline constexpr auto nameOfFault = [](const auto& instance) { return instance.param.name; };

// A cut before and after the command, a truncated reply, refusals (an error, out of memory,
// read only), and answers of each kind. Their names are fit for tests' names.
const std::vector<Fault>& storeFaults();
// The last of them: an array of two elements without text. A command that asks for an array
// takes it for one, and the daemon's thread ends of it.
const Fault& arrayWithoutTexts();

class FaultyStore {
  public:
    struct Sent {
        int connection;  // counted from 0, in the order of their first commands
        Words words;
        bool carriedOut;  // by the store
    };
    using Which = std::function<bool(const Sent& sent)>;

    // Leads the daemon, which has not been started yet, to the relay. The controller has to
    // outlive it.
    explicit FaultyStore(Controller& controller);

    // What connections will send that have not sent anything yet. Once the daemon serves,
    // these are the connections of requests.
    Which openedFromNowOn() const;

    // Begins a new record, of such commands only.
    void watch(Which which);
    // The same, and the fault befalls one of them, counted from 0.
    void strike(const Fault& fault, std::size_t at, Which which);
    // The same with a judge, who may block.
    void strike(StoreRelay::Judge judge, std::size_t at, Which which);
    // The record as it stands.
    std::vector<Sent> seen() const;

    // The expiry finds no sessions any more, so that it leaves alone what a fault has left
    // behind. To be called once the daemon serves.
    void blindTheExpiry();

  private:
    StoreRelay::Verdict judge(const Words& command);
    void begin(StoreRelay::Judge judge, std::size_t at, Which which);

    mutable std::mutex mutex_;
    std::map<std::thread::id, int> connections_;
    std::vector<Sent> everything_;
    std::size_t begin_ = 0;  // of the record
    Which which_;
    StoreRelay::Judge struck_;
    std::size_t at_ = 0;
    std::size_t passed_ = 0;  // of the commands in question
    int sighted_ = 0;         // the first connection that finds the sessions
    StoreRelay relay_;
};

}  // namespace testbed
