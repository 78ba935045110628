// Logins that come faster than passwords can be checked: who waits, who is refused, and who is
// served all the same.
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <nlohmann/json.hpp>
#include <thread>

#include "support/web_test.h"

namespace testbed {
namespace {

using Clock = std::chrono::steady_clock;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr char statusPath[] = "/status";

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

class WebLoginQueue : public WebTest {
  protected:
    WebLoginQueue() {
        usePamTest("env=PRIVILEGES=511 password=right");
        configure("location / {", std::string("location = ") + statusPath +
                                      " { stub_status; }\n        location / {");
    }

    void configure(const std::string& text, const std::string& replacement) {
        std::string configuration = controller.readFile(webConfigurationFile);
        const std::size_t at = configuration.find(text);
        ASSERT_NE(at, std::string::npos) << text;
        controller.writeFile(webConfigurationFile,
                             configuration.replace(at, text.size(), replacement));
    }

    HttpResponse loginFrom(const std::string& address, const std::string& password = "right",
                           const std::string& user = "somebody") {
        return newClient({.sourceAddress = address}).login(user, password);
    }
    std::future<long> startLogin(const std::string& address, const std::string& user = "somebody") {
        return std::async(std::launch::async,
                          [=, this] { return loginFrom(address, "right", user).status; });
    }
    // A login whose client does not wait for the answer.
    void sendLogin(TlsConnection& connection, const std::string& user) {
        const std::string body = nlohmann::json{{"UserName", user}, {"Password", "right"}}.dump();
        connection.send("POST " + std::string(sessionsUri) +
                        " HTTP/1.1\r\nHost: testbed\r\nContent-Type: application/json\r\n"
                        "Content-Length: " +
                        std::to_string(body.size()) + "\r\n\r\n" + body);
    }

    // How many requests are being handled, without the one that asks.
    int handled() {
        const std::string status = client().get(statusPath).body;
        const std::string label = "Writing: ";
        return std::stoi(status.substr(status.find(label) + label.size())) - 1;
    }
    // Logins that wait until their clients have gone.
    void sendLoginsAndGo(const std::string& address, int count) {
        std::vector<TlsConnection> connections;
        for (int i = 0; i < count; ++i) {
            const int before = handled();
            connections.push_back(newClient({.sourceAddress = address}).connect());
            sendLogin(connections.back(), "gone");
            waitUntilHandled(before + 1);
        }
    }
    void waitUntilHandled(int count) {
        waitUntil(std::to_string(count) + " requests are being handled",
                  [&] { return handled() == count; });
    }
    // Those that the daemon has got and not answered yet.
    std::size_t requestsInService() { return store().keys("&&/frontend/*/request").size(); }
    void waitUntilInService(std::size_t count) {
        waitUntil(std::to_string(count) + " logins are in the service",
                  [&] { return requestsInService() == count; });
    }

    // A field of each login that PAM has seen, in their order.
    Words seenByPam(const std::string& field) {
        Words seen;
        for (const PamRecord& record : pamRecords()) {
            if (record.at("entry") == "auth") {
                seen.push_back(record.at(field));
            }
        }
        return seen;
    }
    void expectSessions(long long count) {
        waitUntil(std::to_string(count) + " sessions are left", [&] {
            return store().llen(membersKey) == count &&
                   store().keys(tokenKey("*")).size() == static_cast<std::size_t>(count);
        });
    }
    Words refusedLogins() { return splitLines(controller.readFile(webRefusedLoginsFile)); }
    void waitForRefusedLogins(std::size_t count) {
        waitUntil(std::to_string(count) + " refused logins are logged",
                  [&] { return refusedLogins().size() == count; });
    }
};

// --- who waits

TEST_F(WebLoginQueue, LeavesTwoLoginsToTheServiceAtATime) {
    holdPam();
    std::vector<std::future<long>> logins;
    for (int i = 1; i <= 5; ++i) {
        logins.push_back(startLogin("127.0.0." + std::to_string(i)));
    }
    waitUntilHandled(5);
    waitUntilInService(2);
    EXPECT_EQ(client().get("/redfish/v1").status, 200);
    EXPECT_EQ(requestsInService(), 2U);
    releasePam();
    for (std::future<long>& login : logins) {
        EXPECT_EQ(login.get(), 201);
    }
    EXPECT_EQ(store().llen(membersKey), 5);
}

TEST_F(WebLoginQueue, PutsThoseThatHaveFailedBehindTheOthers) {
    EXPECT_EQ(loginFrom("127.0.0.5", "wrong").status, 401);
    holdPam();
    std::vector<std::future<long>> logins;
    logins.push_back(startLogin("127.0.0.1"));
    logins.push_back(startLogin("127.0.0.2"));
    waitUntilInService(2);
    logins.push_back(startLogin("127.0.0.5"));
    waitUntilHandled(3);
    logins.push_back(startLogin("127.0.0.6"));
    waitUntilHandled(4);
    releasePam();
    for (std::future<long>& login : logins) {
        EXPECT_EQ(login.get(), 201);
    }
    const Words addresses = seenByPam("rhost");
    EXPECT_EQ((Words{addresses.end() - 2, addresses.end()}), (Words{"127.0.0.6", "127.0.0.5"}));
}

TEST_F(WebLoginQueue, IsFairBetweenAddresses) {
    holdPam();
    std::vector<std::future<long>> logins;
    for (int i = 0; i < 5; ++i) {
        logins.push_back(startLogin("127.0.0.1"));
    }
    waitUntilHandled(5);
    waitUntilInService(2);
    logins.push_back(startLogin("127.0.0.2"));
    waitUntilHandled(6);
    releasePam();
    for (std::future<long>& login : logins) {
        EXPECT_EQ(login.get(), 201);
    }
    const Words addresses = seenByPam("rhost");
    ASSERT_EQ(addresses.size(), 6U);
    EXPECT_EQ(addresses[2], "127.0.0.2");
}

// The stack says no as slowly as real ones do.
TEST_F(WebLoginQueue, ServesOthersWhileTenAddressesGuess) {
    usePamLines("auth optional pam_faildelay.so delay=2000000\nauth required " +
                std::string("/usr/local/lib/security/pam_test.so") +
                " env=PRIVILEGES=511 password=right\n" +
                "account required /usr/local/lib/security/pam_test.so\n");
    std::atomic<bool> isOver = false;
    std::vector<std::jthread> guessing;
    for (int i = 0; i < 30; ++i) {
        guessing.emplace_back([this, &isOver, i] {
            const std::string address = "127.0.1." + std::to_string(1 + i % 10);
            while (!isOver) {
                try {
                    EXPECT_NE(loginFrom(address, "wrong").status, 201);
                } catch (const Failure& failure) {
                    EXPECT_TRUE(isOver) << failure.what();
                }
            }
        });
    }
    for (int i = 0; i < 4; ++i) {
        const auto start = Clock::now();
        HttpClient right = newClient({.sourceAddress = "127.0.2.1"});
        const HttpResponse session = right.login("somebody", "right");
        EXPECT_EQ(session.status, 201);
        EXPECT_LT(secondsSince(start), 10);
        EXPECT_EQ(right.remove(session.location()).status, 204);
    }
    isOver = true;
    // What waits in the queue need not be waited for.
    EXPECT_EQ(toText(web.stop()), toText(ExitStatus{}));
}

TEST_F(WebLoginQueue, StoresNothingWithoutAnExpiry) {
    holdPam();
    std::future<long> login = startLogin("127.0.0.1");
    waitUntilPamHolds();
    const Words keys = store().keys("&&/frontend/*");
    EXPECT_EQ(keys.size(), 1U);
    for (const std::string& key : keys) {
        EXPECT_GT(store().run({"TTL", key}).integer, 0) << key;
    }
    releasePam();
    EXPECT_EQ(login.get(), 201);
}

class WebLoginQueueOfOneTurn : public WebLoginQueue {
  protected:
    WebLoginQueueOfOneTurn() { changeSetting("maxLogins", "1"); }
};

TEST_F(WebLoginQueueOfOneTurn, IsServedToItsEndByAWorkerThatEnds) {
    holdPam();
    {
        TlsConnection connection = newClient().connect();
        sendLogin(connection, "gone");
        waitUntilPamHolds();
    }
    std::vector<std::future<long>> logins;
    for (int i = 0; i < 5; ++i) {
        logins.push_back(startLogin("127.0.0.1"));
    }
    waitUntilHandled(6);
    const pid_t worker = reload();
    releasePam();
    for (std::future<long>& login : logins) {
        EXPECT_EQ(login.get(), 201);
    }
    expectSessions(5);
    waitUntil("the worker has ended", [&] {
        const std::vector<pid_t> workers = childrenOf(web.process().pid());
        return std::find(workers.begin(), workers.end(), worker) == workers.end();
    });
}

// --- who leaves

TEST_F(WebLoginQueue, LogsOutAClientThatHasGoneMeanwhile) {
    holdPam();
    {
        TlsConnection connection = newClient().connect();
        sendLogin(connection, "gone");
        waitUntilPamHolds();
    }
    releasePam();
    waitUntil("the login is answered", [this] { return requestsInService() == 0; });
    expectSessions(0);
    EXPECT_EQ(seenByPam("user"), Words{"gone"});
}

TEST_F(WebLoginQueue, DropsALoginWhoseClientHasGone) {
    holdPam();
    std::future<long> first = startLogin("127.0.0.1");
    std::future<long> second = startLogin("127.0.0.1");
    waitUntilInService(2);
    {
        TlsConnection connection = newClient().connect();
        sendLogin(connection, "gone");
        waitUntilHandled(3);
    }
    // It closes right after sending.
    {
        TlsConnection connection = newClient().connect();
        sendLogin(connection, "gone");
    }
    waitUntilHandled(4);
    std::future<long> last = startLogin("127.0.0.1", "last");
    waitUntilHandled(5);
    releasePam();
    EXPECT_EQ(first.get(), 201);
    EXPECT_EQ(second.get(), 201);
    EXPECT_EQ(last.get(), 201);
    EXPECT_THAT(seenByPam("user"), ElementsAre("somebody", "somebody", "last"));
    expectSessions(3);
}

TEST_F(WebLoginQueue, DoesNotPutOthersBackForClientsThatHaveGone) {
    holdPam();
    std::vector<std::future<long>> logins;
    logins.push_back(startLogin("127.0.0.9"));
    logins.push_back(startLogin("127.0.0.9"));
    waitUntilInService(2);
    sendLoginsAndGo("127.0.0.1", 2);
    for (const char* address : {"127.0.0.1", "127.0.0.2", "127.0.0.2"}) {
        const int before = handled();
        logins.push_back(startLogin(address));
        waitUntilHandled(before + 1);
    }
    releasePam();
    for (std::future<long>& login : logins) {
        EXPECT_EQ(login.get(), 201);
    }
    EXPECT_THAT(seenByPam("rhost"),
                ElementsAre("127.0.0.9", "127.0.0.9", "127.0.0.1", "127.0.0.2", "127.0.0.2"));
}

class WebLoginQueueOfShortTime : public WebLoginQueue {
  protected:
    WebLoginQueueOfShortTime() { changeSetting("answerTimeout", "0.5"); }
};

TEST_F(WebLoginQueueOfShortTime, DropsALoginWhoseTimeIsOver) {
    holdPam();
    std::vector<std::future<long>> logins;
    for (int i = 0; i < 4; ++i) {
        logins.push_back(startLogin("127.0.0.1"));
    }
    for (std::future<long>& login : logins) {
        EXPECT_EQ(login.get(), 503);
    }
    releasePam();
    waitUntil("the late answers are taken", [this] { return requestsInService() == 0; });
    expectSessions(0);
    EXPECT_EQ(seenByPam("user").size(), 2U);
    EXPECT_THAT(refusedLogins(), testing::Contains(HasSubstr("no turn in time")));
}

TEST_F(WebLoginQueueOfShortTime, GoesOnWhenTheServiceDoesNotAnswer) {
    holdPam();
    // Each of them is given up, and the next one has its turn.
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(loginFrom("127.0.0.1").status, 503);
    }
    waitUntilInService(4);
    releasePam();
    waitUntil("the late answers are taken", [this] { return requestsInService() == 0; });
    expectSessions(0);
}

// nginx runs no timer without a connection to spare, and starts none later.
class WebLoginQueueOfAFullServer : public WebLoginQueueOfShortTime {
  protected:
    WebLoginQueueOfAFullServer() {
        configure("worker_connections 1024;", "worker_connections 40;");
    }
    void fill() {
        try {
            while (true) {
                others.push_back(newClient({.sourceAddress = "127.0.0.7"}).connect());
                // It would be closed for another one as long as nothing has come.
                others.back().send("P");
            }
        } catch (const Failure&) {
            // There is no connection left.
        }
    }
    void waitForForgottenTimers() {
        waitUntil("timers are forgotten",
                  [this] { return contains(web.errorLog(), "could not create fake connection"); });
    }

    std::vector<TlsConnection> others;
};

TEST_F(WebLoginQueueOfAFullServer, LosesNoTurnAndNoSession) {
    expectWebErrorLine("worker_connections are not enough");
    expectWebErrorLine("could not create fake connection");
    holdPam();
    std::vector<TlsConnection> late;
    for (const char* address : {"127.0.0.1", "127.0.0.2"}) {
        late.push_back(newClient({.sourceAddress = address}).connect());
        sendLogin(late.back(), "somebody");
        // The beginning of another request: the connection is not closed when nginx needs one.
        late.back().send("G");
    }
    waitUntilInService(2);
    fill();
    for (TlsConnection& login : late) {
        EXPECT_THAT(login.receiveUntil("\r\n"), HasSubstr(" 503 "));
    }
    waitForForgottenTimers();
    others.clear();
    late.clear();
    releasePam();
    waitUntil("the late answers are taken", [this] { return requestsInService() == 0; });
    expectSessions(0);
    // Both turns are there: one for an address from where something has failed as well.
    EXPECT_EQ(loginFrom("127.0.0.3", "wrong").status, 401);
    EXPECT_EQ(loginFrom("127.0.0.3").status, 201);
}

// --- who gets a place

class WebLoginPlaces : public WebLoginQueue {
  protected:
    void insertSessions(int count, const std::string& user) {
        for (int i = 0; i < count; ++i) {
            frontEnd().insertSession({.userName = user});
        }
    }
    // A manager's login reaches the service while another one is held there, which then goes on.
    void expectPlaceForAManager() {
        std::future<long> manager = startLogin("127.0.0.9", "manager");
        waitUntilInService(2);
        releasePam();
        EXPECT_EQ(manager.get(), 201);
        expectSessions(8);
    }
    void setEnabled(const char* enabled) {
        store().hset(serviceUri, {{"ServiceEnabled", enabled}});
    }
    // Has a session that is shared by requests with credentials, whose logout is then refused.
    void shareSessionWithoutLogout(HttpClient& basic) {
        basic.useBasic("somebody", "right");
        EXPECT_EQ(basic.get(serviceUri).status, 200);
        setEnabled("false");
        waitForLog("Session Service disabled.");
    }
};

TEST_F(WebLoginPlaces, OfASessionTooManyOfItsUserAreForOthers) {
    insertSessions(6, "greedy");
    insertSessions(1, "another");
    holdPam();
    std::future<long> greedy = startLogin("127.0.0.1", "greedy");
    waitUntilPamHolds();
    expectPlaceForAManager();
    EXPECT_EQ(greedy.get(), 503);
}

TEST_F(WebLoginPlaces, OfAClientThatHasGoneAreForOthers) {
    insertSessions(7, "another");
    holdPam();
    {
        TlsConnection connection = newClient().connect();
        sendLogin(connection, "gone");
        waitUntilPamHolds();
    }
    expectPlaceForAManager();
}

TEST_F(WebLoginPlaces, OfAnAnswerThatComesTooLateAreForOthers) {
    changeSetting("answerTimeout", "3");
    web.restart();
    insertSessions(7, "another");
    holdPam();
    std::future<long> late = startLogin("127.0.0.1", "late");
    waitUntilPamHolds();
    EXPECT_EQ(late.get(), 503);
    expectPlaceForAManager();
}

TEST_F(WebLoginPlaces, CannotBeKeptFromManagersByManyLoginsOfOneUser) {
    insertSessions(6, "greedy");
    insertSessions(1, "another");
    std::atomic<bool> isOver = false;
    std::vector<std::jthread> clients;
    for (int i = 0; i < 6; ++i) {
        clients.emplace_back([this, &isOver] {
            while (!isOver) {
                EXPECT_EQ(loginFrom("127.0.0.1", "right", "greedy").status, 503);
            }
        });
    }
    for (int i = 0; i < 20; ++i) {
        HttpClient manager = newClient({.sourceAddress = "127.0.0.2"});
        const HttpResponse session = manager.login("manager", "right");
        EXPECT_EQ(session.status, 201);
        EXPECT_EQ(manager.remove(session.location()).status, 204);
    }
    isOver = true;
    clients.clear();
    expectSessions(7);
}

// The service refuses the logout at first.
TEST_F(WebLoginPlaces, AreFreeAsSoonAsASessionIsBeingEnded) {
    usePamTest("env=PRIVILEGES=1 password=right");
    insertSessions(6, "greedy");
    holdPam();
    std::future<long> greedy = startLogin("127.0.0.1", "greedy");
    waitUntilPamHolds();
    setEnabled("false");
    releasePam();
    EXPECT_EQ(greedy.get(), 503);
    waitForLog("Session Service disabled.");
    setEnabled("true");
    EXPECT_EQ(loginFrom("127.0.0.2", "right", "somebody").status, 201);
    expectSessions(7);
}

TEST_F(WebLoginPlaces, AreFreeWhenALogoutThatWasRefusedIsTakenLater) {
    HttpClient basic = newClient();
    shareSessionWithoutLogout(basic);
    setEnabled("true");
    expectSessions(0);
    EXPECT_EQ(basic.get(serviceUri).status, 200);
    expectSessions(0);
}

TEST_F(WebLoginPlaces, ThatAreNotFreeYetDoNotKeepAWorkerFromItsEnd) {
    HttpClient basic = newClient();
    shareSessionWithoutLogout(basic);
    web.process().signal(SIGQUIT);
    EXPECT_EQ(toText(web.process().wait()), toText(ExitStatus{}));
    web.start();
}

// --- who fails

class WebLoginFailures : public WebLoginQueue {
  protected:
    WebLoginFailures() {
        changeSetting("maxFailures", "3");
        changeSetting("failureSeconds", "1");
    }
};

TEST_F(WebLoginFailures, AreDelayedBeyondTheLimitAndNotRefused) {
    const auto start = Clock::now();
    for (int i = 0; i < 6; ++i) {
        EXPECT_EQ(loginFrom("127.0.0.1", "wrong").status, 401);
    }
    // Three are free, and three times one has to be forgotten; the last of them need not be waited
    // for.
    EXPECT_GT(secondsSince(start), 1.9);
    const auto elsewhere = Clock::now();
    EXPECT_EQ(loginFrom("127.0.0.2", "wrong").status, 401);
    EXPECT_LT(secondsSince(elsewhere), 1);
    EXPECT_EQ(loginFrom("127.0.0.1").status, 201);
}

TEST_F(WebLoginFailures, AreCountedAndSuccessesAreNot) {
    const auto start = Clock::now();
    for (int i = 0; i < 30; ++i) {
        HttpClient each = newClient();
        EXPECT_EQ(each.remove(each.login("somebody", "right").location()).status, 204);
    }
    EXPECT_EQ(loginFrom("127.0.0.1", "wrong").status, 401);
    EXPECT_LT(secondsSince(start), 20);
}

TEST_F(WebLoginFailures, DoNotDelayRequestsWithAToken) {
    const InsertedSession session = frontEnd().insertSession();
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(loginFrom("127.0.0.1", "wrong").status, 401);
    }
    HttpClient reading = newClient({.sourceAddress = "127.0.0.1"});
    reading.useToken(session.token);
    reading.useBasic("somebody", "wrong");
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(reading.get(serviceUri).status, 200);
    }
    EXPECT_EQ(seenByPam("user").size(), 4U);
}

class WebLateLoginFailures : public WebLoginQueueOfShortTime {
  protected:
    WebLateLoginFailures() {
        changeSetting("maxFailures", "0");
        changeSetting("failureSeconds", "600");
    }
};

TEST_F(WebLateLoginFailures, AreCountedThoughTheirClientsHaveNotWaited) {
    holdPam();
    EXPECT_EQ(loginFrom("127.0.0.1", "wrong").status, 503);
    releasePam();
    waitUntil("the late answer is taken", [this] { return requestsInService() == 0; });
    EXPECT_EQ(loginFrom("127.0.0.1").status, 503);
    EXPECT_EQ(loginFrom("127.0.0.2").status, 201);
    EXPECT_THAT(seenByPam("rhost"), ElementsAre("127.0.0.1", "127.0.0.2"));
}

class WebLoginNetworks : public WebLoginFailures {
  protected:
    WebLoginNetworks() {
        changeSetting("failureSeconds", "600");
        changeSetting("answerTimeout", "1");
        configure("merge_slashes off;",
                  "set_real_ip_from 127.0.0.0/8; real_ip_header X-Address; merge_slashes off;");
    }
    long wrongLoginFrom(const std::string& address) {
        return newClient()
            .request({.method = "POST",
                      .path = sessionsUri,
                      .headers = {"X-Address: " + address},
                      .body = R"({"UserName":"somebody","Password":"wrong"})"})
            .status;
    }
};

TEST_F(WebLoginNetworks, AreOneForAllAddressesThatAClientCanChoose) {
    EXPECT_EQ(wrongLoginFrom("2001:db8::1"), 401);
    EXPECT_EQ(wrongLoginFrom("2001:db8::2"), 401);
    EXPECT_EQ(wrongLoginFrom("2001:db8:0:0:ffff::"), 401);
    EXPECT_EQ(wrongLoginFrom("2001:db8::ffff"), 401);
    EXPECT_EQ(wrongLoginFrom("2001:db8::4"), 503);
    EXPECT_EQ(wrongLoginFrom("2001:db8:0:1::1"), 401);
    for (const char* address : {"192.0.2.1", "::ffff:192.0.2.1", "192.0.2.1", "192.0.2.1"}) {
        EXPECT_EQ(wrongLoginFrom(address), 401) << address;
    }
    EXPECT_EQ(wrongLoginFrom("192.0.2.1"), 503);
    EXPECT_EQ(wrongLoginFrom("::ffff:192.0.2.1"), 503);
    EXPECT_EQ(wrongLoginFrom("::ffff:192.0.2.2"), 401);
}

class WebLoginCrowd : public WebLoginQueue {
  protected:
    WebLoginCrowd() {
        changeSetting("maxWaiting", "4");
        changeSetting("maxWaitingOfAddress", "3");
    }
};

TEST_F(WebLoginCrowd, IsRefusedFarBeyondWhatCanBeServed) {
    holdPam();
    std::vector<std::future<long>> logins;
    for (int i = 0; i < 5; ++i) {
        logins.push_back(startLogin("127.0.0.1"));
        waitUntilHandled(i + 1);
    }
    waitUntilInService(2);
    const HttpResponse oneTooMany = loginFrom("127.0.0.1");
    EXPECT_EQ(oneTooMany.status, 429);
    EXPECT_NE(oneTooMany.header("retry-after"), "");
    // Others find room, where it has to be at the cost of those that wait most.
    logins.push_back(startLogin("127.0.0.2"));
    waitUntilHandled(6);
    logins.push_back(startLogin("127.0.0.3"));
    EXPECT_EQ(logins[4].get(), 429);
    logins.erase(logins.begin() + 4);
    waitUntilHandled(6);
    releasePam();
    for (std::future<long>& login : logins) {
        EXPECT_EQ(login.get(), 201);
    }
}

TEST_F(WebLoginCrowd, DoesNotConsistOfClientsThatHaveGone) {
    holdPam();
    std::vector<std::future<long>> logins;
    logins.push_back(startLogin("127.0.0.1"));
    logins.push_back(startLogin("127.0.0.1"));
    waitUntilInService(2);
    sendLoginsAndGo("127.0.0.1", 3);
    logins.push_back(startLogin("127.0.0.1"));
    waitUntilHandled(3);
    // Nor when there are too many of all addresses.
    sendLoginsAndGo("127.0.0.2", 3);
    logins.push_back(startLogin("127.0.0.3"));
    waitUntilHandled(4);
    releasePam();
    for (std::future<long>& login : logins) {
        EXPECT_EQ(login.get(), 201);
    }
}

// --- names

class WebLoginWithoutAName : public WebLoginQueue {
  protected:
    WebLoginWithoutAName() { changeSetting("refusalSeconds", "0.7"); }
};

TEST_F(WebLoginWithoutAName, IsRefusedAsSlowlyAsAnyOtherAndDoesNotReachTheService) {
    for (int i = 0; i < 2; ++i) {
        const auto start = Clock::now();
        const HttpResponse answer =
            i == 0 ? loginFrom("127.0.0.1", "right", "")
                   : client().request(
                         {.path = serviceUri, .headers = {"Authorization: Basic OnJpZ2h0"}});
        EXPECT_GE(secondsSince(start), 0.65);
        EXPECT_EQ(answer.status, 401);
        EXPECT_NE(answer.header("www-authenticate"), "");
    }
    EXPECT_TRUE(pamRecords().empty());
    waitForRefusedLogins(2);
}

class WebLoginsWithoutAName : public WebLoginFailures {
  protected:
    WebLoginsWithoutAName() {
        changeSetting("refusalSeconds", "0");
        changeSetting("failureSeconds", "600");
        changeSetting("answerTimeout", "1");
    }
};

TEST_F(WebLoginsWithoutAName, KeepNobodyOfTheirAddressOut) {
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(loginFrom("127.0.0.1", "right", "").status, 401);
    }
    EXPECT_EQ(loginFrom("127.0.0.1").status, 201);
}

TEST_F(WebLoginQueue, LeavesALineForEachLoginThatIsRefused) {
    loginFrom("127.0.0.3", "wrong", "plain");
    loginFrom("127.0.0.4", "wrong", "two\nlines \x1b[31m \"quoted\" \u00e9\U0001f512");
    HttpClient basic = newClient({.sourceAddress = "127.0.0.5"});
    basic.useBasic("by\xff", "wrong");
    EXPECT_EQ(basic.get(serviceUri).status, 401);
    EXPECT_EQ(loginFrom("127.0.0.3").status, 201);
    waitForRefusedLogins(3);
    const Words lines = refusedLogins();
    const auto matches = [](const std::string& address, const std::string& rest) {
        return testing::AllOf(testing::StartsWith(address + " ["),
                              testing::EndsWith("] " + rest + " wrong name or password"));
    };
    EXPECT_THAT(lines[0], matches("127.0.0.3", R"("plain")"));
    EXPECT_THAT(lines[1],
                matches("127.0.0.4", R"("two\nlines \u001b[31m \"quoted\" \u00e9\ud83d\udd12")"));
    EXPECT_THAT(lines[2], matches("127.0.0.5", R"("by\ufffd")"));
    EXPECT_EQ(controller.readFile(webRefusedLoginsFile).find("wrong\""), std::string::npos);
}

TEST_F(WebLoginQueue, SaysWhyALoginIsRefused) {
    usePamTest("env=PRIVILEGES=0");
    EXPECT_EQ(loginFrom("127.0.0.1").status, 403);
    EXPECT_EQ(loginFrom("127.0.0.1", "right", std::string(300, 'n')).status, 400);
    store().hset(serviceUri, {{"ServiceEnabled", "false"}});
    EXPECT_EQ(loginFrom("127.0.0.1").status, 503);
    waitForRefusedLogins(3);
    const Words lines = refusedLogins();
    EXPECT_THAT(lines[0], testing::EndsWith(" Base.1.12.InsufficientPrivilege"));
    EXPECT_THAT(lines[1], testing::EndsWith(" name too long"));
    EXPECT_THAT(lines[2], testing::EndsWith(" ExtendedError.1.2.ServiceDisabled"));
}

}  // namespace
}  // namespace testbed
