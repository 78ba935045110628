#include "bench/web_load.h"

#include <algorithm>
#include <thread>

#include "testbed/http_client.h"
#include "testbed/store_keys.h"

namespace bench {

using testbed::Failure;
using testbed::HttpClient;
using testbed::HttpResponse;

namespace {

constexpr const char* rootPath = "/redfish/v1";

void expectAnswer(const char* name, const HttpResponse& response, long status,
                  const std::string& content = {}) {
    if (response.status != status || response.body.find(content) == std::string::npos) {
        throw Failure("A " + std::string(name) + " was answered " +
                      std::to_string(response.status) + ": " + response.body);
    }
}

// Runs a request and notes how long it took.
template <typename Request>
HttpResponse timed(WebWork& work, WebRequest kind, const Request& request) {
    const auto begin = std::chrono::steady_clock::now();
    HttpResponse response = request();
    work.milliseconds.at(kind).push_back(
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - begin)
            .count());
    return response;
}

// One of the eight sessions.
class Place {
  public:
    Place(std::counting_semaphore<>& all, HttpClient& client, bool readsMeanwhile) : places(all) {
        while (!places.try_acquire()) {
            if (!readsMeanwhile) {
                places.acquire();
                return;
            }
            expectAnswer("read of the service root", client.get(rootPath), 200);
        }
    }
    ~Place() { places.release(); }
    Place(const Place&) = delete;
    Place& operator=(const Place&) = delete;

  private:
    std::counting_semaphore<>& places;
};

}  // namespace

double WebWork::percentile(WebRequest kind, std::size_t percent) const {
    const std::vector<double>& sorted = milliseconds.at(kind);
    return sorted.at((sorted.size() - 1) * percent / 100);
}

void WebLoad::work(int number, const WebRound& round, Clock::time_point end, WebWork& done) {
    HttpClient client({.url = web.url(), .certificatePath = web.certificatePath()});
    const std::string user = "user" + std::to_string(number);
    for (int count = 0; Clock::now() < end; ++count) {
        const Place place(places, client, round.readsMeanwhile);
        const HttpResponse session =
            timed(done, webLogin, [&] { return client.login(user, "a password"); });
        const std::string location = session.location();
        expectAnswer("login", session, 201, location);
        for (int i = 0; i < round.reads; ++i) {
            expectAnswer("read", timed(done, webRead, [&] { return client.get(location); }), 200,
                         location);
        }
        if (round.changes && number == 0) {
            const std::string body =
                R"({"SessionTimeout": )" + std::to_string(300 + count % 100) + "}";
            const HttpResponse changed =
                timed(done, webChange, [&] { return client.patch(testbed::serviceUri, body); });
            expectAnswer("change", changed, 200, std::to_string(300 + count % 100));
        }
        expectAnswer("logout", timed(done, webLogout, [&] { return client.remove(location); }),
                     204);
        client.useToken("");
    }
}

WebWork WebLoad::run(int connections, const WebRound& round,
                     std::chrono::duration<double> duration) {
    std::vector<WebWork> works(static_cast<std::size_t>(connections));
    std::vector<std::string> failures(works.size());
    const auto start = Clock::now();
    {
        std::vector<std::jthread> threads;
        threads.reserve(works.size());
        for (int i = 0; i < connections; ++i) {
            threads.emplace_back([&, i] {
                const auto index = static_cast<std::size_t>(i);
                try {
                    work(i, round, start + std::chrono::duration_cast<Clock::duration>(duration),
                         works[index]);
                } catch (const std::exception& failure) {
                    failures[index] = failure.what();
                }
            });
        }
    }
    WebWork all;
    all.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    for (std::size_t i = 0; i < works.size(); ++i) {
        if (!failures[i].empty()) {
            throw Failure(failures[i]);
        }
        for (std::size_t kind = 0; kind < webRequestNames.size(); ++kind) {
            const std::vector<double>& some = works[i].milliseconds.at(kind);
            all.milliseconds.at(kind).insert(all.milliseconds.at(kind).end(), some.begin(),
                                             some.end());
        }
    }
    for (std::vector<double>& each : all.milliseconds) {
        std::sort(each.begin(), each.end());
    }
    return all;
}

}  // namespace bench
