// From the process entry until the daemon serves, or ends because it cannot.
#include <gmock/gmock.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <ostream>
#include <set>

#include "support/daemon_names.h"
#include "support/store_proxy.h"
#include "support/system_test.h"
#include "testbed/events_and_audit_log.h"

namespace testbed {
namespace {

using testing::ElementsAre;
using testing::MatchesRegex;
using testing::UnorderedElementsAre;

constexpr char ready[] = "SessionService is ready for service.";
constexpr char initializedAlready[] = "SessionService resource has been initialized already.";
constexpr ExitStatus failure{.bySignal = false, .value = 255};

// "[Debug]: message" of each line.
Words tagged(const std::vector<LogLine>& lines) {
    Words texts;
    for (const LogLine& line : lines) {
        texts.push_back(line.tag + ": " + line.message);
    }
    return texts;
}

class FirstStart : public SystemTest {};

class FirstStartOnTheWire : public SystemTest {
  protected:
    FirstStartOnTheWire() : SystemTest({.storeOverTcp = true}) {}

    // What each connection of the daemon sent, in the order in which they first spoke.
    static std::vector<std::vector<Words>> byConnection(
        const std::vector<MonitoredCommand>& commands) {
        std::vector<std::vector<Words>> result;
        std::set<std::string> seen;
        for (const MonitoredCommand& command : commands) {
            if (command.client.rfind("127.0.0.1:", 0) == 0 && seen.insert(command.client).second) {
                result.push_back(commandsOf(commands, command.client));
            }
        }
        return result;
    }
};

TEST_F(FirstStartOnTheWire, LoadsPropertiesStampsTagsAndNamesTheChannelsInThisOrder) {
    startStore();
    Monitor monitor = controller.monitor();
    startDaemon();
    const auto connections = byConnection(monitor.soFar());
    ASSERT_FALSE(connections.empty());
    const auto tag = MatchesRegex("\"[0-9]{13}\"");
    EXPECT_THAT(connections.front(),
                ElementsAre(Words{"AUTH", "(redacted)"}, Words{"LLEN", createQueue},
                            Words{"HSET", serviceUri, "SessionTimeout", "300"},
                            ElementsAre("HSET", serviceUri, "@odata.etag", tag),
                            ElementsAre("HSET", sessionsUri, "@odata.etag", tag),
                            Words{"LPUSH", createQueue, createChannel},
                            Words{"LPUSH", deleteQueue, deleteChannel}));
}

TEST_F(FirstStartOnTheWire, ReadsNoMoreThanTheQueueLengthOnAKeptStore) {
    start();
    controller.daemon().kill();
    Monitor monitor = controller.monitor();
    startDaemon();
    const auto connections = byConnection(monitor.soFar());
    ASSERT_FALSE(connections.empty());
    EXPECT_THAT(connections.front(),
                ElementsAre(Words{"AUTH", "(redacted)"}, Words{"LLEN", createQueue}));
}

TEST_F(FirstStartOnTheWire, LeavesOneConnectionForEachOfTheFourWorkers) {
    start();
    const std::string clients = store().run({"CLIENT", "LIST"}).text;
    int connections = 0;
    for (std::size_t at = clients.find(" addr=127.0.0.1:"); at != std::string::npos;
         at = clients.find(" addr=127.0.0.1:", at + 1)) {
        ++connections;
    }
    EXPECT_EQ(connections, 4);
}

TEST_F(FirstStart, LogsItsStepsAtDebugLevel) {
    start();
    waitForLog("Timeout session thread is running ...");
    const Words lines = tagged(logLines());
    ASSERT_GE(lines.size(), 2U);
    EXPECT_EQ(lines[0], std::string("[Debug]: ") + starting);
    EXPECT_EQ(lines[1], std::string("[Debug]: ") + ready);
    EXPECT_THAT(Words(lines.begin() + 2, lines.end()),
                UnorderedElementsAre("[Debug]: Create session thread is running ...",
                                     "[Debug]: Delete session thread is running ...",
                                     "[Debug]: Timeout session thread is running ..."));
}

TEST_F(FirstStart, LeavesEachChannelOnceInItsQueue) {
    start();
    EXPECT_THAT(store().lrange(createQueue), ElementsAre(createChannel));
    EXPECT_THAT(store().lrange(deleteQueue), ElementsAre(deleteChannel));
    EXPECT_THAT(store().lrange(patchQueue), ElementsAre(patchChannel));
}

TEST_F(FirstStart, StampsServiceAndCollectionWithTheTimeInMilliseconds) {
    const auto now = [] {
        return std::chrono::duration_cast<std::chrono::milliseconds>(
                   std::chrono::system_clock::now().time_since_epoch())
            .count();
    };
    const auto before = now();
    start();
    const auto after = now();
    for (const char* uri : {serviceUri, sessionsUri}) {
        const std::string tag = store().hget(uri, "@odata.etag");
        ASSERT_THAT(tag, MatchesRegex("\"[0-9]+\""));
        const long stamp = std::stol(tag.substr(1));
        EXPECT_GE(stamp, before) << uri;
        EXPECT_LE(stamp, after) << uri;
    }
}

TEST_F(FirstStart, TakesTheTimeoutFromThePersistentFile) {
    controller.writeFile(persistentFile, "SessionTimeout=777\n");
    start();
    EXPECT_EQ(store().hget(serviceUri, "SessionTimeout"), "777");
}

TEST_F(FirstStart, DoesWithoutThePersistentFile) {
    controller.removeFile(persistentFile);
    startStore();
    store().hset(serviceUri, {{"SessionTimeout", "450"}});
    startDaemon();
    EXPECT_EQ(store().hget(serviceUri, "SessionTimeout"), "450");
}

TEST_F(FirstStart, CountsAnyEntryInTheCreateQueueAsInitialized) {
    startStore();
    store().run({"LPUSH", createQueue, "somebody else's channel"});
    startDaemon();
    EXPECT_EQ(countLogged(initializedAlready), 1);
    EXPECT_EQ(countLogged(ready), 0);
    EXPECT_THAT(store().lrange(createQueue), ElementsAre("somebody else's channel"));
    EXPECT_FALSE(store().exists(deleteQueue));
    EXPECT_FALSE(store().hexists(serviceUri, "@odata.etag"));
}

class NextStart : public SystemTest {
  protected:
    void SetUp() override {
        start();
        controller.daemon().kill();
    }
};

TEST_F(NextStart, OnAKeptStorePushesAndStampsNothing) {
    store().hset(serviceUri, {{"@odata.etag", "\"1\""}, {"SessionTimeout", "888"}});
    store().hset(sessionsUri, {{"@odata.etag", "\"2\""}});
    startDaemon();
    const Words lines = tagged(logLines());
    EXPECT_EQ(std::count(lines.begin(), lines.end(), std::string("[Debug]: ") + initializedAlready),
              1);
    EXPECT_EQ(countLogged(ready), 1) << "of the first start alone";
    for (const char* queue : {createQueue, deleteQueue, patchQueue}) {
        EXPECT_EQ(store().llen(queue), 1) << queue;
    }
    EXPECT_EQ(store().hget(serviceUri, "@odata.etag"), "\"1\"");
    EXPECT_EQ(store().hget(serviceUri, "SessionTimeout"), "888");
    EXPECT_EQ(store().hget(sessionsUri, "@odata.etag"), "\"2\"");
}

TEST_F(NextStart, WithAnEmptiedCreateQueueInitializesOnceMoreAndTrimsNoQueue) {
    store().run({"LPOP", createQueue});
    store().hset(serviceUri, {{"SessionTimeout", "888"}});
    startDaemon();
    EXPECT_EQ(countLogged(ready), 2);
    EXPECT_THAT(store().lrange(createQueue), ElementsAre(createChannel));
    EXPECT_THAT(store().lrange(deleteQueue), ElementsAre(deleteChannel, deleteChannel));
    EXPECT_THAT(store().lrange(patchQueue), ElementsAre(patchChannel));
    EXPECT_EQ(store().hget(serviceUri, "SessionTimeout"), "300");
}

TEST_F(NextStart, OnAnEmptiedStoreInitializesItAnew) {
    controller.stopStore();
    startStore();
    StoreClient fresh = controller.connect();
    startDaemon();
    EXPECT_EQ(countLogged(ready), 2);
    for (const char* queue : {createQueue, deleteQueue, patchQueue}) {
        EXPECT_EQ(fresh.llen(queue), 1) << queue;
    }
}

// Every test of this suite expects the daemon to end by itself.
class FailedStart : public SystemTest {
  protected:
    void SetUp() override { expectExitStatus(failure); }
};

TEST_F(FailedStart, WithoutAStore) {
    expectErrorLine("Failed to connect to Redis.");
    runDaemon();
    EXPECT_THAT(tagged(logLines()), ElementsAre(std::string("[Debug]: ") + starting,
                                                "[Error]: Failed to connect to Redis."));
}

TEST_F(FailedStart, WhenTheStoreHangsUp) {
    StoreProxy proxy(controller);
    proxy.refuseConnections(true);
    startStore();
    expectErrorLine("Failed to connect to Redis.");
    runDaemon();
    EXPECT_EQ(proxy.connections(), 1);
}

TEST_F(FailedStart, WhenTheCreateQueueIsNoList) {
    startStore();
    store().hset(createQueue, {{"a", "hash"}});
    expectErrorLine("Failed to access Redis.");
    runDaemon();
    EXPECT_THAT(tagged(logLines()), ElementsAre(std::string("[Debug]: ") + starting,
                                                "[Error]: Failed to access Redis."));
    EXPECT_EQ(controller.daemonOutput(), "");
    EXPECT_FALSE(store().exists(deleteQueue));
}

TEST_F(FailedStart, WhenTheQueueLengthIsNeverAnswered) {
    StoreProxy proxy(controller);
    proxy.setFilter([](const Words& command) {
        return command[0] == "LLEN" ? StoreProxy::Verdict::cut : StoreProxy::Verdict::pass;
    });
    startStore();
    expectErrorLine("Failed to access Redis.");
    runDaemon();
    EXPECT_EQ(controller.daemonOutput(),
              std::string(">>> Failed to get list length on ") + createQueue + ".\n");
}

TEST_F(FailedStart, WhenTheFirstChannelIsNotTaken) {
    startStore();
    store().run({"CONFIG", "SET", "maxmemory", "1"});
    expectErrorLine("Failed to add channels for POST and DELETE.");
    runDaemon();
    EXPECT_THAT(tagged(logLines()),
                ElementsAre(std::string("[Debug]: ") + starting,
                            "[Debug]: Failed to set persistent property SessionTimeout.",
                            "[Error]: Failed to add channels for POST and DELETE."));
    EXPECT_FALSE(store().exists(createQueue));
    EXPECT_FALSE(store().exists(deleteQueue));
}

TEST_F(FailedStart, WhenTheSecondChannelIsNotTakenKeepsTheFirst) {
    startStore();
    store().hset(deleteQueue, {{"a", "hash"}});
    expectErrorLine("Failed to add channels for POST and DELETE.");
    runDaemon();
    EXPECT_EQ(countLogged(ready), 0);
    EXPECT_THAT(store().lrange(createQueue), ElementsAre(createChannel));
}

TEST_F(FailedStart, WhenThePatchQueueIsNoListThoughWorkersRun) {
    startStore();
    store().hset(patchQueue, {{"a", "hash"}});
    expectErrorLine(std::string("Failed to get ") + patchQueue + " queue length.");
    expectErrorLine("Error occurs while initialize data: Failed to get queue length");
    runDaemon();
    EXPECT_EQ(countLogged("Error occurs while initialize data: Failed to get queue length"), 1);
    EXPECT_EQ(countLogged("SessionService terminates."), 0);
}

TEST_F(FailedStart, WhenTheStoreTakesNoConnectionAfterTheFirst) {
    StoreProxy proxy(controller);
    proxy.setFilter([&proxy](const Words& command) {
        proxy.refuseConnections(command[0] == "LPUSH" && command[1] == deleteQueue);
        return StoreProxy::Verdict::pass;
    });
    startStore();
    expectErrorLine("Failed to connect to Redis.");
    expectErrorLine("Error occurs while initialize data: Failed to connect to Redis");
    // The workers, which have ended too, are not waited for.
    runDaemon({.environment = {{"TSAN_OPTIONS", "report_thread_leaks=0"}}});
    EXPECT_EQ(countLogged("Error occurs while initialize data: Failed to connect to Redis"), 1);
}

// A sanitizer has threads of its own, and needs more address space than all of them.
#if !TESTBED_SANITIZED

TEST_F(FirstStart, RunsFiveThreads) {
    start();
    const std::filesystem::path tasks =
        "/proc/" + std::to_string(controller.daemon().pid()) + "/task";
    using Iterator = std::filesystem::directory_iterator;
    EXPECT_EQ(std::distance(Iterator(tasks), Iterator()), 5);
}

struct ThreadFailure {
    const char* name;
    int threadsBefore;
    std::vector<std::string> messages;
    bool serviceReached;

    friend void PrintTo(const ThreadFailure& value, std::ostream* out) { *out << value.name; }
};

// Threads get stacks so large that the address space holds just this many.
DaemonOptions roomForThreads(int count) {
    constexpr long long gigabyte = 1LL << 30;
    constexpr long long stack = 4 * gigabyte;
    return {.environment = {{"MALLOC_ARENA_MAX", "1"}},
            .limits = {"--stack=" + std::to_string(stack),
                       "--as=" + std::to_string(count * stack + 2 * gigabyte)}};
}

class FailedThread : public FailedStart, public testing::WithParamInterface<ThreadFailure> {};

TEST_P(FailedThread, EndsTheProcessWithItsOwnMessage) {
    startStore();
    for (const std::string& message : GetParam().messages) {
        expectErrorLine(message);
    }
    runDaemon(roomForThreads(GetParam().threadsBefore));
    for (const std::string& message : GetParam().messages) {
        EXPECT_EQ(countLogged(message), 1) << message;
    }
    EXPECT_EQ(countLogged(ready), 1);
    EXPECT_EQ(countLogged("SessionService terminates."), 0);
    EXPECT_EQ(store().exists(patchQueue), GetParam().serviceReached);
}

INSTANTIATE_TEST_SUITE_P(
    Of, FailedThread,
    testing::Values(
        ThreadFailure{"Creation", 0, {"Failed to run the thread for POSTCREATE."}, false},
        ThreadFailure{"Deletion", 1, {"Failed to create the thread for DELETE."}, false},
        ThreadFailure{"Timeout", 2, {"Failed to create the thread for Timeout detection."}, false},
        ThreadFailure{"Patch",
                      3,
                      {"Failed to create the thread for PATCH.",
                       "Error occurs while initialize data: Create thread for subscribe failed"},
                      true}),
    [](const auto& instance) { return instance.param.name; });

TEST_F(FirstStart, NeedsRoomForFourThreads) {
    startStore();
    startDaemon(roomForThreads(4));
}

#endif

}  // namespace
}  // namespace testbed
