#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <limits>

#include "support/store_proxy.h"
#include "support/system_test.h"
#include "testbed/events_and_audit_log.h"

namespace testbed {
namespace {

const std::string sessionPrefix = std::string(sessionsUri) + "/";

bool isPassStart(const Words& words) {
    return words == Words{"LRANGE", membersKey, "0", "-1"};
}

// The last use of a session that has been idle for this long.
std::string idleFor(long seconds) {
    return std::to_string(uptime() - seconds);
}

class Expiry : public RunningSystemTest {
  protected:
    bool exists(const InsertedSession& session) { return store().exists(session.uri); }

    // Blocks until the expiry thread has expired the session and is done with it: the audit entry
    // comes last of all.
    void waitUntilExpired(const std::string& uri) {
        waitUntil("the session has expired", [&] {
            const std::vector<Words> entries = auditEntries(store());
            return std::any_of(entries.begin(), entries.end(), [&](const Words& entry) {
                return entry.at(0) == "\"AuditEvent.1.1.UserLogout\"" &&
                       entry.at(2).find('"' + uri + '"') != std::string::npos;
            });
        });
    }
    void waitUntilExpired(const InsertedSession& session) { waitUntilExpired(session.uri); }

    // Blocks until the expiry thread has judged every session that is there now: it comes to the
    // end of the list last.
    void waitForAPass() {
        const InsertedSession last = frontEnd().insertSession({.timeout = "0", .member = false});
        store().run({"HINCRBY", sessionsUri, "Members@odata.count", "1"});
        store().run({"RPUSH", membersKey, "&&ObjectRef " + last.uri});
        waitUntilExpired(last);
    }
};

TEST_F(Expiry, RemovesAllThatBelongsToTheSession) {
    const InsertedSession session = frontEnd().insertSession({.timeout = "0"});
    waitUntilExpired(session);
    EXPECT_FALSE(store().exists(session.uri));
    EXPECT_FALSE(store().exists(tokenReferenceKey(session.uri)));
    EXPECT_FALSE(store().exists(tokenKey(session.token)));
    EXPECT_EQ(store().llen(membersKey), 0);
    EXPECT_EQ(store().hget(sessionsUri, "Members@odata.count"), "0");
}

TEST_F(Expiry, StampsTheCollectionAnew) {
    const std::string before = store().hget(sessionsUri, "@odata.etag");
    waitUntilExpired(frontEnd().insertSession({.timeout = "0"}));
    EXPECT_GT(store().hget(sessionsUri, "@odata.etag"), before);
}

TEST_F(Expiry, KeepsASessionThatHasNotBeenIdleForLongEnough) {
    const InsertedSession expired = frontEnd().insertSession({.timeout = "0"});
    const InsertedSession kept =
        frontEnd().insertSession({.timeout = "300", .lastAccessed = idleFor(100)});
    const InsertedSession alsoExpired = frontEnd().insertSession({.timeout = "0"});
    waitForAPass();
    EXPECT_FALSE(exists(expired));
    EXPECT_FALSE(exists(alsoExpired));
    EXPECT_TRUE(exists(kept));
    EXPECT_TRUE(store().exists(tokenKey(kept.token)));
    EXPECT_EQ(store().lrange(membersKey), Words{"&&ObjectRef " + kept.uri});
}

TEST_F(Expiry, EndsALoginThatIsNotUsed) {
    usePamTest("env=PRIVILEGES=9");
    store().hset(serviceUri, {{"SessionTimeout", "1"}});
    const Reply login = frontEnd().login("somebody", "anything");
    ASSERT_EQ(login.status(), "OK");
    waitUntilExpired(login.location());
    EXPECT_FALSE(store().exists(tokenKey(login.token())));
}

TEST_F(Expiry, AsksForTheSettingOfTheSessionNotOfTheService) {
    const InsertedSession session = frontEnd().insertSession({.timeout = "300"});
    store().hset(serviceUri, {{"SessionTimeout", "0"}});
    waitForAPass();
    EXPECT_TRUE(exists(session));
}

TEST_F(Expiry, ComesInTheSecondInWhichTheIdleTimeReachesTheLimit) {
    // A pass may be late on a busy machine, and then tells nothing: so as often as needed.
    waitUntil("a session has expired in the second of its limit", [this] {
        const long limit = uptime() + 2;
        const InsertedSession session =
            frontEnd().insertSession({.timeout = "5", .lastAccessed = std::to_string(limit - 5)});
        long now = 0;
        do {
            now = uptime();
        } while (exists(session));
        EXPECT_GE(uptime(), limit);
        waitUntilExpired(session);
        return now <= limit;
    });
}

TEST_F(Expiry, KeepsASessionWhoseLastUseLiesInTheFuture) {
    const InsertedSession session =
        frontEnd().insertSession({.timeout = "0", .lastAccessed = idleFor(-1000)});
    waitForAPass();
    EXPECT_TRUE(exists(session));
}

TEST_F(Expiry, ComesOnceTheClockHasCaughtUpWithALastUseInTheFuture) {
    const long caughtUp = uptime() + 2;
    const InsertedSession session =
        frontEnd().insertSession({.timeout = "0", .lastAccessed = std::to_string(caughtUp)});
    waitUntilExpired(session);
    EXPECT_GE(uptime(), caughtUp);
}

TEST_F(Expiry, CountsALastUseThatIsMissingOrUnreadableAsTheStartOfTheMachine) {
    const std::string reached = std::to_string(uptime());
    const std::string notReached = std::to_string(uptime() + 1000);
    const std::vector<InsertedSession> expired{
        frontEnd().insertSession({.timeout = reached, .leaveOutOfToken = {"LastAccessed"}}),
        frontEnd().insertSession({.timeout = reached, .lastAccessed = "yesterday"}),
        frontEnd().insertSession(
            {.timeout = reached, .lastAccessed = jsonQuoted(std::to_string(uptime()))}),
    };
    const std::vector<InsertedSession> kept{
        frontEnd().insertSession({.timeout = notReached, .leaveOutOfToken = {"LastAccessed"}}),
        frontEnd().insertSession({.timeout = notReached, .lastAccessed = "yesterday"}),
    };
    waitForAPass();
    for (const InsertedSession& session : expired) {
        EXPECT_FALSE(exists(session)) << session.uri;
    }
    for (const InsertedSession& session : kept) {
        EXPECT_TRUE(exists(session)) << session.uri;
    }
}

TEST_F(Expiry, CountsATimeoutThatIsMissingOrUnreadableAsNone) {
    const std::vector<InsertedSession> expired{
        frontEnd().insertSession({.leaveOutOfToken = {"Timeout"}}),
        frontEnd().insertSession({.timeout = "never"}),
        frontEnd().insertSession({.timeout = "\"300\""}),
        frontEnd().insertSession({.leaveOutOfToken = {"LastAccessed", "Timeout"}}),
    };
    const std::vector<InsertedSession> kept{
        frontEnd().insertSession({.lastAccessed = idleFor(-1000), .leaveOutOfToken = {"Timeout"}}),
        frontEnd().insertSession({.timeout = "never", .lastAccessed = idleFor(-1000)}),
    };
    waitForAPass();
    for (const InsertedSession& session : expired) {
        EXPECT_FALSE(exists(session)) << session.uri;
    }
    for (const InsertedSession& session : kept) {
        EXPECT_TRUE(exists(session)) << session.uri;
    }
}

TEST_F(Expiry, RemovesASessionWithoutATokenRecord) {
    const InsertedSession session = frontEnd().insertSession(
        {.lastAccessed = idleFor(-1000),
         .leaveOutOfToken = {"UserName", "Privilege", "SessionID", "LastAccessed", "Timeout"}});
    ASSERT_FALSE(store().exists(tokenKey(session.token)));
    waitUntilExpired(session);
}

TEST_F(Expiry, OfASessionWithoutATokenReferenceLeavesTheTokenRecord) {
    const InsertedSession session = frontEnd().insertSession(
        {.timeout = "300", .lastAccessed = idleFor(-1000), .tokenReference = false});
    waitUntilExpired(session);
    EXPECT_TRUE(store().exists(tokenKey(session.token)));
}

TEST_F(Expiry, TakesTheTokenWithoutItsQuotesFromTheReference) {
    const InsertedSession bare = frontEnd().insertSession({.lastAccessed = idleFor(-1000)});
    const InsertedSession half = frontEnd().insertSession({.lastAccessed = idleFor(-1000)});
    store().hset(tokenReferenceKey(bare.uri), {{"XAUTH", bare.token}});
    // A quote on one side only belongs to the token, which then has no record.
    store().hset(tokenReferenceKey(half.uri), {{"XAUTH", '"' + half.token}});
    waitUntilExpired(half);
    waitForAPass();
    EXPECT_TRUE(exists(bare));
}

TEST_F(Expiry, ReadsNegativeNumbers) {
    const InsertedSession expired =
        frontEnd().insertSession({.timeout = "-1000", .lastAccessed = idleFor(-500)});
    const InsertedSession kept =
        frontEnd().insertSession({.timeout = "-1000", .lastAccessed = idleFor(-2000)});
    waitForAPass();
    EXPECT_FALSE(exists(expired));
    EXPECT_TRUE(exists(kept));
}

TEST_F(Expiry, DoesNotOverflowOnTheLongestIdleTime) {
    const InsertedSession session =
        frontEnd().insertSession({.timeout = std::to_string(std::numeric_limits<int>::max()),
                                  .lastAccessed = std::to_string(std::numeric_limits<int>::min())});
    waitUntilExpired(session);
}

TEST_F(Expiry, LeavesSessionsOfOtherTypesAlone) {
    std::vector<InsertedSession> sessions{
        frontEnd().insertSession({.timeout = "0", .leaveOutOfSession = {"SessionType"}})};
    for (const char* type : {"Redfish", "\"redfish\"", "\"HostConsole\"", "\"Redfish\" ", ""}) {
        sessions.push_back(frontEnd().insertSession({.timeout = "0", .sessionType = type}));
    }
    waitForAPass();
    for (const InsertedSession& session : sessions) {
        EXPECT_TRUE(exists(session)) << store().hget(session.uri, "SessionType");
    }
}

TEST_F(Expiry, LeavesSessionsOutsideTheCollectionAlone) {
    const InsertedSession session = frontEnd().insertSession({.timeout = "0", .member = false});
    waitForAPass();
    EXPECT_TRUE(exists(session));
}

TEST_F(Expiry, PassesOverMembersThatNameNoSession) {
    store().run({"RPUSH", membersKey, "", "short", "&&ObjectRef ",
                 "&&ObjectRef " + sessionPrefix + "0badcafe", "&&ObjectRef %s%n"});
    waitForAPass();
    EXPECT_EQ(store().llen(membersKey), 5);
}

TEST_F(Expiry, TakesTheUriFromBehindTheFirstTwelveCharactersWhateverTheyAre) {
    const InsertedSession session = frontEnd().insertSession({.timeout = "0", .member = false});
    store().run({"LPUSH", membersKey, "123456789012" + session.uri});
    waitForAPass();
    EXPECT_FALSE(exists(session));
    // The entry itself is looked for in its usual form only.
    EXPECT_EQ(store().lrange(membersKey), Words{"123456789012" + session.uri});
    EXPECT_EQ(store().hget(sessionsUri, "Members@odata.count"), "0");
}

TEST_F(Expiry, RemovesTheSessionThatAnOverlongUriIsCutTo) {
    expectErrorLine("Failed to generate LogEntry.");
    const std::string identifier(600, 'a');
    Monitor monitor = controller.monitor();
    const InsertedSession session =
        frontEnd().insertSession({.identifier = identifier, .timeout = "0"});
    const std::string cut = session.uri.substr(0, 511);
    monitor.until([&](const MonitoredCommand& command) {
        return command.words == Words{"LREM", membersKey, "-1", "&&ObjectRef " + cut};
    });
    waitForAPass();
    EXPECT_TRUE(exists(session));
}

TEST_F(Expiry, TakesAnIdentifierWithBlanksAndPercentSignsAsOne) {
    const InsertedSession bystander = frontEnd().insertSession();
    const InsertedSession session = frontEnd().insertSession(
        {.identifier = "a " + tokenKey(bystander.token) + " %s%n", .timeout = "0"});
    waitUntilExpired(session);
    EXPECT_FALSE(exists(session));
    EXPECT_FALSE(store().exists(tokenKey(session.token)));
    EXPECT_EQ(store().lrange(membersKey), Words{"&&ObjectRef " + bystander.uri});
    EXPECT_TRUE(exists(bystander));
    EXPECT_TRUE(store().exists(tokenKey(bystander.token)));
    EXPECT_EQ(lifeCycleEvents(store()).front(), (Words{"delete", session.uri, "Session", "1"}));
}

TEST_F(Expiry, TellsTheOtherServicesAsALogoutDoes) {
    const InsertedSession session =
        frontEnd().insertSession({.userName = "operator", .timeout = "0"});
    waitUntil("the logout is in the audit log", [&] { return !auditEntries(store()).empty(); });
    EXPECT_EQ(
        auditEntries(store()),
        (std::vector<Words>{{R"("AuditEvent.1.1.UserLogout")", R"(["operator"])",
                             R"({"OriginOfCondition":{"@odata.id":")" + session.uri + R"("}})"}}));
    EXPECT_EQ(lifeCycleEvents(store()),
              (std::vector<Words>{{"delete", session.uri, "Session", "1"},
                                  {"change", sessionsUri, "SessionCollection", "1"}}));
}

TEST_F(Expiry, AnswersNobody) {
    Monitor monitor = controller.monitor();
    const Words before = store().keys("*");
    waitUntilExpired(frontEnd().insertSession({.timeout = "0"}));
    for (const MonitoredCommand& command : monitor.soFar()) {
        const std::string& name = command.words.front();
        EXPECT_TRUE(command.client == "lua" || (name != "PUBLISH" && name != "EXPIRE")) << name;
    }
    Words fresh;
    const Words after = store().keys("*");
    std::set_difference(after.begin(), after.end(), before.begin(), before.end(),
                        std::back_inserter(fresh));
    EXPECT_EQ(fresh,
              (Words{"&&/redfish/v1/Managers/1/LogServices/AuditLog/Entries/Members",
                     "&&EventStream", "/redfish/v1/Managers/1/LogServices/AuditLog/Entries/1"}));
}

TEST_F(Expiry, OfASessionInACollectionWithoutACountIsLoggedAndTellsOfTheDeletionOnly) {
    expectErrorLine("Failed to get sessions.");
    store().run({"HDEL", sessionsUri, "Members@odata.count"});
    const InsertedSession session = frontEnd().insertSession({.timeout = "0", .member = false});
    store().run({"LPUSH", membersKey, "&&ObjectRef " + session.uri});
    waitUntil("the deletion is told", [&] { return !lifeCycleEvents(store()).empty(); });
    waitForAPass();
    EXPECT_FALSE(exists(session));
    EXPECT_FALSE(store().exists(tokenKey(session.token)));
    EXPECT_EQ(store().lrange(membersKey), Words{"&&ObjectRef " + session.uri});
    EXPECT_EQ(countLogged("Failed to get sessions."), 1);
    const std::vector<Words> events = lifeCycleEvents(store());
    ASSERT_GE(events.size(), 2U);
    EXPECT_EQ(events[0], (Words{"delete", session.uri, "Session", "1"}));
    EXPECT_EQ(events[1].front(), "delete");
    for (const Words& entry : auditEntries(store())) {
        EXPECT_EQ(entry.at(2).find(session.uri), std::string::npos);
    }
}

TEST_F(Expiry, GoesOnWhenOnlyTheDeleteThreadIsLeftToServe) {
    store().publish(createChannel, "&&EXIT");
    waitUntil("the create thread has ended", [this] {
        return store().run({"PUBSUB", "NUMSUB", createChannel}).elements.at(1).integer == 0;
    });
    waitUntilExpired(frontEnd().insertSession({.timeout = "0"}));
}

class ExpiryOfSeveral : public SystemTest {
  protected:
    ExpiryOfSeveral() : SystemTest({.storeOverTcp = true}) {}
};

// Sessions that were there before the daemon are all seen by its first pass.
TEST_F(ExpiryOfSeveral, RemovesThemInTheOrderOfTheListEachWithItsOwnEventGroup) {
    startStore();
    const InsertedSession oldest = frontEnd().insertSession({.userName = "a", .timeout = "0"});
    const InsertedSession kept = frontEnd().insertSession({.userName = "b"});
    const InsertedSession middle = frontEnd().insertSession({.userName = "c", .timeout = "0"});
    const InsertedSession newest = frontEnd().insertSession({.userName = "d", .timeout = "0"});
    startDaemon();
    waitUntil("three logouts are in the audit log",
              [&] { return auditEntries(store()).size() == 3; });
    EXPECT_EQ(lifeCycleEvents(store()),
              (std::vector<Words>{{"delete", newest.uri, "Session", "1"},
                                  {"change", sessionsUri, "SessionCollection", "1"},
                                  {"delete", middle.uri, "Session", "2"},
                                  {"change", sessionsUri, "SessionCollection", "2"},
                                  {"delete", oldest.uri, "Session", "3"},
                                  {"change", sessionsUri, "SessionCollection", "3"}}));
    EXPECT_EQ(store().lrange(membersKey), Words{"&&ObjectRef " + kept.uri});
    EXPECT_EQ(store().hget(sessionsUri, "Members@odata.count"), "1");
}

TEST_F(ExpiryOfSeveral, SendsTheseCommandsOverOneConnection) {
    startStore();
    const InsertedSession expired = frontEnd().insertSession({.timeout = "0"});
    const InsertedSession foreign = frontEnd().insertSession({.sessionType = "\"Other\""});
    const InsertedSession kept = frontEnd().insertSession();
    Monitor monitor = controller.monitor();
    startDaemon();
    // All up to the beginning of the second pass; the deletion asks for the list, too.
    int lists = 0;
    const std::vector<MonitoredCommand> watched =
        monitor.until([&](const MonitoredCommand& command) {
            lists += isPassStart(command.words) ? 1 : 0;
            return lists == 3;
        });

    const auto pass = std::find_if(watched.begin(), watched.end(),
                                   [](const auto& command) { return isPassStart(command.words); });
    ASSERT_NE(pass, watched.end());
    std::vector<Words> commands = commandsOf(watched, pass->client);
    commands.erase(commands.begin());  // AUTH
    // The values that only the run itself knows.
    for (Words& words : commands) {
        for (std::string& word : words) {
            if (word.size() == 15 && word.front() == '"') {
                word = "ETAG";
            } else if (word.size() == 25 && word.at(10) == 'T') {
                word = "TIME";
            }
        }
    }
    const std::string token = tokenKey(expired.token);
    const std::string keptToken = tokenKey(kept.token);
    const std::string log = "/redfish/v1/Managers/1/LogServices/AuditLog/Entries";
    const std::string eventScript = store().hget("redisSHAScripts", "resourceChange");
    const std::string logScript = store().hget("redisSHAScripts", "logGeneratorHelper");
    const std::vector<Words> expected{
        {"LRANGE", membersKey, "0", "-1"},
        {"HGET", kept.uri, "SessionType"},
        {"HGET", "&&" + kept.uri, "XAUTH"},
        {"HGET", keptToken, "LastAccessed"},
        {"HGET", keptToken, "Timeout"},
        {"HGET", foreign.uri, "SessionType"},
        {"HGET", expired.uri, "SessionType"},
        {"HGET", "&&" + expired.uri, "XAUTH"},
        {"HGET", token, "LastAccessed"},
        {"HGET", token, "Timeout"},
        {"LRANGE", membersKey, "0", "-1"},
        {"HGET", "&&" + expired.uri, "XAUTH"},
        {"HGET", expired.uri, "UserName"},
        {"UNLINK", token, expired.uri, "&&" + expired.uri},
        {"HINCRBY", "/redfish/v1/EventService", "&&EVENT_GROUP_ID_COUNTER", "1"},
        {"HGET", "webDefaultValue", "MAX_EVENT_GROUP_ID"},
        {"HGET", sessionsUri, "Members@odata.count"},
        {"LREM", membersKey, "-1", "&&ObjectRef " + expired.uri},
        {"HINCRBY", sessionsUri, "Members@odata.count", "-1"},
        {"HSET", sessionsUri, "@odata.etag", "ETAG"},
        {"HGET", "redisSHAScripts", "resourceChange"},
        {"EVALSHA", eventScript, "10", "delete", expired.uri, "Session", "EventGroupId", "1",
         "change", sessionsUri, "SessionCollection", "EventGroupId", "1"},
        {"EXISTS", log},
        {"HGET", "redisSHAScripts", "logGeneratorHelper"},
        {"EVALSHA", logScript, "7", "CREATE", log, "TIME", "AuditEvent.1.1.UserLogout", expired.uri,
         "1", "admin"},
        {"LRANGE", membersKey, "0", "-1"},
    };
    EXPECT_EQ(commands, expected);
}

// The store's proxy holds the expiry thread in the middle of a pass.
class HeldPass : public SystemTest {
  protected:
    void SetUp() override {
        startStore();
        usePamTest("env=PRIVILEGES=9");
        proxy.setFilter([this](const Words& command) {
            // Only the expiry thread asks for this field of a session that nobody deletes.
            if (held && command == Words{"HGET", tokenKey(watched), "Timeout"}) {
                inside = true;
                waitUntil("the pass may go on", [this] { return !held; });
                inside = false;
            }
            return StoreProxy::Verdict::pass;
        });
        frontEnd().insertSession({.token = watched});
        startDaemon();
        holdAPass();
    }
    void holdAPass() {
        held = true;
        waitUntil("the expiry thread is inside a pass", [this] { return inside.load(); });
    }
    void letThePassGoOn() {
        held = false;
        waitUntil("the pass goes on", [this] { return !inside; });
    }
    void TearDown() override {
        held = false;
        SystemTest::TearDown();
    }

    const std::string watched = std::string(64, 'e');
    std::atomic<bool> held = true;
    std::atomic<bool> inside = false;
    StoreProxy proxy{controller};
};

const std::vector<Message> busy{{"Base.1.12.ServiceTemporarilyUnavailable", {"\"1\""}}};

TEST_F(HeldPass, KeepsDeletionsAndLoginsOut) {
    const InsertedSession session = frontEnd().insertSession();
    Request deletion = frontEnd().prepareRemove(session.uri);
    Request login = frontEnd().prepareLogin("somebody", "anything");
    const auto sent = std::chrono::steady_clock::now();
    deletion.send();
    login.send();
    const Reply refusedDeletion = deletion.reply();
    EXPECT_GE(std::chrono::steady_clock::now() - sent, std::chrono::seconds(2));
    EXPECT_EQ(refusedDeletion.status(), "UNAVAILABLE");
    EXPECT_EQ(refusedDeletion.messages, busy);
    EXPECT_EQ(login.reply().status(), "UNAVAILABLE");
    EXPECT_TRUE(store().exists(session.uri));
    EXPECT_TRUE(pamRecords().empty());
}

TEST_F(HeldPass, DoesNotDelayWhatIsRefusedAnyway) {
    const std::vector<Message> off{{"ExtendedError.1.2.ServiceDisabled", {}}};
    const InsertedSession session = frontEnd().insertSession();
    const InsertedSession other = frontEnd().insertSession({.sessionType = "\"HostConsole\""});
    const Reply ofAnotherKind = frontEnd().remove(other.uri);
    EXPECT_EQ(ofAnotherKind.status(), "FAILURE");
    EXPECT_EQ(ofAnotherKind.messages,
              (std::vector<Message>{{"ExtendedError.1.2.UnprocessableEntity", {}}}));
    store().hset(serviceUri, {{"ServiceEnabled", "false"}});
    EXPECT_EQ(frontEnd().remove(session.uri).messages, off);
    EXPECT_EQ(frontEnd().login("somebody", "anything").messages, off);
    EXPECT_TRUE(inside);
    expectErrorLine("Request SessionType is not Redfish.");
}

TEST_F(HeldPass, LeavesThePatchWorkerAlone) {
    EXPECT_EQ(frontEnd().patch({{"SessionTimeout", "600"}}).status(), "OK");
    waitUntil("the event is there", [&] { return !lifeCycleEvents(store()).empty(); });
}

TEST_F(HeldPass, LetsTheOthersInOnceItIsOver) {
    const InsertedSession session = frontEnd().insertSession();
    // The pass may end too late on a busy machine, and then tells nothing: so as often as
    // needed.
    waitUntil("a deletion has waited for the end of a pass", [&] {
        Request deletion = frontEnd().prepareRemove(session.uri);
        holdAPass();
        const auto sent = std::chrono::steady_clock::now();
        deletion.send();
        EXPECT_TRUE(store().exists(session.uri));
        letThePassGoOn();
        const std::string status = deletion.reply().status();
        if (status == "UNAVAILABLE") {
            EXPECT_GE(std::chrono::steady_clock::now() - sent, std::chrono::seconds(2));
            return false;
        }
        EXPECT_EQ(status, "OK_EMPTY");
        return true;
    });
    EXPECT_EQ(frontEnd().login("somebody", "anything").status(), "OK");
}

TEST_F(Expiry, LeavesTheOthersInBetweenItsPasses) {
    Monitor monitor = controller.monitor();
    monitor.until([](const MonitoredCommand& command) { return isPassStart(command.words); });
    for (int i = 0; i < 5; ++i) {
        const InsertedSession session = frontEnd().insertSession();
        EXPECT_EQ(frontEnd().remove(session.uri).status(), "OK_EMPTY");
    }
}

TEST_F(Expiry, LogsThatItRuns) {
    EXPECT_EQ(countLogged("Timeout session thread is running ..."), 1);
    for (const LogLine& line : logLines()) {
        if (line.message == "Timeout session thread is running ...") {
            EXPECT_EQ(line.tag, "[Debug]");
        }
    }
}

TEST_F(Expiry, KeepsThirtyTwoBitsOfItsNumbers) {
    constexpr long long nextLowerHalf = 4294967296;
    const std::vector<InsertedSession> expired{
        frontEnd().insertSession({.timeout = "4294967296"}),
        frontEnd().insertSession({.timeout = "2147483648"}),
        frontEnd().insertSession({.timeout = "9223372036854775807"}),
        frontEnd().insertSession({.timeout = "300", .lastAccessed = "2147483648"}),
        frontEnd().insertSession(
            {.timeout = "300", .lastAccessed = std::to_string(uptime() - 400 + nextLowerHalf)}),
    };
    const std::vector<InsertedSession> kept{
        frontEnd().insertSession({.timeout = "4294967596"}),
        frontEnd().insertSession({.timeout = "-4294966996"}),
        frontEnd().insertSession({.timeout = "6442450943"}),
        frontEnd().insertSession(
            {.timeout = "300", .lastAccessed = std::to_string(uptime() + nextLowerHalf)}),
    };
    waitForAPass();
    for (const InsertedSession& session : expired) {
        EXPECT_FALSE(exists(session)) << store().hgetall(tokenKey(session.token)).at("Timeout");
    }
    for (const InsertedSession& session : kept) {
        EXPECT_TRUE(exists(session)) << session.uri;
    }
}

TEST_F(Expiry, LooksAtTheSessionsOnceASecondAndNoMoreOften) {
    Monitor monitor = controller.monitor();
    const auto nextPass = [&] {
        return monitor
            .until([](const MonitoredCommand& command) { return isPassStart(command.words); })
            .back()
            .at;
    };
    const std::chrono::microseconds first = nextPass();
    nextPass();
    nextPass();
    // A little less than three seconds: the store may have come to the first one late.
    EXPECT_GE(nextPass() - first, std::chrono::milliseconds(2500));
}

}  // namespace
}  // namespace testbed
