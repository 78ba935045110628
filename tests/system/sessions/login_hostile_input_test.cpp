// Logins whose texts were chosen to do harm, and stores that hold something else than
// anybody expects.
#include <algorithm>

#include "support/permissive_pam_test.h"

namespace testbed {
namespace {

class HostileText : public PermissivePamTest {
  protected:
    void SetUp() override {
        PermissivePamTest::SetUp();
        // Names with blanks do not fit the log service's script.
        useScript("logGeneratorHelper", "return 1");
    }
    static RequestOptions withUserName(const std::string& name) {
        return {.body = {{"UserName", '"' + name + '"'}}};
    }
    // The last password check.
    PamRecord lastCheck() {
        PamRecord last;
        for (const PamRecord& record : pamRecords()) {
            if (record.at("entry") == "auth") {
                last = record;
            }
        }
        return last;
    }
    // Every line of the log begins as one.
    void expectWholeLines() {
        for (const LogLine& line : logLines()) {
            EXPECT_TRUE(line.tag == "[Debug]" || line.tag == "[Error]") << line.message;
        }
    }
    static std::string asLogged(const std::string& text) {
        constexpr char digits[] = "0123456789abcdef";
        std::string logged;
        for (const char character : text) {
            const auto code = static_cast<unsigned char>(character);
            if (code < 0x20 || code == 0x7f) {
                logged += std::string("\\x") + digits[code / 16] + digits[code % 16];
            } else {
                logged += character;
            }
        }
        return logged;
    }

    // The commands among them would leave the file /tmp/started behind.
    const Words texts{
        R"("quoted" 'twice')",
        R"(\\server\share\)",
        "  two  words ",
        "%s%n%d%%100%x %*s%99999999d",
        "x\nNov 21 01:39:00 1700000000 [Error]: forged",
        "\x01\x1b[31m\r\n\t\x7f\b",
        "$(touch /tmp/started) `touch /tmp/started`; touch /tmp/started|&",
        "'; touch /tmp/started; '",
        "--help",
        "x\r\nFLUSHALL\r\n*1\r\n$8\r\nFLUSHALL\r\n",
        "../../Sessions/*",
        "*?[a-z]",
        R"({"a":["b"]})",
        "&&OwnerName",
        "J\xc3\xbcrgen \xe2\x82\xac",
        "\xff\xfe\x80",
        std::string(64 * 1024, 'k'),
        std::string(20000, '"'),
        std::string(20000, '%'),
    };
};

TEST_F(HostileText, AsUserNameIsStoredAsItIsAndTouchesNoOtherKeys) {
    for (const std::string& text : texts) {
        SCOPED_TRACE(text.substr(0, 40));
        const Snapshot before = snapshot();
        const Reply reply = login(withUserName(text));
        ASSERT_EQ(reply.status(), "OK");
        Words keys{reply.location(),
                   tokenReferenceKey(reply.location()),
                   tokenKey(reply.token()),
                   membersKey,
                   sessionsUri,
                   eventServiceUri,
                   "&&EventStream"};
        std::sort(keys.begin(), keys.end());
        EXPECT_EQ(changedSince(before), keys);
        EXPECT_EQ(store().hget(reply.location(), "UserName"), jsonQuoted(text));
        EXPECT_EQ(store().hget(reply.location(), "&&OwnerName"), text);
        EXPECT_EQ(store().hget(tokenKey(reply.token()), "UserName"), text);
        EXPECT_EQ(lastCheck().at("user"), text);
        emptyCollection();
    }
    EXPECT_FALSE(controller.fileExists("/tmp/started"));
    expectWholeLines();
}

TEST_F(HostileText, AsUserNameOfARefusedLoginStaysOnItsLine) {
    usePamTest("auth=PAM_AUTH_ERR");
    const Snapshot before = snapshot();
    for (const std::string& text : texts) {
        SCOPED_TRACE(text.substr(0, 40));
        EXPECT_EQ(login(withUserName(text)).status(), "AUTH_FAILED");
        EXPECT_EQ(tagsOf(asLogged(text) + " does not pass the PAM auth."), Words{"[Debug]"});
    }
    EXPECT_EQ(changedSince(before), Words{});
    expectWholeLines();
}

TEST_F(HostileText, AsUserNameReachesTheAuditScriptWordByWord) {
    useScript("logGeneratorHelper",
              "redis.call('RPUSH', 'seen', unpack(KEYS, 7)) "
              "if #ARGV > 0 then redis.call('RPUSH', 'seen', unpack(ARGV)) end return 1");
    for (const std::string& text : texts) {
        SCOPED_TRACE(text.substr(0, 40));
        login(withUserName(text));
        emptyCollection();
        // Blanks alone divide words.
        std::string joined;
        for (const std::string& word : store().lrange("seen")) {
            EXPECT_EQ(word.find(' '), std::string::npos);
            joined += word;
        }
        std::string withoutBlanks = text;
        withoutBlanks.erase(std::remove(withoutBlanks.begin(), withoutBlanks.end(), ' '),
                            withoutBlanks.end());
        EXPECT_EQ(joined, withoutBlanks);
        store().del("seen");
    }
}

TEST_F(HostileText, AsPasswordReachesPamAsItIsAndNobodyElse) {
    usePamTest(allPrivileges + "style=echo_off");
    for (const std::string& text : texts) {
        SCOPED_TRACE(text.substr(0, 40));
        const Reply reply = frontEnd().login("alice", text);
        emptyCollection();
        if (text.size() > 1024) {
            EXPECT_EQ(reply.status(), "FAILURE");
            continue;
        }
        EXPECT_EQ(reply.status(), "OK");
        EXPECT_EQ(lastCheck().at("answer0"), text);
    }
    EXPECT_FALSE(controller.fileExists("/tmp/started"));
    for (const LogLine& line : logLines()) {
        for (const std::string& text : texts) {
            EXPECT_EQ(line.message.find(asLogged(text)), std::string::npos) << line.message;
        }
    }
}

TEST_F(HostileText, AsCipherIsAnEmptyPassword) {
    usePamTest(allPrivileges + "style=echo_off");
    for (const std::string& text : texts) {
        SCOPED_TRACE(text.substr(0, 40));
        EXPECT_EQ(login({.body = {{"Password", text}}}).status(), "OK");
        EXPECT_EQ(lastCheck().at("answer0"), "");
        emptyCollection();
    }
}

TEST_F(HostileText, AsAddressIsStoredAsItIs) {
    for (const std::string& text : texts) {
        SCOPED_TRACE(text.substr(0, 40));
        const Reply reply = login({.fields = {{"&&RemoteIP", text}}});
        emptyCollection();
        EXPECT_EQ(lastCheck().at("rhost"), text);
        // A host name that is too long for the machine's own audit fails inside PAM.
        if (text.size() < 1024 || reply.status() != "AUTH_FAILED") {
            ASSERT_EQ(reply.status(), "OK");
            EXPECT_EQ(store().hget(reply.location(), "&&RemoteIP"), text);
            EXPECT_EQ(store().hget(reply.location(), "ClientOriginIPAddress"), jsonQuoted(text));
        }
    }
    expectWholeLines();
}

TEST_F(HostileText, AsOriginIsStoredAsItIs) {
    for (const std::string& text : texts) {
        SCOPED_TRACE(text.substr(0, 40));
        const Reply reply = login({.fields = {{"&&Origin", text}}});
        EXPECT_EQ(store().hget(reply.location(), "&&Origin"), text);
        EXPECT_EQ(store().hget(tokenKey(reply.token()), "&&Origin"), text);
        emptyCollection();
    }
}

TEST_F(HostileText, AsReplyKeyAndReturnChannelIsUsedAsItIs) {
    for (const std::string& text : texts) {
        SCOPED_TRACE(text.substr(0, 40));
        const std::string key = "&&/request/" + text;
        const Reply reply = login({.replyKey = key, .returnChannel = key + "!"});
        EXPECT_EQ(reply.published, key);
        EXPECT_EQ(reply.status(), "OK");
        EXPECT_EQ(store().hgetall(key + "!"), (Fields{{"&&ResponseData", ""}}));
        ASSERT_FALSE(reply.messages.empty());
        EXPECT_EQ(reply.messages.front(), (Message{"Base.1.12.Created", {}}));
        emptyCollection();
    }
}

TEST_F(HostileText, AsRequiredPrivilegeIsNoNumber) {
    expectErrorLine("Privilege value type error stoi");
    for (const std::string& text : texts) {
        SCOPED_TRACE(text.substr(0, 40));
        // The mask before it counts once more.
        EXPECT_EQ(login({.fields = {{"&&OperationPrivileges", "512," + text}}}).status(),
                  "FORBIDDEN");
    }
    EXPECT_EQ(countLogged("Privilege value type error stoi"), static_cast<long>(texts.size()));
}

class HostileName : public PermissivePamTest {};

TEST_F(HostileName, EndsAtItsFirstZeroByte) {
    const Reply reply = login({.body = {{"UserName", std::string("name\0\"more", 10)}}});
    EXPECT_EQ(store().hget(reply.location(), "&&OwnerName"), "name");
    EXPECT_EQ(store().hget(tokenKey(reply.token()), "UserName"), "name");
}

TEST_F(HostileName, OfTheUserWhoMustChangeThePasswordFindsNoOtherAccount) {
    usePamTest(allPrivileges + "acct=PAM_NEW_AUTHTOK_REQD");
    for (const char* name : {"*", "admin\\", "%s", "adm?n", "[a]dmin"}) {
        EXPECT_EQ(login({.body = {{"UserName", name}}}).messages,
                  (std::vector<Message>{{"Base.1.12.PasswordChangeRequired", {"\"\""}}}))
            << name;
    }
}

TEST_F(HostileName, OfAMegabyteIsServed) {
    const std::string name(1024 * 1024, 'm');
    const Reply reply = login({.body = {{"UserName", name}}});
    EXPECT_EQ(reply.status(), "OK");
    EXPECT_EQ(store().hget(reply.location(), "&&OwnerName"), name);
}

// --- keys of another kind

struct SpoiltKey {
    const char* name;
    std::string key;
    const char* status;
    Words errors{};
    bool stays = true;
    bool expires = false;  // the session, at once
};

class LoginOnAStoreWith : public PermissivePamTest, public testing::WithParamInterface<SpoiltKey> {
  protected:
    void SetUp() override {
        usePamTest(allPrivileges + "acct=PAM_NEW_AUTHTOK_REQD");
        startStore();
        startDaemon(withRandomBytes(randomBytes));
    }

  public:
    static inline const std::string replyKey = "&&/request/spoilt/reply";
    static inline const std::string returnChannel = "&&/request/spoilt/return";
    static inline const std::string list = "&&/request/spoilt/ExtendedInfo";
    static inline const std::string session = randomUri;
    static inline const std::string tokenRecord = "&&X-AUTH-TOKEN-" + randomToken;
};

TEST_P(LoginOnAStoreWith, KeyOfAnotherKindAnswersAndGoesOn) {
    for (const std::string& error : GetParam().errors) {
        expectErrorLine(error);
    }
    corrupt(GetParam().key);
    Request request = frontEnd().prepareLogin(
        reader.name, "anything", {.replyKey = replyKey, .returnChannel = returnChannel});
    request.send();
    EXPECT_EQ(request.published(), replyKey);
    if (GetParam().key != replyKey) {
        EXPECT_EQ(store().hget(replyKey, "&&ReturnStatus"), GetParam().status);
    }
    if (GetParam().stays) {
        EXPECT_EQ(store().run({"SMEMBERS", GetParam().key}).elements.at(0).text, "something else");
    }
    for (const std::string& error : GetParam().errors) {
        waitUntil("the error is logged", [&] {
            const std::vector<LogLine> lines = logLines();
            return std::any_of(lines.begin(), lines.end(), [&](const LogLine& line) {
                return line.tag == "[Error]" && line.message.rfind(error, 0) == 0;
            });
        });
    }
    usePamTest("auth=PAM_AUTH_ERR");
    EXPECT_EQ(login().status(), "AUTH_FAILED");
    if (GetParam().expires) {
        waitUntilExpired(1);
    }
}

INSTANTIATE_TEST_SUITE_P(
    A, LoginOnAStoreWith,
    testing::Values(
        // Without a timeout the session soon expires.
        SpoiltKey{.name = "Service", .key = serviceUri, .status = "OK", .expires = true},
        SpoiltKey{
            "MembersList", membersKey, "FAILURE", {"Failed to add session entry to Members."}},
        SpoiltKey{"Collection", sessionsUri, "OK"},
        SpoiltKey{
            "SessionUri", LoginOnAStoreWith::session, "FAILURE", {"Failed to add session entry."}},
        // Its token unknown, the session soon expires, reference and all.
        SpoiltKey{.name = "TokenReference",
                  .key = "&&" + LoginOnAStoreWith::session,
                  .status = "OK",
                  .stays = false,
                  .expires = true},
        SpoiltKey{"TokenRecord",
                  LoginOnAStoreWith::tokenRecord,
                  "FAILURE",
                  {"Failed to create meta session table."}},
        SpoiltKey{"EventService", eventServiceUri, "OK"},
        SpoiltKey{"SetOfDefaults", "webDefaultValue", "OK"},
        SpoiltKey{"ReturnChannel", LoginOnAStoreWith::returnChannel, "OK"},
        SpoiltKey{"ReplyKey", LoginOnAStoreWith::replyKey, "", {"Failed to update Return Status."}},
        SpoiltKey{"MessageList", LoginOnAStoreWith::list, "OK"},
        SpoiltKey{"MessageEntry", LoginOnAStoreWith::list + "/1", "OK"},
        SpoiltKey{"ListOfArguments", LoginOnAStoreWith::list + "/1/MessageArgs", "OK"},
        SpoiltKey{
            "SetOfScripts",
            "redisSHAScripts",
            "OK",
            {"Cannot get SHA script resourceChange.", "Cannot get SHA script logGeneratorHelper."}},
        SpoiltKey{"EventStream", "&&EventStream", "OK", {"Failed to generate life cycle event. "}},
        SpoiltKey{"LogCollection", auditEntriesUri, "OK", {"Failed to generate LogEntry. "}},
        SpoiltKey{"Account", reader.uri, "OK"}),
    [](const auto& instance) { return instance.param.name; });

using RequestOfAnotherKind = PermissivePamTest;

TEST_F(RequestOfAnotherKind, IsLoggedOnly) {
    expectErrorLine("Create session: &&ReturnChannel not found.");
    Request request = frontEnd().prepareLogin("alice", "a password");
    corrupt(request.requestKey());
    request.send();
    waitForLog("Create session: &&ReturnChannel not found.");
    EXPECT_EQ(login().status(), "OK");
    EXPECT_FALSE(request.publishedAlready());
}

TEST_F(RequestOfAnotherKind, InItsBodyIsALoginWithoutNameAndPassword) {
    usePamTest(allPrivileges + "password=secret");
    Request request = frontEnd().prepareLogin("alice", "secret");
    corrupt(request.bodyKey());
    request.send();
    EXPECT_EQ(request.reply().status(), "AUTH_FAILED");
    EXPECT_EQ(pamRecords().front().at("user"), "");
}

}  // namespace
}  // namespace testbed
