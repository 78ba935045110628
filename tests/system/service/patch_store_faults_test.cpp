// What a PATCH comes to when the store fails one of its commands.
#include "support/store_fault_test.h"

namespace testbed {
namespace {

const Lines noPublishing =
    joined({{"[Error] DatabaseOperationError: Failed to publish data."}, noMessage});
const Lines noAnswer = joined({{"[Error] Failed to update Return Status."}, noPublishing});
const Lines noBody = joined({{"[Error] Fail to get hash the body values."}, noAnswer});
const Lines noKeyOfTheBody = joined({{"[Error] Fail to get hash  values."}, noAnswer});
const Lines emptyBody{"[Debug] Empty request data."};
const Lines notWritten{"[Error] OperationFailed: Failed to SetMultipleFields."};
const Lines noChange = joined({notWritten, noMessage, noPublishing});
const Lines noEvent = joined({noCounter, noMaximum, noEventScript});

const Effects failure{"answers FAILURE", "names the messages", "publishes"};

const Steps theChange{
    {.command = {"AUTH"},
     .logsWhenLost = {"[Error] Failed to connect to Redis."},
     .logsWhenAnswered = always({"[Error] Failed to connect to Redis."}),
     .endsTheTask = true},
    // What is not known to be a PATCH is published without a reply.
    {.command = {"HGET", "&&RequestMethod"},
     .logsWhenLost = noPublishing,
     .logsWhenAnswered = always({}),
     .otherEffects = {"publishes"},
     .endsTheTask = true},
    {.command = {"HGET", "&&TargetURI"},
     .logsWhenLost = noPublishing,
     .logsWhenAnswered = always({}),
     .otherEffects = {"publishes"},
     .endsTheTask = true},
    {.command = {"HGET", "&&ReturnChannel"},
     .logsWhenLost = noKeyOfTheBody,
     .logsWhenAnswered = always({}),
     .missingEffects = {"publishes"}},
    {.command = {"HGET", "&&RequestData"},
     .logsWhenLost = noKeyOfTheBody,
     .logsWhenAnswered = always(emptyBody),
     .otherEffects = failure,
     .endsTheTask = true},
    {.command = {"HGETALL"},
     .logsWhenLost = noBody,
     .logsWhenAnswered = always(emptyBody),
     .otherEffects = failure,
     .endsTheTask = true},
    // What cannot be read differs from the new text.
    {.command = {"HGET", "SessionTimeout"},
     .logsWhenLost = noChange,
     .logsWhenAnswered = always({})},
    {.command = {"EXISTS"},
     .logsWhenLost = noChange,
     .logsWhenAnswered = always({}),
     .missingEffects = {"ticks off the property"}},
    {.command = {"HDEL"},
     .effects = {"ticks off the property"},
     .logsWhenLost = noChange,
     .logsWhenAnswered = always({})},
    {.command = {"HSET", "SessionTimeout"},
     .effects = {"sets the timeout"},
     .logsWhenLost = noChange,
     .logsWhenAnswered = always(notWritten),
     .otherEffects = {"stamps the service", "answers EXCEPTION", "names the messages",
                      "writes Base.1.12.OperationFailed", "lists the message", "keeps the list",
                      "keeps the message", "publishes"},
     .endsTheTask = true},
    // The file is none of the store's.
    {.command = {"HSET", "@odata.etag"},
     .effects = {"stamps the service"},
     .logsWhenLost = joined({noAnswer, noEvent}),
     .effectsWhenLost = {"saves the file"},
     .logsWhenAnswered = always({})},
    {.command = {"HSET", "OK"},
     .effects = {"answers OK", "names the messages", "saves the file"},
     .logsWhenLost = joined({noAnswer, noEvent}),
     .effectsWhenLost = {"saves the file"},
     .logsWhenAnswered = onAnError({"[Error] Failed to update Return Status."}),
     .otherEffects = {"saves the file"}},
    {.command = {"PUBLISH"},
     .effects = {"publishes"},
     .logsWhenLost = joined({noPublishing, noEvent}),
     .logsWhenAnswered = always({"[Error] DatabaseOperationError: Failed to publish data."}),
     .missingEffects = {"answers OK"},
     .otherEffects = {"answers EXCEPTION", "writes ExtendedError.1.2.DatabaseOperationError",
                      "lists the message", "keeps the list", "keeps the message"}},
    {.command = {"HINCRBY", "&&EVENT_GROUP_ID_COUNTER"},
     .effects = {"counts event group 42"},
     .logsWhenLost = noEvent,
     .logsWhenAnswered = always({noCounter.front()}),
     .missingEffects = {"tells of change in 42"},
     .otherEffects = {"counts event group 1", "tells of change in 1"}},
    {.command = {"HGET", "MAX_EVENT_GROUP_ID"},
     .logsWhenLost = joined({noMaximum, noEventScript}),
     .logsWhenAnswered = always(noMaximum)},
    {.command = {"HGET", "resourceChange"},
     .logsWhenLost = noEventScript,
     .logsWhenAnswered = always(noEventScript),
     .missingEffects = {"tells of change in 42"}},
    {.command = {"EVALSHA", "change"},
     .effects = {"tells of change in 42"},
     .logsWhenAnswered =
         withReason("[Error] Failed to generate life cycle event. ",
                    "[Error] Failed to generate life cycle event. (Unknown error)")},
};

class FaultyPatch : public StoreFaultTest {
  protected:
    Request prepare() override {
        store().hset(serviceUri, {{"SessionTimeout", "300"}, {"@odata.etag", "\"1\""}});
        controller.writeFile(persistentFile, "SessionTimeout=300\n");
        store().hset("the body", {{"SessionTimeout", "600"}});
        return frontEnd().preparePatch({{"SessionTimeout", "600"}},
                                       {.fields = {{"&&RequestData", "the body"}}});
    }
    void noteEffectsOf(const Request& request, const Note& note) override {
        const Fields service = store().hgetall(serviceUri);
        note(service.at("SessionTimeout") == "600", "sets the timeout");
        note(service.at("@odata.etag") != "\"1\"", "stamps the service");
        note(!store().hexists(request.requestKey() + "/Checklist", "/SessionTimeout"),
             "ticks off the property");
        note(controller.readFile(persistentFile) == "SessionTimeout=600\n", "saves the file");
    }
};

TEST_P(FaultyPatch, DoesAtEachCommandWhatTheFaultLeavesPossible) {
    injectAtEachCommand(theChange);
}

INSTANTIATE_TEST_SUITE_P(OnAStoreThat, FaultyPatch, testing::ValuesIn(storeFaults()), nameOfFault);

// --- bodies that no store gives

class EndedPatch : public PermissivePamTest {
  protected:
    FaultInjector injector{controller};
};

TEST_F(EndedPatch, OnABodyWithoutTextsLeavesTheOthersAtWork) {
    const std::string line = "The thread of " + std::string(patchChannel) +
                             " ends: basic_string::_M_construct null not valid";
    expectErrorLine(line);
    Request request = frontEnd().preparePatch({{"SessionTimeout", "600"}});
    const Words body{"HGETALL", request.bodyKey()};
    injector.inject(arrayWithoutTexts(), 0, [=](const auto& sent) { return sent.words == body; });
    request.send();
    waitForLog(line);
    waitUntil("nobody listens", [&] {
        return store().run({"PUBSUB", "NUMSUB", patchChannel}).elements.at(1).integer == 0;
    });
    const Reply reply = login();
    EXPECT_EQ(reply.status(), "OK");
    EXPECT_EQ(frontEnd().remove(reply.location()).status(), "OK_EMPTY");
    EXPECT_FALSE(request.publishedAlready());
    EXPECT_EQ(store().hget(serviceUri, "SessionTimeout"), "300");
}

}  // namespace
}  // namespace testbed
