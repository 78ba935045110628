#include "store/commands.h"

#include <gtest/gtest.h>
#include <hiredis/hiredis.h>

#include <cstring>
#include <optional>
#include <stdexcept>

#include "support/captured_output.h"
#include "support/scripted_store.h"

namespace session_service {
namespace {

using resp::array;
using resp::bulk;
using resp::bulkArray;
using resp::error;
using resp::integer;
using resp::nil;
using resp::status;

// One reply of every kind. "lost" stands for a connection that ends instead.
const std::map<std::string, std::string> replyKinds = {
    {"0", integer(0)},
    {"1", integer(1)},
    {"2", integer(2)},
    {"-1", integer(-1)},
    {"status", status("OK")},
    {"string", bulk("text")},
    {"empty string", bulk("")},
    {"nil", nil()},
    {"error", error("ERR refused")},
    {"empty array", array({})},
    {"array", bulkArray({"a", "b"})},
    {"nested", array({bulkArray({"a"}), bulkArray({"b"})})},
};

// What the call gives for each kind of reply.
template <typename Result>
std::map<std::string, Result> resultsOf(const std::function<Result(redisContext*)>& call) {
    std::map<std::string, Result> results;
    for (const auto& [kind, bytes] : replyKinds) {
        const ScriptedStore peer({bytes});
        results[kind] = call(peer.connection());
    }
    const ScriptedStore lost;
    results["lost"] = call(lost.connection());
    return results;
}

using Kinds = std::set<std::string>;

const Kinds everyReply = {"0",      "1",     "2",           "-1",           "status",
                          "string", "array", "empty array", "empty string", "nested",
                          "nil",    "error"};
const Kinds everyInteger = {"0", "1", "2", "-1"};

Kinds without(Kinds kinds, const std::string& kind) {
    kinds.erase(kind);
    return kinds;
}

// The kinds of replies that the call takes as success.
Kinds acceptedBy(const std::function<bool(redisContext*)>& call) {
    Kinds accepted;
    for (const auto& [kind, success] : resultsOf<bool>(call)) {
        if (success) {
            accepted.insert(kind);
        }
    }
    return accepted;
}

// Every operation that sends a command, with arguments that say what they are.
const std::vector<std::function<void(redisContext*)>> operations = {
    [](redisContext* s) { store::hget(s, "key", "field"); },
    [](redisContext* s) { store::hset(s, "key", "field", "value"); },
    [](redisContext* s) { store::lpush(s, "key", "value"); },
    [](redisContext* s) { store::llen(s, "key"); },
    [](redisContext* s) { store::publish(s, "channel", "message"); },
    [](redisContext* s) { store::publishAny(s, "channel", "message"); },
    [](redisContext* s) { store::del(s, "key"); },
    [](redisContext* s) { store::expire(s, "key", 6); },
    [](redisContext* s) { store::lrem(s, "key", -1, "value"); },
    [](redisContext* s) { store::hexists(s, "key", "field"); },
    [](redisContext* s) {
        std::int32_t value = 0;
        store::hincrby(s, "key", "field", -5, value);
    },
    [](redisContext* s) { store::hdel(s, "key", "field"); },
    [](redisContext* s) { store::exists(s, "key"); },
    [](redisContext* s) {
        FieldMap fields;
        store::hgetall(s, "key", fields);
    },
    [](redisContext* s) {
        std::vector<std::string> list;
        store::lrange(s, "key", list);
    },
    [](redisContext* s) {
        store::hsetMany(s, "key", {{"b", "2"}, {"a", "1"}});
    },
    [](redisContext* s) {
        store::hsetFields(s, "key", {{"b", "2"}, {"a", "1"}});
    },
    [](redisContext* s) {
        store::send(s, {"UNLINK", "a", "b"});
    },
    [](redisContext* s) {
        store::sendForInteger(s, {"INCR", "key"});
    },
    [](redisContext* s) {
        store::sendForInteger(s, Command{"HSET", "key", "a", "b"});
    },
    [](redisContext* s) { store::hgetReply(s, "key", "field"); },
    [](redisContext* s) { store::llenUnchecked(s, "key"); },
    [](redisContext* s) { store::scan(s, 17, "pattern*"); },
    [](redisContext* s) {
        store::evalsha(s, "digest", {"2", "first", "second"});
    },
    [](redisContext* s) { store::subscribe(s, "channel"); },
};

TEST(StoreCommand, ReachesTheStoreByteForByte) {
    const Commands expected = {
        {"HGET", "key", "field"},
        {"HSET", "key", "field", "value"},
        {"LPUSH", "key", "value"},
        {"LLEN", "key"},
        {"PUBLISH", "channel", "message"},
        {"PUBLISH", "channel", "message"},
        {"DEL", "key"},
        {"EXPIRE", "key", "6"},
        {"LREM", "key", "-1", "value"},
        {"HEXISTS", "key", "field"},
        {"HINCRBY", "key", "field", "-5"},
        {"HDEL", "key", "field"},
        {"EXISTS", "key"},
        {"HGETALL", "key"},
        {"LRANGE", "key", "0", "-1"},
        {"HSET", "key", "a", "1", "b", "2"},
        {"HSET", "key", "a", "1", "b", "2"},
        {"UNLINK", "a", "b"},
        {"INCR", "key"},
        {"HSET", "key", "a", "b"},
        {"HGET", "key", "field"},
        {"LLEN", "key"},
        {"SCAN", "17", "MATCH", "pattern*", "COUNT", "1000"},
        {"EVALSHA", "digest", "2", "first", "second"},
        {"SUBSCRIBE", "channel"},
    };
    ASSERT_EQ(operations.size(), expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i) {
        const ScriptedStore peer({integer(1)});
        operations[i](peer.connection());
        EXPECT_EQ(peer.bytes(), encode(expected[i]));
    }
}

TEST(StoreCommand, IsNotKeptForLaterOnceTheConnectionIsLost) {
    const std::string printed = standardOutputOf([] {
        const ScriptedStore peer;
        store::hget(peer.connection(), "key", "field");
        ASSERT_NE(peer.connection()->err, 0);
        for (const auto& operation : operations) {
            operation(peer.connection());
            EXPECT_EQ(std::strlen(peer.connection()->obuf), 0U);
        }
        EXPECT_EQ(peer.commands().size(), 1U);
    });
    EXPECT_EQ(printed,
              ">>> Failed to get list length on key.\n"
              ">>> Failed to remove value element in key.\n");
}

TEST(StoreCommand, KeepsEachArgumentOneWhateverItHolds) {
    const std::string odd = "two words %s%n%d 100% \"quoted\" {x} \r\n end";
    const ScriptedStore peer(
        {integer(1), integer(1), integer(1), integer(1), integer(1), integer(1)});
    store::hset(peer.connection(), odd, odd, odd);
    store::lrem(peer.connection(), odd, 1, odd);
    store::publish(peer.connection(), odd, odd);
    store::hsetMany(peer.connection(), odd, {{odd, odd}});
    store::send(peer.connection(), {"UNLINK", odd, odd});
    store::evalsha(peer.connection(), odd, {odd});
    EXPECT_EQ(peer.commands(), (Commands{{"HSET", odd, odd, odd},
                                         {"LREM", odd, "1", odd},
                                         {"PUBLISH", odd, odd},
                                         {"HSET", odd, odd, odd},
                                         {"UNLINK", odd, odd},
                                         {"EVALSHA", odd, odd}}));
}

TEST(StoreCommand, KeepsEmptyArguments) {
    const ScriptedStore peer({integer(1), integer(1), integer(1)});
    store::hset(peer.connection(), "", "", "");
    store::hsetMany(peer.connection(), "", {{"", ""}});
    store::send(peer.connection(), {"UNLINK", ""});
    EXPECT_EQ(peer.commands(),
              (Commands{{"HSET", "", "", ""}, {"HSET", "", "", ""}, {"UNLINK", ""}}));
}

TEST(StoreCommand, KeepsLongArgumentsWhole) {
    const std::string longText(100000, 'x');
    const ScriptedStore peer({integer(1)});
    EXPECT_TRUE(store::hset(peer.connection(), longText, longText, longText));
    EXPECT_EQ(peer.commands(), (Commands{{"HSET", longText, longText, longText}}));
}

TEST(StoreCommand, EndsTextsAtTheirFirstZeroByte) {
    const std::string zero("cut\0rest", 8);
    const ScriptedStore peer({integer(1), bulk(zero)});
    store::hset(peer.connection(), zero, zero, zero);
    EXPECT_EQ(store::hget(peer.connection(), zero, zero), "cut");
    EXPECT_EQ(peer.commands(), (Commands{{"HSET", "cut", "cut", "cut"}, {"HGET", "cut", "cut"}}));
}

TEST(StoreCommand, OfManyFieldsKeepsZeroBytes) {
    const std::string zero("kept\0whole", 10);
    const ScriptedStore peer({integer(1), integer(1)});
    store::hsetMany(peer.connection(), "key", {{zero, zero}});
    store::hsetFields(peer.connection(), "key", {{zero, zero}});
    EXPECT_EQ(peer.commands(),
              (Commands{{"HSET", "key", zero, zero}, {"HSET", "key", zero, zero}}));
}

TEST(HashFieldRead, GivesTheTextOfAStringOnly) {
    const auto results =
        resultsOf<std::string>([](redisContext* s) { return store::hget(s, "key", "field"); });
    for (const auto& [kind, text] : results) {
        EXPECT_EQ(text, kind == "string" ? "text" : "") << kind;
    }
}

TEST(HashFieldWrite, SucceedsWhenTheFieldWasUpdatedOrCreated) {
    EXPECT_EQ(acceptedBy([](redisContext* s) { return store::hset(s, "k", "f", "v"); }),
              (Kinds{"0", "1"}));
}

TEST(ListPush, SucceedsForEveryInteger) {
    EXPECT_EQ(acceptedBy([](redisContext* s) { return store::lpush(s, "k", "v"); }), everyInteger);
}

TEST(ListPush, TellsTheNewLengthOnSuccess) {
    const auto lengths = resultsOf<std::int32_t>([](redisContext* s) {
        std::int32_t length = 99;
        store::lpush(s, "k", "v", length);
        return length;
    });
    for (const auto& [kind, length] : lengths) {
        EXPECT_EQ(length, everyInteger.count(kind) != 0 ? std::stoi(kind) : 99) << kind;
    }
}

TEST(ListLength, IsMinusOneForWhateverIsNoInteger) {
    std::map<std::string, std::int32_t> lengths;
    const std::string printed = standardOutputOf([&] {
        lengths = resultsOf<std::int32_t>([](redisContext* s) { return store::llen(s, "a%s b"); });
    });
    for (const auto& [kind, length] : lengths) {
        EXPECT_EQ(length, everyInteger.count(kind) != 0 ? std::stoi(kind) : -1) << kind;
    }
    EXPECT_EQ(printed, ">>> Failed to get list length on a%s b.\n") << "printed for no reply only";
}

TEST(Publication, SucceedsWhenSomebodyListens) {
    EXPECT_EQ(acceptedBy([](redisContext* s) { return store::publish(s, "c", "m"); }),
              (Kinds{"1", "2"}));
}

TEST(Publication, ToAnyoneSucceedsForEveryInteger) {
    EXPECT_EQ(acceptedBy([](redisContext* s) { return store::publishAny(s, "c", "m"); }),
              everyInteger);
}

TEST(OneKeyCommand, SucceedsForOneOnly) {
    const Kinds one = {"1"};
    EXPECT_EQ(acceptedBy([](redisContext* s) { return store::del(s, "k"); }), one);
    EXPECT_EQ(acceptedBy([](redisContext* s) { return store::expire(s, "k", 1); }), one);
    EXPECT_EQ(acceptedBy([](redisContext* s) { return store::hexists(s, "k", "f"); }), one);
    EXPECT_EQ(acceptedBy([](redisContext* s) { return store::hdel(s, "k", "f"); }), one);
    EXPECT_EQ(acceptedBy([](redisContext* s) { return store::exists(s, "k"); }), one);
}

TEST(ListRemoval, GivesTheCountOfAnInteger) {
    std::map<std::string, std::int32_t> counts;
    const std::string printed = standardOutputOf([&] {
        counts = resultsOf<std::int32_t>(
            [](redisContext* s) { return store::lrem(s, "the list", 1, "an element"); });
    });
    for (const auto& [kind, count] : counts) {
        EXPECT_EQ(count, everyInteger.count(kind) != 0 ? std::stoi(kind) : 0) << kind;
    }
    EXPECT_EQ(printed, ">>> Failed to remove an element element in the list.\n");
}

TEST(HashIncrement, SucceedsForEveryReply) {
    EXPECT_EQ(acceptedBy([](redisContext* s) {
                  std::int32_t value = 0;
                  return store::hincrby(s, "k", "f", 1, value);
              }),
              everyReply);
}

TEST(HashIncrement, SetsTheNewValueForAnIntegerOnly) {
    const auto values = resultsOf<std::int32_t>([](redisContext* s) {
        std::int32_t value = 99;
        store::hincrby(s, "k", "f", 1, value);
        return value;
    });
    for (const auto& [kind, value] : values) {
        EXPECT_EQ(value, everyInteger.count(kind) != 0 ? std::stoi(kind) : 99) << kind;
    }
}

TEST(HashWrite, OfManySucceedsForEveryReplyButAnError) {
    EXPECT_EQ(acceptedBy([](redisContext* s) {
                  return store::hsetMany(s, "k", {{"f", "v"}});
              }),
              without(everyReply, "error"));
}

TEST(HashWrite, OfFieldsSucceedsForIntegersFromZero) {
    EXPECT_EQ(acceptedBy([](redisContext* s) {
                  return store::hsetFields(s, "k", {{"f", "v"}});
              }),
              (Kinds{"0", "1", "2"}));
}

TEST(HashRead, SucceedsForEveryReplyWhoseElementsHaveText) {
    const auto fieldsAfter = [](redisContext* s, FieldMap& fields) {
        try {
            return store::hgetall(s, "k", fields);
        } catch (const std::logic_error&) {
            return false;
        }
    };
    EXPECT_EQ(acceptedBy([&](redisContext* s) {
                  FieldMap fields;
                  return fieldsAfter(s, fields);
              }),
              without(everyReply, "nested"));
    const auto results = resultsOf<FieldMap>([&](redisContext* s) {
        FieldMap fields = {{"kept", "1"}};
        fieldsAfter(s, fields);
        return fields;
    });
    for (const auto& [kind, fields] : results) {
        EXPECT_EQ(fields, kind == "array" ? (FieldMap{{"a", "b"}, {"kept", "1"}})
                                          : (FieldMap{{"kept", "1"}}))
            << kind;
    }
}

TEST(HashRead, GivesEveryField) {
    const ScriptedStore peer({bulkArray({"b", "two words", "a", "", "", "nameless"})});
    FieldMap fields;
    EXPECT_TRUE(store::hgetall(peer.connection(), "k", fields));
    EXPECT_EQ(fields, (FieldMap{{"", "nameless"}, {"a", ""}, {"b", "two words"}}));
}

TEST(HashRead, ThrowsForAFieldWithoutText) {
    for (const std::string& reply :
         {array({bulk("a"), nil()}), array({nil(), bulk("b")}), array({integer(1), bulk("b")})}) {
        const ScriptedStore peer({reply});
        FieldMap fields;
        try {
            store::hgetall(peer.connection(), "k", fields);
            ADD_FAILURE() << "nothing thrown";
        } catch (const std::logic_error& failure) {
            EXPECT_STREQ(failure.what(), "basic_string::_M_construct null not valid");
        }
    }
}

TEST(ListRead, SucceedsForEveryReplyWhoseElementsHaveText) {
    EXPECT_EQ(acceptedBy([](redisContext* s) {
                  std::vector<std::string> list;
                  try {
                      return store::lrange(s, "k", list);
                  } catch (const std::logic_error&) {
                      return false;
                  }
              }),
              without(everyReply, "nested"));
}

TEST(ListRead, AppendsTheElementsInTheirOrder) {
    const ScriptedStore peer({bulkArray({"b", "", "a"}), error("WRONGTYPE")});
    std::vector<std::string> list = {"kept"};
    EXPECT_TRUE(store::lrange(peer.connection(), "k", list));
    EXPECT_TRUE(store::lrange(peer.connection(), "k", list));
    EXPECT_EQ(list, (std::vector<std::string>{"kept", "b", "", "a"}));
}

TEST(ListRead, ThrowsForAnElementWithoutText) {
    const ScriptedStore peer({array({bulk("a"), nil()})});
    std::vector<std::string> list;
    EXPECT_THROW(store::lrange(peer.connection(), "k", list), std::logic_error);
}

TEST(OtherCommand, IsSentForEveryReply) {
    EXPECT_EQ(acceptedBy([](redisContext* s) { return store::send(s, {"PING"}); }), everyReply);
    EXPECT_EQ(acceptedBy([](redisContext* s) { return store::subscribe(s, "c"); }), everyReply);
}

TEST(OtherCommand, GivesTheValueOfAnIntegerOnly) {
    const auto results = resultsOf<std::optional<long long>>([](redisContext* s) {
        return store::sendForInteger(s, {"INCR", "k"});
    });
    EXPECT_EQ(results, resultsOf<std::optional<long long>>([](redisContext* s) {
                  return store::sendForInteger(s, Command{"INCR", "k"});
              }));
    for (const auto& [kind, value] : results) {
        EXPECT_EQ(value, everyInteger.count(kind) != 0 ? std::optional<long long>(std::stoll(kind))
                                                       : std::nullopt)
            << kind;
    }
}

TEST(HashFieldReply, TellsTheFieldsTextFromOtherRepliesAndFromNone) {
    using Kind = store::FieldReply::Kind;
    struct Expectation {
        Kind kind;
        std::optional<std::string> text;
    };
    const std::map<std::string, Expectation> expectations = {
        {"lost", {Kind::lost, std::nullopt}},    {"string", {Kind::text, "text"}},
        {"empty string", {Kind::text, ""}},      {"status", {Kind::other, "OK"}},
        {"error", {Kind::other, "ERR refused"}},
    };
    const auto results =
        resultsOf<store::FieldReply>([](redisContext* s) { return store::hgetReply(s, "k", "f"); });
    for (const auto& [kind, reply] : results) {
        const auto expected = expectations.find(kind);
        const Expectation expectation = expected == expectations.end()
                                            ? Expectation{Kind::other, std::nullopt}
                                            : expected->second;
        EXPECT_EQ(reply.kind, expectation.kind) << kind;
        EXPECT_EQ(reply.text, expectation.text) << kind;
    }
}

TEST(ListLengthReply, CountsWhateverIsNoIntegerAsNothing) {
    const auto results = resultsOf<std::optional<long long>>(
        [](redisContext* s) { return store::llenUnchecked(s, "k"); });
    for (const auto& [kind, length] : results) {
        if (kind == "lost") {
            EXPECT_EQ(length, std::nullopt);
        } else {
            EXPECT_EQ(length, everyInteger.count(kind) != 0 ? std::stoll(kind) : 0) << kind;
        }
    }
}

TEST(Scan, GivesTheKeysAndTheNextCursor) {
    const ScriptedStore peer(
        {array({bulk("42"), bulkArray({"first", "second key"})}), array({bulk("0"), array({})})});
    auto page = store::scan(peer.connection(), 0, "p*");
    ASSERT_TRUE(page);
    EXPECT_EQ(page->nextCursor, 42);
    EXPECT_EQ(page->keys, (std::vector<std::string>{"first", "second key"}));
    page = store::scan(peer.connection(), page->nextCursor, "p*");
    ASSERT_TRUE(page);
    EXPECT_EQ(page->nextCursor, 0);
    EXPECT_TRUE(page->keys.empty());
    EXPECT_EQ(peer.commands(), (Commands{{"SCAN", "0", "MATCH", "p*", "COUNT", "1000"},
                                         {"SCAN", "42", "MATCH", "p*", "COUNT", "1000"}}));
}

TEST(Scan, KeepsThirtyTwoBitsOfTheCursor) {
    const ScriptedStore peer({array({bulk("4294967297"), array({})})});
    const auto page = store::scan(peer.connection(), 0, "*");
    ASSERT_TRUE(page);
    EXPECT_EQ(page->nextCursor, 1);
}

TEST(Scan, FailsForEveryReplyThatIsNoPage) {
    const auto isPage = [](redisContext* s) { return store::scan(s, 0, "*").has_value(); };
    EXPECT_EQ(acceptedBy(isPage), Kinds{});
    for (const std::string& reply : {array({bulk("0")}), array({nil(), array({})}),
                                     array({bulk("0"), bulk("key")}), array({bulk("0"), nil()})}) {
        const ScriptedStore peer({reply});
        EXPECT_FALSE(isPage(peer.connection())) << reply;
    }
}

TEST(Scan, LeavesOutKeysWithoutText) {
    const ScriptedStore peer({array({bulk("0"), array({bulk("a"), nil(), bulk("b")})})});
    const auto page = store::scan(peer.connection(), 0, "*");
    ASSERT_TRUE(page);
    EXPECT_EQ(page->keys, (std::vector<std::string>{"a", "b"}));
}

using Kind = store::ScriptAnswer::Kind;

TEST(Script, AnswersWithAnIntegerARefusalOrSomethingUnknown) {
    const auto kinds =
        resultsOf<Kind>([](redisContext* s) { return store::evalsha(s, "digest", {"0"}).kind; });
    const std::map<std::string, Kind> expected = {
        {"0", Kind::integer},      {"1", Kind::integer},
        {"2", Kind::integer},      {"-1", Kind::integer},
        {"error", Kind::refused},  {"array", Kind::refused},
        {"nested", Kind::refused}, {"status", Kind::unknown},
        {"string", Kind::unknown}, {"empty string", Kind::unknown},
        {"nil", Kind::unknown},    {"empty array", Kind::unknown},
        {"lost", Kind::lost},
    };
    EXPECT_EQ(kinds, expected);
}

TEST(Script, SaysWhyItRefused) {
    const ScriptedStore peer({error("NOSCRIPT none"), bulkArray({"code", "reason"}),
                              array({bulk("code"), nil()}), bulkArray({"1", "2", "3"})});
    EXPECT_EQ(store::evalsha(peer.connection(), "d", {"0"}).text, "NOSCRIPT none");
    EXPECT_EQ(store::evalsha(peer.connection(), "d", {"0"}).text, "reason");
    EXPECT_EQ(store::evalsha(peer.connection(), "d", {"0"}).text, "");
    EXPECT_EQ(store::evalsha(peer.connection(), "d", {"0"}).kind, Kind::unknown);
}

TEST(Script, GivesTheValueOfAnInteger) {
    const ScriptedStore peer({integer(2)});
    EXPECT_EQ(store::evalsha(peer.connection(), "d", {"0"}).value, 2);
}

TEST(Subscription, ReadsWhatIsPublished) {
    ScriptedStore peer({array({bulk("subscribe"), bulk("c"), integer(1)}) +
                        bulkArray({"message", "c", "request reply"}) +
                        array({bulk("message"), bulk("c"), nil()}) + bulkArray({"one"}) +
                        array({}) + status("odd") + error("odder")});
    ASSERT_TRUE(store::subscribe(peer.connection(), "c"));
    auto notice = store::readNotice(peer.connection());
    ASSERT_TRUE(notice);
    EXPECT_EQ(notice->elements, 3U);
    EXPECT_EQ(notice->text, "request reply");

    notice = store::readNotice(peer.connection());
    ASSERT_TRUE(notice);
    EXPECT_EQ(notice->elements, 3U);
    EXPECT_EQ(notice->text, std::nullopt) << "a nil";

    notice = store::readNotice(peer.connection());
    ASSERT_TRUE(notice);
    EXPECT_EQ(notice->elements, 1U);
    EXPECT_EQ(notice->text, "one");

    for (const char* kind : {"empty array", "status", "error"}) {
        notice = store::readNotice(peer.connection());
        ASSERT_TRUE(notice) << kind;
        EXPECT_EQ(notice->elements, 0U) << kind;
        EXPECT_EQ(notice->text, std::nullopt) << kind;
    }

    peer.hangUp();
    EXPECT_FALSE(store::readNotice(peer.connection()));
    EXPECT_FALSE(store::readNotice(peer.connection())) << "it stays lost";
}

TEST(Subscription, GivesNoTextForTheCountOfItsConfirmation) {
    ScriptedStore peer({status("first") + array({bulk("subscribe"), bulk("c"), integer(1)})});
    ASSERT_TRUE(store::subscribe(peer.connection(), "c"));
    const auto notice = store::readNotice(peer.connection());
    ASSERT_TRUE(notice);
    EXPECT_EQ(notice->elements, 3U);
    EXPECT_EQ(notice->text, std::nullopt);
}

TEST(Words, SplitAtBlanksAndVanishWhenEmpty) {
    const auto wordsOf = [](const std::string& text) {
        std::vector<std::string> words = {"before"};
        store::appendWords(words, text);
        return words;
    };
    using Words = std::vector<std::string>;
    EXPECT_EQ(wordsOf("one"), (Words{"before", "one"}));
    EXPECT_EQ(wordsOf("  two   words "), (Words{"before", "two", "words"}));
    EXPECT_EQ(wordsOf("tab\tand %s"), (Words{"before", "tab\tand", "%s"}));
    EXPECT_EQ(wordsOf(""), Words{"before"});
    EXPECT_EQ(wordsOf("   "), Words{"before"});
}

TEST(FieldOf, IsEmptyForAMissingField) {
    const FieldMap fields = {{"a", "1"}};
    EXPECT_EQ(fieldOf(fields, "a"), "1");
    EXPECT_EQ(fieldOf(fields, "b"), "");
}

TEST(HashRead, OfAnOddCountLeavesTheLastElementOut) {
    const ScriptedStore peer({bulkArray({"a", "1", "b"}), bulkArray({"a"})});
    FieldMap fields;
    EXPECT_TRUE(store::hgetall(peer.connection(), "k", fields));
    EXPECT_EQ(fields, (FieldMap{{"a", "1"}}));
    fields.clear();
    EXPECT_TRUE(store::hgetall(peer.connection(), "k", fields));
    EXPECT_TRUE(fields.empty());
}

TEST(HashRead, KeepsThePairsInFrontOfAnElementWithoutText) {
    for (const std::string& reply :
         {array({bulk("b"), bulk("2"), bulk("a"), bulk("1"), bulk("c"), nil()}),
          array({bulk("b"), bulk("2"), bulk("a"), bulk("1"), nil(), bulk("3")}),
          array({bulk("b"), bulk("2"), bulk("a"), bulk("1"), integer(3), bulk("3"), bulk("d"),
                 bulk("4")})}) {
        const ScriptedStore peer({reply});
        FieldMap fields = {{"kept", "0"}};
        EXPECT_THROW(store::hgetall(peer.connection(), "k", fields), std::logic_error);
        EXPECT_EQ(fields, (FieldMap{{"a", "1"}, {"b", "2"}, {"kept", "0"}})) << reply;
    }
}

TEST(ListRead, KeepsTheElementsInFrontOfOneWithoutText) {
    const ScriptedStore peer({array({bulk("b"), bulk("a"), nil(), bulk("c")})});
    std::vector<std::string> list;
    try {
        store::lrange(peer.connection(), "k", list);
        ADD_FAILURE() << "nothing thrown";
    } catch (const std::logic_error& failure) {
        EXPECT_STREQ(failure.what(), "basic_string::_M_construct null not valid");
    }
    EXPECT_EQ(list, (std::vector<std::string>{"b", "a"}));
}

TEST(HashWrite, OfNoFieldsIsTheBareCommandAndWhatTheStoreSaysToIt) {
    // What a store says.
    const std::string refusal = error("ERR wrong number of arguments for 'hset' command");
    const ScriptedStore peer({refusal, refusal, integer(0), integer(0)});
    EXPECT_FALSE(store::hsetMany(peer.connection(), "a key", {}));
    EXPECT_FALSE(store::hsetFields(peer.connection(), "a key", {}));
    EXPECT_TRUE(store::hsetMany(peer.connection(), "a key", {}));
    EXPECT_TRUE(store::hsetFields(peer.connection(), "a key", {}));
    EXPECT_EQ(peer.commands(), Commands(4, {"HSET", "a key"}));
    const ScriptedStore lost;
    EXPECT_FALSE(store::hsetMany(lost.connection(), "a key", {}));
    EXPECT_FALSE(store::hsetFields(lost.connection(), "a key", {}));
}

// What the call gives for an integer.
template <typename Result>
Result resultFor(long long value, const std::function<Result(redisContext*)>& call) {
    const ScriptedStore peer({integer(value)});
    return call(peer.connection());
}

TEST(NumberBeyond32Bits, IsCutToThemInLengthsCountsAndNewValues) {
    const std::map<long long, std::int32_t> cut = {
        {2147483647, 2147483647},
        {2147483648, -2147483647 - 1},
        {4294967295, -1},
        {4294967296, 0},
        {4294967297, 1},
        {-2147483649, 2147483647},
        {-4294967295, 1},
        {9223372036854775807, -1},
        {-9223372036854775807 - 1, 0},
    };
    for (const auto& [value, expected] : cut) {
        EXPECT_EQ(
            resultFor<std::int32_t>(value, [](redisContext* s) { return store::llen(s, "k"); }),
            expected)
            << value;
        EXPECT_EQ(resultFor<std::int32_t>(
                      value, [](redisContext* s) { return store::lrem(s, "k", 0, "v"); }),
                  expected)
            << value;
        EXPECT_EQ(resultFor<std::int32_t>(value,
                                          [](redisContext* s) {
                                              std::int32_t length = 99;
                                              EXPECT_TRUE(store::lpush(s, "k", "v", length));
                                              return length;
                                          }),
                  expected)
            << value;
        EXPECT_EQ(resultFor<std::int32_t>(value,
                                          [](redisContext* s) {
                                              std::int32_t sum = 99;
                                              EXPECT_TRUE(store::hincrby(s, "k", "f", 1, sum));
                                              return sum;
                                          }),
                  expected)
            << value;
    }
}

// The integers that the call takes as success.
std::set<long long> successesOf(const std::function<bool(redisContext*)>& call) {
    std::set<long long> successes;
    for (const long long value :
         {2147483648, 4294967296, 4294967297, 9223372036854775807, -2147483649, -4294967295,
          -4294967296, -9223372036854775807 - 1}) {
        if (resultFor<bool>(value, call)) {
            successes.insert(value);
        }
    }
    return successes;
}

TEST(NumberBeyond32Bits, IsJudgedAsAWhole) {
    const std::set<long long> none;
    const std::set<long long> positive = {2147483648, 4294967296, 4294967297, 9223372036854775807};
    const std::set<long long> all = {
        2147483648,  4294967296,  4294967297,          -2147483649,
        -4294967295, -4294967296, 9223372036854775807, -9223372036854775807 - 1};
    EXPECT_EQ(successesOf([](redisContext* s) { return store::hset(s, "k", "f", "v"); }), none);
    EXPECT_EQ(successesOf([](redisContext* s) { return store::del(s, "k"); }), none);
    EXPECT_EQ(successesOf([](redisContext* s) { return store::expire(s, "k", 1); }), none);
    EXPECT_EQ(successesOf([](redisContext* s) { return store::hexists(s, "k", "f"); }), none);
    EXPECT_EQ(successesOf([](redisContext* s) { return store::hdel(s, "k", "f"); }), none);
    EXPECT_EQ(successesOf([](redisContext* s) { return store::exists(s, "k"); }), none);
    EXPECT_EQ(successesOf([](redisContext* s) { return store::publish(s, "c", "m"); }), positive);
    EXPECT_EQ(successesOf([](redisContext* s) {
                  return store::hsetFields(s, "k", {{"f", "v"}});
              }),
              positive);
    EXPECT_EQ(successesOf([](redisContext* s) { return store::publishAny(s, "c", "m"); }), all);
    EXPECT_EQ(successesOf([](redisContext* s) { return store::lpush(s, "k", "v"); }), all);
    EXPECT_EQ(successesOf([](redisContext* s) {
                  return store::hsetMany(s, "k", {{"f", "v"}});
              }),
              all);
}

}  // namespace
}  // namespace session_service
