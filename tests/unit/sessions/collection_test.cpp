#include "sessions/collection.h"

#include <gtest/gtest.h>

#include "support/fixed_clock.h"
#include "support/resp_peer.h"

namespace session_service {
namespace {

const std::string members = "&&/redfish/v1/SessionService/Sessions/Members";

// The entity tag that a resource gets.
std::string stampedTag() {
    const RespPeer peer({resp::error("ERR nobody looks at it")});
    updateEtag(peer.store(), "/redfish/v1/Some Thing%s");
    const Commands commands = peer.commands();
    EXPECT_EQ(commands.size(), 1U);
    Command command = commands.at(0);
    const std::string tag = command.back();
    command.pop_back();
    EXPECT_EQ(command, (Command{"HSET", "/redfish/v1/Some Thing%s", "@odata.etag"}));
    return tag;
}

TEST(MemberUri, IsWhatFollowsThePrefix) {
    EXPECT_EQ(memberUri("&&ObjectRef /redfish/v1/A"), "/redfish/v1/A");
    EXPECT_EQ(memberUri("&&ObjectRef "), "");
    EXPECT_EQ(memberUri("&&ObjectRef"), "");
    EXPECT_EQ(memberUri(""), "");
    EXPECT_EQ(memberUri("twelve chars and the rest"), " and the rest");
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

TEST(NewMember, IsPushedStampedAndCounted) {
    const FixedClock clock(1700000000, 123456);
    const RespPeer peer({resp::integer(1), resp::integer(0), resp::error("ERR not looked at")});
    EXPECT_TRUE(addSessionMember(peer.store(), "0000a1b2"));
    EXPECT_EQ(
        peer.commands(),
        (Commands{
            {"LPUSH", members, "&&ObjectRef /redfish/v1/SessionService/Sessions/0000a1b2"},
            {"HSET", "/redfish/v1/SessionService/Sessions", "@odata.etag", "\"1700000000123\""},
            {"HINCRBY", "/redfish/v1/SessionService/Sessions", "Members@odata.count", "1"},
        }));
}

TEST(NewMember, ThatTheListRefusesChangesNothingElse) {
    const RespPeer peer({resp::error("WRONGTYPE")});
    EXPECT_FALSE(addSessionMember(peer.store(), "0000a1b2"));
    EXPECT_EQ(peer.commands().size(), 1U);
}

TEST(NewMember, NeedsAConnectionAndAnIdentifier) {
    const RespPeer peer;
    EXPECT_FALSE(addSessionMember(peer.store(), nullptr));
    EXPECT_FALSE(addSessionMember(nullptr, "0000a1b2"));
    EXPECT_TRUE(peer.commands().empty());
}

TEST(SessionCount, CountsTheMembersOfTypeRedfish) {
    const RespPeer peer({resp::bulkArray({"&&ObjectRef /a", "&&ObjectRef /b", "&&ObjectRef /c",
                                          "&&ObjectRef /d", "short", "&&ObjectRef /e"}),
                         resp::bulk("\"Redfish\""), resp::bulk("Redfish"), resp::nil(),
                         resp::error("WRONGTYPE"), resp::nil(), resp::bulk("\"Redfish\"")});
    EXPECT_EQ(countRedfishSessions(peer.store()), 2);
    EXPECT_EQ(peer.commands(), (Commands{{"LRANGE", members, "0", "-1"},
                                         {"HGET", "/a", "SessionType"},
                                         {"HGET", "/b", "SessionType"},
                                         {"HGET", "/c", "SessionType"},
                                         {"HGET", "/d", "SessionType"},
                                         {"HGET", "", "SessionType"},
                                         {"HGET", "/e", "SessionType"}}));
}

TEST(SessionCount, IsZeroWithoutMembers) {
    for (const std::string& reply : {resp::array({}), resp::error("WRONGTYPE")}) {
        const RespPeer peer({reply});
        EXPECT_EQ(countRedfishSessions(peer.store()), 0) << reply;
    }
    const RespPeer lost;
    EXPECT_EQ(countRedfishSessions(lost.store()), 0);
}

}  // namespace
}  // namespace session_service
