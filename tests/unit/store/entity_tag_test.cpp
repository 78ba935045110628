#include "store/entity_tag.h"

#include <gtest/gtest.h>

#include "support/fixed_clock.h"
#include "support/scripted_store.h"

namespace session_service {
namespace {

// The entity tag that a resource gets.
std::string stampedTag() {
    const ScriptedStore peer({resp::error("ERR nobody looks at it")});
    updateEtag(peer.connection(), "/redfish/v1/Some Thing%s");
    const Commands commands = peer.commands();
    EXPECT_EQ(commands.size(), 1U);
    Command command = commands.at(0);
    const std::string tag = command.back();
    command.pop_back();
    EXPECT_EQ(command, (Command{"HSET", "/redfish/v1/Some Thing%s", "@odata.etag"}));
    return tag;
}

TEST(EntityTag, IsAQuotedCountOfMilliseconds) {
    FixedClock clock(1700000000, 123456);
    EXPECT_EQ(stampedTag(), "\"1700000000123\"");
    clock.set(1700000000, 999999);
    EXPECT_EQ(stampedTag(), "\"1700000000999\"");
    clock.set(1700000000, 999);
    EXPECT_EQ(stampedTag(), "\"1700000000000\"");
    clock.set(4294967296, 7000);
    EXPECT_EQ(stampedTag(), "\"4294967296007\"");
    clock.set(0, 42000);
    EXPECT_EQ(stampedTag(), "\"42\"");
}

TEST(EntityTag, IsTheSameWithinAMillisecond) {
    FixedClock clock(1700000000, 123000);
    const std::string tag = stampedTag();
    EXPECT_EQ(stampedTag(), tag);
    clock.set(1700000000, 123999);
    EXPECT_EQ(stampedTag(), tag);
    clock.set(1700000000, 124000);
    EXPECT_NE(stampedTag(), tag);
}

}  // namespace
}  // namespace session_service
