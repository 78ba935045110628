#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <regex>

#include "support/permissive_pam_test.h"

namespace testbed {
namespace {

using Login = PermissivePamTest;
using SessionResource = PermissivePamTest;
using Collection = PermissivePamTest;
using RequiredPrivilege = PermissivePamTest;
using Identifiers = PermissivePamTest;

bool matches(const std::string& text, const char* pattern) {
    return std::regex_match(text, std::regex(pattern));
}

unsigned long long wallClockMilliseconds() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return static_cast<unsigned long long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(now).count());
}

// The milliseconds of an entity tag between two readings of the clock.
void expectStampedBetween(unsigned long long earliest, const std::string& etag,
                          unsigned long long latest) {
    ASSERT_TRUE(matches(etag, "\"[1-9][0-9]{12}\"")) << etag;
    const unsigned long long stamped = std::stoull(etag.substr(1));
    EXPECT_GE(stamped, earliest);
    EXPECT_LE(stamped, latest);
}

class TokenRecord : public PermissivePamTest {
  protected:
    // The timeout in the token record of a new session, as it goes to the store: without
    // a sensible one the session may have expired the next moment.
    std::optional<std::string> writtenTimeout() {
        Monitor monitor = controller.monitor();
        const std::string key = tokenKey(login().token());
        for (const MonitoredCommand& command : monitor.soFar()) {
            const Words& words = command.words;
            const auto timeout = std::find(words.begin(), words.end(), "Timeout");
            if (words.size() > 2 && words[0] == "HSET" && words[1] == key &&
                timeout != words.end()) {
                return *(timeout + 1);
            }
        }
        return std::nullopt;
    }
};

// --- the answer

TEST_F(Login, IsAnsweredWithTheLocationTheTokenAndTheMessageThatItWasCreated) {
    const Reply reply = login({.replyKey = "&&/request/answer/1"});
    EXPECT_EQ(reply.published, "&&/request/answer/1");
    EXPECT_TRUE(matches(reply.location(), "/redfish/v1/SessionService/Sessions/[0-9a-f]{8}"));
    EXPECT_TRUE(matches(reply.token(), "[0-9a-f]{64}"));
    EXPECT_EQ(reply.fields, (Fields{{"&&ReturnStatus", "OK"},
                                    {"&&ExtendedInfo", "&&/request/answer/ExtendedInfo"},
                                    {"&&Location", reply.location()},
                                    {"&&X-Auth-Token", reply.token()}}));
    EXPECT_EQ(reply.messages, (std::vector<Message>{{"Base.1.12.Created", {}}}));
}

TEST_F(Login, LeavesAnEmptyBodyInTheHashNamedLikeTheReturnChannel) {
    login({.returnChannel = "&&/request/the return"});
    EXPECT_EQ(store().hgetall("&&/request/the return"), (Fields{{"&&ResponseData", ""}}));
}

TEST_F(Login, ChangesNothingButTheEntriesOfTheSessionTheEventsAndTheAudit) {
    const Snapshot before = snapshot();
    const Reply reply = login();
    const std::string audit = auditEntriesUri;
    Words keys{reply.location(),
               tokenReferenceKey(reply.location()),
               tokenKey(reply.token()),
               membersKey,
               sessionsUri,
               eventServiceUri,
               "&&EventStream",
               audit,
               audit + "/1",
               "&&" + audit + "/Members"};
    std::sort(keys.begin(), keys.end());
    EXPECT_EQ(changedSince(before), keys);
}

TEST_F(Login, UsesTheNameAndThePasswordWithoutTheirEnclosingQuotes) {
    usePamTest(allPrivileges + " password=secret");
    EXPECT_EQ(frontEnd().login("alice", "secret").status(), "OK");
    EXPECT_EQ(pamRecords().front().at("user"), "alice");
}

TEST_F(Login, TakesANameOfOneCharacterAsItStands) {
    const Reply reply = login({.body = {{"UserName", "\""}}});
    EXPECT_EQ(store().hget(tokenKey(reply.token()), "UserName"), "\"");
}

TEST_F(Login, StripsOnePairOfQuotesAndLeavesEscapesAlone) {
    const std::vector<std::pair<std::string, std::string>> names{
        {R"(""doubly"")", R"("doubly")"}, {R"("half)", R"("half)"},
        {R"(half")", R"(half")"},         {"bare", "bare"},
        {R"("a\"b\\c")", R"(a\"b\\c)"},   {R"("")", ""},
    };
    for (const auto& [stored, used] : names) {
        if (used.empty()) {
            expectErrorLine("Failed to generate LogEntry. ");
        }
        const Reply reply = login({.body = {{"UserName", stored}}});
        EXPECT_EQ(store().hget(tokenKey(reply.token()), "UserName"), used) << stored;
    }
}

TEST_F(Login, TakesAPasswordOfExactly1024Characters) {
    const std::string longest(1024, 'p');
    usePamTest(allPrivileges + "style=echo_off");
    EXPECT_EQ(frontEnd().login("alice", longest).status(), "OK");
    EXPECT_EQ(pamRecords().front().at("answer0"), longest);
}

TEST_F(Login, TakesAPasswordThatTravelsWithoutQuotes) {
    usePamTest(allPrivileges + " password=secret");
    const std::string quoted = frontEnd().encryptPassword("secret");
    const std::string bare = quoted.substr(1, quoted.size() - 2);
    EXPECT_EQ(login({.body = {{"Password", bare}}}).status(), "OK");
}

TEST_F(Login, WithAPasswordThatCannotBeDecryptedGoesOnWithAnEmptyOne) {
    usePamTest(allPrivileges + " style=echo_off");
    for (const char* cipher : {"\"00\"", "\"no digits\"", "\"\"", ""}) {
        login({.body = {{"Password", cipher}}});
        EXPECT_EQ(pamRecords().at(pamRecords().size() - 2).at("answer0"), "") << cipher;
    }
}

TEST_F(Login, TellsPamTheAddressOfTheClient) {
    login({.fields = {{"&&RemoteIP", "2001:db8::17"}}});
    EXPECT_EQ(pamRecords().front().at("rhost"), "2001:db8::17");
}

TEST_F(Login, IsServedUnlessTheServiceIsSwitchedOffByExactlyFalse) {
    for (const char* switchText : {"true", "False", "FALSE", "\"false\"", " false", "0", ""}) {
        store().hset(serviceUri, {{"ServiceEnabled", switchText}});
        EXPECT_EQ(login().status(), "OK") << switchText;
    }
    store().run({"HDEL", serviceUri, "ServiceEnabled"});
    EXPECT_EQ(login().status(), "OK");
}

TEST_F(Login, OfAUserWhoMustChangeThePasswordNamesTheAccount) {
    usePamTest(allPrivileges + " acct=PAM_NEW_AUTHTOK_REQD");
    const Reply reply = frontEnd().login(reader.name, "anything");
    EXPECT_EQ(reply.status(), "OK");
    EXPECT_TRUE(matches(reply.token(), "[0-9a-f]{64}"));
    EXPECT_EQ(
        reply.messages,
        (std::vector<Message>{{"Base.1.12.PasswordChangeRequired", {jsonQuoted(reader.uri)}}}));
    EXPECT_EQ(store().lrange(membersKey), (Words{"&&ObjectRef " + reply.location()}));
    EXPECT_EQ(countLogged("PAM: password change required."), 1);
}

TEST_F(Login, OfAUserWithoutAnAccountWhoMustChangeThePasswordHasAnEmptyArgument) {
    usePamTest(allPrivileges + " acct=PAM_NEW_AUTHTOK_REQD");
    EXPECT_EQ(login().messages,
              (std::vector<Message>{{"Base.1.12.PasswordChangeRequired", {"\"\""}}}));
}

TEST_F(Login, SendsBothEventsUnderOneGroupAndThenTheAuditEntry) {
    const Reply reply = login();
    EXPECT_EQ(lifeCycleEvents(store()),
              (std::vector<Words>{{"add", reply.location(), "Session", "1"},
                                  {"change", sessionsUri, "SessionCollection", "1"}}));
    EXPECT_EQ(auditEntries(store()),
              (std::vector<Words>{
                  {"\"AuditEvent.1.1.UserLogin\"", "[\"alice\"]",
                   "{\"OriginOfCondition\":{\"@odata.id\":\"" + reply.location() + "\"}}"}}));
}

TEST_F(Login, WithAnEmptyReplyKeyMakesTheSessionWritesNoReplyAndPublishesAnEmptyText) {
    Request request = frontEnd().prepareLogin("alice", "a password");
    const Snapshot before = snapshot();
    request.send(request.requestKey() + " ");
    EXPECT_EQ(request.published(), "");
    EXPECT_EQ(store().llen(membersKey), 1);
    const Words changed = changedSince(before);
    EXPECT_EQ(std::count(changed.begin(), changed.end(), ""), 0);
    EXPECT_EQ(std::count(changed.begin(), changed.end(), "ExtendedInfo"), 0);
    EXPECT_EQ(auditEntries(store()).size(), 1U);
}

TEST_F(Login, IsHandledWhileSessionsAreDeletedBecauseTheCountAloneIsGuarded) {
    const InsertedSession inserted = frontEnd().insertSession();
    holdPam();
    Request request = frontEnd().prepareLogin("alice", "a password");
    request.send();
    waitUntilPamHolds();
    EXPECT_EQ(frontEnd().remove(inserted.uri).status(), "OK_EMPTY");
    releasePam();
    EXPECT_EQ(request.reply().status(), "OK");
}

// --- the session resource

TEST_F(SessionResource, HoldsEveryPropertyAsStoredJsonAndEveryInternalFieldBare) {
    const Reply reply = login({.fields = {{"&&RemoteIP", "192.0.2.99"}, {"&&Origin", "Web"}}});
    const std::string uri = reply.location();
    const std::string identifier = uri.substr(uri.rfind('/') + 1);
    Fields resource = store().hgetall(uri);
    EXPECT_TRUE(matches(resource["@odata.etag"], "\"[0-9]+\""));
    resource.erase("@odata.etag");
    EXPECT_EQ(
        resource,
        (Fields{
            {"@odata.context", "\"/redfish/v1/$metadata#Session.Session\""},
            {"@odata.type", "\"#Session.v1_3_0.Session\""},
            {"Id", "\"" + identifier + "\""},
            {"Name", "\"User Session\""},
            {"Description", "\"This resource represents a session for a Redfish implementation.\""},
            {"UserName", "\"alice\""},
            {"Password", "null"},
            {"@odata.id", "\"" + uri + "\""},
            {"&&OwnerName", "alice"},
            {"&&RemoteIP", "192.0.2.99"},
            {"ClientOriginIPAddress", "\"192.0.2.99\""},
            {"&&AllowMethod", "GET,HEAD,DELETE"},
            {"&&CRUDprefix", "&&/redfish/v1/SessionService/Sessions"},
            {"SessionType", "\"Redfish\""},
            {"&&Origin", "Web"},
        }));
}

TEST_F(SessionResource, EscapesQuotesAndBackslashesInJsonOnly) {
    const Reply reply =
        login({.fields = {{"&&RemoteIP", R"(1"2\3)"}}, .body = {{"UserName", R"(al"i\ce)"}}});
    const Fields resource = store().hgetall(reply.location());
    EXPECT_EQ(resource.at("UserName"), R"("al\"i\\ce")");
    EXPECT_EQ(resource.at("&&OwnerName"), R"(al"i\ce)");
    EXPECT_EQ(resource.at("ClientOriginIPAddress"), R"("1\"2\\3")");
    EXPECT_EQ(resource.at("&&RemoteIP"), R"(1"2\3)");
    EXPECT_EQ(store().hget(tokenKey(reply.token()), "UserName"), R"(al"i\ce)");
}

TEST_F(SessionResource, LeavesTheOriginOutWhenTheRequestHasNone) {
    for (const Reply& reply :
         {login({.leaveOut = {"&&Origin"}}), login({.fields = {{"&&Origin", ""}}})}) {
        EXPECT_FALSE(store().hexists(reply.location(), "&&Origin"));
        EXPECT_FALSE(store().hexists(tokenKey(reply.token()), "&&Origin"));
    }
}

TEST_F(SessionResource, HoldsAnEmptyAddressWhenTheRequestHasNone) {
    const Reply reply = login({.leaveOut = {"&&RemoteIP"}});
    EXPECT_EQ(store().hget(reply.location(), "ClientOriginIPAddress"), "\"\"");
    EXPECT_TRUE(store().hexists(reply.location(), "&&RemoteIP"));
    EXPECT_EQ(store().hget(reply.location(), "&&RemoteIP"), "");
}

TEST_F(SessionResource, IsStampedWithTheMillisecondsOfItsCreation) {
    const unsigned long long before = wallClockMilliseconds();
    const Reply reply = login();
    expectStampedBetween(before, store().hget(reply.location(), "@odata.etag"),
                         wallClockMilliseconds());
}

TEST_F(SessionResource, IsNamedByAReferenceThatHoldsTheTokenInQuotes) {
    const Reply reply = login();
    EXPECT_EQ(store().hgetall("&&" + reply.location()),
              (Fields{{"XAUTH", "\"" + reply.token() + "\""}}));
}

// --- the token record

TEST_F(TokenRecord, HoldsTheUserThePrivilegeTheSessionAndItsTimes) {
    const long before = uptime();
    const Reply reply = login({.fields = {{"&&Origin", "Web"}}});
    const long after = uptime();
    Fields record = store().hgetall("&&X-AUTH-TOKEN-" + reply.token());
    ASSERT_TRUE(matches(record["LastAccessed"], "[0-9]+"));
    EXPECT_GE(std::stol(record["LastAccessed"]), before);
    EXPECT_LE(std::stol(record["LastAccessed"]), after);
    record.erase("LastAccessed");
    EXPECT_EQ(record, (Fields{{"UserName", "alice"},
                              {"Privilege", "511"},
                              {"SessionID", reply.location()},
                              {"Timeout", "300"},
                              {"&&Origin", "Web"}}));
}

TEST_F(TokenRecord, CopiesTheTimeoutOfTheServiceAsItIsStored) {
    for (const char* timeout : {"86400", "\"300\"", "%s %n", ""}) {
        store().hset(serviceUri, {{"SessionTimeout", timeout}});
        EXPECT_EQ(writtenTimeout(), timeout);
    }
    waitUntilExpired(3);  // all but the first
}

TEST_F(TokenRecord, HoldsAnEmptyTimeoutWhenTheServiceHasNone) {
    store().run({"HDEL", serviceUri, "SessionTimeout"});
    EXPECT_EQ(writtenTimeout(), "");
    waitUntilExpired(1);
}

TEST_F(TokenRecord, MarksAUserWhoMustChangeThePasswordByAnEmptyField) {
    EXPECT_FALSE(store().hexists(tokenKey(login().token()), "&&PasswordChangeRequired"));
    usePamTest(allPrivileges + " acct=PAM_NEW_AUTHTOK_REQD");
    const Reply reply = login();
    EXPECT_TRUE(store().hexists(tokenKey(reply.token()), "&&PasswordChangeRequired"));
    EXPECT_EQ(store().hget(tokenKey(reply.token()), "&&PasswordChangeRequired"), "");
}

TEST_F(TokenRecord, HoldsThePrivilegeTextCutToItsBuffer) {
    const std::string digits(600, ' ');
    usePamTest("[env=PRIVILEGES=9" + digits + "]");
    EXPECT_EQ(store().hget(tokenKey(login().token()), "Privilege"), "9" + std::string(510, ' '));
}

TEST_F(TokenRecord, HoldsAnEmptyPrivilegeWhenNothingNamesOne) {
    usePamTest("");
    expectErrorLine("Privilege value type error: ");
    const Reply reply = login({.fields = {{"&&OperationPrivileges", ""}}});
    EXPECT_EQ(reply.status(), "OK");
    EXPECT_TRUE(store().hexists(tokenKey(reply.token()), "Privilege"));
    EXPECT_EQ(store().hget(tokenKey(reply.token()), "Privilege"), "");
}

// --- the collection

TEST_F(Collection, HoldsTheFirstSessionAsAReferenceAndCountsOne) {
    const Reply reply = login();
    EXPECT_EQ(store().lrange(membersKey), (Words{"&&ObjectRef " + reply.location()}));
    EXPECT_EQ(store().hget(sessionsUri, "Members@odata.count"), "1");
}

TEST_F(Collection, RunsFromTheNewestToTheOldest) {
    const Reply first = login();
    const Reply second = login();
    EXPECT_EQ(store().lrange(membersKey),
              (Words{"&&ObjectRef " + second.location(), "&&ObjectRef " + first.location()}));
    EXPECT_EQ(store().hget(sessionsUri, "Members@odata.count"), "2");
}

TEST_F(Collection, IsStampedWhenAMemberIsAdded) {
    const unsigned long long before = wallClockMilliseconds();
    login();
    expectStampedBetween(before, store().hget(sessionsUri, "@odata.etag"), wallClockMilliseconds());
}

TEST_F(Collection, TakesTheMemberWhenItsCountCannotBeIncremented) {
    store().hset(sessionsUri, {{"Members@odata.count", "many"}});
    EXPECT_EQ(login().status(), "OK");
    EXPECT_EQ(store().hget(sessionsUri, "Members@odata.count"), "many");
    EXPECT_EQ(store().llen(membersKey), 1);
}

TEST_F(Collection, AdmitsAnEighthSession) {
    for (int i = 0; i < 7; ++i) {
        frontEnd().insertSession();
    }
    EXPECT_EQ(login().status(), "OK");
    EXPECT_EQ(store().hget(sessionsUri, "Members@odata.count"), "8");
}

TEST_F(Collection, LimitsSessionsOfItsOwnTypeOnly) {
    for (const char* type : {"\"HostConsole\"", "Redfish", "\"redfish\"", "\"Redfish\" ", ""}) {
        for (int i = 0; i < 3; ++i) {
            frontEnd().insertSession({.sessionType = type});
        }
    }
    for (int i = 0; i < 7; ++i) {
        frontEnd().insertSession();
    }
    EXPECT_EQ(login().status(), "OK");
    EXPECT_EQ(login().status(), "UNAVAILABLE");
}

TEST_F(Collection, CountsNoMembersThatNameNoSession) {
    const InsertedSession inserted = frontEnd().insertSession({.member = false});
    for (int i = 0; i < 3; ++i) {
        // A stray reference, texts that are too short, a hash of another kind.
        store().run({"LPUSH", membersKey, "&&ObjectRef " + inserted.uri + "x", "", "&&ObjectRef",
                     "&&ObjectRef " + std::string(membersKey)});
    }
    EXPECT_EQ(login().status(), "OK");
}

TEST_F(Collection, CountsAMemberByWhatFollowsItsFirstTwelveCharacters) {
    const InsertedSession inserted = frontEnd().insertSession({.member = false});
    for (int i = 0; i < 8; ++i) {
        store().run({"LPUSH", membersKey, "twelve chars" + inserted.uri});
    }
    EXPECT_EQ(login().status(), "UNAVAILABLE");
}

// --- who may log in

TEST_F(RequiredPrivilege, IsMetWhenOneOfTheMasksLiesWithinTheUsersPrivilege) {
    struct Case {
        const char* privilege;
        const char* required;
    };
    const Case cases[] = {
        {"9", "1"},           {"9", "9"},
        {"9", "8,1024"},      {"9", "1024,8"},
        {"9", "0"},           {"511", "511"},
        {"9", " 1"},          {"9", "+1"},
        {"9", "1 and more"},  {" 9", "8"},
        {"+9", "8"},          {"9;comment", "8"},
        {"-1", "2147483647"}, {"2147483647", "1073741824"},
        {"9", "2,1,"},        {"-2147483648", "-2147483648"},
        {"0", "0"},           {"9", "\t\n1"},
    };
    for (const Case& each : cases) {
        usePamTest("[env=PRIVILEGES=" + std::string(each.privilege) + "]");
        if (std::string(each.required) == "2,1,") {
            expectErrorLine("Privilege value type error stoi");
        }
        const Reply reply = login({.fields = {{"&&OperationPrivileges", each.required}}});
        emptyCollection();
        EXPECT_EQ(reply.status(), "OK") << each.privilege << " for " << each.required;
    }
}

TEST_F(RequiredPrivilege, IsMissedWhenNoMaskLiesWithinTheUsersPrivilege) {
    struct Case {
        const char* privilege;
        const char* required;
    };
    const Case cases[] = {
        {"9", "2"}, {"9", "11"},          {"9", "2,4,16"}, {"8", "1"},
        {"0", "1"}, {"-2147483648", "1"}, {"9", "-1"},     {"9", "-2147483648"},
    };
    for (const Case& each : cases) {
        usePamTest("[env=PRIVILEGES=" + std::string(each.privilege) + "]");
        const Reply reply = login({.fields = {{"&&OperationPrivileges", each.required}}});
        EXPECT_EQ(reply.status(), "FORBIDDEN") << each.privilege << " for " << each.required;
    }
}

TEST_F(RequiredPrivilege, IsNoneWhenTheRequestNamesNone) {
    usePamTest("env=PRIVILEGES=0");
    EXPECT_EQ(login({.fields = {{"&&OperationPrivileges", ""}}}).status(), "OK");
    EXPECT_EQ(login({.leaveOut = {"&&OperationPrivileges"}}).status(), "OK");
}

TEST_F(RequiredPrivilege, CannotBeMetByAPrivilegeThatIsNoNumber) {
    usePamTest("env=PRIVILEGES=abc");
    expectErrorLine("Privilege value type error: stoi");
    EXPECT_EQ(login({.fields = {{"&&OperationPrivileges", "1"}}}).status(), "FORBIDDEN");
    EXPECT_EQ(countLogged("Privilege value type error: stoi"), 1);
    EXPECT_EQ(login({.fields = {{"&&OperationPrivileges", "0"}}}).status(), "OK");
}

TEST_F(RequiredPrivilege, CannotBeMetByAPrivilegeBeyond32Bits) {
    expectErrorLine("Privilege value out of range: stoi");
    for (const char* privilege : {"2147483648", "-2147483649", "99999999999999999999999"}) {
        usePamTest("env=PRIVILEGES=" + std::string(privilege));
        EXPECT_EQ(login().status(), "FORBIDDEN") << privilege;
    }
    EXPECT_EQ(countLogged("Privilege value out of range: stoi"), 3);
}

// --- identifiers and tokens

TEST_F(Identifiers, AreEightAndSixtyFourRandomDigitsThatDifferFromLoginToLogin) {
    const Reply first = login();
    const Reply second = login();
    EXPECT_NE(first.location(), second.location());
    EXPECT_NE(first.token(), second.token());
    for (const Reply& reply : {first, second}) {
        EXPECT_TRUE(matches(reply.token(), "[0-9a-f]{64}"));
        // Eight draws of their own.
        EXPECT_NE(reply.token().substr(0, 8), reply.token().substr(8, 8));
    }
}

TEST_F(Identifiers, KeepLeadingZerosAndComeFromFourBytesAtATime) {
    restart(withRandomBytes(randomBytes + "these are never read"));
    const Reply reply = login();
    EXPECT_EQ(reply.location(), randomUri);
    EXPECT_EQ(reply.token(), randomToken);
}

TEST_F(Identifiers, AreDrawnAgainUntilTheSessionIsNotThereYet) {
    frontEnd().insertSession({.identifier = randomIdentifier});
    restart(withRandomBytes(randomBytes));
    Monitor monitor = controller.monitor();
    Request request = frontEnd().prepareLogin("alice", "a password");
    request.send();
    for (int draws = 0; draws < 50; ++draws) {
        monitor.until([&](const MonitoredCommand& command) {
            return command.words == Words{"HGET", randomUri, "Id"};
        });
    }
    EXPECT_FALSE(request.publishedAlready());
    store().run({"HDEL", randomUri, "Id"});
    EXPECT_EQ(request.reply().location(), randomUri);
}

TEST_F(Identifiers, AreDrawnAgainUntilTheTokenIsNotThereYet) {
    frontEnd().insertSession({.token = randomToken});
    restart(withRandomBytes(randomBytes));
    Monitor monitor = controller.monitor();
    Request request = frontEnd().prepareLogin("alice", "a password");
    request.send();
    for (int draws = 0; draws < 50; ++draws) {
        monitor.until([&](const MonitoredCommand& command) {
            return command.words == Words{"HGET", tokenKey(randomToken), "UserName"};
        });
    }
    EXPECT_FALSE(request.publishedAlready());
    store().hset(tokenKey(randomToken), {{"UserName", ""}});
    EXPECT_EQ(request.reply().token(), randomToken);
}

TEST_F(Identifiers, AreEmptyWhenTheRandomDeviceGivesNothing) {
    restart(withRandomBytes(""));
    const Reply reply = login();
    EXPECT_EQ(reply.status(), "OK");
    EXPECT_EQ(reply.location(), std::string(sessionsUri) + "/");
    EXPECT_EQ(reply.token(), "");
    EXPECT_EQ(store().hget("&&X-AUTH-TOKEN-", "SessionID"), std::string(sessionsUri) + "/");
    EXPECT_EQ(store().hget(reply.location(), "Id"), "\"\"");
}

TEST_F(Identifiers, WaitForARandomDeviceThatCannotBeOpened) {
    restart(withRandomBytes(randomBytes));
    const std::string device = controller.path("/random");
    ASSERT_EQ(chmod(device.c_str(), 0), 0);
    Monitor monitor = controller.monitor();
    Request request = frontEnd().prepareLogin("alice", "a password");
    request.send();
    waitUntil("the login has passed PAM", [this] { return pamRecords().size() == 2; });
    EXPECT_FALSE(request.publishedAlready());
    for (const MonitoredCommand& command : monitor.soFar()) {
        EXPECT_NE(command.words, (Words{"HGET", randomUri, "Id"}));
    }
    ASSERT_EQ(chmod(device.c_str(), S_IRUSR), 0);
    EXPECT_EQ(request.reply().location(), randomUri);
}

}  // namespace
}  // namespace testbed
