#include <algorithm>
#include <atomic>

#include "support/daemon_names.h"
#include "support/store_proxy.h"
#include "support/system_test.h"
#include "testbed/events_and_audit_log.h"

namespace testbed {
namespace {

using Commands = std::vector<Words>;

constexpr ExitStatus failedStart{.bySignal = false, .value = 255};

class ServiceBootstrap : public SystemTest {
  protected:
    explicit ServiceBootstrap(const ControllerOptions& options = {}) : SystemTest(options) {}
    void SetUp() override { startStore(); }
};

TEST_F(ServiceBootstrap, PutsThePatchChannelIntoItsQueue) {
    startDaemon();
    EXPECT_EQ(store().lrange(patchQueue), Words{patchChannel});
}

TEST_F(ServiceBootstrap, PutsItThereOnceOnly) {
    startDaemon();
    controller.daemon().kill();
    startDaemon();
    EXPECT_EQ(store().lrange(patchQueue), Words{patchChannel});
}

TEST_F(ServiceBootstrap, LeavesAQueueWithOtherEntriesAsItIs) {
    store().run({"RPUSH", patchQueue, "other"});
    startDaemon();
    EXPECT_EQ(store().lrange(patchQueue), Words{"other"});
    EXPECT_EQ(frontEnd().patch({{"SessionTimeout", "300"}}).status(), "OK");
}

TEST_F(ServiceBootstrap, FillsAnEmptyQueueOfAKeptStore) {
    startDaemon();
    controller.daemon().kill();
    store().del(patchQueue);
    startDaemon();
    EXPECT_EQ(store().lrange(patchQueue), Words{patchChannel});
}

struct StoredTimeout {
    const char* name;
    const char* text;
    const char* logged;  // empty: nothing
};

class StoredTimeoutTest : public ServiceBootstrap,
                          public testing::WithParamInterface<StoredTimeout> {};

TEST_P(StoredTimeoutTest, StartsAndLogs) {
    controller.removeFile(persistentFile);
    store().hset(serviceUri, {{"SessionTimeout", GetParam().text}});
    startDaemon();
    Words logged;
    for (const LogLine& line : logLines()) {
        if (line.message.rfind("SessionTimeout value", 0) == 0) {
            logged.push_back(line.tag + " " + line.message);
        }
    }
    const std::string expected = GetParam().logged;
    EXPECT_EQ(logged, expected.empty() ? Words{} : Words{"[Debug] " + expected});
    EXPECT_EQ(store().hget(serviceUri, "SessionTimeout"), GetParam().text);
    EXPECT_EQ(frontEnd().patch({{"SessionTimeout", GetParam().text}}).status(), "OK");
}

constexpr char typeError[] = "SessionTimeout value type error stoi";
constexpr char outOfRange[] = "SessionTimeout value out of range stoi";

INSTANTIATE_TEST_SUITE_P(
    Of, StoredTimeoutTest,
    testing::Values(
        StoredTimeout{"Plain", "300", ""}, StoredTimeout{"LeadingBlanks", "  \t300", ""},
        StoredTimeout{"PlusSign", "+300", ""}, StoredTimeout{"MinusSign", "-300", ""},
        StoredTimeout{"TrailingText", "300 seconds", ""}, StoredTimeout{"Fraction", "1.5", ""},
        StoredTimeout{"Largest", "2147483647", ""}, StoredTimeout{"Smallest", "-2147483648", ""},
        StoredTimeout{"AboveLargest", "2147483648", outOfRange},
        StoredTimeout{"BelowSmallest", "-2147483649", outOfRange},
        StoredTimeout{"ManyDigits", "99999999999999999999", outOfRange},
        StoredTimeout{"Letters", "abc", typeError}, StoredTimeout{"Quoted", "\"300\"", typeError},
        StoredTimeout{"Empty", "", typeError}, StoredTimeout{"SignOnly", "-", typeError},
        StoredTimeout{"PercentSigns", "%s%n", typeError}),
    [](const auto& instance) { return instance.param.name; });

struct Settings {
    const char* name;
    Fields stored;
    const char* read;

    friend void PrintTo(const Settings& value, std::ostream* out) { *out << value.name; }
};

class ServiceSettings : public ServiceBootstrap, public testing::WithParamInterface<Settings> {};

TEST_P(ServiceSettings, AreThoseOfTheStoreAtTheStart) {
    constexpr char probe[] = "/usr/local/bin/service_probe";
    controller.install(TEST_SERVICE_PROBE, probe);
    store().del(serviceUri);
    store().hset(serviceUri, GetParam().stored);
    const auto program = controller.startProgram({.command = {probe}, .ofThisBuild = true});
    waitUntil("the settings have been read", [this] {
        return store().run({"PUBSUB", "NUMSUB", patchChannel}).elements.at(1).integer > 0;
    });
    store().hset(serviceUri, {{"ServiceEnabled", "true"}, {"SessionTimeout", "77"}});
    controller.stopStore();
    EXPECT_EQ(toText(program->wait()), toText(ExitStatus{}));
    EXPECT_EQ(controller.outputOf("service_probe"), GetParam().read);
}

INSTANTIATE_TEST_SUITE_P(
    Of, ServiceSettings,
    testing::Values(Settings{"AService",
                             {{"ServiceEnabled", "true"}, {"SessionTimeout", "600"}},
                             "enabled 1 timeout 600\n"},
                    Settings{"ADisabledService",
                             {{"ServiceEnabled", "false"}, {"SessionTimeout", " -30s"}},
                             "enabled 0 timeout -30\n"},
                    Settings{"AServiceThatIsEnabledInOtherWords",
                             {{"ServiceEnabled", "True"}, {"SessionTimeout", "2147483647"}},
                             "enabled 0 timeout 2147483647\n"},
                    Settings{"AServiceWhoseTimeoutIsNoNumber",
                             {{"ServiceEnabled", "\"true\""}, {"SessionTimeout", "abc"}},
                             "enabled 0 timeout 0\n"},
                    Settings{"AServiceWhoseTimeoutIsTooLarge",
                             {{"ServiceEnabled", ""}, {"SessionTimeout", "2147483648"}},
                             "enabled 0 timeout 0\n"},
                    Settings{
                        "AServiceWithoutSettings", {{"Name", "\"x\""}}, "enabled 0 timeout 0\n"}),
    [](const auto& instance) { return instance.param.name; });

TEST_F(ServiceBootstrap, OfAServiceWithoutATimeoutStarts) {
    controller.removeFile(persistentFile);
    store().run({"HDEL", serviceUri, "SessionTimeout"});
    startDaemon();
    EXPECT_EQ(countLogged(typeError), 1);
}

// The daemon's connections have addresses of their own.
class ServiceBootstrapSequence : public ServiceBootstrap {
  protected:
    ServiceBootstrapSequence() : ServiceBootstrap({.storeOverTcp = true}) {}

    // The connections that carried this command, in their order.
    static Words clientsOf(const std::vector<MonitoredCommand>& commands, const Words& words) {
        Words clients;
        for (const MonitoredCommand& command : commands) {
            if (command.words == words) {
                clients.push_back(command.client);
            }
        }
        return clients;
    }
};

TEST_F(ServiceBootstrapSequence, ReadsTheSettingsAndSubscribesTwice) {
    Monitor monitor = controller.monitor();
    startDaemon();
    const std::vector<MonitoredCommand> watched = monitor.soFar();

    const Words readers = clientsOf(watched, {"HGET", serviceUri, "ServiceEnabled"});
    ASSERT_EQ(readers.size(), 1U);
    EXPECT_EQ(commandsOf(watched, readers[0]), (Commands{{"AUTH", "(redacted)"},
                                                         {"LLEN", patchQueue},
                                                         {"LPUSH", patchQueue, patchChannel},
                                                         {"HGET", serviceUri, "SessionTimeout"},
                                                         {"HGET", serviceUri, "ServiceEnabled"}}));

    const Words subscribers = clientsOf(watched, {"SUBSCRIBE", patchChannel});
    ASSERT_EQ(subscribers.size(), 2U);
    EXPECT_NE(subscribers[0], subscribers[1]);
    for (const std::string& subscriber : subscribers) {
        EXPECT_EQ(commandsOf(watched, subscriber),
                  (Commands{{"AUTH", "(redacted)"}, {"SUBSCRIBE", patchChannel}}));
    }
    const auto orderOf = [&](const Words& words) {
        return std::find_if(
                   watched.begin(), watched.end(),
                   [&](const MonitoredCommand& command) { return command.words == words; }) -
               watched.begin();
    };
    EXPECT_LT(orderOf({"HGET", serviceUri, "ServiceEnabled"}),
              orderOf({"SUBSCRIBE", patchChannel}));
}

TEST_F(ServiceBootstrapSequence, PushesNothingOnAKeptStore) {
    startDaemon();
    controller.daemon().kill();
    Monitor monitor = controller.monitor();
    startDaemon();
    const std::vector<MonitoredCommand> watched = monitor.soFar();
    const Words readers = clientsOf(watched, {"LLEN", patchQueue});
    ASSERT_EQ(readers.size(), 1U);
    EXPECT_EQ(commandsOf(watched, readers[0]), (Commands{{"AUTH", "(redacted)"},
                                                         {"LLEN", patchQueue},
                                                         {"HGET", serviceUri, "SessionTimeout"},
                                                         {"HGET", serviceUri, "ServiceEnabled"}}));
}

TEST_F(ServiceBootstrapSequence, KeepsNoConnectionButTheWorkers) {
    Monitor monitor = controller.monitor();
    startDaemon();
    const Words subscribers = clientsOf(monitor.soFar(), {"SUBSCRIBE", patchChannel});
    ASSERT_EQ(subscribers.size(), 2U);
    const auto isConnected = [&](const std::string& client) {
        return store().run({"CLIENT", "LIST"}).text.find("addr=" + client + " ") !=
               std::string::npos;
    };
    waitUntil("the first subscription is gone", [&] { return !isConnected(subscribers[0]); });
    EXPECT_TRUE(isConnected(subscribers[1]));
}

// Starts that end at once: the reason stands in the log twice, as an error line of the step
// and as the one of start-up, and the worker threads end with the process.
class FailedServiceBootstrap : public ServiceBootstrap {
  protected:
    void expectFailure(const std::string& line, const std::string& thrown) {
        expectExitStatus(failedStart);
        lines = {line, "Error occurs while initialize data: " + thrown};
        for (const std::string& each : lines) {
            expectErrorLine(each);
        }
    }
    void TearDown() override {
        for (const std::string& each : lines) {
            EXPECT_EQ(countLogged(each), 1) << each;
        }
        EXPECT_EQ(countLogged("SessionService terminates."), 0);
        ServiceBootstrap::TearDown();
    }

  private:
    Words lines;
};

TEST_F(FailedServiceBootstrap, WhenTheQueueIsNoList) {
    expectFailure("Failed to get " + std::string(patchQueue) + " queue length.",
                  "Failed to get queue length");
    store().run({"SET", patchQueue, "text"});
    runDaemon();
    EXPECT_EQ(controller.daemonOutput(), "");
}

TEST_F(FailedServiceBootstrap, WhenTheStoreRefusesThePush) {
    expectFailure("Failed to push queue.", "Failed to push queue");
    store().run({"LPUSH", "&&/redfish/v1/SessionService/Sessions/POSTCREATEQ", createChannel});
    store().run({"ACL", "SETUSER", "default", "-lpush"});
    runDaemon();
    EXPECT_FALSE(store().exists(patchQueue));
}

class InterruptedServiceBootstrap : public FailedServiceBootstrap {
  protected:
    // Decides about the commands of the daemon by their words; the number tells how many
    // with the same words came before.
    void cutAt(const Words& words, int occurrence = 0) {
        proxy.setFilter([this, words, occurrence](const Words& command) {
            return command == words && seen++ == occurrence ? StoreProxy::Verdict::cut
                                                            : StoreProxy::Verdict::pass;
        });
    }
    // Takes no connection any more once this command has come; the threads that are about
    // to connect at the same time come first.
    void refuseAfter(const Words& words, int connections) {
        proxy.setFilter([this, words, connections](const Words& command) {
            if (command == words) {
                waitUntil("the other threads are connected",
                          [&] { return proxy.connections() >= connections; });
                proxy.refuseConnections(true);
            }
            return StoreProxy::Verdict::pass;
        });
    }

    std::atomic<int> seen = 0;
    StoreProxy proxy{controller};
};

TEST_F(InterruptedServiceBootstrap, AtTheQueueLength) {
    expectFailure("Failed to get " + std::string(patchQueue) + " queue length.",
                  "Failed to get queue length");
    cutAt({"LLEN", patchQueue});
    runDaemon();
    EXPECT_EQ(controller.daemonOutput(),
              ">>> Failed to get list length on " + std::string(patchQueue) + ".\n");
}

TEST_F(InterruptedServiceBootstrap, AtThePush) {
    expectFailure("Failed to push queue.", "Failed to push queue");
    cutAt({"LPUSH", patchQueue, patchChannel});
    runDaemon();
    EXPECT_FALSE(store().exists(patchQueue));
}

TEST_F(InterruptedServiceBootstrap, AtTheConnectionThatTriesTheSubscription) {
    expectFailure("Failed to connect to redis.", "Failed to connect to redis");
    // Start-up, the three worker threads and the settings.
    refuseAfter({"HGET", serviceUri, "ServiceEnabled"}, 5);
    runDaemon();
}

TEST_F(InterruptedServiceBootstrap, WhileItTriesTheSubscription) {
    expectFailure("Failed to subscribe channel.", "Failed to subscribe channel");
    cutAt({"SUBSCRIBE", patchChannel});
    runDaemon();
}

// The worker's own failures do not end the process: the other threads serve on.
class WorkerWithoutConnection : public InterruptedServiceBootstrap {
  protected:
    void TearDown() override {
        usePamTest("env=PRIVILEGES=9");
        for (const char* channel : {createChannel, deleteChannel}) {
            waitUntil("the other threads serve", [&] {
                return store().run({"PUBSUB", "NUMSUB", channel}).elements.at(1).integer == 1;
            });
        }
        const Reply login = frontEnd().login("somebody", "anything");
        EXPECT_EQ(login.status(), "OK");
        EXPECT_EQ(frontEnd().remove(login.location()).status(), "OK_EMPTY");
        EXPECT_EQ(store().publish(patchChannel, "any thing"), 0);
        waitUntil("login and logout are in the audit log",
                  [&] { return auditEntries(store()).size() == 2; });
        SystemTest::TearDown();
        EXPECT_EQ(countLogged("SessionService terminates."), 1);
    }
};

TEST_F(WorkerWithoutConnection, EndsWhenItsSubscriptionIsInterrupted) {
    const std::string line = "Failed to subscribe channel " + std::string(patchChannel) + ".";
    expectErrorLine(line);
    cutAt({"SUBSCRIBE", patchChannel}, 1);
    controller.startDaemon();
    waitForLog(line);
}

TEST_F(WorkerWithoutConnection, EndsWhenItCannotConnect) {
    expectErrorLine("Failed to connect to Redis.");
    // As above, and the connection that tries the subscription.
    refuseAfter({"SUBSCRIBE", patchChannel}, 6);
    controller.startDaemon();
    waitForLog("Failed to connect to Redis.");
    EXPECT_EQ(countLogged("Failed to connect to Redis."), 1);
    proxy.refuseConnections(false);
}

}  // namespace
}  // namespace testbed
