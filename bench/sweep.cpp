#include "bench/sweep.h"

#include <signal.h>

#include <algorithm>
#include <thread>
#include <utility>

#include "bench/process_statistics.h"

namespace testbed {

namespace {

constexpr char longTimeout[] = "1000000000";

}  // namespace

Sweep::Sweep(Controller& controller, int maxSessions)
    : controller_(controller), store_(controller.connect()) {
    controller.daemon().signal(SIGSTOP);
    FrontEnd frontEnd = controller.frontEnd();
    for (int i = 0; i < maxSessions; ++i) {
        const InsertedSession session =
            frontEnd.insertSession({.timeout = longTimeout, .member = false});
        members_.push_back("&&ObjectRef " + session.uri);
    }
}

Sweep::~Sweep() {
    controller_.daemon().signal(SIGCONT);
}

// The commands of the first whole pass among these; none when it has not come to its end.
std::vector<MonitoredCommand> Sweep::passAmong(const std::vector<MonitoredCommand>& commands,
                                               int sessions) {
    const auto first = std::find_if(commands.begin(), commands.end(), [](const auto& command) {
        return command.words == Words{"LRANGE", membersKey, "0", "-1"};
    });
    if (commands.end() - first < commandsOf(sessions)) {
        return {};
    }
    return {first, first + commandsOf(sessions)};
}

// Lets the sweeper make a pass, and has it stand still again when it has gone to sleep.
void Sweep::letSweep() {
    const auto switches = [this] {
        return threadUse(controller_.daemon().pid()).at(sweeperThread).switches;
    };
    const long before = switches();
    controller_.daemon().signal(SIGCONT);
    // To go on is one switch. Asked seldom enough not to take the processor from those who work.
    long last = before;
    waitUntil("the sweeper has made a pass", [&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        const long previous = std::exchange(last, switches());
        return last > before + 1 && last == previous;
    });
    controller_.daemon().signal(SIGSTOP);
}

double Sweep::pass(int sessions, Server server) {
    store_.del(membersKey);
    Words append{"RPUSH", membersKey};
    append.insert(append.end(), members_.begin(), members_.begin() + sessions);
    store_.run(append);
    if (server == Server::floor && !recordings_.contains(sessions)) {
        pass(sessions, Server::daemon);
    }

    // The monitor's lines are read when a pass is over: reading them meanwhile would take the
    // processor from those who work.
    Monitor monitor = controller_.monitor();
    std::vector<MonitoredCommand> seen;
    std::vector<MonitoredCommand> commands;
    waitUntil("a whole pass was seen", [&] {
        if (server == Server::daemon) {
            letSweep();
        } else {
            replay(controller_.socketPath(), recordings_.at(sessions));
        }
        const std::vector<MonitoredCommand> fresh = monitor.soFar();
        seen.insert(seen.end(), fresh.begin(), fresh.end());
        commands = passAmong(seen, sessions);
        return !commands.empty();
    });
    if (server == Server::daemon) {
        Recording& recording = recordings_[sessions];
        recording = record(commands, controller_.storePassword());
        recording.insert(recording.begin(), authentication(controller_.storePassword()));
    }
    return std::chrono::duration<double>(commands.back().at - commands.front().at).count();
}

}  // namespace testbed
