#include "bench/requests.h"

#include <chrono>
#include <utility>

namespace testbed {

namespace {

constexpr char yesModule[] = "/usr/local/lib/security/pam_test.so";
constexpr char eventsSent[] = "EVALSHA";

}  // namespace

void letEverybodyIn(Controller& controller, const std::string& more) {
    controller.install(TESTBED_YES_MODULE, yesModule);
    const std::string module = std::string(" required ") + yesModule + " env=PRIVILEGES=511 ";
    controller.writeFile(pamServiceFile, "auth" + module + "\naccount" + module + more + "\n");
}

Exchanges::Exchanges(Controller& controller, const std::string& user)
    : controller_(controller), store_(controller.connect()), frontEnd_(controller.frontEnd()) {
    exchanges_.emplace(Kind::login, Exchange{frontEnd_.prepareLogin(user, "a password")});
    exchanges_.emplace(Kind::logout, Exchange{frontEnd_.prepareRemove(sessionsUri)});
    exchanges_.emplace(Kind::change, Exchange{frontEnd_.preparePatch({{"SessionTimeout", "300"}})});
}

// What a front end writes before it announces a request, under names that have been used.
void Exchanges::prepare(Kind kind) {
    Request& request = requestOf(kind);
    if (kind == Kind::logout) {
        store_.hset(
            request.requestKey(),
            {{"&&TargetURI", store_.hget(requestOf(Kind::login).replyKey(), "&&Location")}});
    }
    if (kind == Kind::change) {
        timeout_ = timeout_ == 300 ? 301 : 300;
        store_.hset(request.bodyKey(), {{"SessionTimeout", std::to_string(timeout_)}});
        store_.hset(request.requestKey() + "/Checklist", {{"/SessionTimeout", ""}});
    }
    store_.run({"DEL", request.replyKey(), request.replyKey() + "/ExtendedInfo"});
}

double Exchanges::ask(Kind kind, Server server) {
    prepare(kind);
    Exchange& exchange = exchanges_.at(kind);
    const auto start = std::chrono::steady_clock::now();
    if (server == Server::daemon) {
        exchange.request.send();
    } else {
        exchange.floor->announce();
    }
    exchange.request.published();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

Recording Exchanges::recordingOf(Kind kind) {
    prepare(kind);
    Request& request = requestOf(kind);
    Monitor monitor = controller_.monitor();
    request.send();
    bool answered = false;
    std::vector<MonitoredCommand> commands = monitor.until([&](const MonitoredCommand& command) {
        answered = answered ||
                   command.words == Words{"PUBLISH", request.returnChannel(), request.replyKey()};
        // The events of a change come after its answer.
        return answered && (kind != Kind::change || command.words.front() == eventsSent);
    });
    request.published();
    // The announcement is not the daemon's.
    commands.erase(commands.begin());
    return record(commands, controller_.storePassword());
}

void Exchanges::recordFloors(const std::vector<Kind>& kinds) {
    // The sweeper may come between: then it is more than there should be.
    constexpr int attempts = 5;
    std::size_t fewest = 0;
    for (int i = 0; i < attempts; ++i) {
        // The floor of a logout takes away what the floor of its login has made.
        std::map<Kind, Recording> fresh;
        std::size_t commands = 0;
        for (const Kind kind : kinds) {
            fresh[kind] = recordingOf(kind);
            commands += fresh[kind].size();
        }
        if (i == 0 || commands < fewest) {
            fewest = commands;
            recordings_ = std::move(fresh);
        }
    }
    for (const auto& [kind, recording] : recordings_) {
        exchanges_.at(kind).floor = std::make_unique<Floor>(
            controller_, "&&/floor/" + std::to_string(static_cast<int>(kind)), recording);
    }
}

}  // namespace testbed
