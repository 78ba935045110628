// What the start makes of a store that fails one of its commands.
#include <algorithm>
#include <array>
#include <functional>
#include <utility>

#include "support/daemon_names.h"
#include "support/store_fault_walk.h"

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

const Road theStart{
    {.command = {"AUTH"}, .lost = noStore, .answered = always(noStore), .leavesTheRoad = true},
    {.command = {"LLEN", createQueue},
     .lost = noAccess,
     .answered = always(noAccess),
     .leavesTheRoad = true},
    {.command = {"HSET", serviceUri, "SessionTimeout"},
     .lost = together({noProperty, noChannels}),
     .answered = always(noProperty)},
    {.command = {"HSET", serviceUri, "@odata.etag"}, .lost = noChannels, .answered = always({})},
    {.command = {"HSET", sessionsUri, "@odata.etag"}, .lost = noChannels, .answered = always({})},
    {.command = {"LPUSH", createQueue},
     .does = {pushesCreate},
     .lost = noChannels,
     .answered = always(noChannels),
     .leavesTheRoad = true},
    {.command = {"LPUSH", deleteQueue},
     .does = {pushesDelete},
     .lost = noChannels,
     .answered = always(noChannels),
     .leavesTheRoad = true},
    {.command = {"LLEN", patchQueue},
     .lost = noQueue,
     .answered = always(noQueue),
     .leavesTheRoad = true},
    {.command = {"LPUSH", patchQueue},
     .does = {pushesPatch},
     .lost = noPush,
     .answered = always(noPush),
     .leavesTheRoad = true},
    {.command = {"HGET", serviceUri, "SessionTimeout"},
     .lost = noTimeout,
     .alsoWhenLost = {serves},
     .answered = always(noTimeout)},
    {.command = {"HGET", serviceUri, "ServiceEnabled"},
     .alsoWhenLost = {serves},
     .answered = always({})},
    // An attempt, for which any answer is as good as another.
    {.command = {"SUBSCRIBE", patchChannel}, .lost = noSubscription, .answered = always({})},
    {.command = {"SUBSCRIBE", patchChannel}, .does = {serves}},
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
        faulty_.strike(fault, 0, [step = theStart[at]](const FaultyStore::Sent& sent) {
            return isMeant(step, sent.words);
        });
        Deeds expected = deedsWith(fault, theStart, at);
        // Workers that have ended are not waited for when the start fails.
        controller.startDaemon({.environment = {{"TSAN_OPTIONS", "report_thread_leaks=0"}}});
        if (expected.erase(serves) > 0) {
            waitUntil("the daemon listens",
                      [&] { return isListening() || controller.daemon().ending(); });
            EXPECT_FALSE(controller.daemon().ending());
        } else {
            EXPECT_EQ(toText(controller.daemon().wait()),
                      toText(Ending{.bySignal = false, .value = 255}));
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
    Deeds pushes() {
        Deeds deeds;
        for (const auto& [queue, deed] :
             {std::pair{createQueue, pushesCreate}, std::pair{deleteQueue, pushesDelete},
              std::pair{patchQueue, pushesPatch}}) {
            if (store().llen(queue) == 1) {
                deeds.insert(deed);
            }
        }
        return deeds;
    }
    // What the daemon has logged, but for what each start says.
    Lines lines() const {
        const Deeds usual{
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

    FaultyStore faulty_{controller};
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
