// How the daemon's threads, and the daemon as a whole, come to their end.
#include <algorithm>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <mutex>
#include <optional>
#include <ostream>
#include <set>
#include <thread>

#include "support/daemon_names.h"
#include "support/store_proxy.h"
#include "support/system_test.h"
#include "testbed/events_and_audit_log.h"

namespace testbed {
namespace {

constexpr char exitNotice[] = "&&EXIT";

std::ptrdiff_t entriesOf(const std::filesystem::path& folder) {
    return std::distance(std::filesystem::directory_iterator(folder),
                         std::filesystem::directory_iterator());
}

// What a login logs that loses the store: the step that failed, and the answer that could
// not be written.
Words withoutAStore(const std::string& step) {
    return {step, "Failed to update Return Status.",
            "Failed to get length of extended info array."};
}

Words withoutAStoreAndEvents(const std::string& step) {
    Words errors = withoutAStore(step);
    errors.emplace_back("Cannot get SHA script resourceChange.");
    return errors;
}

class EndingTest : public SystemTest {
  protected:
    using SystemTest::SystemTest;

    std::string processFolder() { return "/proc/" + std::to_string(controller.daemon().pid()); }
    std::ptrdiff_t threads() { return entriesOf(processFolder() + "/task"); }
    // How many have ended of those that ran when the daemon began to serve.
    std::ptrdiff_t endedThreads() { return threadsWhenServing - threads(); }
    void waitForEndedThreads(std::ptrdiff_t count) {
        waitUntil(std::to_string(count) + " threads have ended",
                  [&] { return endedThreads() == count; });
    }
    void serve() {
        startDaemon();
        threadsWhenServing = threads();
    }

    void endThreadOf(const char* channel) {
        const std::ptrdiff_t before = endedThreads();
        ASSERT_EQ(store().publish(channel, exitNotice), 1);
        waitForEndedThreads(before + 1);
    }
    bool isListenedTo(const char* channel) {
        return store().run({"PUBSUB", "NUMSUB", channel}).elements.at(1).integer == 1;
    }

    void waitUntilNobodyListensTo(const char* channel) {
        waitUntil("nobody listens", [&] { return !isListenedTo(channel); });
    }

    void expectLogins() { EXPECT_EQ(frontEnd().login("anybody", "anything").status(), "OK"); }
    void expectLogouts() {
        EXPECT_EQ(frontEnd().remove(frontEnd().insertSession().uri).status(), "OK_EMPTY");
    }
    void expectPatches() {
        EXPECT_EQ(frontEnd().patch({{"SessionTimeout", "600"}}).status(), "OK");
        // The answer comes before the event: this one, which changes nothing, comes after it.
        EXPECT_EQ(frontEnd().patch({{"SessionTimeout", "600"}}).status(), "OK");
    }
    void expectExpiry() {
        const std::size_t entries = auditEntries(store()).size();
        const InsertedSession session = frontEnd().insertSession({.timeout = "0"});
        // The audit entry is the last act of a deletion.
        waitUntil("the session has expired",
                  [&] { return auditEntries(store()).size() > entries; });
        EXPECT_FALSE(store().exists(session.uri));
    }

    // The daemon has ended, in order and with its last word.
    void expectEnd() {
        EXPECT_EQ(toText(controller.daemon().wait()), toText(ExitStatus{}));
        ASSERT_FALSE(logLines().empty());
        EXPECT_EQ(logLines().back().tag, "[Debug]");
        EXPECT_EQ(logLines().back().message, terminates);
    }

  private:
    std::ptrdiff_t threadsWhenServing = 0;
};

class Exit : public EndingTest {
  protected:
    void SetUp() override {
        usePamTest("env=PRIVILEGES=511");
        startStore();
        serve();
    }
};

TEST_F(Exit, OfTheCreateThreadLeavesTheOthersAtWork) {
    endThreadOf(createChannel);
    waitUntilNobodyListensTo(createChannel);
    expectLogouts();
    expectPatches();
    expectExpiry();
}

TEST_F(Exit, OfTheDeleteThreadLeavesTheOthersAtWork) {
    endThreadOf(deleteChannel);
    waitUntilNobodyListensTo(deleteChannel);
    expectLogins();
    expectPatches();
    expectExpiry();
}

TEST_F(Exit, IsUnknownToThePatchWorker) {
    store().publish(patchChannel, exitNotice);
    waitForLog("Request data format is incorrect.");
    expectPatches();
    EXPECT_EQ(endedThreads(), 0);
}

TEST_F(Exit, IsTheWholeNotice) {
    // Neither ends a thread: both are requests that name no return channel.
    expectErrorLine("Create session: &&ReturnChannel not found.");
    store().publish(createChannel, "&&EXIT ");
    store().publish(createChannel, "&&EXIT now");
    expectLogins();
    EXPECT_EQ(countLogged("Create session: &&ReturnChannel not found."), 2);
}

TEST_F(Exit, LetsTheLoginInHandComeToItsEnd) {
    holdPam();
    Request login = frontEnd().prepareLogin("anybody", "anything");
    login.send();
    waitUntilPamHolds();
    store().publish(createChannel, exitNotice);
    EXPECT_TRUE(isListenedTo(createChannel));
    releasePam();
    EXPECT_EQ(login.reply().status(), "OK");
    waitForEndedThreads(1);
    waitUntilNobodyListensTo(createChannel);
}

TEST_F(Exit, LeavesWhatWasPublishedLaterToNobody) {
    holdPam();
    frontEnd().prepareLogin("first", "anything").send();
    waitUntilPamHolds();
    store().publish(createChannel, exitNotice);
    Request late = frontEnd().prepareLogin("second", "anything");
    late.send();
    releasePam();
    waitForEndedThreads(1);
    EXPECT_FALSE(late.publishedAlready());
    EXPECT_EQ(store().llen(membersKey), 1);
}

TEST_F(Exit, OfBothThreadsAndTheLossOfThePatchConnectionEndTheProcess) {
    endThreadOf(createChannel);
    endThreadOf(deleteChannel);
    expectPatches();
    expectExpiry();
    EXPECT_EQ(countLogged(terminates), 0);
    store().run({"CLIENT", "KILL", "TYPE", "pubsub"});
    expectEnd();
    EXPECT_EQ(store().run({"PING"}).text, "PONG");
}

class LostConnection : public EndingTest {
  protected:
    LostConnection() : EndingTest({.storeOverTcp = true}) {}

    void SetUp() override {
        usePamTest("env=PRIVILEGES=511");
        startStore();
        storeMonitor.emplace(controller.monitor());
        serve();
    }

    // Ends the connection of the daemon that sent this command last.
    void lose(const Words& command) {
        std::string client;
        const auto isMeant = [&](const MonitoredCommand& seen) {
            if (seen.words == command && seen.client.rfind("127.0.0.1:", 0) == 0) {
                client = seen.client;
            }
            return !client.empty();
        };
        for (const MonitoredCommand& seen : storeMonitor->soFar()) {
            isMeant(seen);
        }
        if (client.empty()) {
            storeMonitor->until(isMeant);
        }
        ASSERT_EQ(store().run({"CLIENT", "KILL", "ADDR", client}).integer, 1);
    }

    // How often the thread that was started last but one has gone to sleep.
    long sleepsOfTheExpiryThread() {
        // By the threads' numbers inside the private root: outside they start again from the
        // lowest now and then.
        std::map<long, long> sleeps;
        for (const auto& task : std::filesystem::directory_iterator(processFolder() + "/task")) {
            std::ifstream status(task.path() / "status");
            const std::string label = "voluntary_ctxt_switches:";
            long number = 0;
            for (std::string line; std::getline(status, line);) {
                if (line.rfind("NSpid:", 0) == 0) {
                    number = std::stol(line.substr(line.rfind('\t')));
                } else if (line.rfind(label, 0) == 0) {
                    sleeps[number] = std::stol(line.substr(label.size()));
                }
            }
        }
        if (sleeps.size() < 2) {
            throw Failure("The expiry thread is not there.");
        }
        return std::prev(sleeps.end(), 2)->second;
    }

  private:
    std::optional<Monitor> storeMonitor;
};

TEST_F(LostConnection, OfTheCreateThreadEndsThatThreadAlone) {
    lose({"SUBSCRIBE", createChannel});
    waitForEndedThreads(1);
    waitUntilNobodyListensTo(createChannel);
    expectLogouts();
    expectPatches();
    expectExpiry();
}

TEST_F(LostConnection, OfTheDeleteThreadEndsThatThreadAlone) {
    lose({"SUBSCRIBE", deleteChannel});
    waitForEndedThreads(1);
    waitUntilNobodyListensTo(deleteChannel);
    expectLogins();
    expectPatches();
    expectExpiry();
}

TEST_F(LostConnection, OfThePatchWorkerEndsThatThreadAlone) {
    lose({"SUBSCRIBE", patchChannel});
    waitForEndedThreads(1);
    waitUntilNobodyListensTo(patchChannel);
    expectLogins();
    expectLogouts();
    expectExpiry();
}

TEST_F(LostConnection, OfTheExpiryThreadEndsTheExpiryOfSessionsAlone) {
    lose({"LRANGE", membersKey, "0", "-1"});
    const InsertedSession session = frontEnd().insertSession({.timeout = "0"});
    const long sleeps = sleepsOfTheExpiryThread();
    waitUntil("a pass is over", [&] { return sleepsOfTheExpiryThread() >= sleeps + 2; });
    EXPECT_TRUE(store().exists(session.uri));
    expectLogins();
    expectLogouts();
    expectPatches();
    EXPECT_EQ(endedThreads(), 0);
}

TEST_F(LostConnection, OfThePatchWorkerKeepsSessionsExpiringUntilBothRequestThreadsHaveEnded) {
    lose({"SUBSCRIBE", patchChannel});
    waitForEndedThreads(1);
    // Twice, because one more pass would come even if the expiry thread was told to end.
    expectExpiry();
    endThreadOf(createChannel);
    expectExpiry();
    EXPECT_FALSE(controller.daemon().exitStatus());
    ASSERT_EQ(store().publish(deleteChannel, exitNotice), 1);
    expectEnd();
}

class Restart : public EndingTest {};

TEST_F(Restart, OnTheKeptStoreServesTheSessionsThatWereThere) {
    usePamTest("env=PRIVILEGES=511");
    startStore();
    serve();
    const Reply login = frontEnd().login("anybody", "anything");
    const std::string token = store().hget(tokenReferenceKey(login.location()), "XAUTH");
    store().publish(createChannel, exitNotice);
    store().publish(deleteChannel, exitNotice);
    store().run({"CLIENT", "KILL", "TYPE", "pubsub"});
    expectEnd();

    startDaemon();
    EXPECT_EQ(countLogged("SessionService resource has been initialized already."), 1);
    EXPECT_EQ(store().hget(tokenReferenceKey(login.location()), "XAUTH"), token);
    EXPECT_EQ(frontEnd().remove(login.location()).status(), "OK_EMPTY");
    EXPECT_EQ(store().hget(sessionsUri, "Members@odata.count"), "0");
    expectLogins();
    expectPatches();
}

class StoppedStore : public EndingTest {
  protected:
    void SetUp() override { usePamTest("env=PRIVILEGES=511"); }
};

TEST_F(StoppedStore, EndsAnIdleDaemon) {
    startStore();
    serve();
    controller.stopStore();
    expectEnd();
}

TEST_F(StoppedStore, EndsADaemonThatHasServed) {
    startStore();
    serve();
    expectLogins();
    expectLogouts();
    expectPatches();
    controller.stopStore();
    expectEnd();
}

TEST_F(StoppedStore, WaitsForTheLoginInsidePam) {
    startStore();
    serve();
    holdPam();
    Request login = frontEnd().prepareLogin("anybody", "anything");
    login.send();
    waitUntilPamHolds();
    controller.stopStore();
    // Start-up waits for the login; the expiry thread goes on as long.
    waitForEndedThreads(2);
    EXPECT_EQ(countLogged(terminates), 0);
    for (const std::string& error : withoutAStore("Failed to add session entry.")) {
        expectErrorLine(error);
    }
    releasePam();
    expectEnd();
}

// A proxy that holds the first command of a kind, which is the store's last moment.
class HeldCommand {
  public:
    explicit HeldCommand(Controller& controller) : storeProxy(controller) {}
    ~HeldCommand() { release(); }

    // Requests come on fresh connections; some of their commands are the expiry thread's, too.
    enum class Connections { all, fresh };

    void hold(Words beginning, Connections connections) {
        storeProxy.setFilter([this, beginning = std::move(beginning),
                              connections](const Words& command) {
            std::unique_lock lock(stateMutex);
            if (command[0] == "AUTH") {
                freshThreads.insert(std::this_thread::get_id());
            }
            const bool meant = command.size() >= beginning.size() &&
                               std::equal(beginning.begin(), beginning.end(), command.begin()) &&
                               (connections == Connections::all ||
                                freshThreads.contains(std::this_thread::get_id()));
            if (meant) {
                holdsCommand = true;
                released.wait(lock, [this] { return isReleased; });
            }
            return StoreProxy::Verdict::pass;
        });
    }
    bool isHeld() {
        const std::lock_guard lock(stateMutex);
        return holdsCommand;
    }
    void release() {
        const std::lock_guard lock(stateMutex);
        isReleased = true;
        released.notify_all();
    }

  private:
    std::mutex stateMutex;
    std::condition_variable released;
    bool holdsCommand = false;
    bool isReleased = false;
    std::set<std::thread::id> freshThreads;  // the proxy has a thread for each connection
    StoreProxy storeProxy;
};

struct LastCommand {
    const char* name;
    Words command;
    Words errors;

    friend void PrintTo(const LastCommand& value, std::ostream* out) { *out << value.name; }
};

class StoppedStoreDuringALogin : public StoppedStore,
                                 public testing::WithParamInterface<LastCommand> {};

TEST_P(StoppedStoreDuringALogin, EndsTheDaemonInOrder) {
    HeldCommand held(controller);
    startStore();
    serve();
    for (const std::string& error : GetParam().errors) {
        expectErrorLine(error);
    }
    held.hold(GetParam().command, HeldCommand::Connections::fresh);
    Request login = frontEnd().prepareLogin("anybody", "anything");
    login.send();
    waitUntil("the command is held", [&] { return held.isHeld(); });
    controller.stopStore();
    held.release();
    expectEnd();
}

INSTANTIATE_TEST_SUITE_P(
    At, StoppedStoreDuringALogin,
    testing::Values(
        LastCommand{"TheRequest", {"HGETALL"}, {"Create session: &&ReturnChannel not found."}},
        LastCommand{"TheSessionCount", {"LRANGE"}, withoutAStore("Failed to add session entry.")},
        LastCommand{"TheSession", {"HSET"}, withoutAStore("Failed to add session entry.")},
        LastCommand{"TheEventCounter",
                    {"HINCRBY"},
                    withoutAStoreAndEvents("Failed to create meta session table.")},
        LastCommand{"TheMember",
                    {"LPUSH"},
                    withoutAStoreAndEvents("Failed to add session entry to Members.")},
        LastCommand{"TheEvents", {"EVALSHA"}, {}}, LastCommand{"TheAnswer", {"PUBLISH"}, {}}),
    [](const auto& instance) { return instance.param.name; });

class StoppedStoreDuringAPass : public StoppedStore,
                                public testing::WithParamInterface<LastCommand> {};

TEST_P(StoppedStoreDuringAPass, EndsTheDaemonInOrder) {
    HeldCommand held(controller);
    startStore();
    serve();
    for (const std::string& error : GetParam().errors) {
        expectErrorLine(error);
    }
    held.hold(GetParam().command, HeldCommand::Connections::all);
    frontEnd().insertSession({.timeout = "0"});
    waitUntil("the command is held", [&] { return held.isHeld(); });
    controller.stopStore();
    held.release();
    expectEnd();
}

INSTANTIATE_TEST_SUITE_P(At, StoppedStoreDuringAPass,
                         testing::Values(LastCommand{"ItsBegin", {"LRANGE"}, {}},
                                         LastCommand{"ADeletion",
                                                     {"UNLINK"},
                                                     {"Failed to get sessions.",
                                                      "Cannot get SHA script resourceChange."}},
                                         LastCommand{"TheEvents", {"EVALSHA"}, {}}),
                         [](const auto& instance) { return instance.param.name; });

// Ends the connection of one request at a command that a number tells.
class CutRequests : public StoppedStore {
  protected:
    CutRequests() : storeProxy(controller) {}

    void SetUp() override {
        StoppedStore::SetUp();
        startStore();
        serve();
        storeProxy.setFilter([this](const Words& command) { return verdictOn(command); });
    }

    // The connection that comes next ends at its command of this number, from 1 on.
    void cutNextAt(int number) {
        const std::lock_guard lock(stateMutex);
        takesNext = true;
        commandsLeft = number;
    }
    // Whether that has happened.
    bool isCut() {
        const std::lock_guard lock(stateMutex);
        return commandsLeft == 0;
    }

    // Sends requests, each cut one command later than the one before, until one is served
    // to its end. `check` sends a request that must find the daemon as able as ever.
    template <typename Prepare, typename Check>
    void cutAtEachCommand(Prepare prepare, Check check, int fewestCommands) {
        int number = 0;
        do {
            store().del(membersKey);
            cutNextAt(++number);
            Request request = prepare();
            request.send();
            waitUntil("the request is cut or answered",
                      [&] { return isCut() || request.publishedAlready().has_value(); });
            check();
        } while (isCut());
        EXPECT_GT(number, fewestCommands);
        // Standard streams, and one connection of each worker.
        constexpr std::ptrdiff_t idleDescriptors = 3 + 4;
        waitUntil("no descriptor is left over",
                  [&] { return openDescriptors() == idleDescriptors; });
        EXPECT_EQ(endedThreads(), 0);
    }

  private:
    StoreProxy::Verdict verdictOn(const Words& command) {
        const std::lock_guard lock(stateMutex);
        if (takesNext && command[0] == "AUTH") {
            takesNext = false;
            watchedThread = std::this_thread::get_id();
        }
        if (commandsLeft > 0 && std::this_thread::get_id() == watchedThread &&
            --commandsLeft == 0) {
            return StoreProxy::Verdict::cut;
        }
        return StoreProxy::Verdict::pass;
    }

    std::mutex stateMutex;
    bool takesNext = false;
    int commandsLeft = 0;
    std::thread::id watchedThread;
    StoreProxy storeProxy;
};

TEST_F(CutRequests, AtAnyCommandOfALoginLeaveTheNextLoginAsItWas) {
    for (const char* error :
         {"Failed to connect to Redis.", "Create session: &&ReturnChannel not found.",
          "Failed to add session entry.", "Failed to create meta session table.",
          "Failed to add session entry to Members.", "Failed to update Return Status.",
          "Failed to get length of extended info array.", "Cannot get SHA script resourceChange.",
          "Cannot get SHA script logGeneratorHelper."}) {
        expectErrorLine(error);
    }
    cutAtEachCommand([&] { return frontEnd().prepareLogin("anybody", "anything"); },
                     [&] { expectLogins(); }, 20);
}

TEST_F(CutRequests, AtAnyCommandOfALogoutLeaveTheNextLogoutAsItWas) {
    for (const char* error :
         {"Failed to connect to Redis.", "ReturnChannel is not found.", "&&TargetURI is not found.",
          "Failed to get sessions.", "Failed to delete session.", "Failed to update Return Status.",
          "Failed to get length of extended info array.", "Cannot get SHA script resourceChange.",
          "Cannot get SHA script logGeneratorHelper."}) {
        expectErrorLine(error);
    }
    cutAtEachCommand([&] { return frontEnd().prepareRemove(frontEnd().insertSession().uri); },
                     [&] { expectLogouts(); }, 10);
}

TEST_F(CutRequests, AtAnyCommandOfAPatchLeaveTheNextPatchAsItWas) {
    for (const char* error :
         {"Failed to connect to Redis.", "Fail to get hash ",
          "OperationFailed: Failed to SetMultipleFields.", "Failed to update Return Status.",
          "Failed to get length of extended info array.",
          "DatabaseOperationError: Failed to publish data.",
          "Cannot get SHA script resourceChange."}) {
        expectErrorLine(error);
    }
    int timeout = 1000;
    cutAtEachCommand(
        [&] {
            return frontEnd().preparePatch({{"SessionTimeout", std::to_string(++timeout)}});
        },
        [&] { expectPatches(); }, 8);
}

}  // namespace
}  // namespace testbed
