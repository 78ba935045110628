#include <algorithm>

#include "support/system_test.h"
#include "support/trail.h"

namespace bench {
namespace {

using Commands = std::vector<Words>;

constexpr char eventService[] = "/redfish/v1/EventService";
constexpr char counter[] = "&&EVENT_GROUP_ID_COUNTER";

// Each connection of the daemon has an address of its own.
class PatchSequence : public SystemTest {
  protected:
    PatchSequence() : SystemTest({.storeOverTcp = true}) {}
    void SetUp() override { start(); }

    // All commands over the connection that served the request, from its first to its last.
    Commands commandsOfRequest(Request& request) {
        Monitor monitor = controller.monitor();
        request.send();
        const std::string published = request.published();
        // What follows the answer is over before the next request is read.
        frontEnd().patch({{"Unknown", "1"}});
        const std::vector<MonitoredCommand> watched = monitor.soFar();
        const auto first = std::find_if(watched.begin(), watched.end(), [&](const auto& command) {
            return command.words == Words{"HGET", request.requestKey(), "&&RequestMethod"};
        });
        if (first == watched.end()) {
            return {};
        }
        Commands commands = commandsOf(watched, first->client);
        for (Words& words : commands) {
            const auto tag = std::find(words.begin(), words.end(), "@odata.etag");
            if (tag != words.end()) {
                *std::next(tag) = "ETAG";
            }
        }
        return commands;
    }

    // The answer, as it is written and announced.
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
    static Commands joined(std::initializer_list<Commands> parts) {
        Commands all;
        for (const Commands& part : parts) {
            all.insert(all.end(), part.begin(), part.end());
        }
        return all;
    }
};

TEST_F(PatchSequence, OfAChange) {
    Request request =
        frontEnd().preparePatch({{"ServiceEnabled", "true"}, {"SessionTimeout", "600"}});
    const std::string checklist = request.requestKey() + "/Checklist";
    const std::string script = store().hget("redisSHAScripts", "resourceChange");
    EXPECT_EQ(commandsOfRequest(request),
              joined({beginning(request),
                      reading(request),
                      {{"HGET", serviceUri, "SessionTimeout"},
                       {"EXISTS", checklist},
                       {"HDEL", checklist, "/SessionTimeout"},
                       {"HSET", serviceUri, "SessionTimeout", "600"},
                       {"HSET", serviceUri, "@odata.etag", "ETAG"}},
                      answer(request, "OK"),
                      {{"HINCRBY", eventService, counter, "1"},
                       {"HGET", "webDefaultValue", "MAX_EVENT_GROUP_ID"},
                       {"HGET", "redisSHAScripts", "resourceChange"},
                       {"EVALSHA", script, "5", "change", serviceUri, "SessionService",
                        "EventGroupId", "1"}}}));
}

TEST_F(PatchSequence, OfAnUnchangedTimeout) {
    Request request = frontEnd().preparePatch({{"SessionTimeout", "300"}});
    const std::string checklist = request.requestKey() + "/Checklist";
    EXPECT_EQ(commandsOfRequest(request), joined({beginning(request),
                                                  reading(request),
                                                  {{"HGET", serviceUri, "SessionTimeout"},
                                                   {"EXISTS", checklist},
                                                   {"HDEL", checklist, "/SessionTimeout"}},
                                                  answer(request, "OK")}));
}

TEST_F(PatchSequence, WithoutAChecklist) {
    Request request = frontEnd().preparePatch({{"SessionTimeout", "300"}}, {.checklist = false});
    EXPECT_EQ(commandsOfRequest(request), joined({beginning(request),
                                                  reading(request),
                                                  {{"HGET", serviceUri, "SessionTimeout"},
                                                   {"EXISTS", request.requestKey() + "/Checklist"}},
                                                  answer(request, "OK")}));
}

TEST_F(PatchSequence, OfOtherPropertiesOnly) {
    Request request = frontEnd().preparePatch({{"ServiceEnabled", "false"}});
    EXPECT_EQ(commandsOfRequest(request), joined({beginning(request),
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
              joined({beginning(request), reading(request), answer(request, "FAILURE")}));
}

TEST_F(PatchSequence, OfAnotherMethod) {
    Request request = frontEnd().preparePatch({{"SessionTimeout", "600"}},
                                              {.fields = {{"&&RequestMethod", "PUT"}}});
    EXPECT_EQ(
        commandsOfRequest(request),
        joined({beginning(request), {{"PUBLISH", request.returnChannel(), request.replyKey()}}}));
}

TEST_F(PatchSequence, OfARefusedWrite) {
    expectErrorLine("OperationFailed: Failed to SetMultipleFields.");
    store().del(serviceUri);
    store().run({"SET", serviceUri, "no hash"});
    Request request = frontEnd().preparePatch({{"SessionTimeout", "600"}}, {.checklist = false});
    const std::string list = request.requestKey() + "/ExtendedInfo";
    EXPECT_EQ(commandsOfRequest(request),
              joined({beginning(request),
                      reading(request),
                      {{"HGET", serviceUri, "SessionTimeout"},
                       {"EXISTS", request.requestKey() + "/Checklist"},
                       {"HSET", serviceUri, "SessionTimeout", "600"},
                       {"HSET", serviceUri, "@odata.etag", "ETAG"},
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
}  // namespace bench
