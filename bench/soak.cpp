// Logins, reads, logouts, changes and expiries without a pause; watches the footprint of the daemon
// and the store meanwhile. Exit status 0: every reply was right, and nothing grows.
#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <functional>
#include <iomanip>
#include <iostream>
#include <mutex>
#include <optional>
#include <thread>

#include "bench/process_statistics.h"
#include "bench/timed_program.h"
#include "testbed/accounts.h"
#include "testbed/checks.h"
#include "testbed/controller.h"
#include "testbed/http_client.h"
#include "testbed/web_front_end.h"

namespace {

using testbed::Failure;
using testbed::Reply;
using testbed::Words;
using Clock = std::chrono::steady_clock;

constexpr int loginWorkers = 2;
constexpr int expiringSessions = 3;  // with the others' fewer than the eight that are admitted
constexpr int readsPerLogin = 1000;
constexpr int loginsPerRefusal = 5000;  // a refusal takes PAM two seconds
constexpr long maxRows = 30;
constexpr long allowedGrowth = 512;        // KiB, of the daemon
constexpr long allowedStoreGrowth = 1024;  // KiB
constexpr const char* keptEntries = "100";

// Removes old events and audit entries, as a controller's event and log services do.
constexpr const char* trimScript = R"(
    redis.call('XTRIM', KEYS[1], 'MAXLEN', ARGV[1])
    while redis.call('LLEN', KEYS[2]) > tonumber(ARGV[1]) do
        redis.call('DEL', redis.call('RPOP', KEYS[2]):sub(#'&&ObjectRef ' + 1))
        redis.call('HINCRBY', KEYS[3], 'Members@odata.count', -1)
    end)";

enum Kind : std::size_t { login, refusal, read, change, logout, expiry };
constexpr std::array kindNames{"logins", "refusals", "reads", "changes", "logouts", "expiries"};

struct Footprint {
    long daemonKib = 0;
    long descriptors = 0;
    long threads = 0;
    long keys = 0;
    long storeKib = 0;

    void raiseTo(const Footprint& other) {
        daemonKib = std::max(daemonKib, other.daemonKib);
        descriptors = std::max(descriptors, other.descriptors);
        threads = std::max(threads, other.threads);
        keys = std::max(keys, other.keys);
        storeKib = std::max(storeKib, other.storeKib);
    }
};

class Soak {
  public:
    // Returns whether everything was right.
    bool run(std::chrono::seconds duration);

  private:
    // Repeats the round until the soak ends; keeps the first failure of all workers.
    void work(const std::function<void()>& round);
    Reply ask(testbed::StoreClient& client, testbed::Request request, Kind kind,
              const std::string& status);
    void loginRounds(bool refusals);
    void changeRounds();
    void expiryRounds();
    void readRounds();

    void trimRecords(const std::string& kept);
    Footprint footprint();
    // Waits for everything to end and removes its records; returns the keys that are left.
    Words settle();
    void printRow(const std::string& time, const Footprint& footprint) const;
    bool check(const Words& keysBefore, const Words& keysAfter, const Footprint& before,
               const Footprint& maximum, const Footprint& after);

    testbed::Controller controller;
    testbed::WebFrontEnd web{controller};
    std::optional<testbed::StoreClient> store;
    std::array<std::atomic<long>, kindNames.size()> done{};
    std::atomic<bool> ending = false;
    std::mutex mutex;  // guards failure
    std::string failure;
};

void Soak::work(const std::function<void()>& round) {
    try {
        do {
            round();
        } while (!ending);
    } catch (const std::exception& thrown) {
        const std::lock_guard lock(mutex);
        if (failure.empty()) {
            failure = thrown.what();
        }
        ending = true;
    }
}

// As a front end does: it removes what it stored itself.
Reply Soak::ask(testbed::StoreClient& client, testbed::Request request, Kind kind,
                const std::string& status) {
    request.send();
    Reply reply = request.reply();
    client.run({"DEL", request.requestKey(), request.requestKey() + "/Checklist", request.bodyKey(),
                request.replyKey(), request.returnChannel()});
    if (reply.status() != status) {
        throw Failure("One of the " + std::string(kindNames.at(kind)) + " was answered " +
                      reply.status() + " in place of " + status + ".");
    }
    ++done.at(kind);
    return reply;
}

void Soak::loginRounds(bool refusals) {
    testbed::FakeFrontEnd frontEnd = controller.frontEnd();
    testbed::StoreClient client = controller.connect();
    const testbed::Account& account = testbed::administrator;
    int count = 0;
    work([&] {
        const Reply session =
            ask(client, frontEnd.prepareLogin(account.name, account.password), login, "OK");
        ask(client, frontEnd.prepareRemove(session.location()), logout, "OK_EMPTY");
        if (refusals && ++count % loginsPerRefusal == 1) {
            ask(client, frontEnd.prepareLogin(account.name, testbed::reader.password), refusal,
                "AUTH_FAILED");
        }
    });
}

void Soak::changeRounds() {
    testbed::FakeFrontEnd frontEnd = controller.frontEnd();
    testbed::StoreClient client = controller.connect();
    int count = 0;
    work([&] {
        ask(client,
            frontEnd.preparePatch({{"SessionTimeout", std::to_string(300 + ++count % 100)}}),
            change, "OK");
    });
}

// Sessions of clients that went away.
void Soak::expiryRounds() {
    testbed::FakeFrontEnd frontEnd = controller.frontEnd();
    testbed::StoreClient client = controller.connect();
    const testbed::Account& account = testbed::operatorAccount;
    work([&] {
        Words sessions;
        for (int i = 0; i < expiringSessions; ++i) {
            const Reply session =
                ask(client, frontEnd.prepareLogin(account.name, account.password), login, "OK");
            client.hset(testbed::tokenKey(session.token()),
                        {{"LastAccessed", std::to_string(testbed::uptime() - 1000)}});
            sessions.push_back(session.location());
        }
        for (const std::string& session : sessions) {
            testbed::waitUntil("a session has expired", [&] { return !client.exists(session); });
            ++done.at(expiry);
        }
    });
}

void Soak::readRounds() {
    testbed::HttpClient client({.url = web.url(), .certificatePath = web.certificatePath()});
    const auto expect = [&](const testbed::HttpResponse& response, long status, Kind kind) {
        if (response.status != status) {
            throw Failure("One of the " + std::string(kindNames.at(kind)) + " was answered " +
                          std::to_string(response.status) + ": " + response.body);
        }
        ++done.at(kind);
    };
    work([&] {
        const testbed::HttpResponse session =
            client.login(testbed::reader.name, testbed::reader.password);
        expect(session, 201, login);
        for (int i = 0; i < readsPerLogin && !ending; ++i) {
            expect(client.get(session.location()), 200, read);
        }
        expect(client.remove(session.location()), 204, logout);
        client.useToken("");
    });
}

void Soak::trimRecords(const std::string& kept) {
    store->run({"EVAL", trimScript, "3", testbed::eventStream, testbed::auditMembersKey,
                testbed::auditEntriesUri, kept});
}

Footprint Soak::footprint() {
    const pid_t daemon = controller.daemon().pid();
    return {
        .daemonKib = bench::statusValue(daemon, "VmRSS"),
        .descriptors = bench::openDescriptors(daemon),
        .threads = bench::statusValue(daemon, "Threads"),
        .keys = static_cast<long>(store->run({"DBSIZE"}).integer),
        .storeKib = static_cast<long>(bench::storeValue(*store, "memory", "used_memory") / 1024)};
}

Words Soak::settle() {
    testbed::waitUntil("the replies and their messages have expired", [&] {
        return store->run({"INFO", "keyspace"}).text.find("expires=0") != std::string::npos;
    });
    trimRecords("0");
    return store->keys("*");
}

void Soak::printRow(const std::string& time, const Footprint& footprint) const {
    std::cout << std::setw(8) << time << std::setw(9) << footprint.daemonKib << " KiB"
              << std::setw(9) << footprint.descriptors << std::setw(9) << footprint.threads
              << std::setw(9) << footprint.keys << std::setw(9) << footprint.storeKib << " KiB";
    for (const std::atomic<long>& each : done) {
        std::cout << std::setw(10) << each;
    }
    std::cout << std::endl;
}

bool Soak::check(const Words& keysBefore, const Words& keysAfter, const Footprint& before,
                 const Footprint& maximum, const Footprint& after) {
    testbed::Checks checks;
    const auto bound = [](long kib) { return " by more than " + std::to_string(kib) + " KiB"; };
    std::cout << "\n";
    checks.check(failure.empty(), "each request was answered as it has to be" +
                                      (failure.empty() ? failure : ", but: " + failure));
    // While it works, its memory goes up and down with the modules that PAM loads.
    checks.check(after.daemonKib - before.daemonKib <= allowedGrowth,
                 "the daemon has not grown" + bound(allowedGrowth));
    checks.check(maximum.threads == before.threads, "the daemon has started no thread");
    checks.check(after.descriptors == before.descriptors,
                 "the daemon has no descriptor more than before");
    checks.check(keysAfter == keysBefore, "the store holds the keys that it held before");
    for (const std::string& key : keysAfter) {
        if (!std::binary_search(keysBefore.begin(), keysBefore.end(), key)) {
            std::cout << "           " << key << "\n";
        }
    }
    checks.check(after.storeKib - before.storeKib <= allowedStoreGrowth,
                 "the store has not grown" + bound(allowedStoreGrowth));
    return checks.allRight();
}

bool Soak::run(std::chrono::seconds duration) {
    controller.start();
    web.start();
    store.emplace(controller.connect());
    const auto allWorkers = [this] {
        std::vector<std::jthread> threads;
        threads.reserve(loginWorkers + 3);
        for (int i = 0; i < loginWorkers; ++i) {
            threads.emplace_back([this, i] { loginRounds(i == 0); });
        }
        threads.emplace_back([this] { changeRounds(); });
        threads.emplace_back([this] { expiryRounds(); });
        threads.emplace_back([this] { readRounds(); });
        return threads;
    };

    // One round of each: what is loaded or made at first use is there from then on.
    ending = true;
    allWorkers().clear();
    const Words keysBefore = settle();
    const Footprint before = footprint();
    for (std::atomic<long>& each : done) {
        each = 0;
    }

    std::cout << "    time       daemon    files  threads     keys        store";
    for (const char* name : kindNames) {
        std::cout << std::setw(10) << name;
    }
    std::cout << "\n";
    printRow("before", before);
    ending = !failure.empty();
    std::vector<std::jthread> threads = allWorkers();
    const auto start = Clock::now();
    const long rows = std::min(maxRows, static_cast<long>(duration.count()));
    Footprint maximum;
    for (long row = 1; row <= rows && !ending; ++row) {
        Footprint ofRow = footprint();
        while (!ending && Clock::now() < start + duration * row / rows) {
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
            trimRecords(keptEntries);
            ofRow.raiseTo(footprint());
        }
        const auto elapsed = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - start);
        printRow(std::to_string(elapsed.count()) + " s", ofRow);
        maximum.raiseTo(ofRow);
    }
    ending = true;
    threads.clear();
    const Words keysAfter = settle();
    const Footprint after = footprint();
    printRow("after", after);
    return check(keysBefore, keysAfter, before, maximum, after);
}

}  // namespace

int main(int argc, char** argv) {
    return bench::runFor(argc, argv, "soak",
                         [](std::chrono::seconds duration) { return Soak().run(duration); });
}
