// What a logout does in the store, command by command: the order, nothing left out, nothing
// there twice, and the reply key published last on every path that has a channel.
#include "support/command_sequence_test.h"

namespace testbed {
namespace {

const std::string requestKey = "&&/request/logout";
const std::string replyKey = "&&/request/logout/reply";
const std::string returnChannel = "&&/request/logout/return";
const std::string list = "&&/request/logout/ExtendedInfo";
const std::string earlyList = replyKey + "/ExtendedInfo";

class LogoutSequence : public CommandSequenceTest {
  protected:
    void SetUp() override {
        CommandSequenceTest::SetUp();
        eventScript = store().hget("redisSHAScripts", "resourceChange");
        auditScript = store().hget("redisSHAScripts", "logGeneratorHelper");
        session = frontEnd().insertSession();
    }

    // Everything that the connection of the request has sent by the time it is closed.
    Commands commandsOfLogout(const std::string& uri, RequestOptions options = {},
                              const std::string& notice = requestKey + " " + replyKey) {
        options.requestKey = requestKey;
        options.replyKey = replyKey;
        options.returnChannel = returnChannel;
        Request request = frontEnd().prepareRemove(uri, options);
        return commandsOfRequest(request, notice, {"HGET", requestKey, "&&ReturnChannel"});
    }

    // --- the parts of the sequence

    Commands openTheRequest() {
        return {{"AUTH", "(redacted)"}, {"HGET", requestKey, "&&ReturnChannel"}};
    }
    Commands findTheTarget(const std::string& uri) {
        return {{"HGET", requestKey, "&&TargetURI"}, {"HGET", uri, "SessionType"}};
    }
    Commands askForTheSwitch() { return {{"HGET", serviceUri, "ServiceEnabled"}}; }
    Commands remove(const std::string& uri, const std::string& token) {
        return {{"LRANGE", membersKey, "0", "-1"},
                {"HGET", tokenReferenceKey(uri), "XAUTH"},
                {"HGET", uri, "UserName"},
                {"UNLINK", token, uri, tokenReferenceKey(uri)}};
    }
    Commands removeTheSession() { return remove(session.uri, tokenKey(session.token)); }
    Commands drawTheEventGroup() {
        return {{"HINCRBY", eventServiceUri, eventGroupCounter, "1"},
                {"HGET", "webDefaultValue", "MAX_EVENT_GROUP_ID"}};
    }
    Commands askForTheCount() { return {{"HGET", sessionsUri, "Members@odata.count"}}; }
    Commands dropTheMember(const std::string& uri) {
        return {{"LREM", membersKey, "-1", "&&ObjectRef " + uri}};
    }
    Commands keepTheCollection() {
        return {{"HINCRBY", sessionsUri, "Members@odata.count", "-1"},
                {"HSET", sessionsUri, "@odata.etag", etag}};
    }
    Commands answer() {
        return {{"HSET", replyKey, "&&ExtendedInfo", list, "&&ReturnStatus", "OK_EMPTY"}};
    }
    Commands writeTheMessage(const std::string& key, const std::string& messageId) {
        return {{"LLEN", key},
                {"HGET", "webDefaultValue", "REDIS_CONNECTION_DEFAULT_TIMEOUT"},
                {"HSET", key + "/1", "&&MessageId", messageId},
                {"LPUSH", key, key + "/1"},
                {"EXPIRE", key, "6"},
                {"EXPIRE", key + "/1", "6"}};
    }
    Commands refuseEarly(const std::string& status, const std::string& messageId) {
        return sequence({{{"HSET", replyKey, "&&ReturnStatus", status},
                          {"HSET", replyKey, "&&ExtendedInfo", earlyList}},
                         writeTheMessage(earlyList, messageId)});
    }
    Commands tell(const Words& events) {
        Words command{"EVALSHA", eventScript, std::to_string(events.size())};
        command.insert(command.end(), events.begin(), events.end());
        return {{"HGET", "redisSHAScripts", "resourceChange"}, command};
    }
    Words deletion(const std::string& uri) {
        return {"delete", uri, "Session", "EventGroupId", "1"};
    }
    Words deletionAndChange(const std::string& uri) {
        Words events = deletion(uri);
        events.insert(events.end(),
                      {"change", sessionsUri, "SessionCollection", "EventGroupId", "1"});
        return events;
    }
    Commands audit(const std::string& uri, const Words& user) {
        Words command{"EVALSHA",
                      auditScript,
                      "7",
                      "CREATE",
                      auditEntriesUri,
                      timeStamp,
                      "AuditEvent.1.1.UserLogout",
                      uri,
                      "1"};
        command.insert(command.end(), user.begin(), user.end());
        return {{"EXISTS", auditEntriesUri},
                {"HGET", "redisSHAScripts", "logGeneratorHelper"},
                command};
    }
    Commands publish() { return {{"PUBLISH", returnChannel, replyKey}}; }

    std::string eventScript;
    std::string auditScript;
    InsertedSession session;
};

TEST_F(LogoutSequence, OfASession) {
    EXPECT_EQ(
        commandsOfLogout(session.uri),
        sequence({openTheRequest(), findTheTarget(session.uri), askForTheSwitch(),
                  removeTheSession(), drawTheEventGroup(), askForTheCount(),
                  dropTheMember(session.uri), keepTheCollection(), answer(),
                  tell(deletionAndChange(session.uri)), audit(session.uri, {"admin"}), publish()}));
}

TEST_F(LogoutSequence, OfAnUnknownSession) {
    expectErrorLine("Failed to generate LogEntry. ");
    const std::string uri = std::string(sessionsUri) + "/00000000";
    const Commands commands = commandsOfLogout(uri);
    // The key of a token that is not there may be any that matches nothing.
    Commands removal = remove(uri, "");
    const auto unlink = std::find_if(commands.begin(), commands.end(),
                                     [](const Words& words) { return words.front() == "UNLINK"; });
    ASSERT_NE(unlink, commands.end());
    removal.back().at(1) = unlink->at(1);
    EXPECT_EQ(unlink->at(1).rfind("&&X-AUTH-TOKEN-", 0), 0U) << unlink->at(1);
    EXPECT_EQ(commands,
              sequence({openTheRequest(), findTheTarget(uri), askForTheSwitch(), removal,
                        drawTheEventGroup(), askForTheCount(), dropTheMember(uri), answer(),
                        tell(deletionAndChange(uri)), audit(uri, {}), publish()}));
}

TEST_F(LogoutSequence, OfACollectionWithoutACount) {
    expectErrorLine("Failed to get sessions.");
    store().run({"HDEL", sessionsUri, "Members@odata.count"});
    EXPECT_EQ(commandsOfLogout(session.uri),
              sequence({openTheRequest(),
                        findTheTarget(session.uri),
                        askForTheSwitch(),
                        removeTheSession(),
                        drawTheEventGroup(),
                        askForTheCount(),
                        {{"HSET", replyKey, "&&ExtendedInfo", list, "&&ResponseData", "",
                          "&&ReturnStatus", "FAILURE"}},
                        writeTheMessage(list, "ExtendedError.1.2.DatabaseOperationError"),
                        tell(deletion(session.uri)),
                        publish()}));
}

TEST_F(LogoutSequence, OfASessionOfAnotherType) {
    expectErrorLine("Request SessionType is not Redfish.");
    store().hset(session.uri, {{"SessionType", "\"Other\""}});
    EXPECT_EQ(
        commandsOfLogout(session.uri),
        sequence({openTheRequest(), findTheTarget(session.uri),
                  refuseEarly("FAILURE", "ExtendedError.1.2.UnprocessableEntity"), publish()}));
}

TEST_F(LogoutSequence, OfADisabledService) {
    store().hset(serviceUri, {{"ServiceEnabled", "false"}});
    EXPECT_EQ(
        commandsOfLogout(session.uri),
        sequence({openTheRequest(), findTheTarget(session.uri), askForTheSwitch(),
                  refuseEarly("UNAVAILABLE", "ExtendedError.1.2.ServiceDisabled"), publish()}));
}

TEST_F(LogoutSequence, OfARequestWithoutAReturnChannel) {
    expectErrorLine("ReturnChannel is not found.");
    EXPECT_EQ(commandsOfLogout(session.uri, {.leaveOut = {"&&ReturnChannel"}}), openTheRequest());
}

TEST_F(LogoutSequence, OfARequestWithoutATarget) {
    expectErrorLine("&&TargetURI is not found.");
    EXPECT_EQ(commandsOfLogout(session.uri, {.leaveOut = {"&&TargetURI"}}),
              sequence({openTheRequest(), {{"HGET", requestKey, "&&TargetURI"}}}));
}

TEST_F(LogoutSequence, OfARequestWithoutAReplyKey) {
    EXPECT_EQ(commandsOfLogout(session.uri, {}, requestKey + " "),
              sequence({openTheRequest(), findTheTarget(session.uri), askForTheSwitch(),
                        removeTheSession(), drawTheEventGroup(), askForTheCount(),
                        dropTheMember(session.uri), keepTheCollection(),
                        tell(deletionAndChange(session.uri)), audit(session.uri, {"admin"})}));
}

}  // namespace
}  // namespace testbed
