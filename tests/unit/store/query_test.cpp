#include "store/query.h"

#include <gtest/gtest.h>

#include "support/scripted_store.h"

namespace session_service::store {
namespace {

using Kind = Answer::Kind;

TEST(Answer, TellsTheKindOfTheReply) {
    const ScriptedStore peer(
        {resp::integer(7), resp::status("OK"), resp::bulk(std::string("a\0b", 3)), resp::nil(),
         resp::error("ERR no"), resp::array({resp::integer(1), resp::bulkArray({"x"})})});
    const auto ask = [&] { return store::ask(peer.connection(), {"PING"}); };
    const Answer integer = ask();
    EXPECT_EQ(integer.kind, Kind::integer);
    EXPECT_EQ(integer.integer, 7);
    const Answer status = ask();
    EXPECT_EQ(status.kind, Kind::text);
    EXPECT_EQ(status.text, "OK");
    EXPECT_EQ(ask().text, std::string("a\0b", 3));
    EXPECT_EQ(ask().kind, Kind::nil);
    const Answer refusal = ask();
    EXPECT_EQ(refusal.kind, Kind::refused);
    EXPECT_EQ(refusal.text, "ERR no");
    const Answer list = ask();
    EXPECT_EQ(list.kind, Kind::list);
    ASSERT_EQ(list.elements.size(), 2u);
    EXPECT_EQ(list.elements[0].integer, 1);
    EXPECT_EQ(list.elements[1].elements.at(0).text, "x");
    EXPECT_EQ(ask().kind, Kind::lost);
    EXPECT_EQ(ask().kind, Kind::lost);
}

TEST(Answer, PassesArgumentsOnAsTheyAre) {
    const ScriptedStore peer({resp::integer(1)});
    store::ask(peer.connection(), {"DEL", "two words %s", ""});
    EXPECT_EQ(peer.commands(), (Commands{{"DEL", "two words %s", ""}}));
}

TEST(Fields, ArePairsOfAList) {
    Answer list{.kind = Kind::list};
    for (const char* text : {"a", "1", "b", "2", "odd"}) {
        list.elements.push_back({.kind = Kind::text, .text = text});
    }
    EXPECT_EQ(fieldsOf(list), (std::map<std::string, std::string>{{"a", "1"}, {"b", "2"}}));
    EXPECT_TRUE(fieldsOf({}).empty());
}

TEST(Wait, ThatIsLimitedEndsTheConnection) {
    const ScriptedStore silent({""});
    ASSERT_TRUE(limitWaits(silent.connection(), std::chrono::seconds(1)));
    EXPECT_EQ(ask(silent.connection(), {"PING"}).kind, Kind::lost);
    EXPECT_EQ(ask(silent.connection(), {"PING"}).kind, Kind::lost);
    EXPECT_EQ(silent.commands().size(), 1u);
}

}  // namespace
}  // namespace session_service::store
