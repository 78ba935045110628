#include "bench/resources.h"

#include <signal.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "bench/permissive_pam.h"
#include "bench/process_statistics.h"
#include "bench/requests.h"
#include "testbed/accounts.h"

namespace bench {

using testbed::administrator;
using testbed::Controller;
using testbed::Failure;
using testbed::FakeFrontEnd;
using testbed::membersKey;
using testbed::Monitor;
using testbed::MonitoredCommand;
using testbed::Reply;
using testbed::Request;
using testbed::spawn;
using testbed::waitUntil;
using testbed::Words;

namespace {

using Clock = std::chrono::steady_clock;

constexpr long maxBytes = 300L * 1024;
constexpr double maxStartSeconds = 0.050;
constexpr long maxKibAtStart = 6L * 1024;
constexpr long maxKib = 7L * 1024;
constexpr long maxDirtyKib = 2560;
constexpr double maxIdlePercent = 0.1;
constexpr int sessionLimit = 8;
constexpr int starts = 11;
constexpr int tracedRequests = 20;
constexpr int tracedPasses = 4;

std::string kib(long size) {
    return std::to_string(size) + " KiB";
}

void run(const std::vector<std::string>& command) {
    int status = 0;
    if (waitpid(spawn(command), &status, 0) < 0 || status != 0) {
        throw Failure(command.front() + " has failed.");
    }
}

void loginAndOut(FakeFrontEnd& frontEnd) {
    frontEnd.remove(frontEnd.login(administrator.name, administrator.password).location());
}

// System calls by name, and "total".
using Calls = std::map<std::string, long>;

// What strace has counted: a line ends with a name, its fourth column is how often.
Calls readCalls(const std::string& path) {
    Calls calls;
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        std::istringstream words(line);
        std::string skipped;
        long count = 0;
        if (words >> skipped >> skipped >> skipped >> count) {
            calls[line.substr(line.rfind(' ') + 1)] = count;
        }
    }
    if (!calls.contains("total")) {
        throw Failure("strace has counted nothing.");
    }
    return calls;
}

// The calls of one of the daemon's threads while the work is done.
template <typename Work>
Calls callsDuring(Controller& controller, ThreadIndex index, Work work) {
    const pid_t daemon = controller.daemon().pid();
    const pid_t thread = threadUse(daemon).at(index).thread;
    const std::string summary = controller.path("/tmp/strace");
    const pid_t strace =
        spawn({"strace", "-qq", "-c", "-o", summary, "-p", std::to_string(thread)});
    waitUntil("strace is attached", [&] {
        return waitpid(strace, nullptr, WNOHANG) == 0 &&
               threadStatusValue(daemon, thread, "TracerPid") == strace;
    });
    work();
    kill(strace, SIGINT);
    waitpid(strace, nullptr, 0);
    return readCalls(summary);
}

}  // namespace

void measureSize(Table& table, Json& results) {
    const testbed::TemporaryFolder folder;
    const std::string stripped = folder.path() + "/stripped";
    run({"strip", "-o", stripped, BENCH_DAEMON});
    const auto bytes = static_cast<long>(std::filesystem::file_size(stripped));
    results["strippedBytes"] = bytes;
    table.judge({"stripped daemon", kib(bytes / 1024), "at most " + kib(maxBytes / 1024)},
                bytes <= maxBytes);
}

void measureStart(Table& table, Json& results) {
    Controller controller;
    permitAllLogins(controller);
    controller.startStore();
    controller.loadScripts();
    controller.seedStore();
    FakeFrontEnd frontEnd = controller.frontEnd();
    std::vector<double> seconds;
    for (int i = 0; i < starts; ++i) {
        Request request = frontEnd.prepareLogin("alice", "a password");
        const auto start = Clock::now();
        controller.startDaemon();
        while (request.send() == 0) {
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
        const Reply reply = request.reply();
        seconds.push_back(std::chrono::duration<double>(Clock::now() - start).count());
        controller.waitUntilServing();
        frontEnd.remove(reply.location());
        controller.daemon().kill();
    }
    std::nth_element(seconds.begin(), seconds.begin() + starts / 2, seconds.end());
    const double median = seconds[starts / 2];
    results["startMilliseconds"] = rounded(median * 1e3, 2);
    table.judge({"start to the first answered login", fixed(median * 1e3, 1) + " ms",
                 "at most " + fixed(maxStartSeconds * 1e3, 0) + " ms"},
                median <= maxStartSeconds);
}

void measureMemory(Table& table, Json& results, int logins) {
    Controller controller;
    controller.start();
    FakeFrontEnd frontEnd = controller.frontEnd();
    const auto judge = [&](const std::string& moment, long maxResident) {
        const pid_t daemon = controller.daemon().pid();
        const long resident = memoryKib(daemon, "Rss");
        const long proportional = memoryKib(daemon, "Pss");
        const long dirty = memoryKib(daemon, "Private_Dirty");
        results["memory"].push_back({{"moment", moment},
                                     {"residentKib", resident},
                                     {"proportionalKib", proportional},
                                     {"privateDirtyKib", dirty},
                                     {"maxResidentKib", maxResident}});
        table.judge(
            {moment, kib(resident), kib(proportional), kib(dirty),
             "at most " + kib(maxResident) + " resident, " + kib(maxDirtyKib) + " private dirty"},
            resident <= maxResident && dirty <= maxDirtyKib);
    };
    table.head({"memory", "resident", "proportional", "private dirty", "target"});
    judge("at start", maxKibAtStart);
    for (int i = 0; i < logins; ++i) {
        loginAndOut(frontEnd);
    }
    judge("after " + std::to_string(logins) + " logins", maxKib);
    for (int i = 0; i < sessionLimit; ++i) {
        frontEnd.login(administrator.name, administrator.password);
    }
    judge("then with eight sessions", maxKib);
}

void measureIdleness(Table& table, Json& results, std::chrono::seconds duration) {
    Controller controller;
    controller.start();
    FakeFrontEnd frontEnd = controller.frontEnd();
    for (int i = 0; i < sessionLimit; ++i) {
        frontEnd.login(administrator.name, administrator.password);
    }
    const pid_t daemon = controller.daemon().pid();
    const auto createSwitches = [&] { return threadUse(daemon).at(createThread).switches; };
    waitUntil("the last login has come to its end", [&] {
        const long now = createSwitches();
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        return createSwitches() == now;
    });
    const auto start = Clock::now();
    const std::vector<ThreadUse> before = threadUse(daemon);
    std::this_thread::sleep_for(duration);
    const std::vector<ThreadUse> after = threadUse(daemon);
    const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();

    double used = 0;
    long othersWoke = 0;
    for (std::size_t i = 0; i < after.size(); ++i) {
        used += after.at(i).seconds - before.at(i).seconds;
        if (i != expiryThread) {
            othersWoke += after.at(i).switches - before.at(i).switches;
        }
    }
    const double percent = 100 * used / elapsed;
    const double wakes =
        static_cast<double>(after.at(expiryThread).switches - before.at(expiryThread).switches);
    results["idle"] = {{"processorPercent", rounded(percent, 4)},
                       {"expiryWakesPerSecond", rounded(wakes / elapsed, 2)},
                       {"otherWakes", othersWoke}};
    table.head({"idle with eight sessions", "measured", "target"});
    table.judge(
        {"of one processor", fixed(percent, 3) + " %, " + fixed(36 * percent, 2) + " s an hour",
         "at most " + fixed(maxIdlePercent, 1) + " %"},
        percent <= maxIdlePercent);
    table.row({"the expiry is scheduled",
               fixed(wakes / elapsed, 1) +
                   " times a second: once for the pass, once or twice for each reply",
               ""});
    table.judge({"the other threads", std::to_string(othersWoke) + " times", "never"},
                othersWoke == 0);
}

void measureCalls(Table& table, Json& results) {
    Controller controller;
    permitAllLogins(controller);
    controller.start();
    RepeatedRequests requests(controller, "alice");
    requests.send(Kind::login, Server::daemon);
    requests.send(Kind::logout, Server::daemon);
    requests.send(Kind::change, Server::daemon);

    table.head({"system calls", "each"});
    const auto add = [&](const std::string& name, double each) {
        results["systemCalls"].push_back({{"of", name}, {"each", rounded(each, 1)}});
        table.row({name, fixed(each, 0)});
    };
    const auto measure = [&](const std::string& name, ThreadIndex thread, auto round) {
        const Calls calls = callsDuring(controller, thread, [&] {
            for (int i = 0; i < tracedRequests; ++i) {
                round();
            }
        });
        add(name, static_cast<double>(calls.at("total")) / tracedRequests);
    };
    const auto session = [&] {
        requests.send(Kind::login, Server::daemon);
        requests.send(Kind::logout, Server::daemon);
    };
    measure("login", createThread, session);
    measure("logout", deleteThread, session);
    measure("PATCH", patchThread, [&] { requests.send(Kind::change, Server::daemon); });

    FakeFrontEnd frontEnd = controller.frontEnd();
    for (int i = 0; i < sessionLimit; ++i) {
        frontEnd.insertSession();
    }
    const Calls calls = callsDuring(controller, expiryThread, [&] {
        Monitor monitor = controller.monitor();
        int passes = 0;
        monitor.until([&](const MonitoredCommand& command) {
            passes += command.words == Words{"LRANGE", membersKey, "0", "-1"} ? 1 : 0;
            return passes == tracedPasses;
        });
    });
    add("pass of the expiry, eight sessions",
        static_cast<double>(calls.at("total")) / static_cast<double>(calls.at("clock_nanosleep")));
}

}  // namespace bench
