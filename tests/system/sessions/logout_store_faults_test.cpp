// What a logout comes to when the store fails one of its commands.
#include "support/store_fault_test.h"
#include "testbed/events_and_audit_log.h"

namespace testbed {
namespace {

const Lines noAnswer = joined({{"[Error] Failed to update Return Status."}, noMessage});

// Once nothing more can be read, the count is missing as well.
const Lines noCount = joined({noSessions, noAnswer, noEventScript});
const Lines noEnd =
    joined({{"[Error] Failed to update Return Status."}, noEventScript, noAuditLog});

const Steps theRequest{
    {.command = {"AUTH"},
     .logsWhenLost = {"[Error] Failed to connect to Redis."},
     .logsWhenAnswered = always({"[Error] Failed to connect to Redis."}),
     .endsTheTask = true},
    {.command = {"HGET", "&&ReturnChannel"},
     .logsWhenLost = {"[Error] ReturnChannel is not found."},
     .logsWhenAnswered = always({"[Error] ReturnChannel is not found."}),
     .endsTheTask = true},
    {.command = {"HGET", "&&TargetURI"},
     .logsWhenLost = {"[Error] &&TargetURI is not found."},
     .logsWhenAnswered = always({"[Error] &&TargetURI is not found."}),
     .endsTheTask = true},
};

const Steps theDeletion{
    {.command = {"HGET", "SessionType"},
     .logsWhenLost = joined({noSessions, noAnswer}),
     .logsWhenAnswered = always({})},
    {.command = {"HGET", "ServiceEnabled"},
     .logsWhenLost = joined({noSessions, noAnswer}),
     .logsWhenAnswered = always({})},
    {.command = {"LRANGE"},
     .logsWhenLost = joined({noSessions, noAnswer}),
     .logsWhenAnswered = always({})},
    // Any answer gives a token, if one that nobody has.
    {.command = {"HGET", "XAUTH"},
     .logsWhenLost = joined({{"[Error] Failed to delete session."}, noAnswer}),
     .logsWhenAnswered = always({}),
     .missingEffects = {"removes the token"}},
    // Without a name the audit log's script gets a key less than it is promised.
    {.command = {"HGET", "UserName"},
     .logsWhenLost = joined({noCounter, noMaximum, noCount}),
     .logsWhenAnswered = always({"[Error] Failed to generate LogEntry. ERR Number of keys can't be "
                                 "greater than number of args"}),
     .missingEffects = {"writes the audit entry"}},
    {.command = {"UNLINK"},
     .effects = {"removes the session", "removes the token"},
     .logsWhenLost = joined({noCounter, noMaximum, noCount}),
     .logsWhenAnswered = always({})},
    {.command = {"HINCRBY", "&&EVENT_GROUP_ID_COUNTER"},
     .effects = {"counts event group 42"},
     .logsWhenLost = joined({noCounter, noMaximum, noCount}),
     .logsWhenAnswered = always({noCounter.front()}),
     .missingEffects = {"tells of delete in 42", "tells of change in 42"},
     .otherEffects = {"counts event group 1", "tells of delete in 1", "tells of change in 1"}},
    {.command = {"HGET", "MAX_EVENT_GROUP_ID"},
     .logsWhenLost = joined({noMaximum, noCount}),
     .logsWhenAnswered = always(noMaximum)},
    {.command = {"HGET", "Members@odata.count"},
     .logsWhenLost = noCount,
     .logsWhenAnswered = always(noSessions),
     .otherEffects = {"answers FAILURE", "names the messages",
                      "writes ExtendedError.1.2.DatabaseOperationError", "lists the message",
                      "keeps the list", "keeps the message", "tells of delete in 42", "publishes"},
     .endsTheTask = true},
    {.command = {"LREM"},
     .effects = {"removes the member"},
     .logsWhenLost = noEnd,
     .logsWhenAnswered = always({}),
     .missingEffects = {"lowers the count", "stamps the collection"}},
    {.command = {"HINCRBY", "Members@odata.count"},
     .effects = {"lowers the count"},
     .logsWhenLost = noEnd,
     .logsWhenAnswered = always({})},
    {.command = {"HSET", "@odata.etag"},
     .effects = {"stamps the collection"},
     .logsWhenLost = noEnd,
     .logsWhenAnswered = always({})},
    // Whatever is no error counts as written.
    {.command = {"HSET", "OK_EMPTY"},
     .effects = {"answers OK_EMPTY", "names the messages"},
     .logsWhenLost = noEnd,
     .logsWhenAnswered = onAnError({"[Error] Failed to update Return Status."})},
    {.command = {"HGET", "resourceChange"},
     .logsWhenLost = joined({noEventScript, noAuditLog}),
     .logsWhenAnswered = always(noEventScript),
     .missingEffects = {"tells of delete in 42", "tells of change in 42"}},
    {.command = {"EVALSHA", "delete"},
     .effects = {"tells of delete in 42", "tells of change in 42"},
     .logsWhenLost = noAuditLog,
     .logsWhenAnswered =
         withReason("[Error] Failed to generate life cycle event. ",
                    "[Error] Failed to generate life cycle event. (Unknown error)")},
    lookForTheAuditLog,
    lookForTheAuditScript,
    auditEntry,
    {.command = {"PUBLISH"}, .effects = {"publishes"}, .logsWhenAnswered = always({})},
};

const Steps theRefusal{
    // A type that cannot be read is no reason for a refusal.
    {.command = {"HGET", "SessionType"},
     .logs = {"[Error] Request SessionType is not Redfish."},
     .logsWhenLost = joined({noSessions, noAnswer}),
     .logsWhenAnswered = always({}),
     .otherEffects = {"removes the session", "removes the token", "counts event group 42",
                      "removes the member", "lowers the count", "stamps the collection",
                      "answers OK_EMPTY", "names the messages", "tells of delete in 42",
                      "tells of change in 42", "writes the audit entry", "publishes"},
     .endsTheTask = true},
    {.command = {"HSET", "&&ReturnStatus"},
     .effects = {"answers FAILURE"},
     .logsWhenLost = noMessage,
     .logsWhenAnswered = always({})},
    {.command = {"HSET", "&&ExtendedInfo"},
     .effects = {"names the messages"},
     .logsWhenLost = noMessage,
     .logsWhenAnswered = always({})},
    // What is no number counts as none.
    {.command = {"LLEN"}, .logsWhenLost = noMessage, .logsWhenAnswered = always({})},
    {.command = {"HGET", "REDIS_CONNECTION_DEFAULT_TIMEOUT"},
     .logsWhenAnswered = always({}),
     .missingEffects = {"keeps the list", "keeps the message"},
     .otherEffects = {"keeps the list briefly", "keeps the message briefly"}},
    {.command = {"HSET", "&&MessageId"},
     .effects = {"writes ExtendedError.1.2.UnprocessableEntity"},
     .logsWhenAnswered = always({})},
    {.command = {"LPUSH"}, .effects = {"lists the message"}, .logsWhenAnswered = always({})},
    {.command = {"EXPIRE"}, .effects = {"keeps the list"}, .logsWhenAnswered = always({})},
    {.command = {"EXPIRE"}, .effects = {"keeps the message"}, .logsWhenAnswered = always({})},
    {.command = {"PUBLISH"}, .effects = {"publishes"}, .logsWhenAnswered = always({})},
};

Steps join(Steps first, const Steps& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

class FaultyLogout : public StoreFaultTest {
  protected:
    Request prepare() override {
        store().del(membersKey);
        store().hset(sessionsUri, {{"Members@odata.count", "0"}, {"@odata.etag", "\"1\""}});
        session = frontEnd().insertSession({.sessionType = sessionType});
        return frontEnd().prepareRemove(session.uri);
    }
    void noteEffectsOf(const Request&, const Note& note) override {
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
    injectAtEachCommand(join(theRequest, theDeletion));
}

TEST_P(FaultyLogout, ThatIsRefusedAnswersAsFarAsTheFaultLeavesPossible) {
    sessionType = "\"Other\"";
    injectAtEachCommand(join(theRequest, theRefusal));
}

INSTANTIATE_TEST_SUITE_P(OnAStoreThat, FaultyLogout, testing::ValuesIn(storeFaults()), nameOfFault);

}  // namespace
}  // namespace testbed
