#include "bench/expiry_pass.h"

#include <signal.h>

#include <algorithm>
#include <thread>
#include <utility>

#include "bench/process_statistics.h"

namespace bench {

using testbed::Controller;
using testbed::FakeFrontEnd;
using testbed::InsertedSession;
using testbed::membersKey;
using testbed::Monitor;
using testbed::MonitoredCommand;
using testbed::waitUntil;
using testbed::Words;

namespace {

constexpr const char* longTimeout = "1000000000";

}  // namespace

ExpiryPass::ExpiryPass(Controller& host, int maxSessions)
    : controller(host), store(controller.connect()) {
    controller.daemon().signal(SIGSTOP);
    FakeFrontEnd frontEnd = controller.frontEnd();
    for (int i = 0; i < maxSessions; ++i) {
        const InsertedSession session =
            frontEnd.insertSession({.timeout = longTimeout, .member = false});
        members.push_back("&&ObjectRef " + session.uri);
    }
}

ExpiryPass::~ExpiryPass() {
    controller.daemon().signal(SIGCONT);
}

// The commands of the first whole pass among these; none when it has not come to its end.
std::vector<MonitoredCommand> ExpiryPass::passAmong(const std::vector<MonitoredCommand>& commands,
                                                    int sessions) {
    const auto first = std::find_if(commands.begin(), commands.end(), [](const auto& command) {
        return command.words == Words{"LRANGE", membersKey, "0", "-1"};
    });
    if (commands.end() - first < commandsOf(sessions)) {
        return {};
    }
    return {first, first + commandsOf(sessions)};
}

// Lets the daemon go on for one pass, and stops it again when the expiry has gone to sleep.
void ExpiryPass::letExpiryRun() {
    const auto switches = [this] {
        return threadUse(controller.daemon().pid()).at(expiryThread).switches;
    };
    const long before = switches();
    controller.daemon().signal(SIGCONT);
    // To go on is one switch. Polled seldom enough not to take the processor from the daemon.
    long last = before;
    waitUntil("the expiry has made a pass", [&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        const long previous = std::exchange(last, switches());
        return last > before + 1 && last == previous;
    });
    controller.daemon().signal(SIGSTOP);
}

double ExpiryPass::run(int sessions, Server server) {
    store.del(membersKey);
    Words append{"RPUSH", membersKey};
    append.insert(append.end(), members.begin(), members.begin() + sessions);
    store.run(append);
    if (server == Server::baseline && !recordings.contains(sessions)) {
        run(sessions, Server::daemon);
    }

    // The monitor's lines are read when a pass is over: reading them meanwhile would take the
    // processor from the daemon.
    Monitor monitor = controller.monitor();
    std::vector<MonitoredCommand> seen;
    std::vector<MonitoredCommand> commands;
    waitUntil("a whole pass was seen", [&] {
        if (server == Server::daemon) {
            letExpiryRun();
        } else {
            replay(controller.socketPath(), recordings.at(sessions));
        }
        const std::vector<MonitoredCommand> fresh = monitor.soFar();
        seen.insert(seen.end(), fresh.begin(), fresh.end());
        commands = passAmong(seen, sessions);
        return !commands.empty();
    });
    if (server == Server::daemon) {
        Recording& recording = recordings[sessions];
        recording = record(commands, controller.storePassword());
        recording.insert(recording.begin(), authentication(controller.storePassword()));
    }
    return std::chrono::duration<double>(commands.back().at - commands.front().at).count();
}

}  // namespace bench
