// What the start makes of a store that fails one of its commands.
#include <algorithm>
#include <array>
#include <functional>
#include <utility>

#include "support/daemon_names.h"
#include "support/store_fault_test.h"

namespace testbed {
namespace {

constexpr std::array channels{createChannel, deleteChannel, patchChannel};

const Lines noStore{"[Error] Failed to connect to Redis."};
const Lines noAccess{"[Error] Failed to access Redis."};
const Lines noProperty{"[Debug] Failed to set persistent property SessionTimeout."};
const Lines noChannels{"[Error] Failed to add channels for POST and DELETE."};
const Lines noQueue{"[Error] Failed to get &&/redfish/v1/SessionService/PATCHQ queue length.",
                    "[Error] Error occurs while initialize data: Failed to get queue length"};
const Lines noPush{"[Error] Failed to push queue.",
                   "[Error] Error occurs while initialize data: Failed to push queue"};
const Lines noTimeout{"[Debug] SessionTimeout value type error stoi"};
const Lines noSubscription{
    "[Error] Failed to subscribe channel.",
    "[Error] Error occurs while initialize data: Failed to subscribe channel"};

constexpr char serves[] = "serves";
constexpr char pushesCreate[] = "pushes the create channel";
constexpr char pushesDelete[] = "pushes the delete channel";
constexpr char pushesPatch[] = "pushes the PATCH channel";

const Steps theStart{
    {.command = {"AUTH"},
     .logsWhenLost = noStore,
     .logsWhenAnswered = always(noStore),
     .endsTheTask = true},
    {.command = {"LLEN", createQueue},
     .logsWhenLost = noAccess,
     .logsWhenAnswered = always(noAccess),
     .endsTheTask = true},
    {.command = {"HSET", serviceUri, "SessionTimeout"},
     .logsWhenLost = joined({noProperty, noChannels}),
     .logsWhenAnswered = always(noProperty)},
    {.command = {"HSET", serviceUri, "@odata.etag"},
     .logsWhenLost = noChannels,
     .logsWhenAnswered = always({})},
    {.command = {"HSET", sessionsUri, "@odata.etag"},
     .logsWhenLost = noChannels,
     .logsWhenAnswered = always({})},
    {.command = {"LPUSH", createQueue},
     .effects = {pushesCreate},
     .logsWhenLost = noChannels,
     .logsWhenAnswered = always(noChannels),
     .endsTheTask = true},
    {.command = {"LPUSH", deleteQueue},
     .effects = {pushesDelete},
     .logsWhenLost = noChannels,
     .logsWhenAnswered = always(noChannels),
     .endsTheTask = true},
    {.command = {"LLEN", patchQueue},
     .logsWhenLost = noQueue,
     .logsWhenAnswered = always(noQueue),
     .endsTheTask = true},
    {.command = {"LPUSH", patchQueue},
     .effects = {pushesPatch},
     .logsWhenLost = noPush,
     .logsWhenAnswered = always(noPush),
     .endsTheTask = true},
    {.command = {"HGET", serviceUri, "SessionTimeout"},
     .logsWhenLost = noTimeout,
     .effectsWhenLost = {serves},
     .logsWhenAnswered = always(noTimeout)},
    {.command = {"HGET", serviceUri, "ServiceEnabled"},
     .effectsWhenLost = {serves},
     .logsWhenAnswered = always({})},
    // An attempt, for which any answer is as good as another.
    {.command = {"SUBSCRIBE", patchChannel},
     .logsWhenLost = noSubscription,
     .logsWhenAnswered = always({})},
    {.command = {"SUBSCRIBE", patchChannel}, .effects = {serves}},
};

class FaultyStart : public SystemTest, public testing::WithParamInterface<Fault> {
  protected:
    // With the fault at the first command that is meant.
    void start(std::size_t at) {
        const Fault& fault = GetParam();
        endDaemonAtOnce();
        for (const char* queue : {createQueue, deleteQueue, patchQueue}) {
            store().del(queue);
        }
        injector.inject(fault, 0, [step = theStart[at]](const FaultInjector::SentCommand& sent) {
            return matches(step, sent.words);
        });
        Effects expected = effectsWith(fault, theStart, at);
        // Workers that have ended are not waited for when the start fails.
        controller.startDaemon({.environment = {{"TSAN_OPTIONS", "report_thread_leaks=0"}}});
        if (expected.erase(serves) > 0) {
            waitUntil("the daemon listens",
                      [&] { return isListening() || controller.daemon().exitStatus(); });
            EXPECT_FALSE(controller.daemon().exitStatus());
        } else {
            EXPECT_EQ(toText(controller.daemon().wait()),
                      toText(ExitStatus{.bySignal = false, .value = 255}));
        }
        EXPECT_EQ(pushes(), expected);
        EXPECT_EQ(lines(), linesWith(fault, theStart, at));
    }

    // Returns when the store has noticed it; the next one begins a new log.
    void endDaemonAtOnce() {
        if (controller.daemonStarted()) {
            controller.daemon().kill();
        }
        waitUntil("nobody listens", [this] {
            return std::none_of(channels.begin(), channels.end(), isListenedTo());
        });
        controller.removeFile(logFile);
    }

  private:
    std::function<bool(const char*)> isListenedTo() {
        return [this](const char* channel) {
            return store().run({"PUBSUB", "NUMSUB", channel}).elements.at(1).integer > 0;
        };
    }
    bool isListening() { return std::all_of(channels.begin(), channels.end(), isListenedTo()); }
    Effects pushes() {
        Effects effects;
        for (const auto& [queue, effect] :
             {std::pair{createQueue, pushesCreate}, std::pair{deleteQueue, pushesDelete},
              std::pair{patchQueue, pushesPatch}}) {
            if (store().llen(queue) == 1) {
                effects.insert(effect);
            }
        }
        return effects;
    }
    // What the daemon has logged, but for what each start says.
    Lines lines() const {
        const Effects usual{
            "SessionService log is starting ...", "SessionService is ready for service.",
            "Create session thread is running ...", "Delete session thread is running ...",
            "Timeout session thread is running ..."};
        Lines lines;
        for (const LogLine& line : logLines()) {
            if (usual.count(line.message) == 0) {
                lines.push_back(line.tag + " " + line.message);
            }
        }
        return lines;
    }

    FaultInjector injector{controller};
};

TEST_P(FaultyStart, FailsOrServesAsTheFaultLeavesPossible) {
    startStore();
    // The worker's own subscription, which is the last command, is none of the start's.
    for (std::size_t at = 0; at + 1 < theStart.size(); ++at) {
        if (GetParam().fits(theStart[at].command)) {
            SCOPED_TRACE("at " + testing::PrintToString(theStart[at].command));
            start(at);
        }
    }
    endDaemonAtOnce();
    startDaemon();
}

INSTANTIATE_TEST_SUITE_P(OnAStoreThat, FaultyStart, testing::ValuesIn(storeFaults()), nameOfFault);

}  // namespace
}  // namespace testbed
