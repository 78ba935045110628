// Clients of the web front end from many addresses: those that behave, and those that do not.
#include <algorithm>
#include <nlohmann/json.hpp>

#include "bench/soak.h"
#include "testbed/accounts.h"
#include "testbed/http_client.h"

namespace bench {

namespace {

using testbed::Failure;
using testbed::HttpClient;
using testbed::HttpResponse;

constexpr int readsPerLogin = 50;
constexpr int changesPerLogin = 20;
constexpr std::size_t maxBody = 65536;
constexpr int minTimeout = 30;

std::string loginBody(const testbed::Account& account, const std::string& password) {
    return std::string(R"({"UserName":")") + account.name + R"(","Password":")" + password + "\"}";
}

// A login as it stands on the connection.
std::string loginRequest(const testbed::Account& account) {
    const std::string text = loginBody(account, account.password);
    return std::string("POST ") + testbed::sessionsUri +
           " HTTP/1.1\r\nHost: testbed\r\nContent-Type: application/json\r\nContent-Length: " +
           std::to_string(text.size()) + "\r\n\r\n" + text;
}

// Properties that nobody knows, in the largest body.
std::string manyProperties() {
    std::string text = "{";
    for (int number = 0; text.size() < maxBody - 10; ++number) {
        text += (text.size() > 1 ? ",\"" : "\"") + std::to_string(number) + "\":1";
    }
    return text + "}";
}

class FrontEndSoak : public Soak {
  public:
    FrontEndSoak()
        : Soak(FrontEnd::nginx, {"logins", "reads", "changes", "logouts", "Basic", "hang-ups",
                                 "wrong", "bodies", "no place"}) {}

  private:
    // In the order of the names above.
    enum Column : std::size_t { login, read, change, logout, basic, hangUp, wrong, body, noPlace };

    std::vector<std::function<void()>> workers() override;
    // 127.0.1.1 and above.
    HttpClient clientAt(std::size_t host) const;
    void expect(const HttpResponse& response, std::vector<long> statuses, Column kind);
    // Waits for a place; returns the session's address, whose token the client has. Empty when the
    // soak ends before.
    std::string logIn(HttpClient& client, const testbed::Account& account);

    void sessionRounds(HttpClient client);
    void changeRounds(HttpClient client);
    void basicRounds(HttpClient client, const testbed::Account& account);
    void hangUpRounds(const HttpClient& client, std::size_t kept);
    void wrongRounds(HttpClient client);
    void wrongBasicRounds(HttpClient client);
    void bodyRounds(HttpClient client, const std::string& text, long status);
};

HttpClient FrontEndSoak::clientAt(std::size_t host) const {
    return HttpClient({.url = frontEnd().url(),
                       .certificatePath = frontEnd().certificatePath(),
                       .sourceAddress = "127.0.1." + std::to_string(host)});
}

std::vector<std::function<void()>> FrontEndSoak::workers() {
    // A session that has been left after all soon expires.
    HttpClient first = clientAt(1);
    const std::string session = logIn(first, testbed::administrator);
    first.patch(testbed::serviceUri, R"({"SessionTimeout": )" + std::to_string(minTimeout) + "}");
    first.remove(session);
    const std::string deep = std::string(1000, '[') + std::string(1000, ']');
    const std::size_t whole = loginRequest(testbed::operatorAccount).size();
    const std::vector<std::function<void(HttpClient)>> each{
        [this](HttpClient client) { sessionRounds(std::move(client)); },
        [this](HttpClient client) { sessionRounds(std::move(client)); },
        [this](HttpClient client) { sessionRounds(std::move(client)); },
        [this](HttpClient client) { changeRounds(std::move(client)); },
        [this](HttpClient client) { basicRounds(std::move(client), testbed::administrator); },
        [this](HttpClient client) { basicRounds(std::move(client), testbed::reader); },
        [this](HttpClient client) { basicRounds(std::move(client), testbed::operatorAccount); },
        // In the middle of the header, of the body, and after all of it.
        [this](const HttpClient& client) { hangUpRounds(client, 40); },
        [this, whole](const HttpClient& client) { hangUpRounds(client, whole - 10); },
        [this, whole](const HttpClient& client) { hangUpRounds(client, whole); },
        [this](HttpClient client) { wrongRounds(std::move(client)); },
        [this](HttpClient client) { wrongBasicRounds(std::move(client)); },
        [this](HttpClient client) {
            bodyRounds(std::move(client), std::string(2 * maxBody, ' '), 413);
        },
        [this](HttpClient client) { bodyRounds(std::move(client), manyProperties(), 400); },
        [this](HttpClient client) { bodyRounds(std::move(client), std::string(100, '\0'), 400); },
        [this, deep](HttpClient client) {
            bodyRounds(std::move(client), R"({"UserName":)" + deep + "}", 400);
        },
    };
    std::vector<std::function<void()>> all;
    for (std::size_t i = 0; i < each.size(); ++i) {
        all.emplace_back([this, i, work = each[i]] { work(clientAt(i + 1)); });
    }
    return all;
}

void FrontEndSoak::expect(const HttpResponse& response, std::vector<long> statuses, Column kind) {
    if (std::find(statuses.begin(), statuses.end(), response.status) == statuses.end()) {
        throw Failure("One of the " + std::string(nameOf(kind)) + " was answered " +
                      std::to_string(response.status) + ": " + response.body);
    }
    count(kind);
}

std::string FrontEndSoak::logIn(HttpClient& client, const testbed::Account& account) {
    for (;;) {
        const HttpResponse response = client.login(account.name, account.password);
        if (response.status != 503 ||
            response.body.find("SessionLimitExceeded") == std::string::npos) {
            expect(response, {201}, login);
            return response.location();
        }
        client.useToken("");
        count(noPlace);
    }
}

void FrontEndSoak::sessionRounds(HttpClient client) {
    repeat([&] {
        const std::string session = logIn(client, testbed::administrator);
        for (int i = 0; i < readsPerLogin && !isEnding(); ++i) {
            expect(client.get(session), {200}, read);
        }
        expect(client.remove(session), {204}, logout);
        client.useToken("");
    });
}

void FrontEndSoak::changeRounds(HttpClient client) {
    repeat([&] {
        const std::string session = logIn(client, testbed::administrator);
        for (int i = 0; i < changesPerLogin && !isEnding(); ++i) {
            const std::string text =
                R"({"SessionTimeout": )" + std::to_string(minTimeout + i) + "}";
            expect(client.patch(testbed::serviceUri, text), {200}, change);
            const HttpResponse list = client.get(testbed::sessionsUri);
            expect(list, {200}, read);
            if (list.json()["Members"].size() != list.json()["Members@odata.count"]) {
                throw Failure("The collection counts other members than it shows: " + list.body);
            }
        }
        expect(client.remove(session), {204}, logout);
        client.useToken("");
    });
}

void FrontEndSoak::basicRounds(HttpClient client, const testbed::Account& account) {
    client.useBasic(account.name, account.password);
    repeat([&] { expect(client.get(testbed::serviceUri), {200}, basic); });
}

void FrontEndSoak::hangUpRounds(const HttpClient& client, std::size_t kept) {
    const std::string request = loginRequest(testbed::operatorAccount).substr(0, kept);
    repeat([&] {
        testbed::TlsConnection connection = client.connect();
        // A client that is slow to hang up may be answered before: its session would be its own.
        connection.holdBack();
        connection.send(request);
        count(hangUp);
    });
}

// Those that have failed wait behind the others, and may have no turn in time.
void FrontEndSoak::wrongRounds(HttpClient client) {
    const std::string text = loginBody(testbed::administrator, testbed::reader.password);
    repeat([&] { expect(client.post(testbed::sessionsUri, text), {401, 503}, wrong); });
}

void FrontEndSoak::wrongBasicRounds(HttpClient client) {
    client.useBasic(testbed::administrator.name, testbed::reader.password);
    repeat([&] { expect(client.get(testbed::serviceUri), {401, 503}, wrong); });
}

void FrontEndSoak::bodyRounds(HttpClient client, const std::string& text, long status) {
    repeat([&] { expect(client.post(testbed::sessionsUri, text), {status}, body); });
}

}  // namespace

bool soakFrontEnd(std::chrono::seconds duration) {
    return FrontEndSoak().run(duration);
}

}  // namespace bench
