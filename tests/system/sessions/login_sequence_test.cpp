// What a login does in the store, command by command: nothing is left out, nothing is
// there twice, and the reply key is published last, on every path that has a channel.
#include <algorithm>
#include <iterator>

#include "support/command_sequence_test.h"
#include "support/daemon_names.h"

namespace testbed {
namespace {

// One write of several fields, which go in ascending order.
Words write(const std::string& key, const Fields& fields) {
    Words command{"HSET", key};
    for (const auto& [field, value] : fields) {
        command.insert(command.end(), {field, value});
    }
    return command;
}

class LoginSequence : public CommandSequenceTest {
  protected:
    void SetUp() override {
        usePamTest(allPrivileges);
        startStore();
        startDaemon(withRandomBytes(randomBytes));
        eventScript = store().hget(scriptDigests, "resourceChange");
        auditScript = store().hget(scriptDigests, "logGeneratorHelper");
    }

    Request prepare(RequestOptions options = {}) {
        options.requestKey = requestKey;
        options.replyKey = replyKey;
        options.returnChannel = returnChannel;
        options.fields.insert({{"&&RemoteIP", "192.0.2.10"}, {"&&Origin", "Web"}});
        return frontEnd().prepareLogin("alice", "a password", options);
    }

    Commands commandsOfRequest(Request request) {
        return CommandSequenceTest::commandsOfRequest(
            request, request.requestKey() + " " + request.replyKey(), {"HGETALL", requestKey});
    }

    // --- the parts of the sequence

    Commands openTheRequest() { return {{"AUTH", "(redacted)"}, {"HGETALL", requestKey}}; }
    Commands readTheCredentials(const std::string& body) {
        return {{"HGET", body, "UserName"}, {"HGET", body, "Password"}};
    }
    Commands askForTheSwitch() { return {{"HGET", serviceUri, "ServiceEnabled"}}; }
    Commands countSessions(const Words& uris = {}) {
        Commands commands{{"LRANGE", membersKey, "0", "-1"}};
        for (const std::string& uri : uris) {
            commands.push_back({"HGET", uri, "SessionType"});
        }
        return commands;
    }
    Commands drawNames() {
        return {{"HGET", randomUri, "Id"}, {"HGET", tokenKey(randomToken), "UserName"}};
    }
    Commands writeTheSession() {
        return {write(randomUri,
                      {{"&&AllowMethod", "GET,HEAD,DELETE"},
                       {"&&Origin", "Web"},
                       {"&&OwnerName", "alice"},
                       {"&&RemoteIP", "192.0.2.10"},
                       {"@odata.context", "\"/redfish/v1/$metadata#Session.Session\""},
                       {"@odata.etag", "0"},
                       {"@odata.id", jsonQuoted(randomUri)},
                       {"@odata.type", "\"#Session.v1_3_0.Session\""},
                       {"ClientOriginIPAddress", "\"192.0.2.10\""},
                       {"Description",
                        "\"This resource represents a session for a Redfish implementation.\""},
                       {"Id", jsonQuoted(randomIdentifier)},
                       {"Name", "\"User Session\""},
                       {"Password", "null"},
                       {"SessionType", "\"Redfish\""},
                       {"UserName", "\"alice\""}})};
    }
    Commands drawTheEventGroup() {
        return {{"HINCRBY", eventServiceUri, eventGroupCounter, "1"},
                {"HGET", defaults, "MAX_EVENT_GROUP_ID"}};
    }
    Commands completeTheSession() {
        return {{"HSET", randomUri, "@odata.etag", etag},
                {"HSET", tokenReferenceKey(randomUri), "XAUTH", "\"" + randomToken + "\""},
                {"HSET", randomUri, "&&CRUDprefix", "&&" + std::string(sessionsUri)}};
    }
    Commands writeTheTokenRecord() {
        return {{"HGET", serviceUri, "SessionTimeout"},
                write(tokenKey(randomToken), {{"&&Origin", "Web"},
                                              {"LastAccessed", now},
                                              {"Privilege", "511"},
                                              {"SessionID", randomUri},
                                              {"Timeout", "300"},
                                              {"UserName", "alice"}})};
    }
    Commands pushTheMember() { return {{"LPUSH", membersKey, "&&ObjectRef " + randomUri}}; }
    Commands keepTheCollection() {
        return {{"HSET", sessionsUri, "@odata.etag", etag},
                {"HINCRBY", sessionsUri, "Members@odata.count", "1"}};
    }
    Commands emptyTheBody() { return {write(returnChannel, {{"&&ResponseData", ""}})}; }
    Commands writeSuccess() {
        return {write(replyKey, {{"&&ExtendedInfo", replyMessages},
                                 {"&&Location", randomUri},
                                 {"&&ReturnStatus", "OK"},
                                 {"&&X-Auth-Token", randomToken}})};
    }
    Commands writeStatus(const std::string& status) {
        return {write(replyKey, {{"&&ExtendedInfo", replyMessages}, {"&&ReturnStatus", status}})};
    }
    Commands writeStatusAtOnce(const std::string& status) {
        return {{"HSET", replyKey, "&&ReturnStatus", status},
                {"HSET", replyKey, "&&ExtendedInfo", earlyMessages}};
    }
    Commands writeMessage(const std::string& list, const std::string& id,
                          const Words& arguments = {}) {
        const std::string entry = list + "/1";
        Commands commands{{"LLEN", list},
                          {"HGET", defaults, "REDIS_CONNECTION_DEFAULT_TIMEOUT"},
                          {"HSET", entry, "&&MessageId", id}};
        const std::string argumentList = entry + "/MessageArgs";
        for (const std::string& argument : arguments) {
            commands.push_back({"RPUSH", argumentList, argument});
        }
        if (!arguments.empty()) {
            commands.push_back({"HSET", entry, "&&MessageArgs", argumentList});
            commands.push_back({"EXPIRE", argumentList, "6"});
        }
        return sequence({
            commands,
            {{"LPUSH", list, entry}, {"EXPIRE", list, "6"}, {"EXPIRE", entry, "6"}},
        });
    }
    Words added(const std::string& group = "1") {
        return {"add", randomUri, "Session", "EventGroupId", group};
    }
    Words changed(const std::string& group = "1") {
        return {"change", sessionsUri, "SessionCollection", "EventGroupId", group};
    }
    Commands sendEvents(const std::vector<Words>& events) {
        Words script{"EVALSHA", eventScript, std::to_string(events.size() * 5)};
        for (const Words& event : events) {
            script.insert(script.end(), event.begin(), event.end());
        }
        return {{"HGET", scriptDigests, "resourceChange"}, script};
    }
    Commands writeTheAuditEntry() {
        return {{"EXISTS", auditEntriesUri},
                {"HGET", scriptDigests, "logGeneratorHelper"},
                {"EVALSHA", auditScript, "7", "CREATE", auditEntriesUri, timeStamp,
                 "AuditEvent.1.1.UserLogin", randomUri, "1", "alice"}};
    }
    Commands publish() { return {{"PUBLISH", returnChannel, replyKey}}; }

    const std::string requestKey = "&&/request/sequence";
    const std::string replyKey = "&&/request/sequence/reply";
    const std::string returnChannel = "&&/request/sequence/return";
    const std::string replyMessages = "&&/request/sequence/ExtendedInfo";
    const std::string earlyMessages = "&&/request/sequence/reply/ExtendedInfo";
    std::string eventScript;
    std::string auditScript;
};

TEST_F(LoginSequence, OfALoginFromTheRequestToTheAnswer) {
    const InsertedSession older = frontEnd().insertSession();
    const InsertedSession newer = frontEnd().insertSession();
    Request request = prepare();
    const std::string body = request.bodyKey();
    EXPECT_EQ(commandsOfRequest(std::move(request)),
              sequence({
                  openTheRequest(),
                  readTheCredentials(body),
                  askForTheSwitch(),
                  countSessions({newer.uri, older.uri}),
                  // PAM has its say here.
                  drawNames(),
                  writeTheSession(),
                  drawTheEventGroup(),
                  completeTheSession(),
                  writeTheTokenRecord(),
                  pushTheMember(),
                  keepTheCollection(),
                  emptyTheBody(),
                  writeSuccess(),
                  writeMessage(replyMessages, "Base.1.12.Created"),
                  sendEvents({added(), changed()}),
                  writeTheAuditEntry(),
                  publish(),
              }));
}

TEST_F(LoginSequence, OfASecondLoginKnowsTheLargestEventGroupAlready) {
    login();
    // Frees the names, and no more: a session without a token record would expire in a pass
    // that has read the list already.
    emptyCollection();
    store().run({"HDEL", randomUri, "Id"});
    store().run({"HDEL", tokenKey(randomToken), "UserName"});
    Request request = prepare();
    const std::string body = request.bodyKey();
    EXPECT_EQ(commandsOfRequest(std::move(request)),
              sequence({
                  openTheRequest(),
                  readTheCredentials(body),
                  askForTheSwitch(),
                  countSessions(),
                  drawNames(),
                  writeTheSession(),
                  {drawTheEventGroup().front()},
                  completeTheSession(),
                  writeTheTokenRecord(),
                  pushTheMember(),
                  keepTheCollection(),
                  emptyTheBody(),
                  writeSuccess(),
                  writeMessage(replyMessages, "Base.1.12.Created"),
                  sendEvents({added("2"), changed("2")}),
                  writeTheAuditEntry(),
                  publish(),
              }));
}

TEST_F(LoginSequence, OfALoginWithAnExpiredPasswordLooksTheAccountUp) {
    usePamTest(allPrivileges + " acct=PAM_NEW_AUTHTOK_REQD");
    const Words scan{"SCAN",  "0",   "MATCH", "/redfish/v1/AccountService/Accounts/*",
                     "COUNT", "1000"};
    // The store names the accounts in an order of its own: leave it one.
    const std::string account = administrator.uri;
    for (const std::string& key : store().keys("/redfish/v1/AccountService/Accounts/*")) {
        if (key != account) {
            store().del(key);
        }
    }
    store().hset(account, {{"&&OwnerName", "alice"}});

    const Commands commands = commandsOfRequest(prepare());
    const Commands lookUp{scan, {"HGET", account, "&&OwnerName"}};
    const Commands expected = sequence({
        emptyTheBody(),
        lookUp,
        writeSuccess(),
        writeMessage(replyMessages, "Base.1.12.PasswordChangeRequired", {jsonQuoted(account)}),
        sendEvents({added(), changed()}),
        writeTheAuditEntry(),
        publish(),
    });
    const auto from = std::find(commands.begin(), commands.end(), emptyTheBody().front());
    EXPECT_EQ(Commands(from, commands.end()), expected);
}

// --- refusals: what runs before each, and nothing after it but the answer

TEST_F(LoginSequence, OfARequestWithoutAReturnChannel) {
    expectErrorLine("Create session: &&ReturnChannel not found.");
    EXPECT_EQ(commandsOfRequest(prepare({.leaveOut = {"&&ReturnChannel"}})), openTheRequest());
}

TEST_F(LoginSequence, OfARequestWithoutABody) {
    expectErrorLine("Create session: &&RequestData not found.");
    EXPECT_EQ(commandsOfRequest(prepare({.leaveOut = {"&&RequestData"}})), openTheRequest());
}

TEST_F(LoginSequence, OfAPasswordThatIsTooLong) {
    Request request =
        prepare({.body = {{"Password", frontEnd().encryptPassword(std::string(1025, 'p'))}}});
    const std::string body = request.bodyKey();
    EXPECT_EQ(commandsOfRequest(std::move(request)),
              sequence({
                  openTheRequest(),
                  readTheCredentials(body),
                  writeStatusAtOnce("FAILURE"),
                  writeMessage(earlyMessages, "Base.1.12.StringValueTooLong",
                               {"\"(password string)\"", "\"1024\""}),
                  publish(),
              }));
}

TEST_F(LoginSequence, OfALoginWhileTheServiceIsSwitchedOff) {
    store().hset(serviceUri, {{"ServiceEnabled", "false"}});
    Request request = prepare();
    const std::string body = request.bodyKey();
    EXPECT_EQ(commandsOfRequest(std::move(request)),
              sequence({
                  openTheRequest(),
                  readTheCredentials(body),
                  askForTheSwitch(),
                  writeStatusAtOnce("UNAVAILABLE"),
                  writeMessage(earlyMessages, "ExtendedError.1.2.ServiceDisabled"),
                  publish(),
              }));
}

TEST_F(LoginSequence, OfALoginBeyondTheLimit) {
    Words uris;
    for (int i = 0; i < 8; ++i) {
        uris.insert(uris.begin(), frontEnd().insertSession().uri);
    }
    Request request = prepare();
    const std::string body = request.bodyKey();
    EXPECT_EQ(commandsOfRequest(std::move(request)),
              sequence({
                  openTheRequest(),
                  readTheCredentials(body),
                  askForTheSwitch(),
                  countSessions(uris),
                  writeStatus("UNAVAILABLE"),
                  writeMessage(replyMessages, "Base.1.12.SessionLimitExceeded"),
                  publish(),
              }));
    EXPECT_TRUE(pamRecords().empty());
}

TEST_F(LoginSequence, OfALoginThatPamRefuses) {
    usePamTest("auth=PAM_AUTH_ERR");
    Request request = prepare();
    const std::string body = request.bodyKey();
    EXPECT_EQ(commandsOfRequest(std::move(request)),
              sequence({
                  openTheRequest(),
                  readTheCredentials(body),
                  askForTheSwitch(),
                  countSessions(),
                  writeStatus("AUTH_FAILED"),
                  writeMessage(replyMessages, "ExtendedError.1.2.InvalidCredentials"),
                  publish(),
              }));
}

TEST_F(LoginSequence, OfALoginWithoutThePrivilege) {
    Request request = prepare({.fields = {{"&&OperationPrivileges", "512"}}});
    const std::string body = request.bodyKey();
    EXPECT_EQ(commandsOfRequest(std::move(request)),
              sequence({
                  openTheRequest(),
                  readTheCredentials(body),
                  askForTheSwitch(),
                  countSessions(),
                  writeStatus("FORBIDDEN"),
                  writeMessage(replyMessages, "Base.1.12.InsufficientPrivilege"),
                  publish(),
              }));
}

TEST_F(LoginSequence, OfALoginWhoseSessionIsNotTaken) {
    expectErrorLine("Failed to add session entry.");
    corrupt(randomUri);
    Request request = prepare();
    const std::string body = request.bodyKey();
    EXPECT_EQ(commandsOfRequest(std::move(request)),
              sequence({
                  openTheRequest(),
                  readTheCredentials(body),
                  askForTheSwitch(),
                  countSessions(),
                  drawNames(),
                  writeTheSession(),
                  writeStatus("FAILURE"),
                  writeMessage(replyMessages, "ExtendedError.1.2.DatabaseOperationError"),
                  publish(),
              }));
}

TEST_F(LoginSequence, OfALoginWhoseTokenRecordIsNotTaken) {
    expectErrorLine("Failed to create meta session table.");
    corrupt(tokenKey(randomToken));
    Request request = prepare();
    const std::string body = request.bodyKey();
    EXPECT_EQ(commandsOfRequest(std::move(request)),
              sequence({
                  openTheRequest(),
                  readTheCredentials(body),
                  askForTheSwitch(),
                  countSessions(),
                  drawNames(),
                  writeTheSession(),
                  drawTheEventGroup(),
                  completeTheSession(),
                  writeTheTokenRecord(),
                  writeStatus("FAILURE"),
                  writeMessage(replyMessages, "ExtendedError.1.2.DatabaseOperationError"),
                  sendEvents({added()}),
                  publish(),
              }));
}

TEST_F(LoginSequence, OfALoginThatTheCollectionDoesNotTake) {
    expectErrorLine("Failed to add session entry to Members.");
    corrupt(membersKey);
    Request request = prepare();
    const std::string body = request.bodyKey();
    EXPECT_EQ(commandsOfRequest(std::move(request)),
              sequence({
                  openTheRequest(),
                  readTheCredentials(body),
                  askForTheSwitch(),
                  countSessions(),
                  drawNames(),
                  writeTheSession(),
                  drawTheEventGroup(),
                  completeTheSession(),
                  writeTheTokenRecord(),
                  pushTheMember(),
                  writeStatus("FAILURE"),
                  writeMessage(replyMessages, "ExtendedError.1.2.UnprocessableEntity"),
                  sendEvents({added()}),
                  publish(),
              }));
}

// --- a lost connection

TEST_F(LoginSequence, EndsWithTheConnectionOfTheRequest) {
    expectErrorLine("Failed to update Return Status.");
    expectErrorLine("Failed to get length of extended info array.");
    usePamTest("auth=PAM_AUTH_ERR");
    holdPam();
    Monitor monitor = controller.monitor();
    Request request = prepare();
    request.send();
    waitUntilPamHolds();
    const std::string client = monitor
                                   .until([&](const MonitoredCommand& command) {
                                       return command.words == Words{"HGETALL", requestKey};
                                   })
                                   .back()
                                   .client;
    const Snapshot before = snapshot();
    store().run({"CLIENT", "KILL", "ADDR", client});
    releasePam();
    waitForLog("Failed to get length of extended info array.");
    // The thread itself is unharmed; its next request has a connection of its own.
    usePamTest(allPrivileges);
    EXPECT_FALSE(store().exists(replyKey));
    EXPECT_EQ(changedSince(before), Words{});
    EXPECT_EQ(login().status(), "OK");
    EXPECT_FALSE(request.publishedAlready());
}

}  // namespace
}  // namespace testbed
