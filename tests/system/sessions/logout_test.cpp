// Logging out: what it removes, what it leaves, what it answers and what it tells others.
#include <atomic>
#include <regex>
#include <thread>

#include "support/permissive_pam_test.h"
#include "support/store_proxy.h"

namespace testbed {
namespace {

const std::string auditMembers = "&&" + std::string(auditEntriesUri) + "/Members";

Words sorted(Words words) {
    std::sort(words.begin(), words.end());
    return words;
}

Words keysOf(const InsertedSession& session) {
    return sorted({session.uri, tokenReferenceKey(session.uri), tokenKey(session.token)});
}

std::string listKeyOf(const Request& request) {
    return request.replyKey().substr(0, request.replyKey().rfind('/') + 1) + "ExtendedInfo";
}

class Logout : public PermissivePamTest {
  protected:
    using PermissivePamTest::PermissivePamTest;

    Words thereOf(const Words& keys) {
        Words there;
        for (const std::string& key : keys) {
            if (store().exists(key)) {
                there.push_back(key);
            }
        }
        return there;
    }
    std::string count() { return store().hget(sessionsUri, "Members@odata.count"); }
    std::string etag() { return store().hget(sessionsUri, "@odata.etag"); }
    std::string lastEventGroup() { return store().hget(eventServiceUri, eventGroupCounter); }

    // What the event service is told of a whole deletion.
    std::vector<Words> eventsOf(const std::string& uri) {
        return {{"delete", uri, "Session", lastEventGroup()},
                {"change", sessionsUri, "SessionCollection", lastEventGroup()}};
    }
    // Returns when everything published so far has been served.
    void settle() { frontEnd().remove(frontEnd().insertSession().uri); }

    // A request whose deletion fails before anything is removed and that gets no answer.
    void expectNothingDone(const InsertedSession& session, const Snapshot& before,
                           Request& request) {
        EXPECT_EQ(thereOf(keysOf(session)), keysOf(session));
        EXPECT_EQ(changedSince(before), Words{});
        EXPECT_FALSE(store().exists(request.replyKey()));
        settle();
        EXPECT_FALSE(request.publishedAlready());
    }
};

TEST_F(Logout, RemovesTheSessionAndItsTokenAndNothingElse) {
    const Reply session = login();
    const Reply other = login();
    const Snapshot before = snapshot();
    EXPECT_EQ(frontEnd().remove(session.location()).status(), "OK_EMPTY");
    EXPECT_EQ(thereOf({session.location(), tokenReferenceKey(session.location()),
                       tokenKey(session.token())}),
              Words{});
    EXPECT_EQ(changedSince(before),
              sorted({session.location(), tokenReferenceKey(session.location()),
                      tokenKey(session.token()), sessionsUri, membersKey, eventServiceUri,
                      "&&EventStream", auditEntriesUri, auditMembers,
                      std::string(auditEntriesUri) + "/3"}));
    EXPECT_EQ(store().lrange(membersKey), Words{"&&ObjectRef " + other.location()});
    EXPECT_EQ(count(), "1");
}

TEST_F(Logout, AnswersWithoutDataAndWithoutMessage) {
    Request request = frontEnd().prepareRemove(frontEnd().insertSession().uri);
    request.send();
    const Reply reply = request.reply();
    EXPECT_EQ(reply.published, request.replyKey());
    EXPECT_EQ(reply.fields,
              (Fields{{"&&ReturnStatus", "OK_EMPTY"}, {"&&ExtendedInfo", listKeyOf(request)}}));
    EXPECT_FALSE(store().exists(listKeyOf(request)));
}

TEST_F(Logout, KeepsTheOrderOfTheOtherSessions) {
    const InsertedSession first = frontEnd().insertSession();
    const InsertedSession second = frontEnd().insertSession();
    const InsertedSession third = frontEnd().insertSession();
    frontEnd().remove(second.uri);
    EXPECT_EQ(store().lrange(membersKey),
              (Words{"&&ObjectRef " + third.uri, "&&ObjectRef " + first.uri}));
    EXPECT_EQ(count(), "2");
    EXPECT_EQ(thereOf(keysOf(first)), keysOf(first));
    EXPECT_EQ(thereOf(keysOf(third)), keysOf(third));
}

TEST_F(Logout, RefreshesTheEtagOfTheCollection) {
    store().hset(sessionsUri, {{"@odata.etag", "\"1\""}});
    frontEnd().remove(frontEnd().insertSession().uri);
    EXPECT_TRUE(std::regex_match(etag(), std::regex("\"[0-9]{13}\""))) << etag();
}

TEST_F(Logout, TellsTheEventServiceInOneGroup) {
    const InsertedSession session = frontEnd().insertSession();
    store().hset(eventServiceUri, {{eventGroupCounter, "41"}});
    frontEnd().remove(session.uri);
    EXPECT_EQ(lastEventGroup(), "42");
    EXPECT_EQ(lifeCycleEvents(store()), eventsOf(session.uri));
}

TEST_F(Logout, IsWrittenIntoTheAuditLog) {
    const InsertedSession session = frontEnd().insertSession({.userName = "otto"});
    frontEnd().remove(session.uri);
    EXPECT_EQ(
        auditEntries(store()),
        (std::vector<Words>{{"\"AuditEvent.1.1.UserLogout\"", "[\"otto\"]",
                             "{\"OriginOfCondition\":{\"@odata.id\":\"" + session.uri + "\"}}"}}));
}

TEST_F(Logout, IsOpenToWhoeverMayPublishIt) {
    const InsertedSession session =
        frontEnd().insertSession({.userName = "admin", .privilege = "511"});
    const Reply reply = frontEnd().remove(
        session.uri, {.fields = {{"&&OperationPrivileges", "1024"}, {"&&UserName", "reader"}}});
    EXPECT_EQ(reply.status(), "OK_EMPTY");
    EXPECT_EQ(thereOf(keysOf(session)), Words{});
}

TEST_F(Logout, ClosesTheConnectionThatItOpened) {
    const auto lines = [&clients = store()] {
        const std::string list = clients.run({"CLIENT", "LIST"}).text;
        return std::count(list.begin(), list.end(), '\n');
    };
    frontEnd();
    // Four are the daemon's for good, two the test's.
    constexpr auto lasting = 6;
    waitUntil("only the lasting connections are open", [&] { return lines() == lasting; });
    frontEnd().remove(frontEnd().insertSession().uri);
    frontEnd().remove(frontEnd().insertSession({.sessionType = "\"Other\""}).uri);
    expectErrorLine("Request SessionType is not Redfish.");
    Request request = frontEnd().prepareRemove("/x", {.leaveOut = {"&&TargetURI"}});
    expectErrorLine("&&TargetURI is not found.");
    request.send();
    waitForLog("&&TargetURI is not found.");
    waitUntil("only this request's own two connections are left",
              [&] { return lines() == lasting + 2; });
}

// --- sessions that are not as usual

TEST_F(Logout, OfAnUnknownSessionAnswersOkEmptyAndTellsTheOthersAllTheSame) {
    expectErrorLine("Failed to generate LogEntry. ");
    const InsertedSession other = frontEnd().insertSession();
    const std::string unknown = std::string(sessionsUri) + "/00000000";
    const std::string etagBefore = etag();
    const Snapshot before = snapshot();
    Request request = frontEnd().prepareRemove(unknown);
    request.send();
    const Reply reply = request.reply();
    EXPECT_EQ(reply.fields,
              (Fields{{"&&ReturnStatus", "OK_EMPTY"}, {"&&ExtendedInfo", listKeyOf(request)}}));
    EXPECT_EQ(changedSince(before), sorted({eventServiceUri, "&&EventStream"}));
    EXPECT_EQ(etag(), etagBefore);
    EXPECT_EQ(count(), "1");
    EXPECT_EQ(lifeCycleEvents(store()), eventsOf(unknown));
    EXPECT_TRUE(auditEntries(store()).empty());
}

TEST_F(Logout, OfASessionOutsideTheCollectionLeavesTheCollectionAlone) {
    frontEnd().insertSession();
    const InsertedSession session = frontEnd().insertSession({.member = false});
    const std::string etagBefore = etag();
    EXPECT_EQ(frontEnd().remove(session.uri).status(), "OK_EMPTY");
    EXPECT_EQ(thereOf(keysOf(session)), Words{});
    EXPECT_EQ(count(), "1");
    EXPECT_EQ(etag(), etagBefore);
    EXPECT_EQ(lifeCycleEvents(store()), eventsOf(session.uri));
    EXPECT_EQ(auditEntries(store()).size(), 1U);
}

TEST_F(Logout, OfASessionThatIsListedTwiceTakesTheOlderEntry) {
    const InsertedSession session = frontEnd().insertSession();
    const InsertedSession other = frontEnd().insertSession();
    store().run({"LPUSH", membersKey, "&&ObjectRef " + session.uri});
    EXPECT_EQ(frontEnd().remove(session.uri).status(), "OK_EMPTY");
    EXPECT_EQ(store().lrange(membersKey),
              (Words{"&&ObjectRef " + session.uri, "&&ObjectRef " + other.uri}));
    EXPECT_EQ(count(), "1");
}

TEST_F(Logout, OfACollectionThatIsNoListLeavesTheCountAlone) {
    const InsertedSession session = frontEnd().insertSession({.member = false});
    corrupt(membersKey);
    store().hset(sessionsUri, {{"Members@odata.count", "5"}});
    EXPECT_EQ(frontEnd().remove(session.uri).status(), "OK_EMPTY");
    EXPECT_EQ(thereOf(keysOf(session)), Words{});
    EXPECT_EQ(count(), "5");
    EXPECT_EQ(lifeCycleEvents(store()), eventsOf(session.uri));
}

TEST_F(Logout, GoesOnWhenTheCountIsNoNumber) {
    const InsertedSession session = frontEnd().insertSession();
    store().hset(sessionsUri, {{"Members@odata.count", "several"}, {"@odata.etag", "\"1\""}});
    EXPECT_EQ(frontEnd().remove(session.uri).status(), "OK_EMPTY");
    EXPECT_EQ(count(), "several");
    EXPECT_NE(etag(), "\"1\"");
    EXPECT_EQ(lifeCycleEvents(store()), eventsOf(session.uri));
}

TEST_F(Logout, WithoutATypeIsNotRefused) {
    const InsertedSession without =
        frontEnd().insertSession({.leaveOutOfSession = {"SessionType"}});
    const InsertedSession empty = frontEnd().insertSession({.sessionType = ""});
    for (const InsertedSession& session : {without, empty}) {
        EXPECT_EQ(frontEnd().remove(session.uri).status(), "OK_EMPTY");
        EXPECT_EQ(thereOf(keysOf(session)), Words{});
    }
}

TEST_F(Logout, WithoutATokenReferenceLeavesTheTokenRecord) {
    const InsertedSession session =
        frontEnd().insertSession({.member = false, .tokenReference = false});
    EXPECT_EQ(frontEnd().remove(session.uri).status(), "OK_EMPTY");
    EXPECT_EQ(thereOf(keysOf(session)), Words{tokenKey(session.token)});
}

TEST_F(Logout, OfKeysOfAnotherKindRemovesThemToo) {
    expectErrorLine("Failed to generate LogEntry. ");
    const InsertedSession session = frontEnd().insertSession({.member = false});
    corrupt(session.uri);
    corrupt(tokenReferenceKey(session.uri));
    EXPECT_EQ(frontEnd().remove(session.uri).status(), "OK_EMPTY");
    EXPECT_EQ(thereOf(keysOf(session)), Words{tokenKey(session.token)});
}

TEST_F(Logout, TakesTheFirstTwoQuotesOutOfTheTokensKey) {
    for (const auto& [reference, token] : Fields{{"\"tok\"", "tok"},
                                                 {"tok", "tok"},
                                                 {"\"tok", "tok"},
                                                 {"to\"k", "tok"},
                                                 {"\"a\"b\"c\"", "ab\"c\""},
                                                 {"\"\"\"", "\""},
                                                 {"\"two words\"", "two words"},
                                                 {"\"%s%n\"", "%s%n"},
                                                 {"\"\"", ""}}) {
        const InsertedSession session = frontEnd().insertSession({.member = false});
        store().hset(tokenReferenceKey(session.uri), {{"XAUTH", reference}});
        store().hset(tokenKey(token), {{"UserName", "admin"}});
        EXPECT_EQ(frontEnd().remove(session.uri).status(), "OK_EMPTY");
        EXPECT_FALSE(store().exists(tokenKey(token))) << reference;
        EXPECT_EQ(thereOf(keysOf(session)), Words{tokenKey(session.token)}) << reference;
    }
}

TEST_F(Logout, NamesTheUserWithoutTheQuotesThatEncloseTheName) {
    for (const auto& [stored, argument] : Fields{{"\"otto\"", "otto"},
                                                 {"otto", "otto"},
                                                 {"\"\"otto\"\"", "\"otto\""},
                                                 {"\"otto", "\"otto"},
                                                 {"otto\"", "otto\""},
                                                 {"o", "o"},
                                                 {"\"", "\""},
                                                 {"\"o\\\"t\"", "o\\\"t"},
                                                 {"\"%s%n%%\"", "%s%n%%"}}) {
        frontEnd().remove(frontEnd().insertSession({.session = {{"UserName", stored}}}).uri);
        EXPECT_EQ(auditEntries(store()).back().at(1), "[" + jsonQuoted(argument) + "]") << stored;
    }
}

TEST_F(Logout, OfAUserWithoutANameIsNotWrittenIntoTheAuditLog) {
    expectErrorLine("Failed to generate LogEntry. ");
    long failures = 0;
    for (const char* name : {"\"\"", ""}) {
        const InsertedSession session = frontEnd().insertSession({.session = {{"UserName", name}}});
        EXPECT_EQ(frontEnd().remove(session.uri).status(), "OK_EMPTY");
        ++failures;
    }
    EXPECT_TRUE(auditEntries(store()).empty());
    long logged = 0;
    for (const LogLine& line : logLines()) {
        logged += line.message.rfind("Failed to generate LogEntry. ", 0) == 0 ? 1 : 0;
    }
    EXPECT_EQ(logged, failures);
}

TEST_F(Logout, SucceedsWithoutTheScriptsOfTheOthers) {
    expectErrorLine("Cannot get SHA script resourceChange.");
    expectErrorLine("Cannot get SHA script logGeneratorHelper.");
    const InsertedSession session = frontEnd().insertSession();
    store().del("redisSHAScripts");
    EXPECT_EQ(frontEnd().remove(session.uri).status(), "OK_EMPTY");
    EXPECT_EQ(thereOf(keysOf(session)), Words{});
    EXPECT_EQ(count(), "0");
}

// --- target URIs

TEST_F(Logout, TakesTheTextAfterTheLastSlashAsIdentifier) {
    for (const char* path : {"", "/", "/some/other/path/", "//", "/redfish/v1/"}) {
        const InsertedSession session = frontEnd().insertSession();
        EXPECT_EQ(frontEnd().remove(path + session.identifier).status(), "OK_EMPTY") << path;
        EXPECT_EQ(thereOf(keysOf(session)), Words{}) << path;
        EXPECT_EQ(count(), "0");
        EXPECT_EQ(lifeCycleEvents(store()).at(lifeCycleEvents(store()).size() - 2).at(1),
                  session.uri);
    }
}

TEST_F(Logout, LooksForTheTypeAtTheTargetAsItStands) {
    expectErrorLine("Request SessionType is not Redfish.");
    const InsertedSession session = frontEnd().insertSession();
    store().hset("/elsewhere/" + session.identifier, {{"SessionType", "\"Other\""}});
    EXPECT_EQ(frontEnd().remove("/elsewhere/" + session.identifier).status(), "FAILURE");
    EXPECT_EQ(thereOf(keysOf(session)), keysOf(session));
}

// --- refusals

TEST_F(Logout, OfASessionOfAnotherTypeIsRefused) {
    expectErrorLine("Request SessionType is not Redfish.");
    long refused = 0;
    for (const char* type : {"Redfish", "\"redfish\"", "\"Redfish\" ", "\"ManagerConsole\"",
                             "\"Redfish", "null", "\""}) {
        const InsertedSession session = frontEnd().insertSession({.sessionType = type});
        const Snapshot before = snapshot();
        Request request = frontEnd().prepareRemove(session.uri);
        request.send();
        const Reply reply = request.reply();
        const std::string list = request.replyKey() + "/ExtendedInfo";
        EXPECT_EQ(reply.published, request.replyKey());
        EXPECT_EQ(reply.fields, (Fields{{"&&ReturnStatus", "FAILURE"}, {"&&ExtendedInfo", list}}))
            << type;
        EXPECT_EQ(store().lrange(list), Words{list + "/1"});
        EXPECT_EQ(store().hgetall(list + "/1"),
                  (Fields{{"&&MessageId", "ExtendedError.1.2.UnprocessableEntity"}}));
        EXPECT_EQ(changedSince(before), Words{}) << type;
        EXPECT_EQ(countLogged("Request SessionType is not Redfish."), ++refused);
        EXPECT_TRUE(lifeCycleEvents(store()).empty());
    }
    EXPECT_EQ(tagsOf("Request SessionType is not Redfish.").front(), "[Error]");
}

TEST_F(Logout, IsRefusedWhileTheServiceIsDisabled) {
    const InsertedSession session = frontEnd().insertSession();
    store().hset(serviceUri, {{"ServiceEnabled", "false"}});
    const Snapshot before = snapshot();
    Request request = frontEnd().prepareRemove(session.uri);
    request.send();
    const Reply reply = request.reply();
    const std::string list = request.replyKey() + "/ExtendedInfo";
    EXPECT_EQ(reply.published, request.replyKey());
    EXPECT_EQ(reply.fields, (Fields{{"&&ReturnStatus", "UNAVAILABLE"}, {"&&ExtendedInfo", list}}));
    EXPECT_EQ(store().lrange(list), Words{list + "/1"});
    EXPECT_EQ(store().hgetall(list + "/1"),
              (Fields{{"&&MessageId", "ExtendedError.1.2.ServiceDisabled"}}));
    EXPECT_EQ(changedSince(before), Words{});
    EXPECT_EQ(tagsOf("Session Service disabled."), Words{"[Debug]"});

    store().hset(serviceUri, {{"ServiceEnabled", "true"}});
    EXPECT_EQ(frontEnd().remove(session.uri).status(), "OK_EMPTY");
}

TEST_F(Logout, OfAnUnknownSessionIsRefusedWhileTheServiceIsDisabled) {
    store().hset(serviceUri, {{"ServiceEnabled", "false"}});
    EXPECT_EQ(frontEnd().remove(std::string(sessionsUri) + "/00000000").status(), "UNAVAILABLE");
    EXPECT_TRUE(lifeCycleEvents(store()).empty());
}

TEST_F(Logout, OfASessionOfAnotherTypeIsAFailureEvenWhileTheServiceIsDisabled) {
    expectErrorLine("Request SessionType is not Redfish.");
    store().hset(serviceUri, {{"ServiceEnabled", "false"}});
    const InsertedSession session = frontEnd().insertSession({.sessionType = "\"Other\""});
    EXPECT_EQ(frontEnd().remove(session.uri).status(), "FAILURE");
    EXPECT_EQ(countLogged("Session Service disabled."), 0);
}

TEST_F(Logout, IsDisabledByNothingButTheExactText) {
    for (const char* value : {"False", "FALSE", "\"false\"", " false", "false ", "0", "", "null"}) {
        store().hset(serviceUri, {{"ServiceEnabled", value}});
        EXPECT_EQ(frontEnd().remove(frontEnd().insertSession().uri).status(), "OK_EMPTY") << value;
    }
    store().run({"HDEL", serviceUri, "ServiceEnabled"});
    EXPECT_EQ(frontEnd().remove(frontEnd().insertSession().uri).status(), "OK_EMPTY");
}

TEST_F(Logout, KeepsTheMessagesOfItsRefusalsForAWhile) {
    store().hset(serviceUri, {{"ServiceEnabled", "false"}});
    Request request = frontEnd().prepareRemove(std::string(sessionsUri) + "/00000000");
    request.send();
    const Reply reply = request.reply();
    for (const std::string& key : {reply["&&ExtendedInfo"], reply["&&ExtendedInfo"] + "/1"}) {
        const long long seconds = store().run({"TTL", key}).integer;
        EXPECT_GT(seconds, 0) << key;
        EXPECT_LE(seconds, 6) << key;
    }
    EXPECT_EQ(store().run({"TTL", request.replyKey()}).integer, -1);
}

TEST_F(Logout, WithoutACountFailsAfterTheSessionWasRemoved) {
    expectErrorLine("Failed to get sessions.");
    const std::vector<Message> databaseError{{"ExtendedError.1.2.DatabaseOperationError", {}}};
    for (const bool empty : {false, true}) {
        const InsertedSession session = frontEnd().insertSession();
        store().run({"HDEL", sessionsUri, "Members@odata.count"});
        if (empty) {
            store().hset(sessionsUri, {{"Members@odata.count", ""}});
        }
        store().del("&&EventStream");
        const std::string etagBefore = etag();
        Request request = frontEnd().prepareRemove(session.uri);
        request.send();
        const Reply reply = request.reply();
        EXPECT_EQ(reply.published, request.replyKey());
        EXPECT_EQ(reply.fields, (Fields{{"&&ReturnStatus", "FAILURE"},
                                        {"&&ResponseData", ""},
                                        {"&&ExtendedInfo", listKeyOf(request)}}));
        EXPECT_EQ(reply.messages, databaseError);
        EXPECT_EQ(thereOf(keysOf(session)), Words{});
        EXPECT_EQ(store().lrange(membersKey), Words{"&&ObjectRef " + session.uri});
        EXPECT_EQ(etag(), etagBefore);
        EXPECT_EQ(lifeCycleEvents(store()),
                  (std::vector<Words>{{"delete", session.uri, "Session", lastEventGroup()}}));
        EXPECT_TRUE(auditEntries(store()).empty());
        store().del(membersKey);
    }
    EXPECT_EQ(tagsOf("Failed to get sessions."), Words(2, "[Error]"));
}

// --- requests that are not complete

TEST_F(Logout, WithoutAReturnChannelIsNotServed) {
    expectErrorLine("ReturnChannel is not found.");
    const InsertedSession session = frontEnd().insertSession();
    for (const RequestOptions& options :
         {RequestOptions{.leaveOut = {"&&ReturnChannel"}},
          RequestOptions{.leaveOut = {"&&ReturnChannel", "&&TargetURI"}},
          RequestOptions{.fields = {{"&&ReturnChannel", ""}}}}) {
        const Snapshot before = snapshot();
        const long logged = countLogged("ReturnChannel is not found.");
        Request request = frontEnd().prepareRemove(session.uri, options);
        request.send();
        waitUntil("the request is refused",
                  [&] { return countLogged("ReturnChannel is not found.") == logged + 1; });
        expectNothingDone(session, before, request);
    }
    EXPECT_EQ(tagsOf("ReturnChannel is not found."), Words(3, "[Error]"));
}

TEST_F(Logout, WithoutATargetIsNotServed) {
    expectErrorLine("&&TargetURI is not found.");
    const InsertedSession session = frontEnd().insertSession();
    for (const RequestOptions& options : {RequestOptions{.leaveOut = {"&&TargetURI"}},
                                          RequestOptions{.fields = {{"&&TargetURI", ""}}}}) {
        const Snapshot before = snapshot();
        const long logged = countLogged("&&TargetURI is not found.");
        Request request = frontEnd().prepareRemove(session.uri, options);
        request.send();
        waitUntil("the request is refused",
                  [&] { return countLogged("&&TargetURI is not found.") == logged + 1; });
        expectNothingDone(session, before, request);
    }
    EXPECT_EQ(tagsOf("&&TargetURI is not found."), Words(2, "[Error]"));
}

TEST_F(Logout, WithoutARequestKeyIsSkipped) {
    const InsertedSession session = frontEnd().insertSession();
    const Snapshot before = snapshot();
    Request request = frontEnd().prepareRemove(session.uri);
    for (const std::string& notice : {" " + request.replyKey(), std::string(" ")}) {
        request.send(notice);
    }
    Request next = frontEnd().prepareRemove(session.uri, {.leaveOut = {"&&TargetURI"}});
    expectErrorLine("&&TargetURI is not found.");
    next.send();
    waitForLog("&&TargetURI is not found.");
    expectNothingDone(session, before, request);
}

TEST_F(Logout, WithOneKeyAnswersInTheRequestItself) {
    const InsertedSession session = frontEnd().insertSession();
    Request request = frontEnd().prepareRemove(session.uri);
    request.send(request.requestKey());
    EXPECT_EQ(request.published(), request.requestKey());
    EXPECT_EQ(store().hget(request.requestKey(), "&&ReturnStatus"), "OK_EMPTY");
    EXPECT_EQ(store().hget(request.requestKey(), "&&TargetURI"), session.uri);
}

TEST_F(Logout, WithoutAReplyKeyRemovesTheSessionAndAnswersNothing) {
    const InsertedSession session = frontEnd().insertSession();
    Request request = frontEnd().prepareRemove(session.uri);
    request.send(request.requestKey() + " ");
    settle();
    EXPECT_EQ(thereOf(keysOf(session)), Words{});
    EXPECT_FALSE(request.publishedAlready());
    EXPECT_EQ(thereOf({request.replyKey(), "", "ExtendedInfo"}), Words{});
    EXPECT_EQ(auditEntries(store()).size(), 2U);
}

TEST_F(Logout, WithoutAReplyKeyAndWithoutACountIsLoggedAndAnswersNothing) {
    expectErrorLine("Failed to get sessions.");
    const InsertedSession session = frontEnd().insertSession();
    store().run({"HDEL", sessionsUri, "Members@odata.count"});
    Request request = frontEnd().prepareRemove(session.uri);
    request.send(request.requestKey() + " ");
    waitUntil("the event is there", [&] { return !lifeCycleEvents(store()).empty(); });
    EXPECT_EQ(thereOf(keysOf(session)), Words{});
    EXPECT_EQ(countLogged("Failed to get sessions."), 1);
    settle();
    EXPECT_FALSE(request.publishedAlready());
}

// --- a store that is slow or gone

class LogoutOverAProxy : public Logout {
  protected:
    // Has a session expire and holds the expiry half-way.
    InsertedSession holdAnExpiry() {
        proxy.setFilter([this](const Words& command) {
            if (command.front() == "UNLINK" && held) {
                reached = true;
                held.wait(true);
            }
            return StoreProxy::Verdict::pass;
        });
        InsertedSession expiring = frontEnd().insertSession({.timeout = "1", .lastAccessed = "0"});
        waitUntil("the expiry is held", [this] { return reached.load(); });
        return expiring;
    }
    void releaseTheExpiry() {
        held = false;
        held.notify_all();
        waitUntilExpired(1);
    }
    void TearDown() override {
        proxy.setFilter({});
        held = false;
        held.notify_all();
        Logout::TearDown();
    }
    // Ends the connection of the request once it sends the command.
    void cutAt(const Request& request, const Words& command) {
        proxy.setFilter([this, first = Words{"HGET", request.requestKey(), "&&ReturnChannel"},
                         command](const Words& sent) {
            if (sent == first) {
                connection = std::this_thread::get_id();
            }
            return sent == command && connection.load() == std::this_thread::get_id()
                       ? StoreProxy::Verdict::cut
                       : StoreProxy::Verdict::pass;
        });
    }

    std::atomic<bool> held = true;
    std::atomic<bool> reached = false;
    std::atomic<std::thread::id> connection{};
    StoreProxy proxy{controller};
};

TEST_F(LogoutOverAProxy, IsUnavailableWhileAnExpiryTakesMoreThanTwoSeconds) {
    const InsertedSession expiring = holdAnExpiry();
    const InsertedSession session = frontEnd().insertSession();
    const Snapshot before = snapshot();
    Request request = frontEnd().prepareRemove(session.uri);
    request.send();
    const Reply reply = request.reply();
    EXPECT_EQ(reply.published, request.replyKey());
    EXPECT_EQ(reply.fields, (Fields{{"&&ReturnStatus", "UNAVAILABLE"},
                                    {"&&ResponseData", ""},
                                    {"&&ExtendedInfo", listKeyOf(request)}}));
    EXPECT_EQ(reply.messages,
              (std::vector<Message>{{"Base.1.12.ServiceTemporarilyUnavailable", {"\"1\""}}}));
    EXPECT_EQ(changedSince(before), Words{});

    releaseTheExpiry();
    EXPECT_EQ(frontEnd().remove(session.uri).status(), "OK_EMPTY");
    EXPECT_EQ(thereOf(keysOf(expiring)), Words{});
}

TEST_F(LogoutOverAProxy, WithoutAReplyKeyIsNotAnsweredWhileAnExpiryTakesMoreThanTwoSeconds) {
    holdAnExpiry();
    const InsertedSession session = frontEnd().insertSession();
    const Snapshot before = snapshot();
    Request request = frontEnd().prepareRemove(session.uri);
    request.send(request.requestKey() + " ");
    // Served after the one without a reply key.
    EXPECT_EQ(frontEnd().remove(session.uri).status(), "UNAVAILABLE");
    EXPECT_FALSE(request.publishedAlready());
    EXPECT_EQ(changedSince(before), Words{});
    releaseTheExpiry();
}

TEST_F(LogoutOverAProxy, WithoutAConnectionOfItsOwnIsNotServed) {
    expectErrorLine("Failed to connect to Redis.");
    const InsertedSession session = frontEnd().insertSession();
    const Snapshot before = snapshot();
    proxy.refuseConnections(true);
    Request request = frontEnd().prepareRemove(session.uri);
    request.send();
    waitForLog("Failed to connect to Redis.");
    proxy.refuseConnections(false);
    expectNothingDone(session, before, request);
}

TEST_F(LogoutOverAProxy, ThatLosesTheStoreBeforeTheCollectionIsReadRemovesNothing) {
    expectErrorLine("Failed to get sessions.");
    expectErrorLine("Failed to update Return Status.");
    expectErrorLine("Failed to get length of extended info array.");
    const InsertedSession session = frontEnd().insertSession();
    const Snapshot before = snapshot();
    Request request = frontEnd().prepareRemove(session.uri);
    cutAt(request, {"LRANGE", membersKey, "0", "-1"});
    request.send();
    waitForLog("Failed to get length of extended info array.");
    expectNothingDone(session, before, request);
}

TEST_F(LogoutOverAProxy, ThatLosesTheStoreBeforeTheTokenIsReadRemovesNothing) {
    expectErrorLine("Failed to delete session.");
    expectErrorLine("Failed to update Return Status.");
    expectErrorLine("Failed to get length of extended info array.");
    const InsertedSession session = frontEnd().insertSession();
    const Snapshot before = snapshot();
    Request request = frontEnd().prepareRemove(session.uri);
    cutAt(request, {"HGET", tokenReferenceKey(session.uri), "XAUTH"});
    request.send();
    waitForLog("Failed to get length of extended info array.");
    expectNothingDone(session, before, request);
}

TEST_F(LogoutOverAProxy, WithoutAReplyKeyIsSilentAboutAStoreThatItLosesBeforeItRemovesAnything) {
    const InsertedSession session = frontEnd().insertSession();
    for (const Words& command : {Words{"LRANGE", membersKey, "0", "-1"},
                                 Words{"HGET", tokenReferenceKey(session.uri), "XAUTH"}}) {
        Request request = frontEnd().prepareRemove(session.uri);
        cutAt(request, command);
        request.send(request.requestKey() + " ");
        settle();
        EXPECT_EQ(thereOf(keysOf(session)), keysOf(session));
        EXPECT_FALSE(request.publishedAlready());
    }
}

}  // namespace
}  // namespace testbed
