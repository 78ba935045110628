#include "sessionctl/session_view.h"

#include <gtest/gtest.h>

#include "sessionctl/output.h"
#include "sessions/records.h"
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
    const std::string used = std::to_string(uptimeSeconds() - 100);
    const ScriptedStore peer(
        {resp::bulkArray({sessionTypeField, redfishSessionType}), resp::bulk("\"t\""),
         resp::bulkArray({lastAccessedField, used, timeoutField, "130 and more"})});
    const SessionView view = readSession(peer.connection(), "1");
    EXPECT_EQ(view.fault, "");
    ASSERT_TRUE(view.idle && view.expiresIn);
    EXPECT_GE(*view.idle, 100);
    EXPECT_EQ(*view.idle + *view.expiresIn, 130);
}

TEST(SessionView, OfASessionWithoutATokenExpiresAtOnce) {
    const ScriptedStore peer(
        {resp::bulkArray({sessionTypeField, redfishSessionType}), resp::nil()});
    const SessionView view = readSession(peer.connection(), "1");
    EXPECT_EQ(view.fault, "no token");
    EXPECT_FALSE(view.idle);
    ASSERT_TRUE(view.expiresIn);
    EXPECT_LE(*view.expiresIn, 0);
}

TEST(SessionView, NamesAWrongKindOfTokenRecord) {
    const ScriptedStore peer({resp::bulkArray({sessionTypeField, redfishSessionType}),
                              resp::bulk("\"t\""), resp::error("WRONGTYPE x")});
    EXPECT_EQ(readSession(peer.connection(), "1").fault, "its token record is no hash");
}

TEST(SessionView, NeedsAnAnswer) {
    const ScriptedStore peer;
    try {
        readSession(peer.connection(), "1");
        FAIL();
    } catch (const Problem& problem) {
        EXPECT_EQ(problem.status, storeUnreachable);
    }
}

}  // namespace
}  // namespace session_service::console
