#include "events/event_group.h"

#include <gtest/gtest.h>

#include "support/captured_output.h"
#include "support/scripted_store.h"

// A valid maximum is kept for the life of the process: each of these tests needs a process
// of its own, which ctest gives it. Run by hand, they go one at a time.
namespace session_service {
namespace {

using resp::bulk;
using resp::error;
using resp::integer;
using resp::nil;

constexpr std::int32_t noMaximum = 2147483647;

const Command increment = {"HINCRBY", "/redfish/v1/EventService", "&&EVENT_GROUP_ID_COUNTER", "1"};
const Command resetToZero = {"HSET", "/redfish/v1/EventService", "&&EVENT_GROUP_ID_COUNTER", "0"};
const Command resetToOne = {"HSET", "/redfish/v1/EventService", "&&EVENT_GROUP_ID_COUNTER", "1"};
const Command readMaximum = {"HGET", "webDefaultValue", "MAX_EVENT_GROUP_ID"};

const std::string invalid = "[Debug]: The default max value was set to invalid value.\n";
const std::string maximumTypeError = "[Debug]: Max EventGroupId value type error stoi\n" + invalid;
const std::string maximumRangeError =
    "[Debug]: Max EventGroupId value out of range stoi\n" + invalid;
const std::string resetFailed = "[Debug]: Failed to reset the EventGroupId counter.\n";
const std::string incrementFailed =
    "[Debug]: Failed to increase the counter &&EVENT_GROUP_ID_COUNTER\n";

// The maximum that a setting gives, and what is logged about it.
void expectMaximum(const std::string& reply, std::int32_t maximum, const std::string& log) {
    const ScriptedStore peer({reply});
    std::int32_t read = 0;
    EXPECT_EQ(standardErrorOf([&] { read = maxEventGroupId(peer.connection()); }), log) << reply;
    EXPECT_EQ(read, maximum) << reply;
    EXPECT_EQ(peer.commands(), Commands{readMaximum}) << reply;
}

TEST(EventGroupMaximum, IsTheLargestNumberWhileThereIsNoValidSetting) {
    expectMaximum(nil(), noMaximum, maximumTypeError);
    expectMaximum(bulk(""), noMaximum, maximumTypeError);
    expectMaximum(error("WRONGTYPE"), noMaximum, maximumTypeError);
    expectMaximum(bulk("many"), noMaximum, maximumTypeError);
    expectMaximum(bulk("2147483648"), noMaximum, maximumRangeError);
    expectMaximum(bulk("0"), noMaximum, invalid);
    expectMaximum(bulk("-4"), noMaximum, invalid);
    expectMaximum(bulk("10.5"), noMaximum, "");
    expectMaximum(bulk("many."), noMaximum, "");
    expectMaximum(bulk("2147483647"), noMaximum, "");
    // Every one of them left the setting to be read again.
    expectMaximum(bulk("12"), 12, "");
}

TEST(EventGroupMaximum, IsReadOnceWhenItIsValid) {
    expectMaximum(bulk(" 12 groups"), 12, "");
    const ScriptedStore peer;
    EXPECT_EQ(maxEventGroupId(peer.connection()), 12);
    EXPECT_TRUE(peer.commands().empty());
}

TEST(EventGroup, RunsFromOneToTheMaximumAndStartsAgain) {
    const ScriptedStore peer({integer(1), bulk("3"), integer(2), integer(3), integer(0), integer(1),
                              integer(2), integer(3), integer(0)});
    std::vector<std::uint32_t> drawn;
    for (int i = 0; i < 6; ++i) {
        drawn.push_back(nextEventGroupId(peer.connection()));
    }
    EXPECT_EQ(drawn, (std::vector<std::uint32_t>{1, 2, 3, 1, 2, 3}));
    EXPECT_EQ(peer.commands(), (Commands{increment, readMaximum, increment, increment, resetToZero,
                                         increment, increment, increment, resetToZero}));
}

TEST(EventGroup, IsAlwaysOneWhenThatIsTheMaximum) {
    const ScriptedStore peer({integer(1), bulk("1"), integer(0), integer(1), integer(0)});
    EXPECT_EQ(nextEventGroupId(peer.connection()), 1U);
    EXPECT_EQ(nextEventGroupId(peer.connection()), 1U);
    EXPECT_EQ(peer.commands(),
              (Commands{increment, readMaximum, resetToZero, increment, resetToZero}));
}

TEST(EventGroup, GivesTheMaximumForACounterOutsideItsRange) {
    for (const long long counter : {5LL, 100LL, 0LL, -1LL, 4294967296LL}) {
        const ScriptedStore peer({integer(counter), bulk("4"), integer(0), integer(0)});
        // Only the first of these draws reads the maximum.
        EXPECT_EQ(nextEventGroupId(peer.connection()), 4U) << counter;
        const Commands commands = peer.commands();
        EXPECT_EQ(commands.back(), resetToZero) << counter;
    }
}

TEST(EventGroup, IsOneAfterACounterThatCannotBeIncreased) {
    for (const std::string& refusal : {error("ERR hash value is not an integer"), nil()}) {
        const ScriptedStore peer({refusal, integer(0), nil()});
        std::uint32_t drawn = 0;
        EXPECT_EQ(standardErrorOf([&] { drawn = nextEventGroupId(peer.connection()); }),
                  incrementFailed + maximumTypeError);
        EXPECT_EQ(drawn, 1U);
        EXPECT_EQ(peer.commands(), (Commands{increment, resetToOne, readMaximum}));
    }
}

TEST(EventGroup, IsDrawnWithoutAStore) {
    const ScriptedStore peer;
    std::uint32_t drawn = 0;
    EXPECT_EQ(standardErrorOf([&] { drawn = nextEventGroupId(peer.connection()); }),
              incrementFailed + resetFailed + maximumTypeError);
    EXPECT_EQ(drawn, 1U);
}

TEST(EventGroup, SaysThatTheCounterCannotBeReset) {
    const ScriptedStore peer({integer(2), bulk("2"), error("WRONGTYPE")});
    std::uint32_t drawn = 0;
    EXPECT_EQ(standardErrorOf([&] { drawn = nextEventGroupId(peer.connection()); }), resetFailed);
    EXPECT_EQ(drawn, 2U);
}

}  // namespace
}  // namespace session_service
