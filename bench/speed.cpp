#include "bench/speed.h"

#include <benchmark/benchmark.h>

#include <array>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "bench/requests.h"
#include "bench/sweep.h"

namespace testbed {

namespace {

constexpr double mostOfFloor = 1.15;

std::string milliseconds(double seconds) {
    return fixed(seconds * 1e3, 3) + " ms";
}

std::string nameOf(const std::string& work, Server server) {
    return work + (server == Server::daemon ? "/daemon" : "/floor");
}

// Keeps the median of each benchmark's repetitions, in seconds.
class Medians : public benchmark::BenchmarkReporter {
  public:
    bool ReportContext(const Context& /*context*/) override { return true; }
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            if (run.aggregate_name == "median") {
                seconds_[run.run_name.function_name] = run.GetAdjustedRealTime();
            }
        }
    }
    double of(const std::string& name) const { return seconds_.at(name); }

  private:
    std::map<std::string, double> seconds_;
};

// Work that can be done by both, the seconds that it takes.
using Work = std::function<double(Server)>;

// Registers the work of both. Repetitions of all that is registered take turns, so that what
// disturbs the machine disturbs all alike.
void compare(const std::string& name, const Work& work, const Effort& effort) {
    for (const Server server : {Server::daemon, Server::floor}) {
        benchmark::RegisterBenchmark(nameOf(name, server).c_str(),
                                     [=](benchmark::State& state) {
                                         for ([[maybe_unused]] auto each : state) {
                                             state.SetIterationTime(work(server));
                                         }
                                     })
            ->UseManualTime()
            ->Unit(benchmark::kSecond)
            ->Iterations(effort.iterations)
            ->Repetitions(effort.repetitions)
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

// Adds a row with the times of both and what becomes of them.
void judge(Table& table, const Medians& medians, const std::string& name,
           std::vector<std::string> cells) {
    const double daemon = medians.of(nameOf(name, Server::daemon));
    const double floor = medians.of(nameOf(name, Server::floor));
    const double ratio = daemon / floor;
    cells.insert(cells.end(), {milliseconds(daemon), milliseconds(floor), fixed(ratio, 2),
                               "at most " + fixed(mostOfFloor, 2)});
    table.judge(cells, ratio <= mostOfFloor);
}

// Of a login whose session ends right after it.
double secondsOfLogin(Exchanges& exchanges, Server server) {
    const double seconds = exchanges.ask(Kind::login, server);
    exchanges.ask(Kind::logout, server);
    return seconds;
}

void start(Controller& controller, const std::string& more = {}) {
    letEverybodyIn(controller, more);
    controller.start();
    // The log collection takes all entries.
    controller.connect().hset("/redfish/v1/Managers/1/LogServices/AuditLog/Entries",
                              {{"&&MaxEntries", "1000000"}});
}

}  // namespace

void measureRequests(Table& table, const Effort& effort) {
    Controller controller;
    start(controller);
    Exchanges exchanges(controller, "alice");
    exchanges.recordFloors({Kind::login, Kind::logout, Kind::change});
    compare(
        "login", [&](Server server) { return secondsOfLogin(exchanges, server); }, effort);
    compare(
        "logout",
        [&](Server server) {
            exchanges.ask(Kind::login, server);
            return exchanges.ask(Kind::logout, server);
        },
        effort);
    compare(
        "PATCH", [&](Server server) { return exchanges.ask(Kind::change, server); }, effort);
    const Medians medians = runAll();

    table.head({"request", "store commands", "daemon", "floor", "ratio", "target"});
    for (const auto& [name, kind] :
         {std::pair{"login", Kind::login}, {"logout", Kind::logout}, {"PATCH", Kind::change}}) {
        judge(table, medians, name, {name, std::to_string(exchanges.commandsOf(kind))});
    }
}

void measureSweeper(Table& table, const std::vector<int>& sessions, const Effort& effort) {
    Controller controller;
    start(controller);
    Sweep sweep(controller, sessions.back());
    for (const int size : sessions) {
        compare(
            std::to_string(size),
            [&sweep, size](Server server) { return sweep.pass(size, server); }, effort);
    }
    const Medians medians = runAll();

    table.head({"sessions in a pass", "store commands", "a session", "daemon", "floor", "ratio",
                "target"});
    for (const int size : sessions) {
        const std::string name = std::to_string(size);
        const double each = medians.of(nameOf(name, Server::daemon)) / size;
        judge(table, medians, name,
              {name, std::to_string(Sweep::commandsOf(size)), fixed(each * 1e6, 0) + " µs"});
    }
}

void measureAccountLookUp(Table& table, const std::vector<int>& keys, const Effort& effort) {
    constexpr char fill[] =
        "for i = redis.call('DBSIZE') + 1, tonumber(ARGV[1]) do "
        "redis.call('SET', 'filler:' .. i, '') end";
    Controller controller;
    start(controller, "acct=PAM_NEW_AUTHTOK_REQD");
    StoreClient store = controller.connect();
    table.head({"login with an account look-up: keys in the store", "store commands", "daemon",
                "floor", "ratio", "target"});
    for (const int count : keys) {
        store.run({"EVAL", fill, "0", std::to_string(count)});
        // Nobody's account is looked for in all of them.
        Exchanges exchanges(controller, "nobody");
        exchanges.recordFloors({Kind::login, Kind::logout});
        const std::string name = std::to_string(count);
        compare(
            name, [&](Server server) { return secondsOfLogin(exchanges, server); }, effort);
        const Medians medians = runAll();
        judge(table, medians, name, {name, std::to_string(exchanges.commandsOf(Kind::login))});
    }
}

}  // namespace testbed
