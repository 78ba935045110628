// Works without a pause on one part of the system, and watches its footprint meanwhile. Exit status
// 0: every answer was right, nothing grows, and nothing is left.
#include "bench/soak.h"

#include <algorithm>
#include <array>
#include <iomanip>
#include <iostream>
#include <map>
#include <thread>
#include <utility>

#include "bench/process_statistics.h"
#include "bench/timed_program.h"
#include "testbed/events_and_audit_log.h"

namespace bench {

namespace {

using testbed::Words;
using Clock = std::chrono::steady_clock;

constexpr long maxRows = 30;
constexpr long allowedGrowth = 512;           // KiB, of the daemon
constexpr long allowedFrontEndGrowth = 2048;  // KiB, from the second third to the last one
constexpr long allowedStoreGrowth = 1024;     // KiB
constexpr long maxFrontEnd = 24576;           // KiB
constexpr const char* keptEntries = "100";
constexpr int columnWidth = 10;
constexpr std::array errorLevels{"[error]", "[crit]", "[alert]", "[emerg]"};

// Removes old events and audit entries, as a controller's event and log services do.
constexpr const char* trimScript = R"(
    redis.call('XTRIM', KEYS[1], 'MAXLEN', ARGV[1])
    while redis.call('LLEN', KEYS[2]) > tonumber(ARGV[1]) do
        redis.call('DEL', redis.call('RPOP', KEYS[2]):sub(#'&&ObjectRef ' + 1))
        redis.call('HINCRBY', KEYS[3], 'Members@odata.count', -1)
    end)";

// The largest in a part of the rows.
long maxFrontEndKib(std::vector<Footprint>::const_iterator begin,
                    std::vector<Footprint>::const_iterator end) {
    long kib = 0;
    for (; begin != end; ++begin) {
        kib = std::max(kib, begin->frontEndKib);
    }
    return kib;
}

}  // namespace

void Footprint::raiseTo(const Footprint& other) {
    daemonKib = std::max(daemonKib, other.daemonKib);
    descriptors = std::max(descriptors, other.descriptors);
    threads = std::max(threads, other.threads);
    frontEndKib = std::max(frontEndKib, other.frontEndKib);
    keys = std::max(keys, other.keys);
    storeKib = std::max(storeKib, other.storeKib);
}

Soak::Soak(FrontEnd kind, std::vector<const char*> columns)
    : columnNames(std::move(columns)), done(columnNames.size()) {
    if (kind == FrontEnd::nginx) {
        web.emplace(controller);
    }
}

void Soak::repeat(const std::function<void()>& round) {
    do {
        round();
    } while (!ending);
}

std::vector<std::jthread> Soak::start() {
    std::vector<std::jthread> threads;
    for (const std::function<void()>& worker : workers()) {
        threads.emplace_back([this, worker] {
            try {
                worker();
            } catch (const std::exception& thrown) {
                const std::lock_guard lock(mutex);
                if (failure.empty()) {
                    failure = thrown.what();
                }
                ending = true;
            }
        });
    }
    return threads;
}

void Soak::trimRecords(const std::string& kept) {
    store->run({"EVAL", trimScript, "3", testbed::eventStream, testbed::auditMembersKey,
                testbed::auditEntriesUri, kept});
    for (const char* log : {testbed::webAccessLogFile, testbed::webRefusedLoginsFile}) {
        if (web) {
            controller.writeFile(log, "");
        }
    }
}

Footprint Soak::footprint() {
    const pid_t daemon = controller.daemon().pid();
    return {.daemonKib = statusValue(daemon, "VmRSS"),
            .descriptors = openDescriptors(daemon),
            .threads = statusValue(daemon, "Threads"),
            .frontEndKib =
                web ? statusValue(testbed::childrenOf(web->process().pid()).at(0), "VmRSS") : 0,
            .keys = static_cast<long>(store->run({"DBSIZE"}).integer),
            .storeKib = static_cast<long>(storeValue(*store, "memory", "used_memory") / 1024)};
}

Words Soak::settle() {
    try {
        testbed::waitUntil("no session and no request is left", [&] {
            return store->llen(testbed::membersKey) == 0 &&
                   store->run({"INFO", "keyspace"}).text.find("expires=0") != std::string::npos;
        });
    } catch (const testbed::Failure&) {
        // The keys tell what is left.
    }
    trimRecords("0");
    return store->keys("*");
}

void Soak::printHead() const {
    std::cout << "    time       daemon    files  threads" << (web ? "    front end" : "")
              << "     keys        store";
    for (const char* name : columnNames) {
        std::cout << std::setw(columnWidth) << name;
    }
    std::cout << "\n";
}

void Soak::printRow(const std::string& time, const Footprint& footprint) const {
    std::cout << std::setw(8) << time << std::setw(9) << footprint.daemonKib << " KiB"
              << std::setw(9) << footprint.descriptors << std::setw(9) << footprint.threads;
    if (web) {
        std::cout << std::setw(9) << footprint.frontEndKib << " KiB";
    }
    std::cout << std::setw(9) << footprint.keys << std::setw(9) << footprint.storeKib << " KiB";
    for (const std::atomic<long>& each : done) {
        std::cout << std::setw(columnWidth) << each;
    }
    std::cout << std::endl;
}

std::vector<Footprint> Soak::watch(std::chrono::seconds duration) {
    const auto begin = Clock::now();
    const long count = std::min(maxRows, static_cast<long>(duration.count()));
    std::vector<Footprint> rows;
    for (long row = 1; row <= count && !ending; ++row) {
        Footprint maximum = footprint();
        while (!ending && Clock::now() < begin + duration * row / count) {
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
            trimRecords(keptEntries);
            maximum.raiseTo(footprint());
        }
        const auto elapsed = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - begin);
        printRow(std::to_string(elapsed.count()) + " s", maximum);
        rows.push_back(maximum);
    }
    return rows;
}

void Soak::checkFrontEnd(testbed::Checks& checks, const std::vector<Footprint>& rows) const {
    const auto third = static_cast<std::ptrdiff_t>(rows.size() / 3);
    // In the first third it still takes what it works with.
    const long early = maxFrontEndKib(rows.begin() + third, rows.end() - third);
    const long late = maxFrontEndKib(rows.end() - third, rows.end());
    checks.check(late - early <= allowedFrontEndGrowth,
                 "the front end has not grown by more than " +
                     std::to_string(allowedFrontEndGrowth) + " KiB from the second third on");
    checks.check(maxFrontEndKib(rows.begin(), rows.end()) <= maxFrontEnd,
                 "the front end has stayed below " + std::to_string(maxFrontEnd) + " KiB");
    const std::string log = web->errorLog();
    const bool hasErrors =
        std::any_of(errorLevels.begin(), errorLevels.end(),
                    [&](const char* level) { return log.find(level) != std::string::npos; });
    checks.check(!hasErrors, "the front end has logged no error");
    if (hasErrors) {
        std::cout << log;
    }
}

bool Soak::check(const Words& keysBefore, const Words& keysAfter, const Footprint& before,
                 const std::vector<Footprint>& rows, const Footprint& after) {
    testbed::Checks checks;
    const auto bound = [](long kib) { return " by more than " + std::to_string(kib) + " KiB"; };
    std::cout << "\nEach request was answered as it has to be.\n";
    // While it works, its memory goes up and down with the modules that PAM loads.
    checks.check(after.daemonKib - before.daemonKib <= allowedGrowth,
                 "the daemon has not grown" + bound(allowedGrowth));
    checks.check(std::all_of(rows.begin(), rows.end(),
                             [&](const Footprint& row) { return row.threads == before.threads; }),
                 "the daemon has started no thread");
    checks.check(keysAfter == keysBefore, "the store holds the keys that it held before");
    for (const std::string& key : keysAfter) {
        if (!std::binary_search(keysBefore.begin(), keysBefore.end(), key)) {
            const bool holdsToken = key.rfind(testbed::tokenKey(""), 0) == 0;
            std::cout << "           " << (holdsToken ? "the record of a token" : key) << "\n";
        }
    }
    checks.check(store->hget(testbed::sessionsUri, "Members@odata.count") == "0",
                 "the collection of sessions counts none");
    checks.check(after.storeKib - before.storeKib <= allowedStoreGrowth,
                 "the store has not grown" + bound(allowedStoreGrowth));
    if (web) {
        checkFrontEnd(checks, rows);
    }
    return checks.allRight();
}

bool Soak::run(std::chrono::seconds duration) {
    controller.start();
    if (web) {
        web->start();
    }
    store.emplace(controller.connect());

    // One round of each: what is loaded or made at first use is there from then on.
    ending = true;
    start().clear();
    const Words keysBefore = settle();
    const Footprint before = footprint();
    for (std::atomic<long>& each : done) {
        each = 0;
    }

    printHead();
    printRow("before", before);
    ending = !failure.empty();
    std::vector<std::jthread> threads = start();
    const std::vector<Footprint> rows = watch(duration);
    ending = true;
    threads.clear();
    if (!failure.empty()) {
        std::cout << "\n" << failure << "\n";
        return false;
    }
    const Words keysAfter = settle();
    // A pass of the expiry may be under way, which opens one for its time.
    testbed::waitUntil("the daemon has no descriptor more than before",
                       [&] { return footprint().descriptors <= before.descriptors; });
    const Footprint after = footprint();
    printRow("after", after);
    return check(keysBefore, keysAfter, before, rows, after);
}

}  // namespace bench

int main(int argc, char** argv) {
    const std::map<std::string, bool (*)(std::chrono::seconds)> parts{
        {"daemon", bench::soakDaemon}, {"frontend", bench::soakFrontEnd}};
    const auto part = parts.find(argc > 1 ? argv[1] : "");
    if (part == parts.end()) {
        std::cerr << "usage: soak daemon|frontend SECONDS\n";
        return 2;
    }
    return bench::runFor(argc - 1, argv + 1, "soak", part->second);
}
