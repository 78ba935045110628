#include "bench/footprint.h"

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

#include "bench/process_statistics.h"
#include "bench/requests.h"
#include "testbed/accounts.h"

namespace testbed {

namespace {

using Clock = std::chrono::steady_clock;

constexpr long maxBytes = 300L * 1024;
constexpr double mostStartSeconds = 0.050;
constexpr long mostKibAtStart = 6L * 1024;
constexpr long mostKib = 7L * 1024;
constexpr long mostDirtyKib = 2560;
constexpr double mostIdlePercent = 0.1;
constexpr int sessionLimit = 8;
constexpr int starts = 11;
constexpr int tracedRequests = 20;
constexpr int tracedPasses = 4;

std::string kib(long figure) {
    return std::to_string(figure) + " KiB";
}

void run(const std::vector<std::string>& command) {
    int status = 0;
    if (waitpid(spawn(command), &status, 0) < 0 || status != 0) {
        throw Failure(command.front() + " has failed.");
    }
}

void loginAndOut(FrontEnd& frontEnd) {
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
               threadFigure(daemon, thread, "TracerPid") == strace;
    });
    work();
    kill(strace, SIGINT);
    waitpid(strace, nullptr, 0);
    return readCalls(summary);
}

}  // namespace

void measureSize(Table& table) {
    const TemporaryFolder folder;
    const std::string stripped = folder.path() + "/stripped";
    run({"strip", "-o", stripped, TESTBED_DAEMON});
    const auto bytes = static_cast<long>(std::filesystem::file_size(stripped));
    table.judge({"stripped daemon", kib(bytes / 1024), "at most " + kib(maxBytes / 1024)},
                bytes <= maxBytes);
}

void measureStart(Table& table) {
    Controller controller;
    letEverybodyIn(controller);
    controller.startStore();
    controller.loadScripts();
    controller.seedStore();
    FrontEnd frontEnd = controller.frontEnd();
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
    table.judge({"start to the first answered login", fixed(median * 1e3, 1) + " ms",
                 "at most " + fixed(mostStartSeconds * 1e3, 0) + " ms"},
                median <= mostStartSeconds);
}

void measureMemory(Table& table, int logins) {
    Controller controller;
    controller.start();
    FrontEnd frontEnd = controller.frontEnd();
    const auto judge = [&](const std::string& moment, long most) {
        const pid_t daemon = controller.daemon().pid();
        const long resident = memoryFigure(daemon, "Rss");
        const long dirty = memoryFigure(daemon, "Private_Dirty");
        table.judge({moment, kib(resident), kib(memoryFigure(daemon, "Pss")), kib(dirty),
                     "at most " + kib(most) + " resident, " + kib(mostDirtyKib) + " private dirty"},
                    resident <= most && dirty <= mostDirtyKib);
    };
    table.head({"memory", "resident", "proportional", "private dirty", "target"});
    judge("at start", mostKibAtStart);
    for (int i = 0; i < logins; ++i) {
        loginAndOut(frontEnd);
    }
    judge("after " + std::to_string(logins) + " logins", mostKib);
    for (int i = 0; i < sessionLimit; ++i) {
        frontEnd.login(administrator.name, administrator.password);
    }
    judge("then with eight sessions", mostKib);
}

void measureIdleness(Table& table, std::chrono::seconds duration) {
    Controller controller;
    controller.start();
    FrontEnd frontEnd = controller.frontEnd();
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
        if (i != sweeperThread) {
            othersWoke += after.at(i).switches - before.at(i).switches;
        }
    }
    const double percent = 100 * used / elapsed;
    const double wakes =
        static_cast<double>(after.at(sweeperThread).switches - before.at(sweeperThread).switches);
    table.head({"idle with eight sessions", "figure", "target"});
    table.judge(
        {"of one processor", fixed(percent, 3) + " %, " + fixed(36 * percent, 2) + " s an hour",
         "at most " + fixed(mostIdlePercent, 1) + " %"},
        percent <= mostIdlePercent);
    table.row(
        {"the sweeper is put on a processor",
         fixed(wakes / elapsed, 1) + " times a second: once for the pass, once for each reply",
         ""});
    table.judge({"the other threads", std::to_string(othersWoke) + " times", "never"},
                othersWoke == 0);
}

void measureCalls(Table& table) {
    Controller controller;
    letEverybodyIn(controller);
    controller.start();
    Exchanges exchanges(controller, "alice");
    exchanges.ask(Kind::login, Server::daemon);
    exchanges.ask(Kind::logout, Server::daemon);
    exchanges.ask(Kind::change, Server::daemon);

    table.head({"system calls", "each"});
    const auto requests = [&](const std::string& name, ThreadIndex thread, auto round) {
        const Calls calls = callsDuring(controller, thread, [&] {
            for (int i = 0; i < tracedRequests; ++i) {
                round();
            }
        });
        table.row({name, fixed(static_cast<double>(calls.at("total")) / tracedRequests, 0)});
    };
    const auto session = [&] {
        exchanges.ask(Kind::login, Server::daemon);
        exchanges.ask(Kind::logout, Server::daemon);
    };
    requests("login", createThread, session);
    requests("logout", deleteThread, session);
    requests("PATCH", patchThread, [&] { exchanges.ask(Kind::change, Server::daemon); });

    FrontEnd frontEnd = controller.frontEnd();
    for (int i = 0; i < sessionLimit; ++i) {
        frontEnd.insertSession();
    }
    const Calls calls = callsDuring(controller, sweeperThread, [&] {
        Monitor monitor = controller.monitor();
        int passes = 0;
        monitor.until([&](const MonitoredCommand& command) {
            passes += command.words == Words{"LRANGE", membersKey, "0", "-1"} ? 1 : 0;
            return passes == tracedPasses;
        });
    });
    table.row({"pass of the sweeper, eight sessions",
               fixed(static_cast<double>(calls.at("total")) /
                         static_cast<double>(calls.at("clock_nanosleep")),
                     0)});
}

}  // namespace testbed
