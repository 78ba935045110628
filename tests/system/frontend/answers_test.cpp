// How the web front end speaks with the store, and how it stands the store's coming and going.
#include <signal.h>

#include <algorithm>
#include <future>

#include "support/web_test.h"

namespace testbed {
namespace {

// The daemon reaches the store in another way, so that MONITOR tells the two apart.
class WebAnswers : public WebTest {
  protected:
    WebAnswers() : WebTest({.storeOverTcp = true}) {}

    // What the front end sent to the store during an action: the commands' names.
    Words commandsDuring(const std::function<void()>& action) {
        Monitor monitor = controller.monitor();
        action();
        Words names;
        for (const MonitoredCommand& command : monitor.soFar()) {
            std::string name = command.words.front();
            std::transform(name.begin(), name.end(), name.begin(), tolower);
            if (command.client.rfind("unix:", 0) == 0) {
                names.push_back(name);
            }
        }
        return names;
    }
    HttpResponse login() { return client().login(administrator.name, administrator.password); }
    std::future<HttpResponse> startLogin() {
        return std::async(std::launch::async, [this] {
            return newClient().login(administrator.name, administrator.password);
        });
    }

    void killSubscriptions() {
        const std::string clients = store().run({"CLIENT", "LIST", "TYPE", "pubsub"}).text;
        for (const std::string& line : splitLines(clients)) {
            if (line.find(" psub=1 ") != std::string::npos) {
                store().run({"CLIENT", "KILL", "ID", line.substr(3, line.find(' ') - 3)});
            }
        }
    }
    void expectNoSession() {
        waitUntil("no session is left", [&] {
            return store().llen(membersKey) == 0 &&
                   store().keys(sessionsUri + std::string("/*")).empty();
        });
    }
};

TEST_F(WebAnswers, TakeOneCommandToAskAndOneToTakeThem) {
    client().remove(login().location());

    std::string session;
    EXPECT_EQ(commandsDuring([&] { session = login().location(); }), (Words{"evalsha", "evalsha"}));
    // With the look-up of the session and of the resource before.
    Words commands =
        commandsDuring([&] { client().patch(serviceUri, R"({"SessionTimeout":600})"); });
    EXPECT_EQ(commands.size(), 4U);
    commands = commandsDuring([&] { EXPECT_EQ(client().remove(session).status, 204); });
    EXPECT_EQ(commands.size(), 4U);
    EXPECT_EQ((Words{commands.end() - 2, commands.end()}), (Words{"evalsha", "evalsha"}));
}

TEST_F(WebAnswers, ComeFromAStoreThatHasForgottenItsScripts) {
    for (int i = 0; i < 2; ++i) {
        const HttpResponse session = login();
        EXPECT_EQ(session.status, 201);
        EXPECT_EQ(client().get(session.location()).status, 200);
        EXPECT_EQ(client().remove(session.location()).status, 204);
        store().run({"SCRIPT", "FLUSH"});
        controller.loadScripts();
    }
}

TEST_F(WebAnswers, AreHeardAgainAfterTheSubscriptionWasLost) {
    EXPECT_EQ(login().status, 201);
    killSubscriptions();
    waitUntil("a login is answered", [this] { return login().status == 201; });
}

TEST_F(WebAnswers, ThatCameWhileNobodyListenedLeaveNoSession) {
    usePamTest("env=PRIVILEGES=511");
    holdPam();
    std::future<HttpResponse> held = startLogin();
    waitUntilPamHolds();
    killSubscriptions();
    // Nobody would hear the answer: the client is told at once.
    const HttpResponse answer = held.get();
    EXPECT_EQ(answer.status, 503);
    EXPECT_NE(answer.header("retry-after"), "");
    releasePam();
    expectNoSession();
}

TEST_F(WebAnswers, AreHeardAgainOnceTheStoreIsBack) {
    expectWebErrorLine("redis.sock failed");
    EXPECT_EQ(login().status, 201);
    stopDaemon();
    EXPECT_EQ(login().status, 503);
    EXPECT_EQ(newClient().get("/redfish/v1").status, 503);
    start();
    waitUntil("a login is answered", [this] { return login().status == 201; });
}

TEST_F(WebAnswers, AreHeardByAWorkerThatEnds) {
    usePamTest("env=PRIVILEGES=511");
    holdPam();
    std::future<HttpResponse> held = startLogin();
    waitUntilPamHolds();
    const pid_t worker = reload();
    releasePam();
    EXPECT_EQ(held.get().status, 201);
    waitUntil("the worker has ended", [&] {
        const std::vector<pid_t> workers = childrenOf(web.process().pid());
        return std::find(workers.begin(), workers.end(), worker) == workers.end();
    });
    EXPECT_EQ(newClient().login(administrator.name, administrator.password).status, 201);
}

// Nobody else uses the store.
class WebReads : public WebAnswers {
  protected:
    void SetUp() override {
        startStore();
        web.start();
        client().useToken(frontEnd().insertSession().token);
    }

    // How often the store has received anything.
    long received() {
        const std::string statistics = store().run({"INFO", "stats"}).text;
        const std::string name = "total_reads_processed:";
        return std::stol(statistics.substr(statistics.find(name) + name.size()));
    }
};

TEST_F(WebReads, TakeOneRoundTrip) {
    constexpr long count = 20;
    for (const char* path : {serviceUri, sessionsUri, "/redfish/v1/Systems/1", "/redfish/v1"}) {
        // The first time it shows what it consists of.
        EXPECT_EQ(client().get(path).status, 200);
        const long before = received();
        for (int i = 0; i < count; ++i) {
            EXPECT_EQ(client().get(path).status, 200);
        }
        // One is the question itself.
        EXPECT_EQ(received() - before, count + 1) << path;
    }
}

class WebWorkers : public WebAnswers {
  protected:
    WebWorkers() {
        std::string configuration = controller.readFile(webConfigurationFile);
        const std::string one = "worker_processes 1;";
        controller.writeFile(
            webConfigurationFile,
            configuration.replace(configuration.find(one), one.size(), "worker_processes 3;"));
    }
};

TEST_F(WebWorkers, HearTheirOwnAnswers) {
    std::vector<std::future<void>> clients;
    for (int i = 0; i < 6; ++i) {
        clients.push_back(std::async(std::launch::async, [this] {
            for (int round = 0; round < 5; ++round) {
                HttpClient each = newClient();
                const HttpResponse session = each.login(administrator.name, administrator.password);
                EXPECT_EQ(session.status, 201);
                EXPECT_EQ(each.get(session.location()).status, 200);
                EXPECT_EQ(each.remove(session.location()).status, 204);
            }
        }));
    }
    for (std::future<void>& each : clients) {
        each.get();
    }
    expectNoSession();
}

}  // namespace
}  // namespace testbed
