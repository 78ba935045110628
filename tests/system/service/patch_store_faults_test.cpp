// What a PATCH comes to when the store fails one of its commands.
#include "support/store_fault_walk.h"

namespace testbed {
namespace {

const Lines noPublishing =
    together({{"[Error] DatabaseOperationError: Failed to publish data."}, noMessage});
const Lines noAnswer = together({{"[Error] Failed to update Return Status."}, noPublishing});
const Lines noBody = together({{"[Error] Fail to get hash the body values."}, noAnswer});
const Lines noKeyOfTheBody = together({{"[Error] Fail to get hash  values."}, noAnswer});
const Lines emptyBody{"[Debug] Empty request data."};
const Lines notWritten{"[Error] OperationFailed: Failed to SetMultipleFields."};
const Lines noChange = together({notWritten, noMessage, noPublishing});
const Lines noEvent = together({noCounter, noMaximum, noEventScript});

const Deeds failure{"answers FAILURE", "names the messages", "publishes"};

const Road theChange{
    {.command = {"AUTH"},
     .lost = {"[Error] Failed to connect to Redis."},
     .answered = always({"[Error] Failed to connect to Redis."}),
     .leavesTheRoad = true},
    // What is not known to be a PATCH is published without a reply.
    {.command = {"HGET", "&&RequestMethod"},
     .lost = noPublishing,
     .answered = always({}),
     .instead = {"publishes"},
     .leavesTheRoad = true},
    {.command = {"HGET", "&&TargetURI"},
     .lost = noPublishing,
     .answered = always({}),
     .instead = {"publishes"},
     .leavesTheRoad = true},
    {.command = {"HGET", "&&ReturnChannel"},
     .lost = noKeyOfTheBody,
     .answered = always({}),
     .without = {"publishes"}},
    {.command = {"HGET", "&&RequestData"},
     .lost = noKeyOfTheBody,
     .answered = always(emptyBody),
     .instead = failure,
     .leavesTheRoad = true},
    {.command = {"HGETALL"},
     .lost = noBody,
     .answered = always(emptyBody),
     .instead = failure,
     .leavesTheRoad = true},
    // What cannot be read differs from the new text.
    {.command = {"HGET", "SessionTimeout"}, .lost = noChange, .answered = always({})},
    {.command = {"EXISTS"},
     .lost = noChange,
     .answered = always({}),
     .without = {"ticks off the property"}},
    {.command = {"HDEL"},
     .does = {"ticks off the property"},
     .lost = noChange,
     .answered = always({})},
    {.command = {"HSET", "SessionTimeout"},
     .does = {"sets the timeout"},
     .lost = noChange,
     .answered = always(notWritten),
     .instead = {"stamps the service", "answers EXCEPTION", "names the messages",
                 "writes Base.1.12.OperationFailed", "lists the message", "keeps the list",
                 "keeps the message", "publishes"},
     .leavesTheRoad = true},
    // The file is none of the store's.
    {.command = {"HSET", "@odata.etag"},
     .does = {"stamps the service"},
     .lost = together({noAnswer, noEvent}),
     .alsoWhenLost = {"saves the file"},
     .answered = always({})},
    {.command = {"HSET", "OK"},
     .does = {"answers OK", "names the messages", "saves the file"},
     .lost = together({noAnswer, noEvent}),
     .alsoWhenLost = {"saves the file"},
     .answered = onAnError({"[Error] Failed to update Return Status."}),
     .instead = {"saves the file"}},
    {.command = {"PUBLISH"},
     .does = {"publishes"},
     .lost = together({noPublishing, noEvent}),
     .answered = always({"[Error] DatabaseOperationError: Failed to publish data."}),
     .without = {"answers OK"},
     .instead = {"answers EXCEPTION", "writes ExtendedError.1.2.DatabaseOperationError",
                 "lists the message", "keeps the list", "keeps the message"}},
    {.command = {"HINCRBY", "&&EVENT_GROUP_ID_COUNTER"},
     .does = {"counts event group 42"},
     .lost = noEvent,
     .answered = always({noCounter.front()}),
     .without = {"tells of change in 42"},
     .instead = {"counts event group 1", "tells of change in 1"}},
    {.command = {"HGET", "MAX_EVENT_GROUP_ID"},
     .lost = together({noMaximum, noEventScript}),
     .answered = always(noMaximum)},
    {.command = {"HGET", "resourceChange"},
     .lost = noEventScript,
     .answered = always(noEventScript),
     .without = {"tells of change in 42"}},
    {.command = {"EVALSHA", "change"},
     .does = {"tells of change in 42"},
     .answered = withReason("[Error] Failed to generate life cycle event. ",
                            "[Error] Failed to generate life cycle event. (Unknown error)")},
};

class FaultyPatch : public RequestsOnAFaultyStore {
  protected:
    Request prepare() override {
        store().hset(serviceUri, {{"SessionTimeout", "300"}, {"@odata.etag", "\"1\""}});
        controller.writeFile(persistentFile, "SessionTimeout=300\n");
        store().hset("the body", {{"SessionTimeout", "600"}});
        return frontEnd().preparePatch({{"SessionTimeout", "600"}},
                                       {.fields = {{"&&RequestData", "the body"}}});
    }
    void noteDeedsOf(const Request& request, const Note& note) override {
        const Fields service = store().hgetall(serviceUri);
        note(service.at("SessionTimeout") == "600", "sets the timeout");
        note(service.at("@odata.etag") != "\"1\"", "stamps the service");
        note(!store().hexists(request.requestKey() + "/Checklist", "/SessionTimeout"),
             "ticks off the property");
        note(controller.readFile(persistentFile) == "SessionTimeout=600\n", "saves the file");
    }
};

TEST_P(FaultyPatch, DoesAtEachCommandWhatTheFaultLeavesPossible) {
    walk(theChange);
}

INSTANTIATE_TEST_SUITE_P(OnAStoreThat, FaultyPatch, testing::ValuesIn(storeFaults()), nameOfFault);

// --- bodies that no store gives

class EndedPatch : public WelcomingTest {
  protected:
    FaultyStore faulty{controller};
};

TEST_F(EndedPatch, OnABodyWithoutTextsLeavesTheOthersAtWork) {
    const std::string line = "The thread of " + std::string(patchChannel) +
                             " ends: basic_string::_M_construct null not valid";
    expectErrorLine(line);
    Request request = frontEnd().preparePatch({{"SessionTimeout", "600"}});
    const Words body{"HGETALL", request.bodyKey()};
    faulty.strike(arrayWithoutTexts(), 0, [=](const auto& sent) { return sent.words == body; });
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
