// What a logout comes to when the store fails one of its commands.
#include "support/store_fault_walk.h"
#include "support/trail.h"

namespace testbed {
namespace {

const Lines noAnswer = together({{"[Error] Failed to update Return Status."}, noMessage});

// Once nothing more can be read, the count is missing as well.
const Lines noCount = together({noSessions, noAnswer, noEventScript});
const Lines noEnd =
    together({{"[Error] Failed to update Return Status."}, noEventScript, noAuditLog});

const Road theRequest{
    {.command = {"AUTH"},
     .lost = {"[Error] Failed to connect to Redis."},
     .answered = always({"[Error] Failed to connect to Redis."}),
     .leavesTheRoad = true},
    {.command = {"HGET", "&&ReturnChannel"},
     .lost = {"[Error] ReturnChannel is not found."},
     .answered = always({"[Error] ReturnChannel is not found."}),
     .leavesTheRoad = true},
    {.command = {"HGET", "&&TargetURI"},
     .lost = {"[Error] &&TargetURI is not found."},
     .answered = always({"[Error] &&TargetURI is not found."}),
     .leavesTheRoad = true},
};

const Road theDeletion{
    {.command = {"HGET", "SessionType"},
     .lost = together({noSessions, noAnswer}),
     .answered = always({})},
    {.command = {"HGET", "ServiceEnabled"},
     .lost = together({noSessions, noAnswer}),
     .answered = always({})},
    {.command = {"LRANGE"}, .lost = together({noSessions, noAnswer}), .answered = always({})},
    // Any answer gives a token, if one that nobody has.
    {.command = {"HGET", "XAUTH"},
     .lost = together({{"[Error] Failed to delete session."}, noAnswer}),
     .answered = always({}),
     .without = {"removes the token"}},
    // Without a name the audit log's script gets a key less than it is promised.
    {.command = {"HGET", "UserName"},
     .lost = together({noCounter, noMaximum, noCount}),
     .answered = always({"[Error] Failed to generate LogEntry. ERR Number of keys can't be "
                         "greater than number of args"}),
     .without = {"writes the audit entry"}},
    {.command = {"UNLINK"},
     .does = {"removes the session", "removes the token"},
     .lost = together({noCounter, noMaximum, noCount}),
     .answered = always({})},
    {.command = {"HINCRBY", "&&EVENT_GROUP_ID_COUNTER"},
     .does = {"counts event group 42"},
     .lost = together({noCounter, noMaximum, noCount}),
     .answered = always({noCounter.front()}),
     .without = {"tells of delete in 42", "tells of change in 42"},
     .instead = {"counts event group 1", "tells of delete in 1", "tells of change in 1"}},
    {.command = {"HGET", "MAX_EVENT_GROUP_ID"},
     .lost = together({noMaximum, noCount}),
     .answered = always(noMaximum)},
    {.command = {"HGET", "Members@odata.count"},
     .lost = noCount,
     .answered = always(noSessions),
     .instead = {"answers FAILURE", "names the messages",
                 "writes ExtendedError.1.2.DatabaseOperationError", "lists the message",
                 "keeps the list", "keeps the message", "tells of delete in 42", "publishes"},
     .leavesTheRoad = true},
    {.command = {"LREM"},
     .does = {"removes the member"},
     .lost = noEnd,
     .answered = always({}),
     .without = {"lowers the count", "stamps the collection"}},
    {.command = {"HINCRBY", "Members@odata.count"},
     .does = {"lowers the count"},
     .lost = noEnd,
     .answered = always({})},
    {.command = {"HSET", "@odata.etag"},
     .does = {"stamps the collection"},
     .lost = noEnd,
     .answered = always({})},
    // Whatever is no error counts as written.
    {.command = {"HSET", "OK_EMPTY"},
     .does = {"answers OK_EMPTY", "names the messages"},
     .lost = noEnd,
     .answered = onAnError({"[Error] Failed to update Return Status."})},
    {.command = {"HGET", "resourceChange"},
     .lost = together({noEventScript, noAuditLog}),
     .answered = always(noEventScript),
     .without = {"tells of delete in 42", "tells of change in 42"}},
    {.command = {"EVALSHA", "delete"},
     .does = {"tells of delete in 42", "tells of change in 42"},
     .lost = noAuditLog,
     .answered = withReason("[Error] Failed to generate life cycle event. ",
                            "[Error] Failed to generate life cycle event. (Unknown error)")},
    lookForTheAuditLog,
    lookForTheAuditScript,
    auditEntry,
    {.command = {"PUBLISH"}, .does = {"publishes"}, .answered = always({})},
};

const Road theRefusal{
    // A type that cannot be read is no reason for a refusal.
    {.command = {"HGET", "SessionType"},
     .logs = {"[Error] Request SessionType is not Redfish."},
     .lost = together({noSessions, noAnswer}),
     .answered = always({}),
     .instead = {"removes the session", "removes the token", "counts event group 42",
                 "removes the member", "lowers the count", "stamps the collection",
                 "answers OK_EMPTY", "names the messages", "tells of delete in 42",
                 "tells of change in 42", "writes the audit entry", "publishes"},
     .leavesTheRoad = true},
    {.command = {"HSET", "&&ReturnStatus"},
     .does = {"answers FAILURE"},
     .lost = noMessage,
     .answered = always({})},
    {.command = {"HSET", "&&ExtendedInfo"},
     .does = {"names the messages"},
     .lost = noMessage,
     .answered = always({})},
    // What is no number counts as none.
    {.command = {"LLEN"}, .lost = noMessage, .answered = always({})},
    {.command = {"HGET", "REDIS_CONNECTION_DEFAULT_TIMEOUT"},
     .answered = always({}),
     .without = {"keeps the list", "keeps the message"},
     .instead = {"keeps the list briefly", "keeps the message briefly"}},
    {.command = {"HSET", "&&MessageId"},
     .does = {"writes ExtendedError.1.2.UnprocessableEntity"},
     .answered = always({})},
    {.command = {"LPUSH"}, .does = {"lists the message"}, .answered = always({})},
    {.command = {"EXPIRE"}, .does = {"keeps the list"}, .answered = always({})},
    {.command = {"EXPIRE"}, .does = {"keeps the message"}, .answered = always({})},
    {.command = {"PUBLISH"}, .does = {"publishes"}, .answered = always({})},
};

Road join(Road first, const Road& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

class FaultyLogout : public RequestsOnAFaultyStore {
  protected:
    Request prepare() override {
        store().del(membersKey);
        store().hset(sessionsUri, {{"Members@odata.count", "0"}, {"@odata.etag", "\"1\""}});
        session = frontEnd().insertSession({.sessionType = sessionType});
        return frontEnd().prepareRemove(session.uri);
    }
    void noteDeedsOf(const Request&, const Note& note) override {
        note(!store().exists(session.uri) && !store().exists(tokenReferenceKey(session.uri)),
             "removes the session");
        note(!store().exists(tokenKey(session.token)), "removes the token");
        note(store().llen(membersKey) == 0, "removes the member");
        note(store().hget(sessionsUri, "Members@odata.count") == "0", "lowers the count");
        note(store().hget(sessionsUri, "@odata.etag") != "\"1\"", "stamps the collection");
        for (const Words& entry : auditEntries(store())) {
            note(entry.at(2).find(session.uri) != std::string::npos, "writes the audit entry");
        }
    }

    std::string sessionType = "\"Redfish\"";
    InsertedSession session;
};

TEST_P(FaultyLogout, DoesAtEachCommandWhatTheFaultLeavesPossible) {
    walk(join(theRequest, theDeletion));
}

TEST_P(FaultyLogout, ThatIsRefusedAnswersAsFarAsTheFaultLeavesPossible) {
    sessionType = "\"Other\"";
    walk(join(theRequest, theRefusal));
}

INSTANTIATE_TEST_SUITE_P(OnAStoreThat, FaultyLogout, testing::ValuesIn(storeFaults()), nameOfFault);

}  // namespace
}  // namespace testbed
