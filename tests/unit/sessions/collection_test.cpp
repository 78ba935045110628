#include "sessions/collection.h"

#include <gtest/gtest.h>

#include "support/fixed_clock.h"
#include "support/scripted_store.h"

namespace session_service {
namespace {

const std::string members = "&&/redfish/v1/SessionService/Sessions/Members";

TEST(MemberUris, AreWhatFollowsThePrefix) {
    const ScriptedStore peer({resp::bulkArray({"&&ObjectRef /redfish/v1/A", "&&ObjectRef ",
                                               "&&ObjectRef", "", "twelve chars and the rest"})});
    EXPECT_EQ(memberUris(peer.connection()),
              (std::vector<std::string>{"/redfish/v1/A", "", "", "", " and the rest"}));
    EXPECT_EQ(peer.commands(), (Commands{{"LRANGE", members, "0", "-1"}}));
}

TEST(FormerMember, IsCountedOffOnlyWhenItWasInTheList) {
    const FixedClock clock(1700000000, 123456);
    const ScriptedStore peer(
        {resp::integer(1), resp::error("ERR not looked at"), resp::integer(0)});
    removeSessionMember(peer.connection(), "/redfish/v1/SessionService/Sessions/0000a1b2");
    EXPECT_EQ(
        peer.commands(),
        (Commands{
            {"LREM", members, "-1", "&&ObjectRef /redfish/v1/SessionService/Sessions/0000a1b2"},
            {"HINCRBY", "/redfish/v1/SessionService/Sessions", "Members@odata.count", "-1"},
            {"HSET", "/redfish/v1/SessionService/Sessions", "@odata.etag", "\"1700000000123\""},
        }));

    for (const std::string& reply : {resp::integer(0), resp::integer(2), resp::integer(4294967297),
                                     resp::bulk("1"), resp::error("WRONGTYPE")}) {
        const ScriptedStore other({reply});
        removeSessionMember(other.connection(), "/a");
        EXPECT_EQ(other.commands().size(), 1U) << reply;
    }
}

TEST(NewMember, IsPushedStampedAndCounted) {
    const FixedClock clock(1700000000, 123456);
    const ScriptedStore peer(
        {resp::integer(1), resp::integer(0), resp::error("ERR not looked at")});
    EXPECT_TRUE(addSessionMember(peer.connection(), "0000a1b2"));
    EXPECT_EQ(
        peer.commands(),
        (Commands{
            {"LPUSH", members, "&&ObjectRef /redfish/v1/SessionService/Sessions/0000a1b2"},
            {"HSET", "/redfish/v1/SessionService/Sessions", "@odata.etag", "\"1700000000123\""},
            {"HINCRBY", "/redfish/v1/SessionService/Sessions", "Members@odata.count", "1"},
        }));
}

TEST(NewMember, ThatTheListRefusesChangesNothingElse) {
    const ScriptedStore peer({resp::error("WRONGTYPE")});
    EXPECT_FALSE(addSessionMember(peer.connection(), "0000a1b2"));
    EXPECT_EQ(peer.commands().size(), 1U);
}

TEST(NewMember, NeedsAConnectionAndAnIdentifier) {
    const ScriptedStore peer;
    EXPECT_FALSE(addSessionMember(peer.connection(), nullptr));
    EXPECT_FALSE(addSessionMember(nullptr, "0000a1b2"));
    EXPECT_TRUE(peer.commands().empty());
}

TEST(SessionCount, CountsTheMembersOfTypeRedfish) {
    const ScriptedStore peer({resp::bulkArray({"&&ObjectRef /a", "&&ObjectRef /b", "&&ObjectRef /c",
                                               "&&ObjectRef /d", "short", "&&ObjectRef /e"}),
                              resp::bulk("\"Redfish\""), resp::bulk("Redfish"), resp::nil(),
                              resp::error("WRONGTYPE"), resp::nil(), resp::bulk("\"Redfish\"")});
    EXPECT_EQ(countRedfishSessions(peer.connection()), 2);
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
        const ScriptedStore peer({reply});
        EXPECT_EQ(countRedfishSessions(peer.connection()), 0) << reply;
    }
    const ScriptedStore lost;
    EXPECT_EQ(countRedfishSessions(lost.connection()), 0);
}

}  // namespace
}  // namespace session_service
