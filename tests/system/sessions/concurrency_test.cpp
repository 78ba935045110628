#include <algorithm>
#include <atomic>
#include <future>
#include <map>
#include <mutex>
#include <random>
#include <set>

#include "support/system_test.h"
#include "testbed/events_and_audit_log.h"

namespace testbed {
namespace {

constexpr char auditLog[] = "/redfish/v1/Managers/1/LogServices/AuditLog/Entries";

// Sessions that somebody may log out, several clients the same one.
class Handover {
  public:
    void put(const std::string& uri) {
        const std::lock_guard lock(listMutex);
        knownUris.push_back(uri);
    }
    // Any of them; it stays for others. Empty when there is none.
    std::string any(unsigned random) {
        const std::lock_guard lock(listMutex);
        return knownUris.empty() ? std::string() : knownUris[random % knownUris.size()];
    }

  private:
    std::mutex listMutex;
    Words knownUris;
};

struct Tally {
    std::atomic<int> logins = 0;
    std::atomic<int> refusedLogins = 0;
    std::atomic<int> logouts = 0;
    std::atomic<int> abandoned = 0;
    std::atomic<int> patches = 0;
};

class Concurrency : public RunningSystemTest {
  protected:
    void SetUp() override {
        RunningSystemTest::SetUp();
        usePamTest("env=PRIVILEGES=511");
        for (const char* records : {auditLog, "/redfish/v1/EventService"}) {
            store().hset(records, {{"&&MaxEntries", "1000000"}});
        }
    }

    // Logs in and out in disorder until told to stop: some sessions at once, some that
    // others may log out too, some never, so that they expire.
    void actAsUser(unsigned seed) {
        FakeFrontEnd client = controller.frontEnd();
        std::minstd_rand random(seed);
        while (!stop) {
            const Reply login = client.login("user" + std::to_string(seed), "anything");
            if (login.status() == "OK") {
                ++tally.logins;
                switch (random() % 4) {
                    case 0:
                        ++tally.abandoned;
                        break;
                    case 1:
                        handover.put(login.location());
                        break;
                    default:
                        logOut(client, login.location());
                }
            } else {
                EXPECT_EQ(login.status(), "UNAVAILABLE");
                ++tally.refusedLogins;
            }
            const std::string other = handover.any(static_cast<unsigned>(random()));
            if (!other.empty()) {
                logOut(client, other);
            }
        }
    }

    void logOut(FakeFrontEnd& client, const std::string& uri) {
        const std::string status = client.remove(uri).status();
        EXPECT_TRUE(status == "OK_EMPTY" || status == "UNAVAILABLE") << status;
        tally.logouts += status == "OK_EMPTY" ? 1 : 0;
    }

    // Changes the timeout again and again; all values are short.
    void actAsAdministrator(unsigned seed) {
        FakeFrontEnd client = controller.frontEnd();
        for (unsigned round = seed; !stop; ++round) {
            const Reply reply = client.patch({{"SessionTimeout", std::to_string(1 + round % 2)}});
            EXPECT_EQ(reply.status(), "OK");
            ++tally.patches;
        }
    }

    void setTimeout(const std::string& seconds) {
        EXPECT_EQ(frontEnd().patch({{"SessionTimeout", seconds}}).status(), "OK");
    }
    std::string logIn() {
        const Reply login = frontEnd().login("resident", "anything");
        EXPECT_EQ(login.status(), "OK");
        ++tally.logins;
        return login.location();
    }

    // Each thread of the daemon serves one request after another and comes to what follows
    // the answer before the next one.
    void waitForTheLastWork() {
        const std::string last = logIn();
        EXPECT_EQ(frontEnd().remove(last).status(), "OK_EMPTY");
        waitUntil("the last login and logout are in the audit log", [&] {
            const std::vector<Words> entries = auditEntries(store());
            return std::count_if(entries.begin(), entries.end(), [&](const Words& entry) {
                       return entry.at(2).find(last) != std::string::npos;
                   }) == 2;
        });
        setTimeout("300");
    }

    std::set<std::string> members() {
        std::set<std::string> uris;
        for (const std::string& member : store().lrange(membersKey)) {
            EXPECT_EQ(member.rfind("&&ObjectRef ", 0), 0U) << member;
            EXPECT_TRUE(uris.insert(member.substr(12)).second) << member << " stands there twice";
        }
        return uris;
    }

    // Every entry of every session is there, and none besides.
    void expectSessions(const std::set<std::string>& expected) {
        EXPECT_EQ(members(), expected);
        EXPECT_EQ(store().hget(sessionsUri, "Members@odata.count"),
                  std::to_string(expected.size()));
        const Words uris(expected.begin(), expected.end());
        const std::string prefix = std::string(sessionsUri) + "/";
        EXPECT_EQ(store().keys(prefix + "*"), uris);

        Words references;
        Words tokens;
        for (const std::string& uri : uris) {
            EXPECT_EQ(store().hget(uri, "@odata.id"), jsonQuoted(uri));
            EXPECT_EQ(store().hget(uri, "Id"), jsonQuoted(uri.substr(prefix.size())));
            const std::string quoted = store().hget(tokenReferenceKey(uri), "XAUTH");
            ASSERT_EQ(quoted.size(), 66U) << uri;
            const std::string key = tokenKey(quoted.substr(1, 64));
            EXPECT_EQ(store().hget(key, "SessionID"), uri);
            references.push_back(tokenReferenceKey(uri));
            tokens.push_back(key);
        }
        std::sort(tokens.begin(), tokens.end());
        EXPECT_EQ(store().keys("&&X-AUTH-TOKEN-*"), tokens);
        Words channels{std::string("&&") + prefix + "DELETEQ",
                       std::string("&&") + prefix + "Members",
                       std::string("&&") + prefix + "POSTCREATEQ"};
        references.insert(references.end(), channels.begin(), channels.end());
        std::sort(references.begin(), references.end());
        EXPECT_EQ(store().keys("&&" + prefix + "*"), references);
    }

    // Each piece of work drew an event group of its own and told the whole of it.
    void expectEvents() {
        std::map<std::string, std::vector<Words>> groups;
        for (const Words& event : lifeCycleEvents(store())) {
            groups[event.at(3)].push_back({event.at(0), event.at(2)});
        }
        const Words listChange{"change", "SessionCollection"};
        int logins = 0;
        for (const auto& [group, events] : groups) {
            if (events.size() == 1) {
                EXPECT_EQ(events[0], (Words{"change", "SessionService"})) << group;
                continue;
            }
            ASSERT_EQ(events.size(), 2U) << group;
            EXPECT_EQ(events[0].at(1), "Session") << group;
            EXPECT_EQ(events[1], listChange) << group;
            logins += events[0].at(0) == "add" ? 1 : 0;
        }
        EXPECT_EQ(logins, tally.logins);
        EXPECT_EQ(store().hget("/redfish/v1/EventService", "&&EVENT_GROUP_ID_COUNTER"),
                  std::to_string(groups.size()));
    }

    // Several clients at work, each on a thread; however this ends, they are told to stop.
    class Clients {
      public:
        explicit Clients(std::atomic<bool>& stopFlag) : isStopped(stopFlag) {}
        ~Clients() { isStopped = true; }  // the threads are waited for after that
        Clients(const Clients&) = delete;
        Clients& operator=(const Clients&) = delete;

        template <typename Act>
        void start(Act act) {
            runningClients.push_back(std::async(std::launch::async, act));
        }
        // Throws what the first failing client threw.
        void stop() {
            isStopped = true;
            for (std::future<void>& client : runningClients) {
                client.get();
            }
        }

      private:
        std::atomic<bool>& isStopped;
        std::vector<std::future<void>> runningClients;
    };

    std::atomic<bool> stop = false;
    Tally tally;
    Handover handover;
};

TEST_F(Concurrency, OfLoginsLogoutsSettingsAndExpiryLeavesNothingOverAndLosesNothing) {
    // Logouts of sessions that are gone have no user for the audit log; the last one here
    // makes sure that there is one.
    expectErrorLine("Failed to generate LogEntry.");
    std::set<std::string> residents{logIn(), logIn()};
    setTimeout("1");

    Clients clients(stop);
    for (unsigned seed = 1; seed <= 6; ++seed) {
        clients.start([this, seed] { actAsUser(seed); });
    }
    for (unsigned seed = 1; seed <= 2; ++seed) {
        clients.start([this, seed] { actAsAdministrator(seed); });
    }
    // More sessions are abandoned than fit in at once, so that some have to expire.
    waitUntil("everything has happened often", [this] {
        return tally.logins > 60 && tally.refusedLogins > 20 && tally.logouts > 60 &&
               tally.patches > 100 && tally.abandoned > 8;
    });
    clients.stop();

    setTimeout("300");
    waitUntil("all short sessions have expired", [&] { return members() == residents; });
    residents.insert(logIn());
    residents.insert(logIn());
    EXPECT_EQ(frontEnd().remove(std::string(sessionsUri) + "/00000000").status(), "OK_EMPTY");
    waitForTheLastWork();

    expectSessions(residents);
    expectEvents();
    EXPECT_EQ(store().hget(serviceUri, "SessionTimeout"), "300");
    EXPECT_NE(controller.readFile(persistentFile).find("SessionTimeout=300\n"), std::string::npos);
    EXPECT_EQ(store().keys("*/Checklist"), Words{});
    const std::vector<Words> entries = auditEntries(store());
    EXPECT_EQ(std::count_if(
                  entries.begin(), entries.end(),
                  [](const Words& entry) { return entry.at(0) == "\"AuditEvent.1.1.UserLogin\""; }),
              tally.logins);
}

}  // namespace
}  // namespace testbed
