// HTTP Basic: requests that bring their credentials share temporary sessions, which others do not
// see.
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <future>
#include <nlohmann/json.hpp>
#include <set>
#include <thread>

#include "support/web_test.h"

namespace testbed {
namespace {

using Json = nlohmann::json;

class WebBasicSessions : public WebTest {
  protected:
    WebBasicSessions() { usePamTest("env=PRIVILEGES=511 password=right"); }

    HttpClient basicClient(const std::string& password = "right",
                           const std::string& address = "127.0.0.1") {
        HttpClient each = newClient({.sourceAddress = address});
        each.useBasic("somebody", password);
        return each;
    }
    std::future<long> startGet(const std::string& address) {
        return std::async(std::launch::async, [this, address] {
            return basicClient("right", address).get(serviceUri).status;
        });
    }

    // How many logins PAM has seen.
    std::size_t logins() {
        const std::vector<PamRecord> records = pamRecords();
        return static_cast<std::size_t>(
            std::count_if(records.begin(), records.end(),
                          [](const PamRecord& record) { return record.at("entry") == "auth"; }));
    }
    void expectSessions(long long count) {
        waitUntil(std::to_string(count) + " sessions are left", [&] {
            return store().llen(membersKey) == count &&
                   store().keys(tokenKey("*")).size() == static_cast<std::size_t>(count);
        });
    }
    // What a client sees of the collection.
    static void expectMembers(const HttpResponse& answer, const Words& uris) {
        ASSERT_EQ(answer.status, 200);
        Json members = Json::array();
        for (const std::string& uri : uris) {
            members.push_back({{"@odata.id", uri}});
        }
        EXPECT_EQ(answer.json()["Members"], members);
        EXPECT_EQ(answer.json()["Members@odata.count"], members.size());
    }
};

TEST_F(WebBasicSessions, AreSharedAndEndSoonAfterTheirLastUse) {
    HttpClient each = basicClient();
    for (int i = 0; i < 40; ++i) {
        EXPECT_EQ(each.get(serviceUri).status, 200);
    }
    EXPECT_LT(logins(), 5U);
    expectSessions(0);
    const std::size_t before = logins();
    EXPECT_EQ(each.get(serviceUri).status, 200);
    EXPECT_EQ(logins(), before + 1);
}

TEST_F(WebBasicSessions, AreSeenByNobody) {
    const HttpResponse login = client().login("somebody", "right");
    HttpClient each = basicClient();
    expectMembers(each.get(sessionsUri), {login.location()});
    expectMembers(client().get(sessionsUri), {login.location()});
    EXPECT_EQ(each.remove(login.location()).status, 204);
    expectMembers(each.get(sessionsUri), {});
    expectSessions(0);
}

TEST_F(WebBasicSessions, AreTakenForTheirsByNobodyElse) {
    const HttpResponse session =
        client().request({.method = "POST",
                          .path = sessionsUri,
                          .headers = {"Origin: &&temporary"},
                          .body = R"({"UserName":"somebody","Password":"right"})"});
    client().useToken(session.token());
    expectMembers(client().get(sessionsUri), {session.location()});
}

TEST_F(WebBasicSessions, ServeManyRequestsAtOnce) {
    std::vector<std::future<long>> answers;
    for (int i = 0; i < 24; ++i) {
        answers.push_back(startGet("127.0.0.1"));
    }
    for (std::future<long>& answer : answers) {
        EXPECT_EQ(answer.get(), 200);
    }
    EXPECT_LT(logins(), 24U);
}

TEST_F(WebBasicSessions, ServeManyAddressesAtOnceAndAreTwoAtATime) {
    Monitor monitor = controller.monitor();
    std::vector<std::future<long>> answers;
    for (int i = 1; i <= 24; ++i) {
        answers.push_back(startGet("127.0.3." + std::to_string(i)));
    }
    for (std::future<long>& answer : answers) {
        EXPECT_EQ(answer.get(), 200);
    }
    expectSessions(0);
    EXPECT_EQ(logins(), 24U);

    std::size_t sessions = 0;
    std::size_t maxSessions = 0;
    for (const MonitoredCommand& command : monitor.soFar()) {
        if (command.words.size() > 1 && command.words[1] == membersKey) {
            sessions += command.words[0] == "LPUSH" ? 1 : 0;
            sessions -= command.words[0] == "LREM" ? 1 : 0;
            maxSessions = std::max(maxSessions, sessions);
        }
    }
    EXPECT_EQ(maxSessions, 2U);
}

TEST_F(WebBasicSessions, BelongToTheirPasswordAndAddress) {
    HttpClient right = basicClient();
    EXPECT_EQ(right.get(serviceUri).status, 200);
    EXPECT_EQ(basicClient("wrong").get(serviceUri).status, 401);
    EXPECT_EQ(basicClient("").get(serviceUri).status, 401);
    EXPECT_EQ(basicClient("right ").get(serviceUri).status, 401);
    EXPECT_EQ(logins(), 4U);
    EXPECT_EQ(basicClient("right", "127.0.0.2").get(serviceUri).status, 200);
    EXPECT_EQ(logins(), 5U);
}

TEST_F(WebBasicSessions, AreNotSharedAfterAChangeOfPasswords) {
    EXPECT_EQ(basicClient().get(serviceUri).status, 200);
    usePamTest("env=PRIVILEGES=511 password=changed");
    controller.writeFile("/etc/shadow", controller.readFile("/etc/shadow") + "\n");
    EXPECT_EQ(basicClient().get(serviceUri).status, 401);
    EXPECT_EQ(basicClient("changed").get(serviceUri).status, 200);
}

class WebBasicSessionsOfASecond : public WebBasicSessions {
  protected:
    WebBasicSessionsOfASecond() { changeSetting("maxBasicSeconds", "1"); }
};

TEST_F(WebBasicSessionsOfASecond, AreNotSharedForEver) {
    HttpClient each = basicClient();
    waitUntil("there was another login", [&] {
        EXPECT_EQ(each.get(serviceUri).status, 200);
        return logins() == 2;
    });
}

TEST_F(WebBasicSessions, AreMadeAnewWhenTheyHaveEndedOtherwise) {
    HttpClient each = basicClient();
    EXPECT_EQ(each.get(serviceUri).status, 200);
    const std::string session = store().lrange(membersKey).at(0).substr(12);
    frontEnd().remove(session);
    EXPECT_EQ(each.get(serviceUri).status, 200);
    EXPECT_EQ(logins(), 2U);
}

TEST_F(WebBasicSessions, MakeRoomForALogin) {
    for (int i = 0; i < 7; ++i) {
        frontEnd().insertSession({.userName = "user" + std::to_string(i)});
    }
    EXPECT_EQ(basicClient().get(serviceUri).status, 200);
    EXPECT_EQ(client().login("another", "right").status, 201);
    EXPECT_EQ(store().llen(membersKey), 8);
    EXPECT_EQ(basicClient().get(serviceUri).status, 503);
}

TEST_F(WebBasicSessions, EndWithTheirWorker) {
    changeSetting("basicIdleSeconds", "600");
    web.restart();
    EXPECT_EQ(basicClient().get(serviceUri).status, 200);
    EXPECT_EQ(store().llen(membersKey), 1);
    const pid_t worker = childrenOf(web.process().pid()).front();
    web.process().signal(SIGHUP);
    expectSessions(0);
    waitUntil("the worker has ended", [&] {
        const std::vector<pid_t> workers = childrenOf(web.process().pid());
        return std::find(workers.begin(), workers.end(), worker) == workers.end();
    });
}

TEST_F(WebBasicSessions, ShareARefusalAsWell) {
    usePamTest("env=PRIVILEGES=511 password=another");
    holdPam();
    std::vector<std::future<long>> answers;
    for (int i = 0; i < 3; ++i) {
        answers.push_back(startGet("127.0.0.1"));
    }
    waitUntilPamHolds();
    releasePam();
    for (std::future<long>& answer : answers) {
        EXPECT_EQ(answer.get(), 401);
    }
    EXPECT_EQ(basicClient().get(serviceUri).status, 401);
}

class WebBasicSessionsOfShortTime : public WebBasicSessions {
  protected:
    WebBasicSessionsOfShortTime() { changeSetting("answerTimeout", "3"); }
};

// The second one shares the login of the first, whose time is over earlier.
TEST_F(WebBasicSessionsOfShortTime, AreWaitedForNoLongerThanALogin) {
    holdPam();
    std::future<long> first = startGet("127.0.0.1");
    waitUntilPamHolds();
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    const auto start = std::chrono::steady_clock::now();
    std::future<long> second = startGet("127.0.0.1");
    EXPECT_EQ(first.get(), 503);
    EXPECT_EQ(second.get(), 503);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    releasePam();
    expectSessions(0);
}

}  // namespace
}  // namespace testbed
