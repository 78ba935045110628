// Logging in and out over HTTPS.
#include <signal.h>

#include <algorithm>
#include <mutex>
#include <nlohmann/json.hpp>
#include <thread>

#include "support/web_test.h"

namespace testbed {
namespace {

using testing::HasSubstr;
using testing::Not;
using testing::UnorderedElementsAreArray;

constexpr char requestKeys[] = "&&/frontend/*";
constexpr char extendedInfo[] = "@Message.ExtendedInfo";

std::string credentials(const std::string& user, const std::string& password) {
    return nlohmann::json{{"UserName", user}, {"Password", password}}.dump();
}

std::string credentials(const Account& account) {
    return credentials(account.name, account.password);
}

class WebLogin : public WebTest {
  protected:
    HttpResponse login(const Account& account = administrator) {
        return client().login(account.name, account.password);
    }
    // A refused login: nothing of a session, in the answer or in the store.
    void expectRefusal(const HttpResponse& response, long status, const Words& ids) {
        EXPECT_EQ(response.status, status);
        EXPECT_THAT(messageIds(response), UnorderedElementsAreArray(ids));
        EXPECT_EQ(response.token(), "");
        EXPECT_EQ(response.location(), "");
        EXPECT_EQ(store().llen(membersKey), 0);
        EXPECT_EQ(store().keys(sessionsUri + std::string("/*")), Words{});
    }
};

// --- let in

TEST_F(WebLogin, AnswersWithTheSessionItsLocationAndItsToken) {
    const HttpResponse answer = login();
    EXPECT_EQ(answer.status, 201);
    EXPECT_EQ(store().hget(answer.location(), "UserName"), jsonQuoted(administrator.name));
    EXPECT_EQ(store().hget(tokenKey(answer.token()), "SessionID"), answer.location());
    nlohmann::json session = answer.json();
    EXPECT_EQ(session["@odata.id"], answer.location());
    EXPECT_EQ(session["@odata.type"], "#Session.v1_3_0.Session");
    EXPECT_EQ(session["UserName"], administrator.name);
    ASSERT_TRUE(session.contains("Password"));
    EXPECT_TRUE(session["Password"].is_null());
    EXPECT_FALSE(session.contains(extendedInfo));
    EXPECT_EQ(session["@odata.etag"], answer.header("etag"));
    EXPECT_EQ(answer.header("content-type"), "application/json");
    EXPECT_EQ(answer.header("cache-control"), "no-store");
}

TEST_F(WebLogin, IsTakenByTheMembersOfTheCollectionAsWell) {
    for (const char* path : {"", "/", "/Members", "/Members/"}) {
        const HttpResponse answer =
            newClient().post(sessionsUri + std::string(path), credentials(reader));
        EXPECT_EQ(answer.status, 201) << path;
        EXPECT_EQ(store().hget(tokenKey(answer.token()), "SessionID"), answer.location());
        EXPECT_EQ(store().hget(tokenKey(answer.token()), "Privilege"), reader.privilege);
    }
}

TEST_F(WebLogin, LetsTheTokenReadItsSession) {
    const HttpResponse answer = login();
    const HttpResponse session = client().get(answer.location());
    EXPECT_EQ(session.status, 200);
    EXPECT_EQ(session.json()["UserName"], administrator.name);
    EXPECT_EQ(session.header("etag"), answer.header("etag"));
    EXPECT_EQ(newClient().get(answer.location()).status, 401);
}

TEST_F(WebLogin, DoesNotLookAtTheTokenOfAnEarlierSession) {
    client().useToken(std::string(64, '0'));
    EXPECT_EQ(login().status, 201);
}

TEST_F(WebLogin, TellsTheServiceWhereTheClientIsAndWhereItsPageCameFrom) {
    usePamTest("env=PRIVILEGES=511");
    HttpClient elsewhere = newClient({.sourceAddress = "127.0.0.9"});
    const HttpResponse answer = elsewhere.request({.method = "POST",
                                                   .path = sessionsUri,
                                                   .headers = {"Origin: https://pages.example"},
                                                   .body = credentials("somebody", "anything")});
    EXPECT_EQ(answer.status, 201);
    EXPECT_EQ(answer.json()["ClientOriginIPAddress"], "127.0.0.9");
    EXPECT_EQ(store().hget(answer.location(), "&&RemoteIP"), "127.0.0.9");
    EXPECT_EQ(store().hget(tokenKey(answer.token()), "&&Origin"), "https://pages.example");
    ASSERT_FALSE(pamRecords().empty());
    EXPECT_EQ(pamRecords().front().at("rhost"), "127.0.0.9");
    EXPECT_EQ(pamRecords().front().at("user"), "somebody");
}

TEST_F(WebLogin, StoresThePasswordEncipheredOnly) {
    Monitor monitor = controller.monitor();
    EXPECT_EQ(login().status, 201);
    EXPECT_EQ(newClient().login(administrator.name, administrator.password).status, 201);

    Words enciphered;
    for (const MonitoredCommand& command : monitor.soFar()) {
        EXPECT_THAT(command.words, Not(testing::Contains(HasSubstr(administrator.password))));
        const auto name = std::find(command.words.begin(), command.words.end(), "Password");
        if (command.words.at(1).rfind("&&/frontend/", 0) == 0 && command.words.front() == "HSET" &&
            name != command.words.end()) {
            enciphered.push_back(*(name + 1));
        }
    }
    // Quotes, and two digits each for the nonce's, the text's and the tag's bytes.
    const std::size_t length = 2 + 2 * (12 + std::string(administrator.password).size() + 16);
    ASSERT_EQ(enciphered.size(), 2U);
    EXPECT_EQ(enciphered[0].size(), length);
    EXPECT_EQ(enciphered[1].size(), length);
    EXPECT_NE(enciphered[0], enciphered[1]);
}

TEST_F(WebLogin, TakesPasswordsOfAllCharacters) {
    usePamTest("env=PRIVILEGES=511 [prompt=Password: ]");
    const std::string passwords[] = {"\"quoted\"", "back\\slash\\/", "K\u00f6ln \u2603",
                                     "",           " blanks ",       std::string(1024, 'p')};
    for (const std::string& password : passwords) {
        const HttpResponse answer = client().login("somebody", password);
        EXPECT_EQ(answer.status, 201) << password;
        EXPECT_EQ(client().remove(answer.location()).status, 204);
        Words answers;
        for (const PamRecord& record : pamRecords()) {
            if (record.at("entry") == "auth") {
                answers.push_back(record.at("answer0"));
            }
        }
        ASSERT_FALSE(answers.empty());
        EXPECT_EQ(answers.back(), password);
    }
}

// --- refused

TEST_F(WebLogin, WithAWrongPasswordIsUnauthorized) {
    for (const auto& [user, password] :
         {std::pair{administrator.name, reader.password}, {"nobody-here", "anything"}, {"", ""}}) {
        const HttpResponse answer = client().login(user, password);
        expectRefusal(answer, 401, {"ExtendedError.1.2.InvalidCredentials"});
        EXPECT_NE(answer.header("www-authenticate"), "");
    }
}

TEST_F(WebLogin, WithoutThePrivilegeToDoSoIsForbidden) {
    for (const char* privilege : {"0", "510"}) {
        usePamTest(std::string("env=PRIVILEGES=") + privilege);
        expectRefusal(login(), 403, {"Base.1.12.InsufficientPrivilege"});
    }
}

TEST_F(WebLogin, WhileTheServiceIsSwitchedOffIsUnavailable) {
    store().hset(serviceUri, {{"ServiceEnabled", "false"}});
    const HttpResponse answer = login();
    expectRefusal(answer, 503, {"ExtendedError.1.2.ServiceDisabled"});
    EXPECT_NE(answer.header("retry-after"), "");
}

TEST_F(WebLogin, WithATooLongPasswordIsTheClientsFault) {
    const HttpResponse answer = client().login(administrator.name, std::string(1025, 'p'));
    expectRefusal(answer, 400, {"Base.1.12.StringValueTooLong"});
    EXPECT_EQ(answer.json()["error"][extendedInfo][0]["MessageArgs"],
              nlohmann::json({"(password string)", "1024"}));
}

TEST_F(WebLogin, WithoutTheKeyForPasswordsIsUnavailable) {
    expectWebErrorLine("the key file is missing or malformed");
    for (const char* key : {"", "0123", "not hexadecimal"}) {
        controller.writeFile(keyFile, key);
        expectRefusal(login(), 503, {"Base.1.12.ServiceTemporarilyUnavailable"});
    }
    controller.removeFile(keyFile);
    expectRefusal(login(), 503, {"Base.1.12.ServiceTemporarilyUnavailable"});
}

TEST_F(WebLogin, ThatTheCollectionDoesNotTakeIsTheServicesFault) {
    expectErrorLine("Failed to add session entry to Members.");
    store().run({"SADD", membersKey, "something else"});
    const HttpResponse answer = login();
    EXPECT_EQ(answer.status, 500);
    EXPECT_EQ(messageIds(answer), Words{"ExtendedError.1.2.UnprocessableEntity"});
    EXPECT_EQ(answer.token(), "");
}

class WebLoginWithAForeseenIdentifier : public WebLogin {
  protected:
    void SetUp() override {
        controller.writeFile("/random", "\xd2\xc0\xa9\x0f");
        startStore();
        startDaemon({.binds = {{controller.path("/random"), "/dev/urandom"}}});
        web.start();
    }
};

TEST_F(WebLoginWithAForeseenIdentifier, ThatTheDatabaseDoesNotTakeIsTheServicesFault) {
    expectErrorLine("Failed to add session entry.");
    const std::string uri = std::string(sessionsUri) + "/0fa9c0d2";
    store().run({"SADD", uri, "something else"});
    const HttpResponse answer = login();
    EXPECT_EQ(answer.status, 500);
    EXPECT_EQ(messageIds(answer), Words{"ExtendedError.1.2.DatabaseOperationError"});
    EXPECT_EQ(answer.token(), "");
}

// --- the limit

TEST_F(WebLogin, BeyondEightSessionsIsUnavailable) {
    for (int i = 0; i < 7; ++i) {
        frontEnd().insertSession({.userName = "another" + std::to_string(i)});
    }
    EXPECT_EQ(login().status, 201);
    const HttpResponse ninth = newClient().login(reader.name, reader.password);
    EXPECT_EQ(ninth.status, 503);
    EXPECT_EQ(messageIds(ninth), Words{"Base.1.12.SessionLimitExceeded"});
    EXPECT_NE(ninth.header("retry-after"), "");
    EXPECT_EQ(store().llen(membersKey), 8);
}

TEST_F(WebLogin, InParallelIsServedUpToTheLimit) {
    constexpr std::size_t attempts = 16;
    constexpr std::size_t limit = 6;
    std::mutex mutex;
    std::vector<HttpResponse> answers;
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < attempts; ++i) {
        threads.emplace_back([&] {
            try {
                HttpResponse answer = newClient().login(reader.name, reader.password);
                const std::lock_guard lock(mutex);
                answers.push_back(std::move(answer));
            } catch (const Failure& failure) {
                ADD_FAILURE() << failure.what();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }

    EXPECT_EQ(answers.size(), attempts);
    Words admitted;
    for (const HttpResponse& answer : answers) {
        if (answer.status == 201) {
            admitted.push_back("&&ObjectRef " + answer.location());
            EXPECT_EQ(store().hget(tokenKey(answer.token()), "SessionID"), answer.location());
        } else {
            EXPECT_EQ(answer.status, 503);
            EXPECT_EQ(messageIds(answer), Words{"Base.1.12.SessionLimitExceeded"});
        }
    }
    EXPECT_EQ(admitted.size(), limit);
    waitUntil("the sessions that were too many have ended",
              [&] { return store().lrange(membersKey).size() == limit; });
    EXPECT_THAT(store().lrange(membersKey), UnorderedElementsAreArray(admitted));
}

TEST_F(WebLogin, OfOneUserLeavesTwoPlacesToOthers) {
    for (int i = 0; i < 6; ++i) {
        EXPECT_EQ(newClient().login(reader.name, reader.password).status, 201);
    }
    const HttpResponse seventh = newClient().login(reader.name, reader.password);
    EXPECT_EQ(seventh.status, 503);
    EXPECT_EQ(messageIds(seventh), Words{"Base.1.12.SessionLimitExceeded"});
    EXPECT_THAT(seventh.json()["error"][extendedInfo][0]["Resolution"].get<std::string>(),
                HasSubstr("This user has 6 of the 8 sessions"));
    EXPECT_NE(seventh.header("retry-after"), "");
    EXPECT_EQ(seventh.token(), "");
    EXPECT_EQ(seventh.location(), "");
    waitUntil("the seventh session has ended", [this] { return store().llen(membersKey) == 6; });

    // Whose password is wrong learns nothing of it.
    EXPECT_EQ(newClient().login(reader.name, "wrong").status, 401);
    // A temporary session is none of the six.
    HttpClient basic = newClient();
    basic.useBasic(reader.name, reader.password);
    EXPECT_EQ(basic.get(serviceUri).status, 200);
    EXPECT_EQ(newClient().login(operatorAccount.name, operatorAccount.password).status, 201);
    EXPECT_EQ(login().status, 201);
    EXPECT_EQ(store().llen(membersKey), 8);
}

TEST_F(WebLogin, TakesTheLastPlaceOnlyWithThePrivilegeToConfigureTheManager) {
    for (int i = 0; i < 7; ++i) {
        frontEnd().insertSession({.userName = "another" + std::to_string(i)});
    }
    const HttpResponse refused = newClient().login(reader.name, reader.password);
    EXPECT_EQ(refused.status, 503);
    EXPECT_EQ(messageIds(refused), Words{"Base.1.12.SessionLimitExceeded"});
    EXPECT_THAT(refused.json()["error"][extendedInfo][0]["Resolution"].get<std::string>(),
                HasSubstr("for users who can configure the manager"));
    waitUntil("its session has ended", [this] { return store().llen(membersKey) == 7; });
    HttpClient basic = newClient();
    basic.useBasic(operatorAccount.name, operatorAccount.password);
    EXPECT_EQ(basic.get(serviceUri).status, 503);
    waitUntil("its session has ended", [this] { return store().llen(membersKey) == 7; });
    EXPECT_EQ(login().status, 201);
    EXPECT_EQ(store().llen(membersKey), 8);
}

// --- a password that must be changed

TEST_F(WebLogin, WithAPasswordThatMustBeChangedTellsWhere) {
    const HttpResponse answer = login(expired);
    EXPECT_EQ(answer.status, 201);
    EXPECT_NE(answer.token(), "");
    nlohmann::json session = answer.json();
    EXPECT_EQ(session["@odata.id"], answer.location());
    ASSERT_EQ(session[extendedInfo].size(), 1U);
    nlohmann::json message = session.at(extendedInfo).at(0);
    EXPECT_EQ(message["MessageId"], "Base.1.12.PasswordChangeRequired");
    EXPECT_EQ(message["MessageArgs"], nlohmann::json{expired.uri});
    EXPECT_THAT(message["Message"].get<std::string>(), HasSubstr(expired.uri));
}

TEST_F(WebLogin, WithAPasswordThatMustBeChangedAllowsThatChangeAndTheLogout) {
    const InsertedSession another = frontEnd().insertSession({.userName = expired.name});
    const HttpResponse answer = login(expired);
    const std::pair<const char*, std::string> refused[] = {
        {"GET", serviceUri},
        {"HEAD", serviceUri},
        {"PATCH", serviceUri},
        {"GET", sessionsUri},
        {"GET", answer.location()},
        {"GET", another.uri},
        {"DELETE", another.uri},
        {"DELETE", expired.uri},
        {"PATCH", reader.uri},
        {"GET", "/redfish/v1/Systems"},
        {"GET", "/redfish/v1/no/such/thing"},
    };
    for (const auto& [method, path] : refused) {
        const HttpResponse refusal = client().request({.method = method, .path = path});
        EXPECT_EQ(refusal.status, 403) << method << " " << path;
        if (method != std::string("HEAD")) {
            EXPECT_EQ(messageIds(refusal), Words{"Base.1.12.PasswordChangeRequired"});
            EXPECT_EQ(refusal.json()["error"][extendedInfo][0]["MessageArgs"],
                      nlohmann::json{expired.uri});
        }
    }
    EXPECT_TRUE(store().exists(another.uri));
    EXPECT_EQ(client().get("/redfish/v1").status, 200);
    EXPECT_EQ(client().get(expired.uri).status, 200);
    // No account service is there to carry it out.
    EXPECT_EQ(client().patch(expired.uri, R"({"Password":"Another-1-word"})").status, 501);
    EXPECT_EQ(client().remove(answer.location()).status, 204);
    EXPECT_FALSE(store().exists(answer.location()));
}

// --- nobody answers

TEST_F(WebLogin, IsUnavailableWhileTheServiceDoesNotRun) {
    expectExitStatus({.bySignal = true, .value = SIGKILL});
    controller.daemon().kill();
    const HttpResponse answer = login();
    expectRefusal(answer, 503, {"Base.1.12.ServiceTemporarilyUnavailable"});
    EXPECT_NE(answer.header("retry-after"), "");
    waitUntil("nothing of the request is left",
              [this] { return store().keys(requestKeys).empty(); });
}

TEST_F(WebLogin, IsServedAgainOnceTheServiceRunsAgain) {
    controller.daemon().kill();
    EXPECT_EQ(login().status, 503);
    startDaemon();
    EXPECT_EQ(login().status, 201);
}

TEST_F(WebLogin, IsUnavailableWhileTheStoreDoesNotRun) {
    expectWebErrorLine("redis.sock failed");
    EXPECT_EQ(login().status, 201);
    controller.stopStore();
    for (int i = 0; i < 2; ++i) {
        const HttpResponse answer = login();
        EXPECT_EQ(answer.status, 503);
        EXPECT_EQ(messageIds(answer), Words{"Base.1.12.ServiceTemporarilyUnavailable"});
        EXPECT_NE(answer.header("retry-after"), "");
    }
}

class WebLoginWithoutTheService : public WebLogin {
  protected:
    void SetUp() override {
        startStore();
        web.start();
    }
};

TEST_F(WebLoginWithoutTheService, IsUnavailableBeforeItHasEverRun) {
    expectRefusal(login(), 503, {"Base.1.12.ServiceTemporarilyUnavailable"});
}

class WebLoginToASlowService : public WebLogin {
  protected:
    WebLoginToASlowService() {
        changeSetting("answerTimeout", "0.3");
        usePamTest("env=PRIVILEGES=511");
        holdPam();
    }

    // While a login is held whose client was sent away: it goes on, and then its session goes.
    // `others` is the number of sessions that stay.
    void expectTheLateSessionToGo(long long others = 0) {
        EXPECT_EQ(store().llen(membersKey), others);
        Monitor monitor = controller.monitor();
        releasePam();
        monitor.until([](const MonitoredCommand& command) {
            return command.words.size() == 3 && command.words[1] == deleteChannel;
        });
        waitUntil("the session that nobody waits for is removed", [&] {
            const auto expected = static_cast<std::size_t>(others);
            return store().llen(membersKey) == others &&
                   store().keys(sessionsUri + std::string("/*")).size() == expected &&
                   store().keys(tokenKey("*")).size() == expected &&
                   store().keys(requestKeys).empty();
        });
    }
};

TEST_F(WebLoginToASlowService, IsUnavailableAndItsSessionGoesOnceItIsThere) {
    const HttpResponse answer = login();
    EXPECT_EQ(answer.status, 503);
    EXPECT_EQ(messageIds(answer), Words{"Base.1.12.ServiceTemporarilyUnavailable"});
    EXPECT_NE(answer.header("retry-after"), "");
    waitUntilPamHolds();
    expectTheLateSessionToGo();
}

TEST_F(WebLoginToASlowService, IsUnavailableForARequestWithCredentialsAsWell) {
    client().useBasic("somebody", "anything");
    EXPECT_EQ(client().get(serviceUri).status, 503);
    waitUntilPamHolds();
    expectTheLateSessionToGo();
}

TEST_F(WebLoginToASlowService, DoesNotHoldUpOtherRequests) {
    client().useToken(frontEnd().insertSession().token);
    EXPECT_EQ(newClient().login("somebody", "anything").status, 503);
    waitUntilPamHolds();
    EXPECT_EQ(client().get(serviceUri).status, 200);
    expectTheLateSessionToGo(1);
}

TEST_F(WebLogin, WhileTheStoreTakesNothingIsUnavailableAtOnce) {
    Monitor monitor = controller.monitor();
    store().run({"CONFIG", "SET", "maxmemory", "1"});
    EXPECT_EQ(login().status, 503);
    store().run({"CONFIG", "SET", "maxmemory", "0"});
    for (const MonitoredCommand& command : monitor.soFar()) {
        EXPECT_NE(command.words.front(), "publish");
    }
}

TEST_F(WebLogin, LeavesNoSessionWhoseAnswerCannotBeTakenAtFirst) {
    store().run({"ACL", "SETUSER", "default", "-del"});
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(login().status, 503);
    }
    EXPECT_EQ(store().llen(membersKey), 3);
    store().run({"ACL", "SETUSER", "default", "+del"});
    waitUntil("the sessions that nobody holds are gone",
              [this] { return store().llen(membersKey) == 0; });
}

TEST_F(WebLogin, WithATooLongNameIsTheClientsFault) {
    EXPECT_EQ(messageIds(client().login(std::string(255, 'x'), "any")),
              Words{"ExtendedError.1.2.InvalidCredentials"});
    expectRefusal(client().login(std::string(256, 'x'), "any"), 400,
                  {"Base.1.12.StringValueTooLong"});
}

// --- bodies

TEST_F(WebLogin, RefusesBodiesThatAreNotAnObjectOfJson) {
    usePamTest("env=PRIVILEGES=511");
    const std::string nested = std::string(40, '[') + std::string(40, ']');
    const std::string bodies[] = {
        "",
        " ",
        "no JSON",
        "null",
        "17",
        "\"text\"",
        "[]",
        '[' + credentials(administrator) + ']',
        "{",
        credentials(administrator) + "}",
        credentials(administrator) + credentials(administrator),
        R"({'UserName':'admin','Password':'x'})",
        R"({"UserName":"admin","Password":"x",})",
        R"({"UserName":"admin","Password":NaN})",
        R"({"UserName":"admin","Password":0x10})",
        R"({"UserName":"admin","Password":"\ud800"})",
        R"({"UserName":"admin","Password":"x"} // ready)",
        R"({"UserName":"admin","UserName":"reader","Password":"x"})",
        R"({"UserName":"admin","Password":"x","Password":"x"})",
        R"({"UserName":"admin","\u0055serName":"reader","Password":"x"})",
        R"({"UserName":"admin","Password":"x","Oem":{"a":1,"a":2}})",
        R"({"UserName":"admin","Password":"x","Oem":)" + nested + "}",
        R"({"UserName":)" + std::string(30000, '[') + std::string(30000, ']') + "}",
        std::string("{\"UserName\":\"admin\0\",\"Password\":\"x\"}", 35),
        "{\"UserName\":\"\xff\",\"Password\":\"x\"}",
        "{\"\xc3\":\"admin\",\"Password\":\"x\"}",
    };
    for (const std::string& body : bodies) {
        SCOPED_TRACE(body.substr(0, 100));
        expectRefusal(client().post(sessionsUri, body), 400, {"Base.1.12.MalformedJSON"});
    }
    EXPECT_TRUE(pamRecords().empty());
}

TEST_F(WebLogin, NamesEachPropertyThatIsWrong) {
    usePamTest("env=PRIVILEGES=511");
    struct Row {
        std::string body;
        std::map<std::string, std::string> faults;  // identifiers by related property
    };
    const std::string missing = "Base.1.12.PropertyMissing";
    const std::string type = "Base.1.12.PropertyValueTypeError";
    const std::string format = "Base.1.12.PropertyValueFormatError";
    const std::string unknown = "Base.1.12.PropertyUnknown";
    const std::string readOnly = "Base.1.12.PropertyNotWritable";
    const Row rows[] = {
        {"{}", {{"/UserName", missing}, {"/Password", missing}}},
        {R"({"UserName":"a"})", {{"/Password", missing}}},
        {R"({"Password":"secret"})", {{"/UserName", missing}}},
        {R"({"username":"a","Password":"secret"})",
         {{"/UserName", missing}, {"/username", unknown}}},
        {R"({"UserName":null,"Password":null})", {{"/UserName", type}, {"/Password", type}}},
        {R"({"UserName":"a","Password":81192})", {{"/Password", type}}},
        {R"({"UserName":true,"Password":["secret"]})", {{"/UserName", type}, {"/Password", type}}},
        {R"({"UserName":{"a":1},"Password":{"secret":1}})",
         {{"/UserName", type}, {"/Password", type}}},
        {R"({"UserName":"a\u0000b","Password":"secret"})", {{"/UserName", format}}},
        {R"({"UserName":"a","Password":"secret\u0000"})", {{"/Password", format}}},
        {R"({"UserName":"a","Password":"secret","Shell":"x"})", {{"/Shell", unknown}}},
        {R"({"UserName":"a","Password":"secret","":1})", {{"/", unknown}}},
        {R"({"UserName":"a","Password":"secret","Id":"7","SessionType":"IPMI"})",
         {{"/Id", readOnly}, {"/SessionType", readOnly}}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.body);
        const HttpResponse answer = client().post(sessionsUri, row.body);
        EXPECT_EQ(answer.status, 400);
        EXPECT_THAT(answer.body, Not(HasSubstr("secret")));
        EXPECT_THAT(answer.body, Not(HasSubstr("81192")));
        nlohmann::json body = answer.json();
        std::map<std::string, std::string> faults;
        for (nlohmann::json& message : body.at("error").at(extendedInfo)) {
            faults[message["RelatedProperties"][0]] = message["MessageId"];
        }
        EXPECT_EQ(faults, row.faults);
    }
    EXPECT_TRUE(pamRecords().empty());
    EXPECT_EQ(store().llen(membersKey), 0);
}

TEST_F(WebLogin, PassesOverAnnotations) {
    EXPECT_EQ(client()
                  .post(sessionsUri, R"({"@odata.type":"#Session.v1_3_0.Session",)" +
                                         credentials(administrator).substr(1))
                  .status,
              201);
}

TEST_F(WebLogin, TakesNothingButJson) {
    const std::pair<const char*, long> types[] = {
        {"Content-Type:", 415},
        {"Content-Type: text/plain", 415},
        {"Content-Type: application/x-www-form-urlencoded", 415},
        {"Content-Type: application/jsonx", 415},
        {"Content-Type: application/json", 201},
        {"Content-Type: Application/JSON;charset=utf-8", 201},
    };
    for (const auto& [type, status] : types) {
        const HttpResponse answer = client().request({.method = "POST",
                                                      .path = sessionsUri,
                                                      .headers = {type},
                                                      .body = credentials(administrator)});
        EXPECT_EQ(answer.status, status) << type;
        if (status == 415) {
            EXPECT_EQ(messageIds(answer), Words{"ExtendedError.1.2.MediaTypeNotSupported"});
        }
    }
    EXPECT_EQ(store().llen(membersKey), 2);
}

TEST_F(WebLogin, TakesABodyInTheSmallestChunks) {
    std::string body = credentials(administrator);
    body.insert(1, 30000, ' ');
    std::string chunks;
    for (const char byte : body) {
        chunks += std::string("1\r\n") + byte + "\r\n";
    }
    TlsConnection connection = newClient().connect();
    EXPECT_TRUE(connection.send("POST " + std::string(sessionsUri) +
                                " HTTP/1.1\r\nHost: testbed\r\nTransfer-Encoding: chunked\r\n"
                                "Content-Type: application/json\r\nConnection: close\r\n\r\n" +
                                chunks + "0\r\n\r\n"));
    EXPECT_THAT(connection.receiveAll(), testing::StartsWith("HTTP/1.1 201 "));
}

TEST_F(WebLogin, TakesBodiesOf64KibibytesAndNoLongerOnes) {
    constexpr std::size_t longest = 65536;
    std::string body = credentials(administrator);
    body.insert(1, longest - body.size(), ' ');
    for (const char* framing : {"Content-Type: application/json", "Transfer-Encoding: chunked"}) {
        const auto post = [&](const std::string& text) {
            return newClient().request(
                {.method = "POST", .path = sessionsUri, .headers = {framing}, .body = text});
        };
        EXPECT_EQ(post(body).status, 201) << framing;
        const HttpResponse answer = post(' ' + body);
        EXPECT_EQ(answer.status, 413) << framing;
        EXPECT_EQ(messageIds(answer), Words{"ExtendedError.1.2.RequestTooLarge"});
    }
    EXPECT_EQ(store().llen(membersKey), 2);
}

// --- logging out

class WebLogout : public WebTest {
  protected:
    // A request by a session with this privilege.
    HttpResponse removedBy(const std::string& user, const std::string& privilege,
                           const std::string& uri) {
        HttpClient asking = newClient();
        asking.useToken(frontEnd().insertSession({.userName = user, .privilege = privilege}).token);
        return asking.remove(uri);
    }
};

TEST_F(WebLogout, EndsTheSessionAndItsToken) {
    const HttpResponse login = client().login(administrator.name, administrator.password);
    const HttpResponse answer = client().remove(login.location());
    EXPECT_EQ(answer.status, 204);
    EXPECT_EQ(answer.body, "");
    EXPECT_FALSE(store().exists(login.location()));
    EXPECT_FALSE(store().exists(tokenKey(login.token())));
    EXPECT_EQ(store().llen(membersKey), 0);
    EXPECT_EQ(client().get(login.location()).status, 401);
    EXPECT_EQ(client().remove(login.location()).status, 401);
}

TEST_F(WebLogout, OfTheSessionItselfNeedsNoPrivilege) {
    for (const char* privilege : {"0", "1", "9", "511"}) {
        const InsertedSession session = frontEnd().insertSession({.privilege = privilege});
        client().useToken(session.token);
        EXPECT_EQ(client().remove(session.uri).status, 204) << privilege;
        EXPECT_FALSE(store().exists(session.uri));
    }
}

TEST_F(WebLogout, OfAnotherSessionNeedsThePrivilegeForIt) {
    struct Row {
        const char* user;
        const char* privilege;
        long status;
    };
    const Row rows[] = {
        {"reader", "9", 403}, {"reader", "509", 403}, {"reader", "1", 403},   {"admin", "1", 403},
        {"admin", "9", 204},  {"reader", "3", 204},   {"reader", "511", 204},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.user + std::string(" with ") + row.privilege);
        const InsertedSession session = frontEnd().insertSession({.userName = "admin"});
        const HttpResponse answer = removedBy(row.user, row.privilege, session.uri);
        EXPECT_EQ(answer.status, row.status);
        EXPECT_EQ(store().exists(session.uri), row.status == 403);
        if (row.status == 403) {
            EXPECT_EQ(messageIds(answer), Words{"Base.1.12.InsufficientPrivilege"});
        }
    }
}

TEST_F(WebLogout, OfAnUnknownSessionFindsNothing) {
    const std::string unknown = std::string(sessionsUri) + "/0fa9c0d2";
    for (const char* privilege : {"9", "511"}) {
        const HttpResponse answer = removedBy("admin", privilege, unknown);
        EXPECT_EQ(answer.status, 404);
        EXPECT_EQ(messageIds(answer), Words{"Base.1.12.ResourceMissingAtURI"});
    }
}

TEST_F(WebLogout, WithoutAValidTokenIsUnauthorized) {
    const InsertedSession session = frontEnd().insertSession();
    const std::string unknown = std::string(sessionsUri) + "/0fa9c0d2";
    for (const std::string& token : {std::string(), std::string(64, '0')}) {
        client().useToken(token);
        EXPECT_EQ(client().remove(session.uri).status, 401);
        EXPECT_EQ(client().remove(unknown).status, 401);
    }
    EXPECT_TRUE(store().exists(session.uri));
}

TEST_F(WebLogout, OfTheCollectionIsNotAllowed) {
    client().useToken(frontEnd().insertSession().token);
    const HttpResponse answer = client().remove(sessionsUri);
    EXPECT_EQ(answer.status, 405);
    EXPECT_EQ(answer.header("allow"), "GET,HEAD,POST");
}

TEST_F(WebLogout, KeepsToItsPrecondition) {
    const InsertedSession session = frontEnd().insertSession();
    client().useToken(session.token);
    const auto removeIf = [&](const std::string& etags) {
        return client().request(
            {.method = "DELETE", .path = session.uri, .headers = {"If-Match: " + etags}});
    };
    const HttpResponse refused = removeIf("\"another\"");
    EXPECT_EQ(refused.status, 412);
    EXPECT_EQ(messageIds(refused), Words{"Base.1.12.PreconditionFailed"});
    EXPECT_TRUE(store().exists(session.uri));
    EXPECT_EQ(removeIf(client().get(session.uri).header("etag")).status, 204);
    EXPECT_FALSE(store().exists(session.uri));
}

TEST_F(WebLogout, OfASessionOfAnotherKindIsTheClientsFault) {
    expectErrorLine("Request SessionType is not Redfish.");
    const InsertedSession session = frontEnd().insertSession({.sessionType = "\"IPMI\""});
    const HttpResponse answer = removedBy("admin", "511", session.uri);
    EXPECT_EQ(answer.status, 400);
    EXPECT_EQ(messageIds(answer), Words{"ExtendedError.1.2.UnprocessableEntity"});
    EXPECT_TRUE(store().exists(session.uri));
}

TEST_F(WebLogout, WhileTheServiceIsSwitchedOffIsUnavailable) {
    const InsertedSession session = frontEnd().insertSession();
    store().hset(serviceUri, {{"ServiceEnabled", "false"}});
    client().useToken(session.token);
    const HttpResponse answer = client().remove(session.uri);
    EXPECT_EQ(answer.status, 503);
    EXPECT_EQ(messageIds(answer), Words{"ExtendedError.1.2.ServiceDisabled"});
    EXPECT_NE(answer.header("retry-after"), "");
    EXPECT_TRUE(store().exists(session.uri));
}

TEST_F(WebLogout, WhileTheServiceDoesNotRunIsUnavailable) {
    expectExitStatus({.bySignal = true, .value = SIGKILL});
    const InsertedSession session = frontEnd().insertSession();
    client().useToken(session.token);
    controller.daemon().kill();
    EXPECT_EQ(client().remove(session.uri).status, 503);
    EXPECT_TRUE(store().exists(session.uri));
}

}  // namespace
}  // namespace testbed
