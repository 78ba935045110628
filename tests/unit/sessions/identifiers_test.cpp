#include "sessions/identifiers.h"

#include <gtest/gtest.h>

#include "support/no_descriptors.h"
#include "support/scripted_store.h"

namespace session_service {
namespace {

TEST(RandomHex, HasTwoLowerCaseDigitsAByte) {
    for (const unsigned count : {1U, 2U, 3U, 4U, 8U, 32U}) {
        for (int i = 0; i < 100; ++i) {  // Leading zeros are kept, too.
            const std::string text = generateRandomHex(count);
            EXPECT_EQ(text.size(), 2 * count);
            EXPECT_EQ(text.find_first_not_of("0123456789abcdef"), std::string::npos) << text;
        }
    }
}

TEST(RandomHex, OfNoBytesIsEmptyAndOpensNothing) {
    // A device that cannot be opened would be tried again without end.
    const NoDescriptors none;
    EXPECT_EQ(generateRandomHex(0), "");
}

TEST(RandomHex, DoesNotRepeat) {
    std::set<std::string> drawn;
    for (int i = 0; i < 100; ++i) {
        drawn.insert(generateRandomHex(32));
    }
    EXPECT_EQ(drawn.size(), 100U);
}

TEST(SessionId, IsDrawnUntilItIsFree) {
    const ScriptedStore peer({resp::bulk("\"taken\""), resp::bulk("\"taken\""), resp::nil()});
    const std::string id = generateSessionId(peer.connection());
    EXPECT_EQ(id.size(), 8U);
    const Commands commands = peer.commands();
    ASSERT_EQ(commands.size(), 3U);
    EXPECT_EQ(commands[2], (Command{"HGET", "/redfish/v1/SessionService/Sessions/" + id, "Id"}));
    EXPECT_NE(commands[0], commands[2]);
}

TEST(SessionId, IsFreeWhereTheStoreRefusesToTell) {
    const ScriptedStore peer({resp::error("WRONGTYPE")});
    EXPECT_EQ(generateSessionId(peer.connection()).size(), 8U);
}

TEST(Token, IsDrawnUntilItIsFree) {
    const ScriptedStore peer({resp::bulk("taken"), resp::bulk("")});
    const std::string token = generateToken(peer.connection());
    EXPECT_EQ(token.size(), 64U);
    const Commands commands = peer.commands();
    ASSERT_EQ(commands.size(), 2U);
    EXPECT_EQ(commands[1], (Command{"HGET", "&&X-AUTH-TOKEN-" + token, "UserName"}));
    EXPECT_NE(commands[0], commands[1]);
}

TEST(Token, IsFreeWhereTheStoreRefusesToTell) {
    const ScriptedStore peer({resp::error("WRONGTYPE")});
    EXPECT_EQ(generateToken(peer.connection()).size(), 64U);
}

}  // namespace
}  // namespace session_service
