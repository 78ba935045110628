// Requests over the store's channels, as a front end sends them: logins, logouts, changes, wrong
// passwords, and sessions that expire.
#include "bench/soak.h"
#include "testbed/accounts.h"

namespace bench {

namespace {

using testbed::Failure;
using testbed::Reply;
using testbed::Words;

constexpr int loginWorkers = 2;
constexpr int expiringSessions = 3;     // with the others' fewer than the eight that are admitted
constexpr int loginsPerRefusal = 5000;  // a refusal takes PAM two seconds

class DaemonSoak : public Soak {
  public:
    DaemonSoak() : Soak(FrontEnd::none, {"logins", "refusals", "changes", "logouts", "expiries"}) {}

  private:
    // In the order of the names above.
    enum Column : std::size_t { login, refusal, change, logout, expiry };

    std::vector<std::function<void()>> workers() override;
    Reply ask(testbed::StoreClient& client, testbed::Request request, Column kind,
              const std::string& status);
    void loginRounds(bool refusals);
    void changeRounds();
    void expiryRounds();
};

std::vector<std::function<void()>> DaemonSoak::workers() {
    std::vector<std::function<void()>> all{[this] { changeRounds(); }, [this] { expiryRounds(); }};
    for (int i = 0; i < loginWorkers; ++i) {
        all.emplace_back([this, i] { loginRounds(i == 0); });
    }
    return all;
}

// As a front end does: it removes what it stored itself.
Reply DaemonSoak::ask(testbed::StoreClient& client, testbed::Request request, Column kind,
                      const std::string& status) {
    request.send();
    Reply reply = request.reply();
    client.run({"DEL", request.requestKey(), request.requestKey() + "/Checklist", request.bodyKey(),
                request.replyKey(), request.returnChannel()});
    if (reply.status() != status) {
        throw Failure("One of the " + std::string(nameOf(kind)) + " was answered " +
                      reply.status() + " in place of " + status + ".");
    }
    count(kind);
    return reply;
}

void DaemonSoak::loginRounds(bool refusals) {
    testbed::FakeFrontEnd frontEnd = host().frontEnd();
    testbed::StoreClient client = host().connect();
    const testbed::Account& account = testbed::administrator;
    int number = 0;
    repeat([&] {
        const Reply session =
            ask(client, frontEnd.prepareLogin(account.name, account.password), login, "OK");
        ask(client, frontEnd.prepareRemove(session.location()), logout, "OK_EMPTY");
        if (refusals && ++number % loginsPerRefusal == 1) {
            ask(client, frontEnd.prepareLogin(account.name, testbed::reader.password), refusal,
                "AUTH_FAILED");
        }
    });
}

void DaemonSoak::changeRounds() {
    testbed::FakeFrontEnd frontEnd = host().frontEnd();
    testbed::StoreClient client = host().connect();
    int number = 0;
    repeat([&] {
        ask(client,
            frontEnd.preparePatch({{"SessionTimeout", std::to_string(300 + ++number % 100)}}),
            change, "OK");
    });
}

// Sessions of clients that went away.
void DaemonSoak::expiryRounds() {
    testbed::FakeFrontEnd frontEnd = host().frontEnd();
    testbed::StoreClient client = host().connect();
    const testbed::Account& account = testbed::operatorAccount;
    repeat([&] {
        Words sessions;
        for (int i = 0; i < expiringSessions; ++i) {
            const Reply session =
                ask(client, frontEnd.prepareLogin(account.name, account.password), login, "OK");
            client.hset(testbed::tokenKey(session.token()),
                        {{"LastAccessed", std::to_string(testbed::uptime() - 1000)}});
            sessions.push_back(session.location());
        }
        for (const std::string& session : sessions) {
            testbed::waitUntil("a session has expired", [&] { return !client.exists(session); });
            count(expiry);
        }
    });
}

}  // namespace

bool soakDaemon(std::chrono::seconds duration) {
    return DaemonSoak().run(duration);
}

}  // namespace bench
