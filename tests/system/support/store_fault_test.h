// Fault injection at each command of a task, driven by a table of what is expected.
//
// The table, Steps, lists the commands of a task in the order in which the daemon sends them. It
// says for each of them what others see of it (its effects), what is logged, and what a fault
// there changes. effectsWith() and linesWith() derive from it what is expected when one of the
// commands meets a fault.
//
// StoreFaultTest does all of this for requests. A fixture derived from it prepares the request
// and notes its effects, and a test gives the steps:
//
//     class FaultyLogout : public StoreFaultTest {
//         Request prepare() override { ... the same request on the same store each time }
//         void noteEffectsOf(const Request&, const Note& note) override {
//             note(!store().exists(uri), "removes the session");
//         }
//     };
//     TEST_P(FaultyLogout, DoesWhatTheFaultLeavesPossible) { injectAtEachCommand(steps); }
//     INSTANTIATE_TEST_SUITE_P(OnAStoreThat, FaultyLogout, testing::ValuesIn(storeFaults()),
//                              nameOfFault);
#pragma once

#include <cstddef>
#include <functional>
#include <initializer_list>
#include <set>
#include <string>
#include <vector>

#include "support/fault_injector.h"
#include "support/permissive_pam_test.h"

namespace testbed {

// What others can see of a task.
using Effects = std::set<std::string>;
// Log lines with their tags: "[Error] Failed to get sessions."
using Lines = std::vector<std::string>;

// A command of a task, and what a fault there leads to.
struct Step {
    Words command;  // some of its words
    Effects effects{};
    Lines logs{};  // without a fault
    // When the connection ends here.
    Lines logsWhenLost{};
    Effects effectsWhenLost{};
    // When the fault is a reply: the lines, the later effects that are missing, and others that
    // come in their place.
    std::function<Lines(const Fault&)> logsWhenAnswered{};
    Effects missingEffects{};
    Effects otherEffects{};
    bool endsTheTask = false;  // none of the later effects comes then
};
using Steps = std::vector<Step>;

// Values for `logsWhenAnswered`: the lines at any reply, at errors only, and one line that ends
// with the reply's reason, or is the unknown one when the reply gives none.
std::function<Lines(const Fault&)> always(const Lines& lines);
std::function<Lines(const Fault&)> onAnError(const Lines& lines);
std::function<Lines(const Fault&)> withReason(const std::string& line, const std::string& unknown);

Lines joined(std::initializer_list<Lines> parts);

// Of the steps from `begin` to before `end`, without a fault.
Effects effectsOf(const Steps& steps, std::size_t begin, std::size_t end);
Lines linesOf(const Steps& steps, std::size_t begin, std::size_t end);
// Of a task that meets the fault at one of its steps.
Effects effectsWith(const Fault& fault, const Steps& steps, std::size_t at);
Lines linesWith(const Fault& fault, const Steps& steps, std::size_t at);

// Whether the command has all words of the step's.
bool matches(const Step& step, const Words& command);

// What is logged of reads and counts that fail, whatever the task.
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
                                     .logsWhenLost = noAuditLog,
                                     .logsWhenAnswered = always(noAuditLog),
                                     .missingEffects = {"writes the audit entry"}};
inline const Step lookForTheAuditScript{.command = {"HGET", "logGeneratorHelper"},
                                        .logsWhenLost = noAuditScript,
                                        .logsWhenAnswered = always(noAuditScript),
                                        .missingEffects = {"writes the audit entry"}};
inline const Step auditEntry{
    .command = {"EVALSHA", "CREATE"},
    .effects = {"writes the audit entry"},
    .logsWhenAnswered = withReason("[Error] Failed to generate LogEntry. ",
                                   "[Error] Failed to generate LogEntry(unknown error).")};

// Sends requests of one kind, with a fault at one of their commands after the other. The expiry
// has ended. The counter of event groups stands at 41 before each request.
class StoreFaultTest : public PermissivePamTest, public testing::WithParamInterface<Fault> {
  protected:
    void SetUp() override;

    using Note = std::function<void(bool isDone, const std::string& effect)>;
    // A request, and a store whose state shows what the request does to it.
    virtual Request prepare() = 0;
    // Notes what it has done beyond events and reply, which are noted for every request.
    virtual void noteEffectsOf(const Request& request, const Note& note) = 0;

    // Sends the request without a fault, and then with the fault at each command that it fits;
    // each of these is followed by one without a fault.
    void injectAtEachCommand(const Steps& steps);

  private:
    void endExpiry();
    std::vector<Words> expectWithoutFault(const Steps& steps);
    Effects effectsOfRequest(std::size_t commands);
    void noteReply(const Request& request, const Note& note);
    bool isIdle();
    void expectLines(const Lines& expected);

    std::size_t checkedLines = 0;  // of the log
    FaultInjector injector{controller};
};

}  // namespace testbed
