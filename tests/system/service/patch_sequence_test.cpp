#include "support/command_sequence_test.h"

namespace testbed {
namespace {

class PatchSequence : public CommandSequenceTest {
  protected:
    // All commands over the connection that serves the request.
    Commands commandsOfRequest(Request& request) {
        return CommandSequenceTest::commandsOfRequest(
            request, request.requestKey() + " " + request.replyKey(),
            {"HGET", request.requestKey(), "&&RequestMethod"});
    }

    // The answer, as it is written and published.
    static Commands answer(const Request& request, const std::string& status) {
        return {{"HSET", request.replyKey(), "&&ExtendedInfo",
                 request.requestKey() + "/ExtendedInfo", "&&ReturnStatus", status},
                {"PUBLISH", request.returnChannel(), request.replyKey()}};
    }
    static Commands beginning(const Request& request) {
        return {{"AUTH", "(redacted)"},
                {"HGET", request.requestKey(), "&&RequestMethod"},
                {"HGET", request.requestKey(), "&&TargetURI"},
                {"HGET", request.requestKey(), "&&ReturnChannel"}};
    }
    static Commands reading(const Request& request) {
        return {{"HGET", request.requestKey(), "&&RequestData"}, {"HGETALL", request.bodyKey()}};
    }
};

TEST_F(PatchSequence, OfAChange) {
    Request request =
        frontEnd().preparePatch({{"ServiceEnabled", "true"}, {"SessionTimeout", "600"}});
    const std::string checklist = request.requestKey() + "/Checklist";
    const std::string script = store().hget("redisSHAScripts", "resourceChange");
    EXPECT_EQ(commandsOfRequest(request),
              sequence({beginning(request),
                        reading(request),
                        {{"HGET", serviceUri, "SessionTimeout"},
                         {"EXISTS", checklist},
                         {"HDEL", checklist, "/SessionTimeout"},
                         {"HSET", serviceUri, "SessionTimeout", "600"},
                         {"HSET", serviceUri, "@odata.etag", etag}},
                        answer(request, "OK"),
                        {{"HINCRBY", eventServiceUri, eventGroupCounter, "1"},
                         {"HGET", "webDefaultValue", "MAX_EVENT_GROUP_ID"},
                         {"HGET", "redisSHAScripts", "resourceChange"},
                         {"EVALSHA", script, "5", "change", serviceUri, "SessionService",
                          "EventGroupId", "1"}}}));
}

TEST_F(PatchSequence, OfAnUnchangedTimeout) {
    Request request = frontEnd().preparePatch({{"SessionTimeout", "300"}});
    const std::string checklist = request.requestKey() + "/Checklist";
    EXPECT_EQ(commandsOfRequest(request), sequence({beginning(request),
                                                    reading(request),
                                                    {{"HGET", serviceUri, "SessionTimeout"},
                                                     {"EXISTS", checklist},
                                                     {"HDEL", checklist, "/SessionTimeout"}},
                                                    answer(request, "OK")}));
}

TEST_F(PatchSequence, WithoutAChecklist) {
    Request request = frontEnd().preparePatch({{"SessionTimeout", "300"}}, {.checklist = false});
    EXPECT_EQ(commandsOfRequest(request),
              sequence({beginning(request),
                        reading(request),
                        {{"HGET", serviceUri, "SessionTimeout"},
                         {"EXISTS", request.requestKey() + "/Checklist"}},
                        answer(request, "OK")}));
}

TEST_F(PatchSequence, OfOtherPropertiesOnly) {
    Request request = frontEnd().preparePatch({{"ServiceEnabled", "false"}});
    EXPECT_EQ(commandsOfRequest(request),
              sequence({beginning(request),
                        reading(request),
                        {{"EXISTS", request.requestKey() + "/Checklist"}},
                        answer(request, "OK")}));
}

TEST_F(PatchSequence, AsksTheTargetForTheStoredTimeout) {
    Request request = frontEnd().preparePatch({{"SessionTimeout", "300"}},
                                              {.fields = {{"&&TargetURI", "/other %s"}}});
    const Commands commands = commandsOfRequest(request);
    EXPECT_EQ(commands.at(6), (Words{"HGET", "/other %s", "SessionTimeout"}));
    EXPECT_EQ(commands.at(9), (Words{"HSET", serviceUri, "SessionTimeout", "300"}));
}

TEST_F(PatchSequence, OfAnEmptyBody) {
    Request request = frontEnd().preparePatch({});
    EXPECT_EQ(commandsOfRequest(request),
              sequence({beginning(request), reading(request), answer(request, "FAILURE")}));
}

TEST_F(PatchSequence, OfAnotherMethod) {
    Request request = frontEnd().preparePatch({{"SessionTimeout", "600"}},
                                              {.fields = {{"&&RequestMethod", "PUT"}}});
    EXPECT_EQ(
        commandsOfRequest(request),
        sequence({beginning(request), {{"PUBLISH", request.returnChannel(), request.replyKey()}}}));
}

TEST_F(PatchSequence, OfARefusedWrite) {
    expectErrorLine("OperationFailed: Failed to SetMultipleFields.");
    store().del(serviceUri);
    store().run({"SET", serviceUri, "no hash"});
    Request request = frontEnd().preparePatch({{"SessionTimeout", "600"}}, {.checklist = false});
    const std::string list = request.requestKey() + "/ExtendedInfo";
    EXPECT_EQ(commandsOfRequest(request),
              sequence({beginning(request),
                        reading(request),
                        {{"HGET", serviceUri, "SessionTimeout"},
                         {"EXISTS", request.requestKey() + "/Checklist"},
                         {"HSET", serviceUri, "SessionTimeout", "600"},
                         {"HSET", serviceUri, "@odata.etag", etag},
                         {"HSET", request.replyKey(), "&&ReturnStatus", "EXCEPTION"},
                         {"HSET", request.replyKey(), "&&ExtendedInfo", list},
                         {"LLEN", list},
                         {"HGET", "webDefaultValue", "REDIS_CONNECTION_DEFAULT_TIMEOUT"},
                         {"HSET", list + "/1", "&&MessageId", "Base.1.12.OperationFailed"},
                         {"LPUSH", list, list + "/1"},
                         {"EXPIRE", list, "6"},
                         {"EXPIRE", list + "/1", "6"},
                         {"PUBLISH", request.returnChannel(), request.replyKey()}}}));
}

TEST_F(PatchSequence, UsesAFreshConnectionForEachRequest) {
    Monitor monitor = controller.monitor();
    frontEnd().patch({{"Unknown", "1"}});
    frontEnd().patch({{"Unknown", "1"}});
    Words clients;
    for (const MonitoredCommand& command : monitor.soFar()) {
        if (command.words.front() == "AUTH" && command.client.rfind("127.0.0.1:", 0) == 0) {
            clients.push_back(command.client);
        }
    }
    ASSERT_EQ(clients.size(), 2U);
    EXPECT_NE(clients[0], clients[1]);
}

}  // namespace
}  // namespace testbed
