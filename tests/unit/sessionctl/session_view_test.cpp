#include "sessionctl/session_view.h"

#include <gtest/gtest.h>

#include "sessionctl/output.h"
#include "support/fixed_clock.h"
#include "support/scripted_store.h"

namespace session_service::console {
namespace {

using nlohmann::json;

TEST(StoredValue, IsReadAsJsonWhereItIsASingleValue) {
    EXPECT_EQ(jsonValue("\"a\\u0041\""), "aA");
    EXPECT_EQ(jsonValue("null"), nullptr);
    EXPECT_EQ(jsonValue("300"), 300);
    EXPECT_EQ(jsonValue("admin"), "admin");
    EXPECT_EQ(jsonValue(""), "");
    EXPECT_EQ(jsonValue("\"open"), "\"open");
    EXPECT_EQ(jsonValue(" {}"), " {}");
    EXPECT_EQ(jsonValue("\"\x1b\xff\""), "\x1b\xff");
    const std::string deep(1'000'000, '[');
    EXPECT_EQ(jsonValue(deep), deep);
}

TEST(StoredValue, ThatIsNoStringIsShownAsItIs) {
    EXPECT_EQ(plainValue("\"admin\""), "admin");
    EXPECT_EQ(plainValue("3.0"), "3.0");
    EXPECT_EQ(plainValue("null"), "null");
    EXPECT_EQ(plainValue("\"b\x1b\""), "b\x1b");
}

TEST(SessionView, TellsWhenItsSessionExpiresAsTheDaemonDoes) {
    const FixedUptime uptime(5000);
    const ScriptedStore peer(
        {resp::bulkArray({"SessionType", "\"Redfish\""}), resp::bulk("\"t\""),
         resp::bulkArray({"LastAccessed", "4900", "Timeout", "130 and more"})});
    const SessionView view = readSession(peer.connection(), "1");
    EXPECT_EQ(view.fault, "");
    ASSERT_TRUE(view.idle && view.expiresIn);
    EXPECT_EQ(*view.idle, 100);
    EXPECT_EQ(*view.expiresIn, 30);
}

TEST(SessionView, TakesTheLoginTimeFromTheEntityTag) {
    for (const auto& [tag, time] : std::map<std::string, std::optional<std::time_t>>{
             {"\"1763688420999\"", 1763688420}, {"\"x\"", {}}, {"\"0\"", {}}, {"", {}}}) {
        const ScriptedStore peer(
            {resp::bulkArray({"SessionType", "\"Redfish\"", "@odata.etag", tag}), resp::nil()});
        EXPECT_EQ(readSession(peer.connection(), "1").loginTime, time) << tag;
    }
}

TEST(SessionView, OfASessionWithoutATokenExpiresAtOnce) {
    const FixedUptime uptime(5000);
    const ScriptedStore peer({resp::bulkArray({"SessionType", "\"Redfish\""}), resp::nil()});
    const SessionView view = readSession(peer.connection(), "1");
    EXPECT_EQ(view.fault, "no token");
    EXPECT_FALSE(view.idle);
    ASSERT_TRUE(view.expiresIn);
    EXPECT_LE(*view.expiresIn, 0);
}

TEST(SessionView, NamesAWrongKindOfTokenRecord) {
    const ScriptedStore peer({resp::bulkArray({"SessionType", "\"Redfish\""}), resp::bulk("\"t\""),
                              resp::error("WRONGTYPE x")});
    EXPECT_EQ(readSession(peer.connection(), "1").fault, "its token record is no hash");
}

TEST(SessionView, NeedsAnAnswer) {
    const ScriptedStore peer;
    try {
        readSession(peer.connection(), "1");
        FAIL();
    } catch (const CommandError& error) {
        EXPECT_EQ(error.status, exit_status::storeUnavailable);
    }
}

}  // namespace
}  // namespace session_service::console
