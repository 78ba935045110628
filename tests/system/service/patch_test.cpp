#include <algorithm>
#include <atomic>
#include <regex>

#include "support/store_proxy.h"
#include "support/system_test.h"
#include "testbed/events_and_audit_log.h"

namespace testbed {
namespace {

const std::string list = "/ExtendedInfo";

class Patch : public RunningSystemTest {
  protected:
    // Blocks until everything that was published before has been handled to its end.
    void settle() { frontEnd().patch({{"Unknown", "1"}}); }

    std::string timeout() { return store().hget(serviceUri, "SessionTimeout"); }
    std::string etag() { return store().hget(serviceUri, "@odata.etag"); }

    void TearDown() override {
        settle();
        RunningSystemTest::TearDown();
    }
};

TEST_F(Patch, ChangesTheTimeout) {
    EXPECT_EQ(frontEnd().patch({{"SessionTimeout", "600"}}).status(), "OK");
    EXPECT_EQ(timeout(), "600");
}

TEST_F(Patch, IsAnsweredWithTheStatusAndTheNameOfAnEmptyMessageList) {
    Request request = frontEnd().preparePatch({{"SessionTimeout", "600"}});
    request.send();
    const Reply reply = request.reply();
    EXPECT_EQ(reply.published, request.replyKey());
    EXPECT_EQ(reply.fields,
              (Fields{{"&&ReturnStatus", "OK"}, {"&&ExtendedInfo", request.requestKey() + list}}));
    EXPECT_FALSE(store().exists(request.requestKey() + list));
}

TEST_F(Patch, NamesTheMessageListAfterTheRequestAlsoWithoutASlashInTheKey) {
    const Reply reply =
        frontEnd().patch({{"SessionTimeout", "600"}}, {.requestKey = "q", .replyKey = "a"});
    EXPECT_EQ(reply["&&ExtendedInfo"], "q" + list);
}

TEST_F(Patch, StampsTheServiceAnew) {
    const std::string before = etag();
    frontEnd().patch({{"SessionTimeout", "600"}});
    EXPECT_TRUE(std::regex_match(etag(), std::regex("\"[1-9][0-9]*\""))) << etag();
    EXPECT_GT(etag(), before);
}

TEST_F(Patch, LeavesTheOtherPropertiesOfTheServiceAlone) {
    Fields before = store().hgetall(serviceUri);
    frontEnd().patch({{"SessionTimeout", "600"}, {"ServiceEnabled", "false"}, {"Oem", "{}"}});
    Fields after = store().hgetall(serviceUri);
    for (Fields* fields : {&before, &after}) {
        fields->erase("SessionTimeout");
        fields->erase("@odata.etag");
    }
    EXPECT_EQ(after, before);
}

TEST_F(Patch, HasAnsweredOnlyOnceTheFileIsSaved) {
    frontEnd().patch({{"SessionTimeout", "600"}});
    EXPECT_NE(controller.readFile(persistentFile).find("SessionTimeout=600\n"), std::string::npos);
}

TEST_F(Patch, RaisesAnEventWithAFreshGroup) {
    frontEnd().patch({{"SessionTimeout", "600"}});
    frontEnd().patch({{"SessionTimeout", "700"}});
    settle();
    EXPECT_EQ(lifeCycleEvents(store()),
              (std::vector<Words>{{"change", serviceUri, "SessionService", "1"},
                                  {"change", serviceUri, "SessionService", "2"}}));
    EXPECT_EQ(auditEntries(store()), std::vector<Words>{});
}

TEST_F(Patch, TicksTheTimeoutOffTheChecklistAndNothingElse) {
    Request request =
        frontEnd().preparePatch({{"SessionTimeout", "600"}, {"ServiceEnabled", "false"}});
    request.send();
    EXPECT_EQ(request.reply().status(), "OK");
    EXPECT_EQ(store().hgetall(request.requestKey() + "/Checklist"),
              (Fields{{"/ServiceEnabled", "false"}}));
}

TEST_F(Patch, WithoutAChecklistMakesNone) {
    Request request = frontEnd().preparePatch({{"SessionTimeout", "600"}}, {.checklist = false});
    request.send();
    EXPECT_EQ(request.reply().status(), "OK");
    EXPECT_FALSE(store().exists(request.requestKey() + "/Checklist"));
    EXPECT_EQ(timeout(), "600");
}

TEST_F(Patch, WithAChecklistOfAnotherKindIsAnsweredAllTheSame) {
    Request request = frontEnd().preparePatch({{"SessionTimeout", "600"}}, {.checklist = false});
    store().run({"RPUSH", request.requestKey() + "/Checklist", "/SessionTimeout"});
    request.send();
    EXPECT_EQ(request.reply().status(), "OK");
    EXPECT_EQ(timeout(), "600");
}

TEST_F(Patch, ToTheStoredTextOnlyTicksOffTheChecklist) {
    const Fields before = store().hgetall(serviceUri);
    const std::string file = controller.readFile(persistentFile);
    Request request = frontEnd().preparePatch({{"SessionTimeout", "300"}});
    request.send();
    EXPECT_EQ(request.reply().fields,
              (Fields{{"&&ReturnStatus", "OK"}, {"&&ExtendedInfo", request.requestKey() + list}}));
    settle();
    EXPECT_FALSE(store().exists(request.requestKey() + "/Checklist"));
    EXPECT_EQ(store().hgetall(serviceUri), before);
    EXPECT_EQ(controller.readFile(persistentFile), file);
    EXPECT_EQ(lifeCycleEvents(store()), std::vector<Words>{});
}

TEST_F(Patch, ComparesTextNotNumbers) {
    for (const char* text : {"0300", "300 ", "300.0", "\"300\"", "30"}) {
        store().hset(serviceUri, {{"SessionTimeout", "300"}});
        EXPECT_EQ(frontEnd().patch({{"SessionTimeout", text}}).status(), "OK");
        EXPECT_EQ(timeout(), text);
    }
    settle();
    EXPECT_EQ(lifeCycleEvents(store()).size(), 5U);
}

TEST_F(Patch, ChangesATimeoutThatWasMissing) {
    store().run({"HDEL", serviceUri, "SessionTimeout"});
    EXPECT_EQ(frontEnd().patch({{"SessionTimeout", "600"}}).status(), "OK");
    EXPECT_EQ(timeout(), "600");
}

TEST_F(Patch, TakesAnyTextForATimeout) {
    const std::string value = "-1 %s%n \"\\ \n\x01\xff" + std::string(5000, 'x');
    EXPECT_EQ(frontEnd().patch({{"SessionTimeout", value}}).status(), "OK");
    EXPECT_EQ(timeout(), value);
}

TEST_F(Patch, WithoutATimeoutChangesNothingAndLeavesTheChecklist) {
    const Fields before = store().hgetall(serviceUri);
    Request request = frontEnd().preparePatch({{"ServiceEnabled", "false"}});
    request.send();
    EXPECT_EQ(request.reply().fields,
              (Fields{{"&&ReturnStatus", "OK"}, {"&&ExtendedInfo", request.requestKey() + list}}));
    settle();
    EXPECT_EQ(store().hgetall(serviceUri), before);
    EXPECT_EQ(store().hgetall(request.requestKey() + "/Checklist"),
              (Fields{{"/ServiceEnabled", "false"}}));
    EXPECT_EQ(lifeCycleEvents(store()), std::vector<Words>{});
}

TEST_F(Patch, OfAnEmptyTimeoutIsOneWithoutATimeout) {
    Request request = frontEnd().preparePatch({{"SessionTimeout", ""}});
    request.send();
    EXPECT_EQ(request.reply().status(), "OK");
    EXPECT_EQ(timeout(), "300");
    EXPECT_TRUE(store().hexists(request.requestKey() + "/Checklist", "/SessionTimeout"));
}

TEST_F(Patch, TellsUpperFromLowerCaseInThePropertyName) {
    EXPECT_EQ(frontEnd().patch({{"sessionTimeout", "600"}}).status(), "OK");
    EXPECT_EQ(timeout(), "300");
}

TEST_F(Patch, ComparesWithItsTargetAndWritesToTheService) {
    const std::string other = "/redfish/v1/Other";
    store().hset(other, {{"SessionTimeout", "600"}});
    const RequestOptions toOther{.fields = {{"&&TargetURI", other}}};

    EXPECT_EQ(frontEnd().patch({{"SessionTimeout", "600"}}, toOther).status(), "OK");
    EXPECT_EQ(timeout(), "300");

    EXPECT_EQ(frontEnd().patch({{"SessionTimeout", "300"}}, toOther).status(), "OK");
    EXPECT_EQ(store().hgetall(other), (Fields{{"SessionTimeout", "600"}}));
    settle();
    EXPECT_EQ(lifeCycleEvents(store()),
              (std::vector<Words>{{"change", serviceUri, "SessionService", "1"}}));
}

TEST_F(Patch, OfAnotherMethodIsPublishedWithoutAReply) {
    for (const char* method : {"GET", "patch", "PATCH ", ""}) {
        const Reply reply = frontEnd().patch({{"SessionTimeout", "600"}},
                                             {.fields = {{"&&RequestMethod", method}}});
        EXPECT_EQ(reply.fields, Fields{}) << method;
    }
    EXPECT_EQ(
        frontEnd().patch({{"SessionTimeout", "600"}}, {.leaveOut = {"&&RequestMethod"}}).fields,
        Fields{});
    EXPECT_EQ(timeout(), "300");
}

TEST_F(Patch, WithoutATargetIsPublishedWithoutAReply) {
    EXPECT_EQ(frontEnd().patch({{"SessionTimeout", "600"}}, {.leaveOut = {"&&TargetURI"}}).fields,
              Fields{});
    EXPECT_EQ(
        frontEnd().patch({{"SessionTimeout", "600"}}, {.fields = {{"&&TargetURI", ""}}}).fields,
        Fields{});
    EXPECT_EQ(timeout(), "300");
}

TEST_F(Patch, WithAnEmptyBodyFails) {
    Request request = frontEnd().preparePatch({});
    request.send();
    const Reply reply = request.reply();
    EXPECT_EQ(reply.published, request.replyKey());
    EXPECT_EQ(reply.fields, (Fields{{"&&ReturnStatus", "FAILURE"},
                                    {"&&ExtendedInfo", request.requestKey() + list}}));
    EXPECT_FALSE(store().exists(request.requestKey() + list));
    EXPECT_EQ(countLogged("Empty request data."), 1);
    for (const LogLine& line : logLines()) {
        EXPECT_TRUE(line.message != "Empty request data." || line.tag == "[Debug]");
    }
    EXPECT_EQ(timeout(), "300");
}

TEST_F(Patch, WhoseBodyIsNotNamedFails) {
    const Reply reply =
        frontEnd().patch({{"SessionTimeout", "600"}}, {.leaveOut = {"&&RequestData"}});
    EXPECT_EQ(reply.status(), "FAILURE");
    EXPECT_EQ(countLogged("Empty request data."), 1);
}

TEST_F(Patch, WhoseBodyIsNoHashFails) {
    store().run({"RPUSH", "body", "SessionTimeout", "600"});
    const Reply reply =
        frontEnd().patch({{"SessionTimeout", "600"}}, {.fields = {{"&&RequestData", "body"}}});
    EXPECT_EQ(reply.status(), "FAILURE");
    EXPECT_EQ(timeout(), "300");
}

TEST_F(Patch, WithAnEmptyBodyLeavesTheChecklist) {
    Request request = frontEnd().preparePatch({{"SessionTimeout", "600"}},
                                              {.leaveOutOfBody = {"SessionTimeout"}});
    request.send();
    EXPECT_EQ(request.reply().status(), "FAILURE");
    EXPECT_TRUE(store().hexists(request.requestKey() + "/Checklist", "/SessionTimeout"));
}

TEST_F(Patch, ThatTheStoreRefusesIsAnException) {
    expectErrorLine("OperationFailed: Failed to SetMultipleFields.");
    const Fields before = store().hgetall(serviceUri);
    const std::string file = controller.readFile(persistentFile);
    store().del(serviceUri);
    store().run({"SET", serviceUri, "no hash"});

    Request request = frontEnd().preparePatch({{"SessionTimeout", "600"}});
    request.send();
    const Reply reply = request.reply();
    EXPECT_EQ(reply.published, request.replyKey());
    EXPECT_EQ(reply.fields, (Fields{{"&&ReturnStatus", "EXCEPTION"},
                                    {"&&ExtendedInfo", request.requestKey() + list}}));
    EXPECT_EQ(reply.messages, (std::vector<Message>{{"Base.1.12.OperationFailed", {}}}));
    EXPECT_EQ(store().hgetall(request.requestKey() + list + "/1"),
              (Fields{{"&&MessageId", "Base.1.12.OperationFailed"}}));
    settle();
    EXPECT_FALSE(store().exists(request.requestKey() + "/Checklist"));
    EXPECT_EQ(lifeCycleEvents(store()), std::vector<Words>{});
    EXPECT_EQ(controller.readFile(persistentFile), file);
    EXPECT_EQ(store().run({"GET", serviceUri}).text, "no hash");

    store().del(serviceUri);
    store().hset(serviceUri, before);
    EXPECT_EQ(frontEnd().patch({{"SessionTimeout", "600"}}).status(), "OK");
}

TEST_F(Patch, KeepsTheMessageOfAnExceptionForTheLifeOfAMessage) {
    expectErrorLine("OperationFailed: Failed to SetMultipleFields.");
    store().hset("webDefaultValue", {{"REDIS_CONNECTION_DEFAULT_TIMEOUT", "9000000"}});
    store().del(serviceUri);
    store().run({"SET", serviceUri, "no hash"});
    Request request = frontEnd().preparePatch({{"SessionTimeout", "600"}});
    request.send();
    request.published();
    for (const std::string& key :
         {request.requestKey() + list, request.requestKey() + list + "/1"}) {
        const long long left = store().run({"TTL", key}).integer;
        EXPECT_GT(left, 8000) << key;
        EXPECT_LE(left, 9001) << key;
    }
}

TEST_F(Patch, IsPublishedAlsoWhenNobodyListens) {
    Request request = frontEnd().preparePatch({{"SessionTimeout", "600"}});
    store().hset(request.requestKey(), {{"&&ReturnChannel", "nobody's"}});
    request.send();
    settle();
    EXPECT_EQ(store().hget(request.replyKey(), "&&ReturnStatus"), "OK");
    EXPECT_FALSE(request.publishedAlready());
}

TEST_F(Patch, WithoutAReturnChannelIsDoneAllTheSame) {
    Request request =
        frontEnd().preparePatch({{"SessionTimeout", "600"}}, {.leaveOut = {"&&ReturnChannel"}});
    request.send();
    settle();
    EXPECT_EQ(store().hget(request.replyKey(), "&&ReturnStatus"), "OK");
    EXPECT_EQ(timeout(), "600");
    EXPECT_EQ(lifeCycleEvents(store()).size(), 1U);
}

TEST_F(Patch, IsIgnoredWhenItsNoticeHoldsNoBlank) {
    Request request = frontEnd().preparePatch({{"SessionTimeout", "600"}});
    for (const char* notice : {"", "nothing", "&&EXIT", "%s%n", "a\tb"}) {
        request.send(notice);
    }
    request.send(request.requestKey());
    settle();
    EXPECT_EQ(countLogged("Request data format is incorrect."), 6);
    EXPECT_FALSE(request.publishedAlready());
    EXPECT_EQ(timeout(), "300");
}

TEST_F(Patch, SplitsItsNoticeAtTheFirstBlank) {
    Request request = frontEnd().preparePatch({{"SessionTimeout", "600"}});
    request.send(request.requestKey() + " a  key with blanks ");
    EXPECT_EQ(request.published(), "a  key with blanks ");
    EXPECT_EQ(store().hget("a  key with blanks ", "&&ReturnStatus"), "OK");
    EXPECT_EQ(timeout(), "600");
}

TEST_F(Patch, WithoutAReplyKeyIsDoneAndPublishesAnEmptyText) {
    Request request = frontEnd().preparePatch({{"SessionTimeout", "600"}});
    request.send(request.requestKey() + " ");
    EXPECT_EQ(request.published(), "");
    EXPECT_EQ(timeout(), "600");
    EXPECT_FALSE(store().exists(""));
}

TEST_F(Patch, OfAnUnknownRequestIsPassedOver) {
    EXPECT_EQ(store().publish(patchChannel, "unknown reply"), 1);
    EXPECT_EQ(store().publish(patchChannel, " reply"), 1);
    EXPECT_EQ(store().publish(patchChannel, " "), 1);
    EXPECT_EQ(store().publish(patchChannel, "%s%n%s %n%s%d"), 1);
    settle();
    EXPECT_FALSE(store().exists("reply"));
}

TEST_F(Patch, RequestsAreServedInTheOrderOfTheirNotices) {
    std::vector<Request> requests;
    for (const char* seconds : {"100", "200", "300", "400", "500"}) {
        requests.push_back(
            frontEnd().preparePatch({{"SessionTimeout", seconds}}, {.returnChannel = "shared"}));
    }
    for (Request& request : requests) {
        request.send();
    }
    for (const Request& request : requests) {
        EXPECT_EQ(requests.front().published(), request.replyKey());
    }
    EXPECT_EQ(timeout(), "500");
    settle();
    Words groups;
    for (const Words& event : lifeCycleEvents(store())) {
        groups.push_back(event.at(3));
    }
    EXPECT_EQ(groups, (Words{"1", "2", "3", "4", "5"}));
}

TEST_F(Patch, ChangesTheTimeoutOfLaterSessionsOnly) {
    usePamTest("env=PRIVILEGES=9");
    const Reply earlier = frontEnd().login("somebody", "anything");
    frontEnd().patch({{"SessionTimeout", "600"}});
    const Reply later = frontEnd().login("somebody", "anything");
    EXPECT_EQ(store().hget(tokenKey(earlier.token()), "Timeout"), "300");
    EXPECT_EQ(store().hget(tokenKey(later.token()), "Timeout"), "600");
    waitUntil("both logins are in the audit log",
              [&] { return auditEntries(store()).size() == 2; });
}

TEST_F(Patch, GoesOnWithoutTheRequestThreads) {
    for (const char* channel : {createChannel, deleteChannel}) {
        store().publish(channel, "&&EXIT");
        waitUntil("the request thread has ended", [&] {
            return store().run({"PUBSUB", "NUMSUB", channel}).elements.at(1).integer == 0;
        });
    }
    EXPECT_EQ(frontEnd().patch({{"SessionTimeout", "600"}}).status(), "OK");
}

// The store forbids what the daemon wants to publish, and no more.
class UnpublishablePatch : public RunningSystemTest {};

TEST_F(UnpublishablePatch, IsAnExceptionAndRaisesItsEvent) {
    expectErrorLine("DatabaseOperationError: Failed to publish data.");
    // The messages of the first request are still looked at when the second is through.
    store().hset("webDefaultValue", {{"REDIS_CONNECTION_DEFAULT_TIMEOUT", "9000000"}});
    Request request =
        frontEnd().preparePatch({{"SessionTimeout", "600"}}, {.returnChannel = "forbidden"});
    Request unchanged =
        frontEnd().preparePatch({{"SessionTimeout", "600"}}, {.returnChannel = "forbidden"});
    store().run({"ACL", "SETUSER", "default", "resetchannels",
                 std::string("&&&/redfish/v1/SessionService/*"), "&&&EventStream/*"});
    store().publish(patchChannel, request.requestKey() + " " + request.replyKey());
    store().publish(patchChannel, unchanged.requestKey() + " " + unchanged.replyKey());

    waitUntil("the second answer is complete",
              [&] { return store().exists(unchanged.requestKey() + list); });
    for (const Request* each : {&request, &unchanged}) {
        const std::string messages = each->requestKey() + list;
        EXPECT_EQ(store().hgetall(each->replyKey()),
                  (Fields{{"&&ReturnStatus", "EXCEPTION"}, {"&&ExtendedInfo", messages}}));
        EXPECT_EQ(store().lrange(messages), Words{messages + "/1"});
        EXPECT_EQ(store().hgetall(messages + "/1"),
                  (Fields{{"&&MessageId", "ExtendedError.1.2.DatabaseOperationError"}}));
    }
    EXPECT_EQ(countLogged("DatabaseOperationError: Failed to publish data."), 2);
    EXPECT_EQ(store().hget(serviceUri, "SessionTimeout"), "600");
    EXPECT_EQ(lifeCycleEvents(store()),
              (std::vector<Words>{{"change", serviceUri, "SessionService", "1"}}));
}

// The store is reached through a proxy that can end connections.
class PatchOverABadConnection : public SystemTest {
  protected:
    void SetUp() override { start(); }

    // Ends the next connection that sends a command which begins with these words.
    void cutOnceAt(const Words& words) {
        proxy.setFilter([this, words](const Words& command) {
            const bool begins = command.size() >= words.size() &&
                                std::equal(words.begin(), words.end(), command.begin());
            return begins && !cut.exchange(true) ? StoreProxy::Verdict::cut
                                                 : StoreProxy::Verdict::pass;
        });
    }

    std::atomic<bool> cut = false;
    StoreProxy proxy{controller};
};

TEST_F(PatchOverABadConnection, IsIgnoredWhenTheWorkConnectionCannotBeOpened) {
    expectErrorLine("Failed to connect to Redis.");
    Request request = frontEnd().preparePatch({{"SessionTimeout", "600"}});
    proxy.refuseConnections(true);
    request.send();
    waitForLog("Failed to connect to Redis.");
    proxy.refuseConnections(false);
    EXPECT_EQ(frontEnd().patch({{"SessionTimeout", "300"}}).status(), "OK");
    EXPECT_FALSE(request.publishedAlready());
    EXPECT_FALSE(store().exists(request.replyKey()));
    EXPECT_EQ(countLogged("Failed to connect to Redis."), 1);
}

TEST_F(PatchOverABadConnection, IsLoggedWhenTheBodyCannotBeRead) {
    Request request = frontEnd().preparePatch({{"SessionTimeout", "600"}});
    expectErrorLine("Fail to get hash " + request.bodyKey() + " values.");
    expectErrorLine("Failed to update Return Status.");
    expectErrorLine("DatabaseOperationError: Failed to publish data.");
    expectErrorLine("Failed to get length of extended info array.");
    cutOnceAt({"HGETALL", request.bodyKey()});
    request.send();
    waitForLog("Failed to get length of extended info array.");
    EXPECT_EQ(frontEnd().patch({{"SessionTimeout", "300"}}).status(), "OK");
    EXPECT_FALSE(request.publishedAlready());
    EXPECT_FALSE(store().exists(request.replyKey()));
    EXPECT_EQ(countLogged("Fail to get hash " + request.bodyKey() + " values."), 1);
}

TEST_F(PatchOverABadConnection, RaisesNoEventWhenTheWriteWasLost) {
    expectErrorLine("OperationFailed: Failed to SetMultipleFields.");
    expectErrorLine("DatabaseOperationError: Failed to publish data.");
    expectErrorLine("Failed to get length of extended info array.");
    Request request = frontEnd().preparePatch({{"SessionTimeout", "600"}});
    cutOnceAt({"HSET", serviceUri, "SessionTimeout"});
    request.send();
    waitForLog("DatabaseOperationError: Failed to publish data.");
    EXPECT_EQ(frontEnd().patch({{"SessionTimeout", "300"}}).status(), "OK");
    EXPECT_FALSE(request.publishedAlready());
    EXPECT_EQ(store().hget(serviceUri, "SessionTimeout"), "300");
    EXPECT_EQ(lifeCycleEvents(store()), std::vector<Words>{});
}

TEST_F(PatchOverABadConnection, DropsAnObjectThatCannotBeRead) {
    store().hset("source", {{"A", "1"}});
    cutOnceAt({"HGETALL", "source"});
    EXPECT_EQ(frontEnd().patch({{"&&Object SessionTimeout source", ""}}).status(), "OK");
    EXPECT_TRUE(cut);
    EXPECT_EQ(store().hget(serviceUri, "SessionTimeout"), "300");
}

TEST_F(Patch, OfAnObjectIsDoneWithItsJsonText) {
    controller.writeFile(persistentFile, "SessionTimeout=300\n");
    store().hset("source", {{"Seconds", "600"}, {"Note", "a \"b\""}});
    Request request = frontEnd().preparePatch({{"&&Object SessionTimeout source", "unused"}});
    const std::string checklist = request.requestKey() + "/Checklist";
    store().del(checklist);
    store().hset(checklist, {{"/SessionTimeout", ""}, {"/Other", ""}});
    request.send();
    EXPECT_EQ(request.reply().status(), "OK");
    const std::string json = R"({"Note":"a \"b\"","Seconds":600})";
    EXPECT_EQ(timeout(), json);
    EXPECT_EQ(controller.readFile(persistentFile), "SessionTimeout=" + json + "\n");
    EXPECT_EQ(store().hgetall(checklist), (Fields{{"/Other", ""}}));
    settle();
    EXPECT_EQ(lifeCycleEvents(store()).size(), 1U);

    // The same text once more is no change.
    EXPECT_EQ(frontEnd().patch({{"&&Object SessionTimeout source", ""}}).status(), "OK");
    settle();
    EXPECT_EQ(lifeCycleEvents(store()).size(), 1U);
}

TEST_F(Patch, WithoutAReplyKeyThatTheStoreRefusesIsAnExceptionUnderTheEmptyKey) {
    expectErrorLine("OperationFailed: Failed to SetMultipleFields.");
    store().hset("webDefaultValue", {{"REDIS_CONNECTION_DEFAULT_TIMEOUT", "9000000"}});
    store().del(serviceUri);
    store().run({"SET", serviceUri, "no hash"});
    Request request = frontEnd().preparePatch({{"SessionTimeout", "600"}});
    request.send(request.requestKey() + " ");
    EXPECT_EQ(request.published(), "");
    const std::string messages = request.requestKey() + list;
    EXPECT_EQ(store().hgetall(""),
              (Fields{{"&&ReturnStatus", "EXCEPTION"}, {"&&ExtendedInfo", messages}}));
    EXPECT_EQ(store().hgetall(messages + "/1"),
              (Fields{{"&&MessageId", "Base.1.12.OperationFailed"}}));
}

}  // namespace
}  // namespace testbed
