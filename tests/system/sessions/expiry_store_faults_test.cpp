// What a pass of the expiry comes to when the store fails one of its commands.
#include <algorithm>
#include <atomic>
#include <mutex>
#include <optional>
#include <set>
#include <thread>

#include "support/store_fault_test.h"
#include "testbed/events_and_audit_log.h"

namespace testbed {
namespace {

const Lines noCountOfAPass = joined({noSessions, noEventScript});
const Lines noEndOfAPass = joined({noEventScript, noAuditLog});

const Effects theWholeDeletion{"removes the session",   "removes the token", "removes the member",
                               "lowers the count",      "tells of delete",   "tells of change",
                               "writes the audit entry"};

// Nobody waits for an answer: what is lost before anything was removed is lost in silence.
const Steps ofAnExpiredSession{
    {.command = {"HGET", "SessionType"}, .logsWhenAnswered = always({}), .endsTheTask = true},
    {.command = {"HGET", "XAUTH"}, .logsWhenAnswered = always({})},
    {.command = {"HGET", "LastAccessed"}, .logsWhenAnswered = always({})},
    {.command = {"HGET", "Timeout"}, .logsWhenAnswered = always({})},
    {.command = {"LRANGE"}, .logsWhenAnswered = always({})},
    // Any answer gives a token, if one that nobody has.
    {.command = {"HGET", "XAUTH"},
     .logsWhenAnswered = always({}),
     .missingEffects = {"removes the token"}},
    // Without a name the audit log's script gets a key less than it is promised.
    {.command = {"HGET", "UserName"},
     .logsWhenLost = joined({noCounter, noMaximum, noCountOfAPass}),
     .logsWhenAnswered = always({"[Error] Failed to generate LogEntry. ERR Number of keys can't be "
                                 "greater than number of args"}),
     .missingEffects = {"writes the audit entry"}},
    {.command = {"UNLINK"},
     .effects = {"removes the session", "removes the token"},
     .logsWhenLost = joined({noCounter, noMaximum, noCountOfAPass}),
     .logsWhenAnswered = always({})},
    {.command = {"HINCRBY", "&&EVENT_GROUP_ID_COUNTER"},
     .logsWhenLost = joined({noCounter, noMaximum, noCountOfAPass}),
     .logsWhenAnswered = always({noCounter.front()})},
    {.command = {"HGET", "MAX_EVENT_GROUP_ID"},
     .logsWhenLost = joined({noMaximum, noCountOfAPass}),
     .logsWhenAnswered = always(noMaximum)},
    {.command = {"HGET", "Members@odata.count"},
     .logsWhenLost = noCountOfAPass,
     .logsWhenAnswered = always(noSessions),
     .otherEffects = {"tells of delete"},
     .endsTheTask = true},
    {.command = {"LREM"},
     .effects = {"removes the member"},
     .logsWhenLost = noEndOfAPass,
     .logsWhenAnswered = always({}),
     .missingEffects = {"lowers the count"}},
    {.command = {"HINCRBY", "Members@odata.count"},
     .effects = {"lowers the count"},
     .logsWhenLost = noEndOfAPass,
     .logsWhenAnswered = always({})},
    {.command = {"HSET", "@odata.etag"},
     .logsWhenLost = noEndOfAPass,
     .logsWhenAnswered = always({})},
    {.command = {"HGET", "resourceChange"},
     .logsWhenLost = noEndOfAPass,
     .logsWhenAnswered = always(noEventScript),
     .missingEffects = {"tells of delete", "tells of change"}},
    {.command = {"EVALSHA", "delete"},
     .effects = {"tells of delete", "tells of change"},
     .logsWhenLost = noAuditLog,
     .logsWhenAnswered =
         withReason("[Error] Failed to generate life cycle event. ",
                    "[Error] Failed to generate life cycle event. (Unknown error)")},
    lookForTheAuditLog,
    lookForTheAuditScript,
    auditEntry,
};

// What cannot be read counts as 0, and a session without a token has been idle for ever.
const Steps ofALiveSession{
    {.command = {"HGET", "SessionType"}, .logsWhenAnswered = always({})},
    {.command = {"HGET", "XAUTH"},
     .logsWhenAnswered = always({}),
     .otherEffects = theWholeDeletion},
    {.command = {"HGET", "LastAccessed"}, .logsWhenAnswered = always({})},
    {.command = {"HGET", "Timeout"},
     .logsWhenAnswered = always({}),
     .otherEffects = theWholeDeletion},
};

const SessionOptions expiredSession{.timeout = "0"};
const SessionOptions liveSession{.timeout = "2147483647"};

const Words listing{"LRANGE", membersKey, "0", "-1"};

class FaultyExpiry : public SystemTest, public testing::WithParamInterface<Fault> {
  protected:
    void SetUp() override {
        startStore();
        // With a fraction each deletion asks for the maximum.
        store().hset("webDefaultValue", {{"MAX_EVENT_GROUP_ID", "65535.5"}});
        proxy.setFilter([this](const Words& command) {
            const std::lock_guard lock(stateMutex);
            if (command == listing && expiryThread == std::thread::id()) {
                expiryThread = std::this_thread::get_id();
            }
            return expiryThread == std::this_thread::get_id() && currentFilter
                       ? currentFilter(command)
                       : StoreProxy::Verdict::pass;
        });
    }

    void TearDown() override {
        setFilter({});
        SystemTest::TearDown();
    }

    // Of the commands of the expiry that is started next, one at a time, from the first list of
    // the sessions on.
    void setFilter(StoreProxy::Filter filter) {
        const std::lock_guard lock(stateMutex);
        expiryThread = {};
        currentFilter = std::move(filter);
    }

    // What has been done to the session, but for the count, which all have in common.
    Effects effectsOn(const InsertedSession& session) {
        Effects effects;
        const auto note = [&](bool isDone, const std::string& effect) {
            if (isDone) {
                effects.insert(effect);
            }
        };
        note(!store().exists(session.uri) && !store().exists(tokenReferenceKey(session.uri)),
             "removes the session");
        note(!store().exists(tokenKey(session.token)), "removes the token");
        const Words members = store().lrange(membersKey);
        note(std::count(members.begin(), members.end(), "&&ObjectRef " + session.uri) == 0,
             "removes the member");
        std::string group;
        for (const Words& event : lifeCycleEvents(store())) {
            if (event.at(0) == "delete") {
                group = event.at(1) == session.uri ? event.at(3) : "";
            }
            note(event.at(3) == group, "tells of " + event.at(0));
        }
        for (const Words& entry : auditEntries(store())) {
            note(entry.at(2).find(session.uri) != std::string::npos, "writes the audit entry");
        }
        return effects;
    }

    // What the log holds beyond what was looked at before, and beyond what daemons say when they
    // start and when they tell of something for the first time.
    void expectLines(const Lines& expected) {
        const std::set<std::string> usual{
            "SessionService log is starting ...",
            "SessionService is ready for service.",
            "SessionService resource has been initialized already.",
            "Create session thread is running ...",
            "Delete session thread is running ...",
            "Timeout session thread is running ...",
            "SessionService will generate events when resource is created/updated/removed."};
        Lines lines;
        for (const std::vector<LogLine> all = logLines(); linesSeen < all.size(); ++linesSeen) {
            const LogLine& line = all[linesSeen];
            if (usual.count(line.message) == 0) {
                lines.push_back(line.tag + " " + line.message);
            }
            if (line.tag == "[Error]") {
                expectErrorLine(line.message);
            }
        }
        EXPECT_EQ(lines, expected);
    }

    // A deletion waits for the pass to be over, and gives up after a while.
    void expectLogouts() {
        const std::string uri = frontEnd().insertSession().uri;
        waitUntil("a logout succeeds",
                  [&] { return frontEnd().remove(uri).status() == "OK_EMPTY"; });
    }

  private:
    std::mutex stateMutex;
    std::thread::id expiryThread;  // serves its connection
    StoreProxy::Filter currentFilter;
    std::size_t linesSeen = 0;  // of the log, looked at already
    StoreProxy proxy{controller};
};

// --- a connection that ends

class LostExpiry : public FaultyExpiry {
  protected:
    // Starts a daemon whose expiry loses its connection at this command, counted from 0: the
    // list, the commands for a live session, those for an expired one.
    void lose(std::size_t at) {
        const Fault& fault = GetParam();
        const Step list{.command = {"LRANGE"}};
        Steps steps{list};
        steps.insert(steps.end(), ofALiveSession.begin(), ofALiveSession.end());
        steps.insert(steps.end(), ofAnExpiredSession.begin(), ofAnExpiredSession.end());
        SCOPED_TRACE("at " + testing::PrintToString(steps.at(at).command));

        if (controller.daemonStarted()) {
            controller.daemon().kill();
        }
        store().del(membersKey);
        store().del("&&EventStream");
        store().hset(sessionsUri, {{"Members@odata.count", "0"}});
        const InsertedSession expiring = frontEnd().insertSession(expiredSession);
        const InsertedSession living = frontEnd().insertSession(liveSession);
        commandCount = 0;
        setFilter([this, at, verdict = fault.verdict, step = steps[at]](const Words& command) {
            if (commandCount++ != at) {
                return StoreProxy::Verdict::pass;
            }
            isMeantOne = matches(step, command);
            return verdict;
        });
        startDaemon();
        waitUntil("the command has come", [&] { return commandCount > at; });
        EXPECT_TRUE(isMeantOne);
        Effects effects = effectsWith(fault, steps, at);
        // The one that is logged out adds one and takes one away.
        expectLogouts();
        EXPECT_EQ(store().hget(sessionsUri, "Members@odata.count"),
                  effects.erase("lowers the count") > 0 ? "1" : "2");
        EXPECT_EQ(effectsOn(expiring), effects);
        EXPECT_EQ(effectsOn(living), Effects{});
        expectLines(linesWith(fault, steps, at));
        EXPECT_EQ(commandCount, at + 1);
    }

  private:
    std::atomic<std::size_t> commandCount = 0;
    std::atomic<bool> isMeantOne = false;
};

TEST_P(LostExpiry, WhileItLooksAtTheSessionsIsSilent) {
    for (std::size_t at = 0; at < 9; ++at) {
        lose(at);
    }
}

TEST_P(LostExpiry, InsideADeletionLeavesWhatWasDoneAndTellsWhatWasNot) {
    for (std::size_t at = 9; at < 24; ++at) {
        lose(at);
    }
}

std::vector<Fault> faultsThat(bool endTheConnection) {
    std::vector<Fault> faults;
    for (const Fault& fault : storeFaults()) {
        if (fault.endsConnection() == endTheConnection) {
            faults.push_back(fault);
        }
    }
    return faults;
}

INSTANTIATE_TEST_SUITE_P(OnAStoreThat, LostExpiry, testing::ValuesIn(faultsThat(true)),
                         nameOfFault);

// --- answers that are of no use

// One pass looks at many sessions, and each of them meets the fault at another command.
class MisledExpiry : public FaultyExpiry {
  protected:
    // A session that meets the fault at each of its commands, and one that never does.
    void insert(const SessionOptions& options, const Steps& steps) {
        cases.push_back({frontEnd().insertSession(options), &steps});
        for (std::size_t at = 0; at < steps.size(); ++at) {
            cases.push_back({frontEnd().insertSession(options), &steps, at});
        }
    }

    // From the list of the sessions, which meets the fault once, up to the next one.
    void pass() {
        setFilter([this](const Words& command) { return verdictOn(command); });
        startDaemon();
        waitUntil("the pass is over", [this] { return isOver.load(); });
    }

    void expectWhatTheTablesSay() {
        EXPECT_EQ(strangeCommands, std::vector<Words>{});
        std::size_t count = cases.size();
        Lines lines;
        // The list begins with the youngest.
        for (auto each = cases.rbegin(); each != cases.rend(); ++each) {
            Effects effects = effectsOf(*each->steps, 0, each->steps->size());
            if (each->isHit) {
                lines = joined({lines, linesWith(GetParam(), *each->steps, *each->at)});
                effects = effectsWith(GetParam(), *each->steps, *each->at);
            }
            count -= effects.erase("lowers the count");
            SCOPED_TRACE(each->at ? testing::PrintToString(each->steps->at(*each->at).command)
                                  : "undisturbed");
            EXPECT_EQ(effectsOn(each->session), effects);
        }
        EXPECT_EQ(store().hget(sessionsUri, "Members@odata.count"), std::to_string(count));
        expectLines(lines);
    }

  private:
    struct Case {
        InsertedSession session;
        const Steps* steps;
        std::optional<std::size_t> at{};
        bool isHit = false;
    };

    StoreProxy::Verdict verdictOn(const Words& command) {
        const Fault& fault = GetParam();
        const Case* const last = &cases.front();
        if (command == listing && (current == nullptr || isDone(*last))) {
            isOver = current != nullptr;
            if (current != nullptr) {
                return StoreProxy::Verdict::cut;
            }
            const bool isHit = fault.fits(command) && !isListHit;
            isListHit = true;
            return isHit ? fault.verdict : StoreProxy::Verdict::pass;
        }
        const auto found = std::find_if(cases.begin(), cases.end(), [&](const Case& each) {
            return command == Words{"HGET", each.session.uri, "SessionType"};
        });
        if (found != cases.end()) {
            current = &*found;
            nextCase = 0;
        }
        const std::size_t at = nextCase++;
        if (current->isHit) {
            return StoreProxy::Verdict::pass;
        }
        if (at >= current->steps->size() || !matches(current->steps->at(at), command)) {
            strangeCommands.push_back(command);
        }
        current->isHit = current->at == at && fault.fits(command);
        return current->isHit ? fault.verdict : StoreProxy::Verdict::pass;
    }
    bool isDone(const Case& one) const { return current == &one && nextCase == one.steps->size(); }

    std::vector<Case> cases;
    Case* current = nullptr;   // whose commands come
    std::size_t nextCase = 0;  // of them
    bool isListHit = false;
    std::vector<Words> strangeCommands;
    std::atomic<bool> isOver = false;
};

TEST_P(MisledExpiry, DoesToEachSessionWhatTheFaultLeavesPossible) {
    insert(expiredSession, ofAnExpiredSession);
    insert(liveSession, ofALiveSession);
    pass();
    expectWhatTheTablesSay();
}

INSTANTIATE_TEST_SUITE_P(OnAStoreThat, MisledExpiry, testing::ValuesIn(faultsThat(false)),
                         nameOfFault);

// A list without texts, which no store gives, ends the thread; the mutex is free then.
class EndedExpiry : public FaultyExpiry {};

TEST_P(EndedExpiry, LeavesTheOthersAtWork) {
    const std::string line =
        "The thread of the session timeout ends: basic_string::_M_construct null not valid";
    expectErrorLine(line);
    const InsertedSession session = frontEnd().insertSession(expiredSession);
    setFilter([verdict = GetParam().verdict](const Words&) { return verdict; });
    startDaemon();
    waitForLog(line);
    expectLogouts();
    EXPECT_EQ(frontEnd().patch({{"SessionTimeout", "300"}}).status(), "OK");
    EXPECT_EQ(effectsOn(session), Effects{});
    EXPECT_EQ(countLogged(line), 1);
}

INSTANTIATE_TEST_SUITE_P(OnAStoreThat, EndedExpiry, testing::Values(arrayWithoutTexts()),
                         nameOfFault);

}  // namespace
}  // namespace testbed
