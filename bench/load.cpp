// Logins, reads and logouts from several connections at once; prints the times of the requests, and
// the processor time and memory of front end, daemon and store. Exit status 0: every request was
// answered rightly, and neither sessions, requests nor memory were left.
#include <sys/resource.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <iomanip>
#include <iostream>
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
using testbed::HttpResponse;
using Clock = std::chrono::steady_clock;

constexpr std::size_t connections = 6;  // the service admits eight sessions
constexpr int readsPerLogin = 20;
constexpr long allowedGrowth = 2048;  // KiB

enum Kind : std::size_t { login, read, change, logout };
constexpr std::array kindNames{"login", "read", "change", "logout"};

// What one connection did.
struct Work {
    std::array<std::vector<double>, kindNames.size()> milliseconds;
    std::string failure;
};

// What the programs have used so far.
struct Usage {
    double nginxSeconds = 0;
    double daemonSeconds = 0;
    double storeSeconds = 0;
    double clientSeconds = 0;
    long nginxKib = 0;
    long daemonKib = 0;
    long storeKib = 0;
};

double ownSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

void checkAnswer(Kind kind, const HttpResponse& response, long expected,
                 const std::string& content) {
    if (response.status != expected || response.body.find(content) == std::string::npos) {
        throw Failure("A " + std::string(kindNames.at(kind)) + " was answered " +
                      std::to_string(response.status) + ": " + response.body);
    }
}

// Runs a request and notes how long it took.
template <typename Request>
HttpResponse timed(Work& work, Kind kind, const Request& request) {
    const auto begin = Clock::now();
    HttpResponse response = request();
    work.milliseconds.at(kind).push_back(
        std::chrono::duration<double, std::milli>(Clock::now() - begin).count());
    return response;
}

// Whole rounds up to the first that ends after `end`.
void work(testbed::HttpClient& client, bool changes, Clock::time_point end, Work& done) {
    for (int round = 0; Clock::now() < end; ++round) {
        const HttpResponse session = timed(done, login, [&] {
            return client.login(testbed::administrator.name, testbed::administrator.password);
        });
        const std::string location = session.location();
        checkAnswer(login, session, 201, location);
        for (int i = 0; i < readsPerLogin; ++i) {
            checkAnswer(read, timed(done, read, [&] { return client.get(location); }), 200,
                        location);
        }
        if (changes) {
            const std::string body =
                R"({"SessionTimeout": )" + std::to_string(300 + round % 100) + "}";
            const HttpResponse changed =
                timed(done, change, [&] { return client.patch(testbed::serviceUri, body); });
            checkAnswer(change, changed, changed.status == 204 ? 204 : 200, "");
        }
        checkAnswer(logout, timed(done, logout, [&] { return client.remove(location); }), 204, "");
        client.useToken("");
    }
}

class Load {
  public:
    // Returns whether everything was right.
    bool run(std::chrono::seconds duration);

  private:
    Usage usage();
    void printRequests(const std::vector<Work>& works, double seconds) const;
    static void printUsage(const Usage& start, const Usage& tenth, const Usage& end,
                           double seconds);
    bool check(const std::vector<Work>& works, const Usage& tenth, const Usage& end);

    testbed::Controller controller;
    testbed::WebFrontEnd web{controller};
    std::optional<testbed::StoreClient> store;
    pid_t nginxWorker = -1;
};

Usage Load::usage() {
    return {.nginxSeconds = bench::processorSeconds(nginxWorker),
            .daemonSeconds = bench::processorSeconds(controller.daemon().pid()),
            .storeSeconds = bench::storeValue(*store, "cpu", "used_cpu_user") +
                            bench::storeValue(*store, "cpu", "used_cpu_sys"),
            .clientSeconds = ownSeconds(),
            .nginxKib = bench::statusValue(nginxWorker, "VmRSS"),
            .daemonKib = bench::statusValue(controller.daemon().pid(), "VmRSS"),
            .storeKib =
                static_cast<long>(bench::storeValue(*store, "memory", "used_memory_rss") / 1024)};
}

// `sorted` is in ascending order and not empty.
double percentile(const std::vector<double>& sorted, std::size_t percent) {
    return sorted[(sorted.size() - 1) * percent / 100];
}

void Load::printRequests(const std::vector<Work>& works, double seconds) const {
    std::cout << "\n              number   per second   50th pct.   99th pct.         max\n";
    std::size_t total = 0;
    for (std::size_t kind = 0; kind < kindNames.size(); ++kind) {
        std::vector<double> all;
        for (const Work& work : works) {
            const std::vector<double>& some = work.milliseconds.at(kind);
            all.insert(all.end(), some.begin(), some.end());
        }
        if (all.empty()) {
            continue;
        }
        std::sort(all.begin(), all.end());
        total += all.size();
        std::cout << "   " << std::left << std::setw(8) << kindNames.at(kind) << std::right
                  << std::setw(9) << all.size() << std::setw(13)
                  << static_cast<double>(all.size()) / seconds << std::setw(9)
                  << percentile(all, 50) << " ms" << std::setw(9) << percentile(all, 99) << " ms"
                  << std::setw(9) << all.back() << " ms\n";
    }
    std::cout << "   all     " << std::setw(9) << total << std::setw(13)
              << static_cast<double>(total) / seconds << "\n";
}

void Load::printUsage(const Usage& start, const Usage& tenth, const Usage& end, double seconds) {
    const auto line = [&](const char* name, double before, double after) {
        std::cout << "   " << std::left << std::setw(13) << name << std::right << std::setw(9)
                  << after - before << " s" << std::setw(9) << 100 * (after - before) / seconds
                  << " %";
    };
    const auto memory = [](long early, long late) {
        std::cout << std::setw(12) << early << " KiB" << std::setw(9) << late << " KiB\n";
    };
    std::cout << "\n               processor    of one   memory, early     at the end\n";
    line("nginx worker", start.nginxSeconds, end.nginxSeconds);
    memory(tenth.nginxKib, end.nginxKib);
    line("daemon", start.daemonSeconds, end.daemonSeconds);
    memory(tenth.daemonKib, end.daemonKib);
    line("store", start.storeSeconds, end.storeSeconds);
    memory(tenth.storeKib, end.storeKib);
    line("clients", start.clientSeconds, end.clientSeconds);
    std::cout << "\n\n";
}

bool Load::check(const std::vector<Work>& works, const Usage& tenth, const Usage& end) {
    testbed::Checks checks;
    bool answered = true;
    for (const Work& work : works) {
        if (!work.failure.empty()) {
            std::cout << "   " << work.failure << "\n";
            answered = false;
        }
    }
    checks.check(answered, "each request was answered as it has to be");
    checks.check(store->llen(testbed::membersKey) == 0 &&
                     store->keys(testbed::tokenKey("*")).empty() &&
                     store->keys(std::string(testbed::sessionsUri) + "/*").empty(),
                 "no session is left");
    checks.check(store->keys("&&/frontend/*").empty(), "no request is left in the store");
    const std::string bound = "by more than " + std::to_string(allowedGrowth) + " KiB";
    checks.check(end.nginxKib - tenth.nginxKib <= allowedGrowth, "nginx has not grown " + bound);
    checks.check(end.daemonKib - tenth.daemonKib <= allowedGrowth,
                 "the daemon has not grown " + bound);
    return checks.allRight();
}

bool Load::run(std::chrono::seconds duration) {
    controller.start();
    web.start();
    store.emplace(controller.connect());
    nginxWorker = testbed::childrenOf(web.process().pid()).at(0);
    std::cout << connections << " connections for " << duration.count() << " s on "
              << std::thread::hardware_concurrency() << " processors\n"
              << std::fixed << std::setprecision(1);

    const Usage atStart = usage();
    const auto start = Clock::now();
    std::vector<Work> works(connections);
    std::vector<std::jthread> threads;
    for (std::size_t i = 0; i < connections; ++i) {
        threads.emplace_back([&, i] {
            try {
                testbed::HttpClient client(
                    {.url = web.url(), .certificatePath = web.certificatePath()});
                work(client, i == 0, start + duration, works[i]);
            } catch (const std::exception& failure) {
                works[i].failure = failure.what();
            }
        });
    }
    std::this_thread::sleep_until(start + duration / 10.0);
    const Usage atTenth = usage();
    threads.clear();
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    const Usage atEnd = usage();

    printRequests(works, seconds);
    printUsage(atStart, atTenth, atEnd, seconds);
    return check(works, atTenth, atEnd);
}

}  // namespace

int main(int argc, char** argv) {
    return bench::runFor(argc, argv, "load",
                         [](std::chrono::seconds duration) { return Load().run(duration); });
}
