// What a fault of the store comes to at each command of a task: a table beside the walk.
//
// A Road lists the commands of a task in the order in which the daemon sends them, and says
// for each what others see of it (its deeds), what is logged, and what a fault there changes.
// deedsWith() and linesWith() tell from it what there has to be seen when the fault befalls
// one of them.
//
// For requests there is the whole walk. A fixture of RequestsOnAFaultyStore prepares the
// request and notes its deeds, and a test gives the road:
//
//     class FaultyLogout : public RequestsOnAFaultyStore {
//         Request prepare() override { ... the same request on the same store each time }
//         void noteDeedsOf(const Request&, const Note& note) override {
//             note(!store().exists(uri), "removes the session");
//         }
//     };
//     TEST_P(FaultyLogout, DoesWhatTheFaultLeavesPossible) { walk(road); }
//     INSTANTIATE_TEST_SUITE_P(OnAStoreThat, FaultyLogout, testing::ValuesIn(storeFaults()),
//                              nameOfFault);
#pragma once

#include <cstddef>
#include <functional>
#include <initializer_list>
#include <set>
#include <string>
#include <vector>

#include "support/store_faults.h"
#include "support/welcoming_test.h"

namespace testbed {

// What others can see of a task.
using Deeds = std::set<std::string>;
// Log lines with their tags: "[Error] Failed to get sessions."
using Lines = std::vector<std::string>;

// A command of a task, and what a fault there leads to.
struct Step {
    Words command;  // some of its words
    Deeds does{};
    Lines logs{};  // in the ordinary course
    // When the connection ends here.
    Lines lost{};
    Deeds alsoWhenLost{};
    // When the fault is an answer: the lines, the later deeds that do not come, and others that
    // come in their place.
    std::function<Lines(const Fault&)> answered{};
    Deeds without{};
    Deeds instead{};
    bool leavesTheRoad = false;  // none of the later deeds comes then
};
using Road = std::vector<Step>;

// Values for `answered`: the lines at any answer, at errors only, and one line that ends with
// the answer's reason, or is the unknown one when the answer gives none.
std::function<Lines(const Fault&)> always(const Lines& lines);
std::function<Lines(const Fault&)> onAnError(const Lines& lines);
std::function<Lines(const Fault&)> withReason(const std::string& line, const std::string& unknown);

Lines together(std::initializer_list<Lines> parts);

// Of the steps from `begin` to before `end`, undisturbed.
Deeds deedsOf(const Road& road, std::size_t begin, std::size_t end);
Lines linesOf(const Road& road, std::size_t begin, std::size_t end);
// What there is to be seen of a task that meets the fault at one of its steps.
Deeds deedsWith(const Fault& fault, const Road& road, std::size_t at);
Lines linesWith(const Fault& fault, const Road& road, std::size_t at);

// Whether the command has all words of the step's.
bool isMeant(const Step& step, const Words& command);

// What is logged of reads and counts that come to nothing, whatever the task.
inline const Lines noSessions{"[Error] Failed to get sessions."};
inline const Lines noMessage{"[Error] Failed to get length of extended info array."};
inline const Lines noCounter{"[Debug] Failed to increase the counter &&EVENT_GROUP_ID_COUNTER",
                             "[Debug] Failed to reset the EventGroupId counter."};
inline const Lines noMaximum{"[Debug] Max EventGroupId value type error stoi",
                             "[Debug] The default max value was set to invalid value."};
inline const Lines noEventScript{"[Error] Cannot get SHA script resourceChange."};
inline const Lines noAuditLog{
    "[Debug] LogEntry collection doesn't exist, Session Service will not generate audit log."};
inline const Lines noAuditScript{"[Error] Cannot get SHA script logGeneratorHelper."};

// The audit entry with which each deletion ends.
inline const Step lookForTheAuditLog{.command = {"EXISTS"},
                                     .lost = noAuditLog,
                                     .answered = always(noAuditLog),
                                     .without = {"writes the audit entry"}};
inline const Step lookForTheAuditScript{.command = {"HGET", "logGeneratorHelper"},
                                        .lost = noAuditScript,
                                        .answered = always(noAuditScript),
                                        .without = {"writes the audit entry"}};
inline const Step auditEntry{
    .command = {"EVALSHA", "CREATE"},
    .does = {"writes the audit entry"},
    .answered = withReason("[Error] Failed to generate LogEntry. ",
                           "[Error] Failed to generate LogEntry(unknown error).")};

// Sends requests of one kind, and a fault befalls one of their commands after the other. The
// expiry has ended. The counter of event groups stands at 41 before each request.
class RequestsOnAFaultyStore : public WelcomingTest, public testing::WithParamInterface<Fault> {
  protected:
    void SetUp() override;

    using Note = std::function<void(bool isDone, const std::string& deed)>;
    // A request, and a store whose state shows what the request does to it.
    virtual Request prepare() = 0;
    // Notes what it has done beyond events and answer, which are noted for every request.
    virtual void noteDeedsOf(const Request& request, const Note& note) = 0;

    // Sends the request undisturbed, and then with the fault at each command that it fits; each
    // of these is followed by an undisturbed one.
    void walk(const Road& road);

  private:
    void endTheExpiry();
    std::vector<Words> expectUndisturbed(const Road& road);
    Deeds deedsOfARequest(std::size_t commands);
    void noteTheAnswer(const Request& request, const Note& note);
    bool isIdle();
    void expectLines(const Lines& expected);

    std::size_t lines_ = 0;  // of the log, looked at already
    FaultyStore faulty_{controller};
};

}  // namespace testbed
