#include "bench/front_end_commands.h"

#include <hiredis/hiredis.h>

#include <nlohmann/json.hpp>
#include <string_view>
#include <utility>

#include "bench/permissive_pam.h"
#include "testbed/http_client.h"
#include "testbed/monitor.h"
#include "testbed/web_front_end.h"

namespace bench {

using testbed::Controller;
using testbed::Failure;
using testbed::HttpClient;
using testbed::HttpResponse;
using testbed::Monitor;
using testbed::MonitoredCommand;
using testbed::Words;

namespace {

constexpr std::string_view requestMark = "<request>";
constexpr std::string_view sessionMark = "<session>";
constexpr std::string_view tokenMark = "<token>";
// As long as one of the front end's.
constexpr const char* requestKey = "&&/frontend/benchmark_______/100/request";

void replaceAll(std::string& text, std::string_view from, std::string_view to) {
    for (std::size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size()) {
        text.replace(at, from.size(), to);
    }
}

// The commands that the front end has sent since the last call.
std::vector<Words> frontEndCommands(Monitor& monitor) {
    std::vector<Words> commands;
    for (MonitoredCommand& command : monitor.soFar()) {
        // The daemon uses TCP.
        if (command.client.rfind("unix:", 0) == 0 && command.words.front() != "AUTH") {
            commands.push_back(std::move(command.words));
        }
    }
    return commands;
}

// The key of the request that these commands make; empty when they make none.
std::string requestKeyAmong(const std::vector<Words>& commands) {
    constexpr std::string_view prefix = "&&/frontend/";
    constexpr std::string_view suffix = "/request";
    for (const Words& words : commands) {
        for (const std::string& word : words) {
            const std::size_t end = word.rfind(prefix, 0) == 0 ? word.find(suffix) : word.npos;
            if (end != std::string::npos) {
                return word.substr(0, end + suffix.size());
            }
        }
    }
    return {};
}

RequestCommands toRequest(std::vector<Words> commands, const HttpResponse& login) {
    const std::string key = requestKeyAmong(commands);
    RequestCommands request;
    bool asked = false;
    for (Words& words : commands) {
        bool namesRequest = false;
        for (std::string& word : words) {
            replaceAll(word, login.location(), sessionMark);
            replaceAll(word, login.token(), tokenMark);
            if (!key.empty()) {
                replaceAll(word, key, requestMark);
            }
            namesRequest = namesRequest || word == requestMark;
        }
        (asked ? request.take : request.ask).push_back(std::move(words));
        asked = asked || namesRequest;
    }
    return request;
}

}  // namespace

FrontEndCommands recordFrontEnd() {
    Controller controller({.storeOverTcp = true});
    permitAllLogins(controller);
    controller.start();
    testbed::WebFrontEnd web(controller);
    web.start();
    HttpClient client({.url = web.url(), .certificatePath = web.certificatePath()});
    const auto login = [&] { return client.login("user1", "a password"); };

    // Opens the connections, and lets the store know the scripts.
    const std::string first = login().location();
    client.get(first);
    client.remove(first);
    client.useToken("");

    Monitor monitor = controller.monitor();
    const HttpResponse session = login();
    FrontEndCommands recorded;
    recorded.login = toRequest(frontEndCommands(monitor), session);
    // The first one of a second also notes the use of the session.
    std::vector<Words> before;
    std::vector<Words> commands;
    do {
        before = std::exchange(commands, {});
        client.get(session.location());
        commands = frontEndCommands(monitor);
    } while (commands != before);
    recorded.read = toRequest(commands, session);
    client.remove(session.location());
    recorded.logout = toRequest(frontEndCommands(monitor), session);
    recorded.key = controller.readFile(testbed::keyFile);
    if (recorded.login.take.empty() || recorded.read.ask.empty() || recorded.logout.take.empty()) {
        throw Failure("The front end's commands could not be recorded.");
    }
    return recorded;
}

FrontEndLoop::FrontEndLoop(const Controller& controller, FrontEndCommands commands)
    : recorded(std::move(commands)),
      connection(controller.socketPath()),
      subscription(controller.socketPath()) {
    const std::string authentication = encode({"AUTH", controller.storePassword()});
    connection.send(authentication);
    subscription.send(authentication);
    subscription.send(encode({"SUBSCRIBE", requestKey}));
}

ReplyPtr FrontEndLoop::send(const std::vector<Words>& commands, const Session& session) {
    for (Words words : commands) {
        for (std::string& word : words) {
            replaceAll(word, requestMark, requestKey);
            replaceAll(word, sessionMark, session.uri);
            replaceAll(word, tokenMark, session.token);
        }
        connection.append(encode(words));
    }
    ReplyPtr reply;
    for (const Words& words : commands) {
        reply = connection.receive();
        if (reply->type == REDIS_REPLY_ERROR || reply->type == REDIS_REPLY_NIL) {
            throw Failure("Without the front end, " + words.front() +
                          " gives: " + (reply->str ? reply->str : "nothing") + ".");
        }
    }
    return reply;
}

ReplyPtr FrontEndLoop::run(const RequestCommands& request, const Session& session) {
    ReplyPtr reply = send(request.ask, session);
    if (!request.take.empty()) {
        subscription.receive();
        reply = send(request.take, session);
    }
    return reply;
}

FrontEndLoop::Session FrontEndLoop::login() {
    const ReplyPtr reply = run(recorded.login);
    const nlohmann::json taken = nlohmann::json::parse(reply->str, reply->str + reply->len);
    if (!taken.contains("location")) {
        throw Failure("A login without the front end was refused: " + taken.dump());
    }
    return {taken.at("location"), taken.at("token")};
}

void FrontEndLoop::read(const Session& session) {
    run(recorded.read, session);
}

void FrontEndLoop::logout(const Session& session) {
    run(recorded.logout, session);
}

}  // namespace bench
