#include "bench/processor_time.h"

#include <algorithm>
#include <array>
#include <functional>
#include <utility>
#include <vector>

#include "bench/process_statistics.h"
#include "testbed/http_client.h"

namespace bench {

using testbed::Controller;
using testbed::Failure;
using testbed::HttpClient;
using testbed::HttpResponse;
using testbed::StoreClient;
using testbed::WebFrontEnd;
using Clock = std::chrono::steady_clock;

namespace {

constexpr const char* barePath = "/bare";
constexpr int sessionsOfBlock = 40;
constexpr int readsOfBlock = 200;
constexpr int bareRequestsOfBlock = 400;

void expectStatus(const HttpResponse& response, long status) {
    if (response.status != status) {
        throw Failure("A request was answered " + std::to_string(response.status) + ": " +
                      response.body);
    }
}

// Other work on the machine only ever adds time.
double lowerQuartileOf(std::vector<double> values) {
    const auto quartile = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 4);
    std::nth_element(values.begin(), quartile, values.end());
    return *quartile;
}

ProcessorTime lowerQuartileOf(const std::vector<ProcessorTime>& times) {
    const auto of = [&](double ProcessorTime::*process) {
        std::vector<double> values;
        values.reserve(times.size());
        for (const ProcessorTime& time : times) {
            values.push_back(time.*process);
        }
        return lowerQuartileOf(std::move(values));
    };
    return {.nginx = of(&ProcessorTime::nginx),
            .store = of(&ProcessorTime::store),
            .daemon = of(&ProcessorTime::daemon)};
}

}  // namespace

void addBareResource(Controller& controller) {
    const std::string before = "        location / {";
    std::string text = controller.readFile(testbed::webConfigurationFile);
    const std::size_t at = text.find(before);
    if (at == std::string::npos) {
        throw Failure("The front end's configuration has no place for another resource.");
    }
    text.insert(at, "        location = " + std::string(barePath) + " { return 200; }\n");
    controller.writeFile(testbed::webConfigurationFile, text);
}

ProcessorTime processorTime(Controller& controller, WebFrontEnd& web, StoreClient& store) {
    return {.nginx = processorSeconds(testbed::childrenOf(web.process().pid()).at(0)),
            .store = storeValue(store, "cpu", "used_cpu_user") +
                     storeValue(store, "cpu", "used_cpu_sys"),
            .daemon = processorSeconds(controller.daemon().pid())};
}

RequestTimes measureRequestTimes(Controller& controller, WebFrontEnd& web,
                                 const FrontEndCommands& commands,
                                 std::chrono::duration<double> duration) {
    controller.writeFile(testbed::keyFile, commands.key);
    HttpClient client({.url = web.url(), .certificatePath = web.certificatePath()});
    StoreClient store = controller.connect();
    const auto login = [&] {
        const HttpResponse session = client.login("user1", "a password");
        expectStatus(session, 201);
        return session.location();
    };
    const auto logout = [&](const std::string& session) {
        expectStatus(client.remove(session), 204);
        client.useToken("");
    };

    const std::string readSession = login();
    HttpClient reader = std::exchange(
        client, HttpClient({.url = web.url(), .certificatePath = web.certificatePath()}));
    expectStatus(reader.get(readSession), 200);
    logout(login());
    FrontEndLoop loop(controller, commands);
    const FrontEndLoop::Session loopSession = loop.login();

    const std::array<std::function<void()>, 5> blocks{
        [&] { logout(login()); }, [&] { loop.logout(loop.login()); },
        [&] { expectStatus(reader.get(readSession), 200); }, [&] { loop.read(loopSession); },
        [&] { expectStatus(reader.get(barePath), 200); }};
    constexpr std::array counts{sessionsOfBlock, sessionsOfBlock, readsOfBlock, readsOfBlock,
                                bareRequestsOfBlock};
    std::array<std::vector<ProcessorTime>, blocks.size()> times;
    const auto end = Clock::now() + duration;
    do {
        for (std::size_t i = 0; i < blocks.size(); ++i) {
            const ProcessorTime before = processorTime(controller, web, store);
            for (int n = 0; n < counts.at(i); ++n) {
                blocks.at(i)();
            }
            const ProcessorTime after = processorTime(controller, web, store);
            times.at(i).push_back({.nginx = (after.nginx - before.nginx) / counts.at(i),
                                   .store = (after.store - before.store) / counts.at(i),
                                   .daemon = (after.daemon - before.daemon) / counts.at(i)});
        }
    } while (Clock::now() < end);
    loop.logout(loopSession);
    expectStatus(reader.remove(readSession), 204);

    RequestTimes result;
    result.session = {.measured = lowerQuartileOf(times[0]), .baseline = lowerQuartileOf(times[1])};
    result.read = {.measured = lowerQuartileOf(times[2]), .baseline = lowerQuartileOf(times[3])};
    result.bare = lowerQuartileOf(times[4]).nginx;
    result.session.baseline.nginx = 2 * result.bare;
    result.read.baseline.nginx = result.bare;
    return result;
}

}  // namespace bench
