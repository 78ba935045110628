// Where answers and their messages lie in the store, and for how long.
#include "support/permissive_pam_test.h"

namespace testbed {
namespace {

class MessageEntries : public PermissivePamTest {
  protected:
    long long lifetime(const std::string& key) { return store().run({"PTTL", key}).integer; }
    // Seconds, as the commands of the next login give them.
    Words lifetimesOf(const Reply& reply, Monitor& monitor) {
        Words lifetimes;
        for (const MonitoredCommand& command : monitor.soFar()) {
            if (command.words[0] == "EXPIRE" &&
                command.words[1].rfind(reply["&&ExtendedInfo"], 0) == 0) {
                lifetimes.push_back(command.words[2]);
            }
        }
        return lifetimes;
    }
};

TEST_F(MessageEntries, LieBesideTheReplyAfterItsLastSlash) {
    const std::vector<std::pair<std::string, std::string>> keys{
        {"&&/request/a/b/c", "&&/request/a/b/ExtendedInfo"},
        {"&&/request/a/b/", "&&/request/a/b/ExtendedInfo"},
        {"/reply", "/ExtendedInfo"},
        {"reply", "ExtendedInfo"},
        {"/", "/ExtendedInfo"},
    };
    for (const auto& [replyKey, list] : keys) {
        const Reply reply = login({.replyKey = replyKey});
        EXPECT_EQ(reply["&&ExtendedInfo"], list) << replyKey;
        EXPECT_EQ(store().lrange(list).front().rfind(list + "/", 0), 0U);
        emptyCollection();
    }
}

TEST_F(MessageEntries, AreNumberedByTheLengthOfTheirListNewestFirst) {
    const std::string list = "&&/request/shared/ExtendedInfo";
    // The first message is still looked at when the second login is through.
    store().hset("webDefaultValue", {{"REDIS_CONNECTION_DEFAULT_TIMEOUT", "9000000"}});
    login({.replyKey = "&&/request/shared/1"});
    EXPECT_EQ(store().lrange(list), Words{list + "/1"});
    usePamTest("auth=PAM_AUTH_ERR");
    const Reply second = login({.replyKey = "&&/request/shared/2"});
    EXPECT_EQ(store().lrange(list), (Words{list + "/2", list + "/1"}));
    EXPECT_EQ(second.messages, (std::vector<Message>{{"ExtendedError.1.2.InvalidCredentials", {}},
                                                     {"Base.1.12.Created", {}}}));
}

TEST_F(MessageEntries, AreNumberedOnFromAnyLengthThatIsThere) {
    const std::string list = "&&/request/long/ExtendedInfo";
    for (int i = 0; i < 41; ++i) {
        store().run({"RPUSH", list, "&&/request/old"});
    }
    login({.replyKey = "&&/request/long/reply"});
    EXPECT_EQ(store().lrange(list).front(), list + "/42");
    EXPECT_EQ(store().hget(list + "/42", "&&MessageId"), "Base.1.12.Created");
}

TEST_F(MessageEntries, WithoutArgumentsHaveNoListOfThem) {
    const std::string entry = login()["&&ExtendedInfo"] + "/1";
    EXPECT_EQ(store().hgetall(entry), (Fields{{"&&MessageId", "Base.1.12.Created"}}));
    EXPECT_FALSE(store().exists(entry + "/MessageArgs"));
}

TEST_F(MessageEntries, HoldTheirArgumentsQuotedAndInOrder) {
    const Reply reply = frontEnd().login("alice", std::string(1025, 'p'));
    const std::string entry = reply["&&ExtendedInfo"] + "/1";
    EXPECT_EQ(store().hgetall(entry), (Fields{{"&&MessageId", "Base.1.12.StringValueTooLong"},
                                              {"&&MessageArgs", entry + "/MessageArgs"}}));
    EXPECT_EQ(store().lrange(entry + "/MessageArgs"), (Words{"\"(password string)\"", "\"1024\""}));
}

TEST_F(MessageEntries, EscapeQuotesAndBackslashesOfTheirArguments) {
    usePamTest(allPrivileges + "acct=PAM_NEW_AUTHTOK_REQD");
    const std::string account = R"(/redfish/v1/AccountService/Accounts/a"b\c %s)";
    store().hset(account, {{"&&OwnerName", "alice"}});
    EXPECT_EQ(login().messages,
              (std::vector<Message>{{"Base.1.12.PasswordChangeRequired",
                                     {R"("/redfish/v1/AccountService/Accounts/a\"b\\c %s")"}}}));
}

TEST_F(MessageEntries, AddTheirArgumentsToAListThatIsThereAlready) {
    const std::string replyKey = "&&/request/refused";
    const std::string arguments = replyKey + "/ExtendedInfo/1/MessageArgs";
    store().run({"RPUSH", arguments, "old"});
    frontEnd().login("alice", std::string(1025, 'p'), {.replyKey = replyKey});
    EXPECT_EQ(store().lrange(arguments), (Words{"old", "\"(password string)\"", "\"1024\""}));
}

TEST_F(MessageEntries, ExpireListEntryAndArgumentsAlike) {
    const Reply reply = frontEnd().login("alice", std::string(1025, 'p'));
    const std::string list = reply["&&ExtendedInfo"];
    for (const std::string& key : {list, list + "/1", list + "/1/MessageArgs"}) {
        EXPECT_GT(lifetime(key), 0) << key;
        EXPECT_LE(lifetime(key), 6000) << key;
    }
}

TEST_F(MessageEntries, LiveForTheSettingInWholeSecondsPlusOne) {
    const std::vector<std::pair<const char*, const char*>> settings{
        {"5000", "6"},  {"5999", "6"},   {"6000", "7"}, {"999", "1"},          {"1000", "2"},
        {"0", "1"},     {"text", "1"},   {"-1", "1"},   {"-5000", "1"},        {" 4000", "5"},
        {"+2000", "3"}, {"3000ms", "4"}, {"12.5", "1"}, {"86400000", "86401"},
    };
    for (const auto& [setting, seconds] : settings) {
        store().hset("webDefaultValue", {{"REDIS_CONNECTION_DEFAULT_TIMEOUT", setting}});
        Monitor monitor = controller.monitor();
        const Reply reply = login();
        emptyCollection();
        EXPECT_EQ(lifetimesOf(reply, monitor), (Words{seconds, seconds})) << setting;
    }
}

TEST_F(MessageEntries, LiveForSixSecondsWithoutASetting) {
    for (const bool present : {true, false}) {
        store().run({"HDEL", "webDefaultValue", "REDIS_CONNECTION_DEFAULT_TIMEOUT"});
        if (present) {
            store().hset("webDefaultValue", {{"REDIS_CONNECTION_DEFAULT_TIMEOUT", ""}});
        }
        Monitor monitor = controller.monitor();
        EXPECT_EQ(lifetimesOf(login(), monitor), (Words{"6", "6"}));
    }
}

TEST_F(MessageEntries, TakeAChangedSettingWithTheNextAnswer) {
    store().hset("webDefaultValue", {{"REDIS_CONNECTION_DEFAULT_TIMEOUT", "99000"}});
    login();
    store().hset("webDefaultValue", {{"REDIS_CONNECTION_DEFAULT_TIMEOUT", "1000"}});
    Monitor monitor = controller.monitor();
    EXPECT_EQ(lifetimesOf(login(), monitor), (Words{"2", "2"}));
}

TEST_F(MessageEntries, LeaveTheReplyItselfWithoutAnEnd) {
    EXPECT_EQ(store().run({"TTL", login().published}).integer, -1);
    EXPECT_EQ(
        store().run({"TTL", frontEnd().login("alice", std::string(1025, 'p')).published}).integer,
        -1);
}

TEST_F(MessageEntries, HaveTheirKeysCutTo511Bytes) {
    const std::string folder = "&&/request/" + std::string(600, 'f') + "/";
    const Reply reply = login({.replyKey = folder + "reply"});
    const std::string list = folder + "ExtendedInfo";
    const std::string entry = list.substr(0, 511);
    EXPECT_EQ(reply["&&ExtendedInfo"], list);
    EXPECT_EQ(store().lrange(list), Words{entry});
    EXPECT_EQ(store().hget(entry, "&&MessageId"), "Base.1.12.Created");
}

TEST_F(MessageEntries, KeepAKeyOf511BytesAndCutOneOf512) {
    // "/ExtendedInfo/1" is what follows the reply key.
    for (const std::size_t length : {511U, 512U}) {
        const std::string start = "&&/request/";
        const std::string replyKey = start + std::string(length - start.size() - 15, 'r');
        const Reply reply =
            frontEnd().login("alice", std::string(1025, 'p'), {.replyKey = replyKey});
        const std::string entry = (replyKey + "/ExtendedInfo/1").substr(0, 511);
        EXPECT_EQ(store().lrange(replyKey + "/ExtendedInfo"), Words{entry}) << length;
        EXPECT_EQ(store().hget(entry, "&&MessageArgs"), entry + "/MessageArgs");
        EXPECT_EQ(store().llen(entry + "/MessageArgs"), 2);
    }
}

using ReplyHash = PermissivePamTest;

TEST_F(ReplyHash, KeepsFieldsThatWereThereBefore) {
    store().hset("&&/request/used", {{"&&ReturnStatus", "old"}, {"Other", "kept"}});
    const Reply reply = login({.replyKey = "&&/request/used"});
    EXPECT_EQ(reply.status(), "OK");
    EXPECT_EQ(reply["Other"], "kept");
}

TEST_F(ReplyHash, HoldsNoItemsThatOnlyTheDaemonNeeds) {
    const Reply reply = login();
    EXPECT_EQ(reply.fields.count("RetStatusHashKey"), 0U);
    EXPECT_EQ(reply.fields.count("ExtendInfoHashKey"), 0U);
    EXPECT_EQ(reply.fields.count("MessageId"), 0U);
}

TEST_F(ReplyHash, ThatIsNotTakenIsLoggedAndTheRestGoesOn) {
    expectErrorLine("Failed to update Return Status.");
    corrupt("&&/request/spoilt/reply");
    Request request =
        frontEnd().prepareLogin("alice", "a password", {.replyKey = "&&/request/spoilt/reply"});
    request.send();
    EXPECT_EQ(request.published(), "&&/request/spoilt/reply");
    EXPECT_EQ(countLogged("Failed to update Return Status."), 1);
    EXPECT_EQ(store().hget("&&/request/spoilt/ExtendedInfo/1", "&&MessageId"), "Base.1.12.Created");
    EXPECT_EQ(store().llen(membersKey), 1);
}

TEST_F(ReplyHash, OfAnEarlyRefusalThatIsNotTakenIsNotLogged) {
    corrupt("&&/request/spoilt/reply");
    store().hset(serviceUri, {{"ServiceEnabled", "false"}});
    Request request =
        frontEnd().prepareLogin("alice", "a password", {.replyKey = "&&/request/spoilt/reply"});
    request.send();
    EXPECT_EQ(request.published(), "&&/request/spoilt/reply");
    EXPECT_EQ(store().hget("&&/request/spoilt/reply/ExtendedInfo/1", "&&MessageId"),
              "ExtendedError.1.2.ServiceDisabled");
}

TEST_F(ReplyHash, IsCompleteWithItsMessagesWhenItsKeyIsPublished) {
    Monitor monitor = controller.monitor();
    Request request = frontEnd().prepareLogin("alice", "a password");
    request.send();
    const std::vector<MonitoredCommand> commands =
        monitor.until([&](const MonitoredCommand& command) {
            return command.words == Words{"PUBLISH", request.returnChannel(), request.replyKey()};
        });
    bool written = false;
    bool expires = false;
    bool audited = false;
    for (const MonitoredCommand& command : commands) {
        written = written || (command.words[0] == "HSET" && command.words[1] == request.replyKey());
        expires = expires || command.words[0] == "EXPIRE";
        audited = audited || (command.words[0] == "EVALSHA" && command.words[3] == "CREATE");
    }
    EXPECT_TRUE(written && expires && audited);
}

}  // namespace
}  // namespace testbed
