#include "bench/latency.h"

#include <benchmark/benchmark.h>

#include <array>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "bench/expiry_pass.h"
#include "bench/permissive_pam.h"
#include "bench/requests.h"

namespace bench {

using testbed::Controller;

namespace {

constexpr double maxRatio = 1.15;

std::string milliseconds(double seconds) {
    return fixed(seconds * 1e3, 3) + " ms";
}

std::string nameOf(const std::string& work, Server server) {
    return work + (server == Server::daemon ? "/daemon" : "/baseline");
}

// Keeps the median of each benchmark's repetitions, in seconds.
class Medians : public benchmark::BenchmarkReporter {
  public:
    bool ReportContext(const Context& /*context*/) override { return true; }
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            if (run.aggregate_name == "median") {
                medians[run.run_name.function_name] = run.GetAdjustedRealTime();
            }
        }
    }
    double of(const std::string& name) const { return medians.at(name); }

  private:
    std::map<std::string, double> medians;
};

// Work that can be done by both, the seconds that it takes.
using Work = std::function<double(Server)>;

// Registers the work of both. Repetitions of all that is registered take turns, so that what
// disturbs the machine disturbs all alike.
void compare(const std::string& name, const Work& work, const Repetition& repetition) {
    for (const Server server : {Server::daemon, Server::baseline}) {
        benchmark::RegisterBenchmark(nameOf(name, server).c_str(),
                                     [=](benchmark::State& state) {
                                         for ([[maybe_unused]] auto each : state) {
                                             state.SetIterationTime(work(server));
                                         }
                                     })
            ->UseManualTime()
            ->Unit(benchmark::kSecond)
            ->Iterations(repetition.iterations)
            ->Repetitions(repetition.repetitions)
            ->ReportAggregatesOnly();
    }
}

Medians runAll() {
    std::array<char*, 2> arguments{
        const_cast<char*>("speed"),
        const_cast<char*>("--benchmark_enable_random_interleaving=true")};
    int count = static_cast<int>(arguments.size());
    benchmark::Initialize(&count, arguments.data());
    Medians medians;
    benchmark::RunSpecifiedBenchmarks(&medians);
    benchmark::ClearRegisteredBenchmarks();
    return medians;
}

// Adds a row with the times of both and what becomes of them; to the result as well.
void judge(Table& table, Json& results, const Medians& medians, const std::string& name,
           std::vector<std::string> cells, Json result) {
    const double daemon = medians.of(nameOf(name, Server::daemon));
    const double baseline = medians.of(nameOf(name, Server::baseline));
    const double ratio = daemon / baseline;
    result["daemonMilliseconds"] = rounded(daemon * 1e3, 4);
    result["baselineMilliseconds"] = rounded(baseline * 1e3, 4);
    results.push_back(std::move(result));
    cells.insert(cells.end(), {milliseconds(daemon), milliseconds(baseline), fixed(ratio, 2),
                               "at most " + fixed(maxRatio, 2)});
    table.judge(cells, ratio <= maxRatio);
}

// Of a login whose session ends right after it.
double secondsOfLogin(RepeatedRequests& requests, Server server) {
    const double seconds = requests.send(Kind::login, server);
    requests.send(Kind::logout, server);
    return seconds;
}

void start(Controller& controller, const std::string& more = {}) {
    permitAllLogins(controller, more);
    controller.start();
    testbed::StoreClient store = controller.connect();
    keepAllAuditEntries(store);
}

}  // namespace

void measureRequests(Table& table, Json& results, const Repetition& repetition) {
    Controller controller;
    start(controller);
    RepeatedRequests requests(controller, "alice");
    requests.recordBaselines({Kind::login, Kind::logout, Kind::change});
    compare(
        "login", [&](Server server) { return secondsOfLogin(requests, server); }, repetition);
    compare(
        "logout",
        [&](Server server) {
            requests.send(Kind::login, server);
            return requests.send(Kind::logout, server);
        },
        repetition);
    compare(
        "PATCH", [&](Server server) { return requests.send(Kind::change, server); }, repetition);
    const Medians medians = runAll();

    table.head({"request", "store commands", "daemon", "baseline", "ratio", "target"});
    for (const auto& [name, kind] :
         {std::pair{"login", Kind::login}, {"logout", Kind::logout}, {"PATCH", Kind::change}}) {
        const std::size_t commands = requests.commandsOf(kind);
        judge(table, results["requests"], medians, name, {name, std::to_string(commands)},
              {{"request", name}, {"commands", commands}});
    }
}

void measureExpiry(Table& table, Json& results, const std::vector<int>& sessions,
                   const Repetition& repetition) {
    Controller controller;
    start(controller);
    ExpiryPass expiryPass(controller, sessions.back());
    for (const int size : sessions) {
        compare(
            std::to_string(size),
            [&expiryPass, size](Server server) { return expiryPass.run(size, server); },
            repetition);
    }
    const Medians medians = runAll();

    table.head({"sessions in a pass", "store commands", "a session", "daemon", "baseline", "ratio",
                "target"});
    for (const int size : sessions) {
        const std::string name = std::to_string(size);
        const double each = medians.of(nameOf(name, Server::daemon)) / size;
        const int commands = ExpiryPass::commandsOf(size);
        judge(table, results["expiry"], medians, name,
              {name, std::to_string(commands), fixed(each * 1e6, 0) + " µs"},
              {{"sessions", size}, {"commands", commands}});
    }
}

void measureAccountLookUp(Table& table, Json& results, const std::vector<int>& keys,
                          const Repetition& repetition) {
    constexpr const char* fill =
        "for i = redis.call('DBSIZE') + 1, tonumber(ARGV[1]) do "
        "redis.call('SET', 'filler:' .. i, '') end";
    Controller controller;
    start(controller, "acct=PAM_NEW_AUTHTOK_REQD");
    testbed::StoreClient store = controller.connect();
    table.head({"login with an account look-up: keys in the store", "store commands", "daemon",
                "baseline", "ratio", "target"});
    for (const int count : keys) {
        store.run({"EVAL", fill, "0", std::to_string(count)});
        // Nobody's account is looked for in all of them.
        RepeatedRequests requests(controller, "nobody");
        requests.recordBaselines({Kind::login, Kind::logout});
        const std::string name = std::to_string(count);
        compare(
            name, [&](Server server) { return secondsOfLogin(requests, server); }, repetition);
        const Medians medians = runAll();
        const std::size_t commands = requests.commandsOf(Kind::login);
        judge(table, results["accountLookUp"], medians, name, {name, std::to_string(commands)},
              {{"keys", count}, {"commands", commands}});
    }
}

}  // namespace bench
