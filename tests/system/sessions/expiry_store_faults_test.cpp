// What a pass of the expiry comes to when the store fails one of its commands.
#include <algorithm>
#include <atomic>
#include <mutex>
#include <optional>
#include <set>
#include <thread>

#include "support/store_fault_walk.h"
#include "support/trail.h"

namespace testbed {
namespace {

const Lines noCountOfAPass = together({noSessions, noEventScript});
const Lines noEndOfAPass = together({noEventScript, noAuditLog});

const Deeds theWholeDeletion{"removes the session",   "removes the token", "removes the member",
                             "lowers the count",      "tells of delete",   "tells of change",
                             "writes the audit entry"};

// Nobody waits for an answer: what is lost before anything was removed is lost in silence.
const Road ofAnExpiredSession{
    {.command = {"HGET", "SessionType"}, .answered = always({}), .leavesTheRoad = true},
    {.command = {"HGET", "XAUTH"}, .answered = always({})},
    {.command = {"HGET", "LastAccessed"}, .answered = always({})},
    {.command = {"HGET", "Timeout"}, .answered = always({})},
    {.command = {"LRANGE"}, .answered = always({})},
    // Any answer gives a token, if one that nobody has.
    {.command = {"HGET", "XAUTH"}, .answered = always({}), .without = {"removes the token"}},
    // Without a name the audit log's script gets a key less than it is promised.
    {.command = {"HGET", "UserName"},
     .lost = together({noCounter, noMaximum, noCountOfAPass}),
     .answered = always({"[Error] Failed to generate LogEntry. ERR Number of keys can't be "
                         "greater than number of args"}),
     .without = {"writes the audit entry"}},
    {.command = {"UNLINK"},
     .does = {"removes the session", "removes the token"},
     .lost = together({noCounter, noMaximum, noCountOfAPass}),
     .answered = always({})},
    {.command = {"HINCRBY", "&&EVENT_GROUP_ID_COUNTER"},
     .lost = together({noCounter, noMaximum, noCountOfAPass}),
     .answered = always({noCounter.front()})},
    {.command = {"HGET", "MAX_EVENT_GROUP_ID"},
     .lost = together({noMaximum, noCountOfAPass}),
     .answered = always(noMaximum)},
    {.command = {"HGET", "Members@odata.count"},
     .lost = noCountOfAPass,
     .answered = always(noSessions),
     .instead = {"tells of delete"},
     .leavesTheRoad = true},
    {.command = {"LREM"},
     .does = {"removes the member"},
     .lost = noEndOfAPass,
     .answered = always({}),
     .without = {"lowers the count"}},
    {.command = {"HINCRBY", "Members@odata.count"},
     .does = {"lowers the count"},
     .lost = noEndOfAPass,
     .answered = always({})},
    {.command = {"HSET", "@odata.etag"}, .lost = noEndOfAPass, .answered = always({})},
    {.command = {"HGET", "resourceChange"},
     .lost = noEndOfAPass,
     .answered = always(noEventScript),
     .without = {"tells of delete", "tells of change"}},
    {.command = {"EVALSHA", "delete"},
     .does = {"tells of delete", "tells of change"},
     .lost = noAuditLog,
     .answered = withReason("[Error] Failed to generate life cycle event. ",
                            "[Error] Failed to generate life cycle event. (Unknown error)")},
    lookForTheAuditLog,
    lookForTheAuditScript,
    auditEntry,
};

// What cannot be read counts as 0, and a session without a token has been idle for ever.
const Road ofALiveSession{
    {.command = {"HGET", "SessionType"}, .answered = always({})},
    {.command = {"HGET", "XAUTH"}, .answered = always({}), .instead = theWholeDeletion},
    {.command = {"HGET", "LastAccessed"}, .answered = always({})},
    {.command = {"HGET", "Timeout"}, .answered = always({}), .instead = theWholeDeletion},
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
        relay_.judge([this](const Words& command) {
            const std::lock_guard lock(mutex_);
            if (command == listing && expiry_ == std::thread::id()) {
                expiry_ = std::this_thread::get_id();
            }
            return expiry_ == std::this_thread::get_id() && judge_ ? judge_(command)
                                                                   : StoreRelay::Verdict::pass;
        });
    }

    void TearDown() override {
        judge({});
        SystemTest::TearDown();
    }

    // Of the commands of the expiry that is started next, one at a time, from the first list of
    // the sessions on.
    void judge(StoreRelay::Judge judge) {
        const std::lock_guard lock(mutex_);
        expiry_ = {};
        judge_ = std::move(judge);
    }

    // What has been done to the session, but for the count, which all have in common.
    Deeds deedsOn(const InsertedSession& session) {
        Deeds deeds;
        const auto note = [&](bool isDone, const std::string& deed) {
            if (isDone) {
                deeds.insert(deed);
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
        return deeds;
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
        for (const std::vector<LogLine> all = logLines(); lines_ < all.size(); ++lines_) {
            const LogLine& line = all[lines_];
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
    std::mutex mutex_;
    std::thread::id expiry_;  // serves its connection
    StoreRelay::Judge judge_;
    std::size_t lines_ = 0;  // of the log, looked at already
    StoreRelay relay_{controller};
};

// --- a connection that ends

class LostExpiry : public FaultyExpiry {
  protected:
    // Starts a daemon whose expiry loses its connection at this command, counted from 0: the
    // list, the commands for a live session, those for an expired one.
    void lose(std::size_t at) {
        const Fault& fault = GetParam();
        const Step list{.command = {"LRANGE"}};
        Road road{list};
        road.insert(road.end(), ofALiveSession.begin(), ofALiveSession.end());
        road.insert(road.end(), ofAnExpiredSession.begin(), ofAnExpiredSession.end());
        SCOPED_TRACE("at " + testing::PrintToString(road.at(at).command));

        if (controller.daemonStarted()) {
            controller.daemon().kill();
        }
        store().del(membersKey);
        store().del("&&EventStream");
        store().hset(sessionsUri, {{"Members@odata.count", "0"}});
        const InsertedSession expiring = frontEnd().insertSession(expiredSession);
        const InsertedSession living = frontEnd().insertSession(liveSession);
        commands_ = 0;
        judge([this, at, verdict = fault.verdict, step = road[at]](const Words& command) {
            if (commands_++ != at) {
                return StoreRelay::Verdict::pass;
            }
            isMeantOne_ = isMeant(step, command);
            return verdict;
        });
        startDaemon();
        waitUntil("the command has come", [&] { return commands_ > at; });
        EXPECT_TRUE(isMeantOne_);
        Deeds deeds = deedsWith(fault, road, at);
        // The one that is logged out adds one and takes one away.
        expectLogouts();
        EXPECT_EQ(store().hget(sessionsUri, "Members@odata.count"),
                  deeds.erase("lowers the count") > 0 ? "1" : "2");
        EXPECT_EQ(deedsOn(expiring), deeds);
        EXPECT_EQ(deedsOn(living), Deeds{});
        expectLines(linesWith(fault, road, at));
        EXPECT_EQ(commands_, at + 1);
    }

  private:
    std::atomic<std::size_t> commands_ = 0;
    std::atomic<bool> isMeantOne_ = false;
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
        if (fault.endsTheConnection() == endTheConnection) {
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
    void plant(const SessionOptions& options, const Road& road) {
        cases_.push_back({frontEnd().insertSession(options), &road});
        for (std::size_t at = 0; at < road.size(); ++at) {
            cases_.push_back({frontEnd().insertSession(options), &road, at});
        }
    }

    // From the list of the sessions, which meets the fault once, up to the next one.
    void pass() {
        judge([this](const Words& command) { return judgeOne(command); });
        startDaemon();
        waitUntil("the pass is over", [this] { return isOver_.load(); });
    }

    void expectWhatTheTablesSay() {
        EXPECT_EQ(strangeCommands_, std::vector<Words>{});
        std::size_t count = cases_.size();
        Lines lines;
        // The list begins with the youngest.
        for (auto each = cases_.rbegin(); each != cases_.rend(); ++each) {
            Deeds deeds = deedsOf(*each->road, 0, each->road->size());
            if (each->isStruck) {
                lines = together({lines, linesWith(GetParam(), *each->road, *each->at)});
                deeds = deedsWith(GetParam(), *each->road, *each->at);
            }
            count -= deeds.erase("lowers the count");
            SCOPED_TRACE(each->at ? testing::PrintToString(each->road->at(*each->at).command)
                                  : "undisturbed");
            EXPECT_EQ(deedsOn(each->session), deeds);
        }
        EXPECT_EQ(store().hget(sessionsUri, "Members@odata.count"), std::to_string(count));
        expectLines(lines);
    }

  private:
    struct Case {
        InsertedSession session;
        const Road* road;
        std::optional<std::size_t> at{};
        bool isStruck = false;
    };

    StoreRelay::Verdict judgeOne(const Words& command) {
        const Fault& fault = GetParam();
        const Case* const last = &cases_.front();
        if (command == listing && (current_ == nullptr || isDone(*last))) {
            isOver_ = current_ != nullptr;
            if (current_ != nullptr) {
                return StoreRelay::Verdict::cut;
            }
            const bool isStruck = fault.fits(command) && !isListStruck_;
            isListStruck_ = true;
            return isStruck ? fault.verdict : StoreRelay::Verdict::pass;
        }
        const auto found = std::find_if(cases_.begin(), cases_.end(), [&](const Case& each) {
            return command == Words{"HGET", each.session.uri, "SessionType"};
        });
        if (found != cases_.end()) {
            current_ = &*found;
            next_ = 0;
        }
        const std::size_t at = next_++;
        if (current_->isStruck) {
            return StoreRelay::Verdict::pass;
        }
        if (at >= current_->road->size() || !isMeant(current_->road->at(at), command)) {
            strangeCommands_.push_back(command);
        }
        current_->isStruck = current_->at == at && fault.fits(command);
        return current_->isStruck ? fault.verdict : StoreRelay::Verdict::pass;
    }
    bool isDone(const Case& one) const { return current_ == &one && next_ == one.road->size(); }

    std::vector<Case> cases_;
    Case* current_ = nullptr;  // whose commands come
    std::size_t next_ = 0;     // of them
    bool isListStruck_ = false;
    std::vector<Words> strangeCommands_;
    std::atomic<bool> isOver_ = false;
};

TEST_P(MisledExpiry, DoesToEachSessionWhatTheFaultLeavesPossible) {
    plant(expiredSession, ofAnExpiredSession);
    plant(liveSession, ofALiveSession);
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
    judge([verdict = GetParam().verdict](const Words&) { return verdict; });
    startDaemon();
    waitForLog(line);
    expectLogouts();
    EXPECT_EQ(frontEnd().patch({{"SessionTimeout", "300"}}).status(), "OK");
    EXPECT_EQ(deedsOn(session), Deeds{});
    EXPECT_EQ(countLogged(line), 1);
}

INSTANTIATE_TEST_SUITE_P(OnAStoreThat, EndedExpiry, testing::Values(arrayWithoutTexts()),
                         nameOfFault);

}  // namespace
}  // namespace testbed
