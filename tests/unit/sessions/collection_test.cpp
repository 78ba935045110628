#include "sessions/collection.h"

#include <gtest/gtest.h>
#include <sys/time.h>

#include "support/scripted_store.h"

namespace session_service {
namespace {

const std::string members = "&&/redfish/v1/SessionService/Sessions/Members";
const std::string collection = "/redfish/v1/SessionService/Sessions";

unsigned long long wallClockMilliseconds() {
    timeval now{};
    gettimeofday(&now, nullptr);
    return static_cast<unsigned long long>(now.tv_sec) * 1000 +
           static_cast<unsigned long long>(now.tv_usec) / 1000;
}

TEST(MemberUri, IsWhatFollowsThePrefix) {
    EXPECT_EQ(memberUri("&&ObjectRef /redfish/v1/A"), "/redfish/v1/A");
    EXPECT_EQ(memberUri("&&ObjectRef "), "");
    EXPECT_EQ(memberUri("&&ObjectRef"), "");
    EXPECT_EQ(memberUri(""), "");
    EXPECT_EQ(memberUri("twelve chars and the rest"), " and the rest");
}

TEST(EntityTag, IsAQuotedCountOfMilliseconds) {
    const ScriptedStore peer({resp::error("ERR nobody looks at it")});
    const auto before = wallClockMilliseconds();
    updateEtag(peer.connection(), "/redfish/v1/Some Thing%s");
    const Commands commands = peer.commands();
    ASSERT_EQ(commands.size(), 1U);
    ASSERT_EQ(commands[0].size(), 4U);
    EXPECT_EQ(Command(commands[0].begin(), commands[0].end() - 1),
              (Command{"HSET", "/redfish/v1/Some Thing%s", "@odata.etag"}));
    const std::string tag = commands[0][3];
    const auto milliseconds = std::stoull(tag.substr(1));
    EXPECT_EQ(tag, '"' + std::to_string(milliseconds) + '"');
    EXPECT_LE(before, milliseconds);
    EXPECT_LE(milliseconds, wallClockMilliseconds());
}

TEST(NewMember, IsPushedStampedAndCounted) {
    const ScriptedStore peer(
        {resp::integer(1), resp::integer(0), resp::error("ERR not looked at")});
    EXPECT_TRUE(addSessionMember(peer.connection(), "0000a1b2"));
    Commands commands = peer.commands();
    ASSERT_EQ(commands.size(), 3U);
    EXPECT_EQ(commands[0], (Command{"LPUSH", members, "&&ObjectRef " + collection + "/0000a1b2"}));
    commands[1].pop_back();
    EXPECT_EQ(commands[1], (Command{"HSET", collection, "@odata.etag"}));
    EXPECT_EQ(commands[2], (Command{"HINCRBY", collection, "Members@odata.count", "1"}));
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
