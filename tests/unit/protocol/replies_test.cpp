#include "protocol/replies.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "support/captured_output.h"
#include "support/scripted_store.h"

namespace session_service {
namespace {

using resp::bulk;
using resp::error;
using resp::integer;
using resp::nil;

// The replies that a message of `argumentCount` arguments gets, when the list holds
// `length` entries and messages live as the setting says.
std::vector<std::string> messageReplies(std::size_t argumentCount, int length = 0,
                                        const std::string& setting = bulk("5000")) {
    std::vector<std::string> replies = {integer(length), setting, integer(1)};
    for (std::size_t i = 0; i < argumentCount; ++i) {
        replies.push_back(integer(1));
    }
    if (argumentCount > 0) {
        replies.insert(replies.end(), {integer(1), integer(1)});
    }
    replies.insert(replies.end(), {integer(1), integer(1), integer(1)});
    return replies;
}

// The lifetime that a message gets; the setting's reply is given.
std::string lifetimeFor(const std::string& setting) {
    const ScriptedStore peer(messageReplies(0, 0, setting));
    writeExtendedMessage(peer.connection(), "list", "Base.1.12.Created", {});
    const Commands commands = peer.commands();
    return commands.size() == 6 && commands.back() == Command{"EXPIRE", "list/1", commands[4][2]}
               ? commands[4][2]
               : "(no lifetime)";
}

const Command readLifetime = {"HGET", "webDefaultValue", "REDIS_CONNECTION_DEFAULT_TIMEOUT"};

TEST(QuoteArg, EscapesQuotesAndBackslashes) {
    EXPECT_EQ(quoteArg(""), R"("")");
    EXPECT_EQ(quoteArg("plain text"), R"("plain text")");
    EXPECT_EQ(quoteArg(R"(a"b\c)"), R"("a\"b\\c")");
    EXPECT_EQ(quoteArg("\"\""), R"("\"\"")");
    EXPECT_EQ(quoteArg("line\nfeed 'single' %s"), "\"line\nfeed 'single' %s\"");
}

TEST(ReplyKeys, PutTheMessagesBesideTheReply) {
    const Reply reply = composeReplyKeys("&&reply/17/key");
    EXPECT_EQ(reply.key, "&&reply/17/key");
    EXPECT_EQ(reply.messageList, "&&reply/17/ExtendedInfo");
    EXPECT_TRUE(reply.fields.empty());
    EXPECT_TRUE(isExpected(reply));
}

TEST(ReplyKeys, KeepNothingOfAKeyWithoutASlash) {
    EXPECT_EQ(composeReplyKeys("reply").messageList, "ExtendedInfo");
    EXPECT_EQ(composeReplyKeys("/").messageList, "/ExtendedInfo");
    EXPECT_EQ(composeReplyKeys("reply/").messageList, "reply/ExtendedInfo");
}

TEST(ReplyKeys, AreNotComposedForAnEmptyReplyKey) {
    const Reply reply = composeReplyKeys("");
    EXPECT_FALSE(isExpected(reply));
    EXPECT_EQ(reply.messageList, "");
}

TEST(Reply, IsWrittenBeforeItsMessage) {
    std::vector<std::string> replies = messageReplies(2, 4);
    replies.insert(replies.begin(), integer(3));
    const ScriptedStore peer(replies);
    Reply reply = composeReplyKeys("r/reply");
    reply.fields["&&Location"] = "";
    writeReply(peer.connection(), reply,
               {"FAILURE", "Base.1.12.StringValueTooLong", {"(password \"string\")", "1024"}});

    EXPECT_EQ(peer.commands(),
              (Commands{
                  {"HSET", "r/reply", "&&ExtendedInfo", "r/ExtendedInfo", "&&Location", "",
                   "&&ReturnStatus", "FAILURE"},
                  {"LLEN", "r/ExtendedInfo"},
                  readLifetime,
                  {"HSET", "r/ExtendedInfo/5", "&&MessageId", "Base.1.12.StringValueTooLong"},
                  {"RPUSH", "r/ExtendedInfo/5/MessageArgs", R"x("(password \"string\")")x"},
                  {"RPUSH", "r/ExtendedInfo/5/MessageArgs", R"("1024")"},
                  {"HSET", "r/ExtendedInfo/5", "&&MessageArgs", "r/ExtendedInfo/5/MessageArgs"},
                  {"EXPIRE", "r/ExtendedInfo/5/MessageArgs", "6"},
                  {"LPUSH", "r/ExtendedInfo", "r/ExtendedInfo/5"},
                  {"EXPIRE", "r/ExtendedInfo", "6"},
                  {"EXPIRE", "r/ExtendedInfo/5", "6"},
              }));
}

TEST(Reply, WithoutAReplyKeyIsNotWritten) {
    const ScriptedStore peer;
    Reply reply = composeReplyKeys("");
    writeReply(peer.connection(), reply, {"OK", "Base.1.12.Created"});
    EXPECT_TRUE(peer.commands().empty());
}

TEST(Reply, WithoutAMessageIdentifierLeavesTheMessagesAlone) {
    const ScriptedStore peer({integer(1)});
    Reply reply = composeReplyKeys("r/reply");
    writeReply(peer.connection(), reply, {"OK_EMPTY"});
    EXPECT_EQ(peer.commands(), (Commands{{"HSET", "r/reply", "&&ExtendedInfo", "r/ExtendedInfo",
                                          "&&ReturnStatus", "OK_EMPTY"}}));
}

TEST(Reply, ThatTheStoreRefusesIsLoggedAndItsMessageWritten) {
    std::vector<std::string> replies = messageReplies(0);
    replies.insert(replies.begin(), error("ERR refused"));
    const ScriptedStore peer(replies);
    Reply reply = composeReplyKeys("r/reply");
    EXPECT_EQ(standardErrorOf([&] {
                  writeReply(peer.connection(), reply, {"OK", "Base.1.12.Created"});
              }),
              "[Error]: Failed to update Return Status.\n");
    EXPECT_EQ(peer.commands().size(), 7U);
}

TEST(Message, WithoutArgumentsHasNoArgumentList) {
    const ScriptedStore peer(messageReplies(0));
    writeExtendedMessage(peer.connection(), "r/ExtendedInfo", "Base.1.12.Created", {});
    EXPECT_EQ(peer.commands(), (Commands{
                                   {"LLEN", "r/ExtendedInfo"},
                                   readLifetime,
                                   {"HSET", "r/ExtendedInfo/1", "&&MessageId", "Base.1.12.Created"},
                                   {"LPUSH", "r/ExtendedInfo", "r/ExtendedInfo/1"},
                                   {"EXPIRE", "r/ExtendedInfo", "6"},
                                   {"EXPIRE", "r/ExtendedInfo/1", "6"},
                               }));
}

TEST(Message, LivesAsLongAsTheSettingSays) {
    EXPECT_EQ(lifetimeFor(nil()), "6");
    EXPECT_EQ(lifetimeFor(error("WRONGTYPE")), "6");
    const std::map<std::string, std::string> lifetimes = {
        {"", "6"},
        {"5000", "6"},
        {"5999", "6"},
        {"6000", "7"},
        {"1000", "2"},
        {"999", "1"},
        {"1", "1"},
        {"0", "1"},
        {"-5000", "1"},
        {"abc", "1"},
        {"\"5000\"", "1"},
        {" 2000", "3"},
        {"+2000", "3"},
        {"2000ms", "3"},
        {"2000.9", "3"},
        {"0x1000", "1"},
        {"2147483647", "2147484"},
        {"2147483648", "2147484"},
        {"9000000000000", "2147483647"},
        {"99999999999999999999", "2147483647"},
    };
    for (const auto& [setting, seconds] : lifetimes) {
        EXPECT_EQ(lifetimeFor(bulk(setting)), seconds) << '"' << setting << '"';
    }
}

TEST(Message, IsTheFirstOfAListWhoseLengthIsNoNumber) {
    for (const std::string& length : {error("WRONGTYPE"), nil(), bulk("7"), resp::array({})}) {
        std::vector<std::string> replies = messageReplies(0);
        replies[0] = length;
        const ScriptedStore peer(replies);
        writeExtendedMessage(peer.connection(), "list", "Base.1.12.Created", {});
        EXPECT_EQ(peer.commands().at(2).at(1), "list/1") << length;
    }
}

TEST(Message, IsNotWrittenWhenTheLengthCannotBeAskedFor) {
    const ScriptedStore peer;
    EXPECT_EQ(standardErrorOf([&] {
                  writeExtendedMessage(peer.connection(), "list", "Base.1.12.Created", {"x"});
              }),
              "[Error]: Failed to get length of extended info array.\n");
    EXPECT_EQ(peer.commands(), (Commands{{"LLEN", "list"}}));
}

TEST(Message, GoesOnWhateverTheStoreAnswers) {
    const std::vector<std::string> refusals(20, error("ERR refused"));
    const ScriptedStore peer(refusals);
    EXPECT_EQ(standardErrorOf([&] {
                  writeExtendedMessage(peer.connection(), "list", "Base.1.12.Created", {"x"});
              }),
              "");
    EXPECT_EQ(peer.commands().size(), 9U);
}

TEST(Message, WithoutAnIdentifierIsAProgrammingError) {
    const ScriptedStore peer({integer(0), nil()});
    try {
        writeExtendedMessage(peer.connection(), "list", nullptr, {});
        ADD_FAILURE() << "nothing thrown";
    } catch (const std::logic_error& failure) {
        EXPECT_STREQ(failure.what(), "basic_string::_M_construct null not valid");
    }
    EXPECT_EQ(peer.commands(), (Commands{{"LLEN", "list"}, readLifetime}));
}

TEST(Message, HasAnEntryKeyOfAtMost511Bytes) {
    const std::map<std::size_t, std::string> endings = {
        {509, "/1"}, {510, "/"}, {511, ""}, {512, ""}, {5000, ""}};
    for (const auto& [length, ending] : endings) {
        const std::string list(length, 'l');
        const std::string entry = list.substr(0, 511) + ending;
        const std::string argumentList = entry + "/MessageArgs";
        const ScriptedStore peer(messageReplies(1));
        writeExtendedMessage(peer.connection(), list, "Base.1.12.Created", {"x"});
        EXPECT_EQ(entry.size(), 511U);
        EXPECT_EQ(peer.commands(), (Commands{
                                       {"LLEN", list},
                                       readLifetime,
                                       {"HSET", entry, "&&MessageId", "Base.1.12.Created"},
                                       {"RPUSH", argumentList, "\"x\""},
                                       {"HSET", entry, "&&MessageArgs", argumentList},
                                       {"EXPIRE", argumentList, "6"},
                                       {"LPUSH", list, entry},
                                       {"EXPIRE", list, "6"},
                                       {"EXPIRE", entry, "6"},
                                   }))
            << length;
    }
}

TEST(Message, KeepsArgumentsWithBlanksAndPercentSignsWhole) {
    const ScriptedStore peer(messageReplies(2));
    writeExtendedMessage(peer.connection(), "a list%d", "Base.1.12.Created", {"two words %s", ""});
    const Commands commands = peer.commands();
    EXPECT_EQ(commands.at(3), (Command{"RPUSH", "a list%d/1/MessageArgs", "\"two words %s\""}));
    EXPECT_EQ(commands.at(4), (Command{"RPUSH", "a list%d/1/MessageArgs", "\"\""}));
}

// The commands of a refusal that writes its fields one by one, in front of its message.
void expectFieldsThenMessage(const Commands& commands, const std::string& status,
                             const std::string& list, const std::string& messageId) {
    ASSERT_GE(commands.size(), 5U);
    EXPECT_EQ(commands[0], (Command{"HSET", "r/reply", "&&ReturnStatus", status}));
    EXPECT_EQ(commands[1], (Command{"HSET", "r/reply", "&&ExtendedInfo", list}));
    EXPECT_EQ(commands[2], (Command{"LLEN", list}));
    EXPECT_EQ(commands[4], (Command{"HSET", list + "/1", "&&MessageId", messageId}));
}

std::vector<std::string> afterTwoFields(std::vector<std::string> replies) {
    replies.insert(replies.begin(), 2, integer(1));
    return replies;
}

TEST(ExceptionReply, WritesItsStatusAndOneMessage) {
    const ScriptedStore peer(afterTwoFields(messageReplies(0)));
    writeExceptionReply(peer.connection(), {"r/reply", "request/ExtendedInfo"},
                        "Base.1.12.OperationFailed");
    expectFieldsThenMessage(peer.commands(), "EXCEPTION", "request/ExtendedInfo",
                            "Base.1.12.OperationFailed");
    EXPECT_EQ(peer.commands().size(), 8U);
}

TEST(EarlyReply, HasAMessageListOfItsOwn) {
    const ScriptedStore peer(afterTwoFields(messageReplies(2)));
    writeReplyFieldByField(
        peer.connection(), composeEarlyReply("r/reply"),
        {"FAILURE", "Base.1.12.StringValueTooLong", {"(password string)", "1024"}});
    expectFieldsThenMessage(peer.commands(), "FAILURE", "r/reply/ExtendedInfo",
                            "Base.1.12.StringValueTooLong");
    EXPECT_EQ(peer.commands().size(), 12U);
}

TEST(Message, IsNumberedIn32BitsWhateverLengthTheStoreClaims) {
    const std::map<long long, std::string> entries = {
        {-1, "list/0"},
        {2147483646, "list/2147483647"},
        {2147483647, "list/-2147483648"},
        {4294967294, "list/-1"},
        {4294967295, "list/0"},
        {4294967296, "list/1"},
        {9223372036854775806, "list/-1"},
        {9223372036854775807, "list/0"},
        {-9223372036854775807 - 1, "list/1"},
    };
    for (const auto& [length, entry] : entries) {
        std::vector<std::string> replies = messageReplies(0);
        replies[0] = integer(length);
        const ScriptedStore peer(replies);
        writeExtendedMessage(peer.connection(), "list", "Base.1.12.Created", {});
        EXPECT_EQ(peer.commands(), (Commands{
                                       {"LLEN", "list"},
                                       readLifetime,
                                       {"HSET", entry, "&&MessageId", "Base.1.12.Created"},
                                       {"LPUSH", "list", entry},
                                       {"EXPIRE", "list", "6"},
                                       {"EXPIRE", entry, "6"},
                                   }))
            << length;
    }
}

TEST(EarlyReply, WithoutAReplyKeyIsWrittenUnderTheEmptyOne) {
    const ScriptedStore peer(afterTwoFields(messageReplies(0)));
    writeReplyFieldByField(peer.connection(), composeEarlyReply(""),
                           {"UNAVAILABLE", "ExtendedError.1.2.ServiceDisabled"});
    EXPECT_EQ(peer.commands(),
              (Commands{
                  {"HSET", "", "&&ReturnStatus", "UNAVAILABLE"},
                  {"HSET", "", "&&ExtendedInfo", "/ExtendedInfo"},
                  {"LLEN", "/ExtendedInfo"},
                  readLifetime,
                  {"HSET", "/ExtendedInfo/1", "&&MessageId", "ExtendedError.1.2.ServiceDisabled"},
                  {"LPUSH", "/ExtendedInfo", "/ExtendedInfo/1"},
                  {"EXPIRE", "/ExtendedInfo", "6"},
                  {"EXPIRE", "/ExtendedInfo/1", "6"},
              }));
}

}  // namespace
}  // namespace session_service
