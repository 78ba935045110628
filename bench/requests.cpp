#include "bench/requests.h"

#include <chrono>
#include <utility>

namespace bench {

using testbed::Controller;
using testbed::Monitor;
using testbed::MonitoredCommand;
using testbed::Request;
using testbed::Words;

RepeatedRequests::RepeatedRequests(Controller& host, const std::string& user)
    : controller(host), store(controller.connect()), frontEnd(controller.frontEnd()) {
    requests.emplace(Kind::login, RepeatedRequest{frontEnd.prepareLogin(user, "a password")});
    requests.emplace(Kind::logout, RepeatedRequest{frontEnd.prepareRemove(testbed::sessionsUri)});
    requests.emplace(Kind::change,
                     RepeatedRequest{frontEnd.preparePatch({{"SessionTimeout", "300"}})});
}

// What a front end writes before the notice of a request, under names that have been used.
void RepeatedRequests::prepare(Kind kind) {
    Request& request = requestOf(kind);
    if (kind == Kind::logout) {
        const std::string session = store.hget(requestOf(Kind::login).replyKey(), "&&Location");
        store.hset(request.requestKey(), {{"&&TargetURI", session}});
    }
    if (kind == Kind::change) {
        timeout = timeout == 300 ? 301 : 300;
        store.hset(request.bodyKey(), {{"SessionTimeout", std::to_string(timeout)}});
        store.hset(request.requestKey() + "/Checklist", {{"/SessionTimeout", ""}});
    }
    store.run({"DEL", request.replyKey(), request.replyKey() + "/ExtendedInfo"});
}

double RepeatedRequests::send(Kind kind, Server server) {
    prepare(kind);
    RepeatedRequest& repeated = requests.at(kind);
    const auto start = std::chrono::steady_clock::now();
    if (server == Server::daemon) {
        repeated.request.send();
    } else {
        repeated.baseline->notify();
    }
    repeated.request.published();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

Recording RepeatedRequests::recordingOf(Kind kind) {
    prepare(kind);
    Request& request = requestOf(kind);
    Monitor monitor = controller.monitor();
    request.send();
    bool answered = false;
    std::vector<MonitoredCommand> commands = monitor.until([&](const MonitoredCommand& command) {
        answered = answered ||
                   command.words == Words{"PUBLISH", request.returnChannel(), request.replyKey()};
        // A change sends its events, with EVALSHA, after its reply.
        return answered && (kind != Kind::change || command.words.front() == "EVALSHA");
    });
    request.published();
    // The notice is not the daemon's.
    commands.erase(commands.begin());
    return record(commands, controller.storePassword());
}

void RepeatedRequests::recordBaselines(const std::vector<Kind>& kinds) {
    // A pass of the expiry may come between; the shortest recording is the one without it.
    constexpr int attempts = 5;
    std::size_t minCommands = 0;
    for (int i = 0; i < attempts; ++i) {
        // All of one round, because a logout's commands remove what its login's have made.
        std::map<Kind, Recording> fresh;
        std::size_t commands = 0;
        for (const Kind kind : kinds) {
            fresh[kind] = recordingOf(kind);
            commands += fresh[kind].size();
        }
        if (i == 0 || commands < minCommands) {
            minCommands = commands;
            recordings = std::move(fresh);
        }
    }
    for (const auto& [kind, recording] : recordings) {
        requests.at(kind).baseline = std::make_unique<Baseline>(
            controller, "&&/baseline/" + std::to_string(static_cast<int>(kind)), recording);
    }
}

}  // namespace bench
