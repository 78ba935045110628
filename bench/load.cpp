// What logins, reads and logouts over HTTPS need of the processor, how long they take when several
// clients are at it at once, and how much memory the web front end takes. Exit status 0: all
// requests were answered as they should be, nothing was left, and all targets are met. With --quick
// it only shows that it works, and its results say nothing: targets do not count.
#include <array>
#include <charconv>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "bench/permissive_pam.h"
#include "bench/process_statistics.h"
#include "bench/processor_time.h"
#include "bench/results.h"
#include "bench/table.h"
#include "bench/web_load.h"
#include "testbed/checks.h"
#include "testbed/controller.h"
#include "testbed/web_front_end.h"

namespace {

using bench::fixed;
using bench::Json;
using bench::rounded;
using bench::WebRequest;
using bench::WebWork;
using Seconds = std::chrono::duration<double>;

// As multiples of the baseline of a login and its logout.
constexpr double maxSessionRatio = 1.49;
constexpr double maxSessionNginxRatio = 0.46;
// As multiples of a bare answer of nginx.
constexpr double maxReadNginxRatio = 6;
constexpr double maxReadStoreRatio = 1.5;
// The 99th percentile as a multiple of the median.
constexpr double maxSpread = 5;
constexpr double maxNginxMib = 20;

constexpr int mixedConnections = 6;
constexpr int readsPerLogin = 20;
constexpr std::array throughputConnections{1, 2, 4, 6, 8, 16};
constexpr int spreadConnections = 6;
constexpr int spreadWeight = 3;  // its percentiles need more logins
constexpr int memoryConnections = 30;
constexpr long allowedGrowth = 2048;  // KiB

struct Options {
    Seconds duration{0};
    bool quick = false;
    std::string results;  // a file; none when empty
};

std::string milliseconds(double number) {
    return fixed(number, 2) + " ms";
}

std::string microseconds(double seconds) {
    return fixed(seconds * 1e6, 0) + " µs";
}

class Load {
  public:
    explicit Load(const Options& given) : options(given) {}

    // Returns whether everything was right.
    bool run();

  private:
    void measureRequestTimes(const bench::FrontEndCommands& commands);
    void measureRequests(bench::WebLoad& load);
    void measureThroughput(bench::WebLoad& load);
    void measureMemory(bench::WebLoad& load);
    void judgeTargets();
    void checkMemoryAndLeftovers();
    long workerKib(const char* name);
    long daemonKib() { return bench::statusValue(controller.daemon().pid(), "VmRSS"); }

    Options options;
    testbed::Controller controller;
    testbed::WebFrontEnd web{controller};
    testbed::Checks checks;
    bench::Table table;
    Json results{{"bench", "load"}};
    Json targets = Json::array();
    // With six connections, in KiB.
    long nginxGrowth = 0;
    long daemonGrowth = 0;
};

long Load::workerKib(const char* name) {
    return bench::statusValue(testbed::childrenOf(web.process().pid()).at(0), name);
}

Json toJson(const bench::ProcessorTime& time) {
    return {{"nginx", rounded(time.nginx * 1e6, 1)},
            {"store", rounded(time.store * 1e6, 1)},
            {"daemon", rounded(time.daemon * 1e6, 1)}};
}

void Load::measureRequestTimes(const bench::FrontEndCommands& commands) {
    const bench::RequestTimes times =
        bench::measureRequestTimes(controller, web, commands, options.duration / 4);
    Json& all = results["processorMicroseconds"] = Json::array();
    table.head({"processor time", "nginx", "store", "daemon", "together", "ratio to the baseline"});
    for (const auto& [name, time] :
         {std::pair{"login and logout", times.session}, {"read", times.read}}) {
        const auto row = [&](const std::string& label, const bench::ProcessorTime& part,
                             const std::string& ratio) {
            table.row({label, microseconds(part.nginx), microseconds(part.store),
                       microseconds(part.daemon), microseconds(part.all()), ratio});
        };
        row(name, time.measured, fixed(time.ratio(), 2));
        row("its baseline", time.baseline, "");
        all.push_back({{"request", name},
                       {"measured", toJson(time.measured)},
                       {"baseline", toJson(time.baseline)},
                       {"ratio", rounded(time.ratio(), 3)}});
    }
    results["bareMicroseconds"] = rounded(times.bare * 1e6, 1);

    targets.push_back(bench::targetOf("processor time of a login and its logout, to its baseline",
                                      times.session.ratio(), maxSessionRatio));
    targets.push_back(bench::targetOf("nginx's part of it, to the same baseline",
                                      times.session.measured.nginx / times.session.baseline.all(),
                                      maxSessionNginxRatio));
    targets.push_back(bench::targetOf("nginx's time of a read, to a bare answer of nginx",
                                      times.read.measured.nginx / times.bare, maxReadNginxRatio));
    targets.push_back(bench::targetOf("the store's time of a read, to a bare answer of nginx",
                                      times.read.measured.store / times.bare, maxReadStoreRatio));
}

void Load::measureRequests(bench::WebLoad& load) {
    const bench::WebRound round{.reads = readsPerLogin, .changes = true};
    load.run(mixedConnections, round, options.duration / 40);
    const long nginxBefore = workerKib("VmRSS");
    const long daemonBefore = daemonKib();
    const WebWork work = load.run(mixedConnections, round, options.duration / 4);

    Json& all = results["requests"] = Json::array();
    table.head({"request, " + std::to_string(mixedConnections) + " connections", "number",
                "a second", "50th percentile", "90th", "99th", "maximum"});
    for (const WebRequest kind :
         {bench::webLogin, bench::webRead, bench::webChange, bench::webLogout}) {
        const std::size_t number = work.milliseconds.at(kind).size();
        const char* name = bench::webRequestNames.at(kind);
        table.row({name, std::to_string(number), fixed(work.perSecond(kind), 1),
                   milliseconds(work.percentile(kind, 50)), milliseconds(work.percentile(kind, 90)),
                   milliseconds(work.percentile(kind, 99)),
                   milliseconds(work.percentile(kind, 100))});
        all.push_back({{"request", name},
                       {"number", number},
                       {"perSecond", rounded(work.perSecond(kind), 1)},
                       {"milliseconds",
                        {{"50", rounded(work.percentile(kind, 50), 3)},
                         {"90", rounded(work.percentile(kind, 90), 3)},
                         {"99", rounded(work.percentile(kind, 99), 3)},
                         {"maximum", rounded(work.percentile(kind, 100), 3)}}}});
    }
    nginxGrowth = workerKib("VmRSS") - nginxBefore;
    daemonGrowth = daemonKib() - daemonBefore;
}

void Load::measureThroughput(bench::WebLoad& load) {
    const Seconds each = options.duration / 4 / (throughputConnections.size() + spreadWeight - 1);
    Json& all = results["throughput"] = Json::array();
    table.head({"connections that log in and out", "a second", "login, 50th percentile", "99th",
                "logout, 50th percentile", "99th"});
    for (const int connections : throughputConnections) {
        const bool isForSpread = connections == spreadConnections;
        const WebWork work = load.run(connections, {}, isForSpread ? spreadWeight * each : each);
        std::vector<std::string> cells{std::to_string(connections),
                                       fixed(work.perSecond(bench::webLogout), 1)};
        Json row{{"connections", connections},
                 {"perSecond", rounded(work.perSecond(bench::webLogout), 1)}};
        for (const WebRequest kind : {bench::webLogin, bench::webLogout}) {
            const double median = work.percentile(kind, 50);
            const double slow = work.percentile(kind, 99);
            const std::string name = bench::webRequestNames.at(kind);
            cells.insert(cells.end(), {milliseconds(median), milliseconds(slow)});
            row[name + "Milliseconds"] = {{"50", rounded(median, 3)}, {"99", rounded(slow, 3)}};
            if (isForSpread) {
                targets.push_back(bench::targetOf("99th percentile of a " + name + " of " +
                                                      std::to_string(connections) +
                                                      " connections, to its median",
                                                  slow / median, maxSpread));
            }
        }
        table.row(cells);
        all.push_back(row);
    }
}

void Load::measureMemory(bench::WebLoad& load) {
    load.run(memoryConnections, {.reads = readsPerLogin, .readsMeanwhile = true},
             options.duration / 4);
    const long maximum = workerKib("VmHWM");
    const long afterwards = workerKib("VmRSS");
    results["nginxMemory"] = {
        {"connections", memoryConnections}, {"maximumKib", maximum}, {"afterwardsKib", afterwards}};
    table.head({"nginx's worker, resident", "maximum", "afterwards"});
    table.row({"with " + std::to_string(memoryConnections) + " connections",
               std::to_string(maximum) + " KiB", std::to_string(afterwards) + " KiB"});
    targets.push_back(bench::targetOf("nginx's resident memory in MiB, at most",
                                      static_cast<double>(maximum) / 1024, maxNginxMib));
}

void Load::judgeTargets() {
    table.head({"target", "measured", "at most"});
    for (const Json& target : targets) {
        table.judge({target["name"], fixed(target["measured"], 2), fixed(target["maximum"], 2)},
                    target["met"]);
    }
    results["targets"] = targets;
}

void Load::checkMemoryAndLeftovers() {
    // A short run ends before everything has been loaded once.
    if (!options.quick) {
        const std::string bound = " by more than " + std::to_string(allowedGrowth) + " KiB";
        checks.check(nginxGrowth <= allowedGrowth, "nginx has not grown" + bound);
        checks.check(daemonGrowth <= allowedGrowth, "the daemon has not grown" + bound);
    }
    testbed::StoreClient store = controller.connect();
    checks.check(store.llen(testbed::membersKey) == 0 &&
                     store.keys(testbed::tokenKey("*")).empty() &&
                     store.keys(std::string(testbed::sessionsUri) + "/*").empty(),
                 "no session is left");
    checks.check(store.keys("&&/frontend/*").empty(), "no request is left in the store");
}

bool Load::run() {
    // No two front ends run at a time.
    const bench::FrontEndCommands commands = bench::recordFrontEnd();
    bench::permitAllLogins(controller);
    bench::addBareResource(controller);
    controller.start();
    testbed::StoreClient store = controller.connect();
    bench::keepAllAuditEntries(store);
    web.start();

    measureRequestTimes(commands);
    bench::WebLoad load(web);
    measureRequests(load);
    measureThroughput(load);
    measureMemory(load);
    judgeTargets();
    std::cout << "\n";
    checkMemoryAndLeftovers();
    if (!options.results.empty()) {
        bench::writeResults(options.results, results);
    }
    return checks.allRight() && (options.quick || table.allMet());
}

// None when the command line is wrong.
std::optional<Options> optionsFrom(const std::vector<std::string_view>& arguments) {
    if (arguments.empty() || arguments.size() > 2) {
        return std::nullopt;
    }
    Options options;
    int seconds = 4;
    options.quick = arguments[0] == "--quick";
    if (!options.quick) {
        const std::string_view text = arguments[0];
        const auto [end, failure] = std::from_chars(text.begin(), text.end(), seconds);
        if (failure != std::errc{} || end != text.end() || seconds <= 0) {
            return std::nullopt;
        }
    }
    options.duration = Seconds(seconds);
    options.results = arguments.size() == 2 ? arguments[1] : "";
    return options;
}

}  // namespace

int main(int argc, char** argv) {
    const std::optional<Options> options = optionsFrom({argv + 1, argv + argc});
    if (!options) {
        std::cerr << "usage: load SECONDS|--quick [FILE]\n";
        return 2;
    }
    try {
        return Load(*options).run() ? EXIT_SUCCESS : EXIT_FAILURE;
    } catch (const std::exception& failure) {
        std::cerr << "\nThe load cannot go on: " << failure.what() << "\n";
        return EXIT_FAILURE;
    }
}
