// Who sends a request, what they may do, and the connection that it comes over.
#include <nlohmann/json.hpp>

#include "support/web_test.h"

namespace testbed {
namespace {

void expectUnauthorized(const HttpResponse& response, const std::string& id) {
    EXPECT_EQ(response.status, 401);
    EXPECT_EQ(response.header("www-authenticate"), "Basic realm=\"Redfish\"");
    EXPECT_EQ(messageIds(response), Words{id});
}

constexpr char noValidSession[] = "Base.1.12.NoValidSession";
constexpr char invalidCredentials[] = "ExtendedError.1.2.InvalidCredentials";

// --- tokens

using WebToken = WebTest;

TEST_F(WebToken, IsRequiredWhereverNotEverybodyMayRead) {
    const std::string session = frontEnd().insertSession().uri;
    for (const std::string& path :
         {std::string(serviceUri), std::string(sessionsUri), session, std::string(reader.uri),
          std::string("/redfish/v1/AccountService"), std::string("/redfish/v1/no/such/thing")}) {
        for (const char* method : {"GET", "PATCH", "PUT", "DELETE"}) {
            SCOPED_TRACE(method + (' ' + path));
            expectUnauthorized(client().request({.method = method, .path = path}), noValidSession);
        }
    }
}

TEST_F(WebToken, ThatIsUnknownOrMalformedIsUnauthorized) {
    const std::string known = frontEnd().insertSession().token;
    const std::string headers[] = {
        "X-Auth-Token;",  // without a value
        "X-Auth-Token: 0",
        "X-Auth-Token: *",
        "X-Auth-Token: " + std::string(64, '*'),
        "X-Auth-Token: " + std::string(64, 'g'),
        "X-Auth-Token: " + std::string(64, '0'),
        "X-Auth-Token: " + known + "0",
        "X-Auth-Token: " + known.substr(1),
        "X-Auth-Token: " + known + ", " + known,
        "X-Auth-Token: \"" + known + "\"",
        "X-Auth-Token: " + std::string(4000, 'a'),
    };
    for (const std::string& header : headers) {
        SCOPED_TRACE(header.substr(0, 100));
        expectUnauthorized(client().request({.path = serviceUri, .headers = {header}}),
                           noValidSession);
    }
    EXPECT_EQ(client().request({.path = serviceUri, .headers = {"x-auth-token: " + known}}).status,
              200);
}

TEST_F(WebToken, ThatHasExpiredIsUnauthorizedThoughItsRecordIsStillThere) {
    const std::string then = std::to_string(uptime() - 60);
    const InsertedSession session =
        frontEnd().insertSession({.timeout = "60", .lastAccessed = then, .member = false});
    client().useToken(session.token);
    for (const std::string& path : {std::string(serviceUri), session.uri}) {
        expectUnauthorized(client().get(path), noValidSession);
    }
    expectUnauthorized(client().remove(session.uri), noValidSession);
    EXPECT_EQ(store().hget(tokenKey(session.token), "LastAccessed"), then);
    EXPECT_TRUE(store().exists(session.uri));
}

TEST_F(WebToken, NotesTheUseOfItsSession) {
    struct Row {
        const char* method;
        std::string path;
        long status;
    };
    const Row rows[] = {
        {"GET", serviceUri, 200},
        {"HEAD", serviceUri, 200},
        {"GET", "/redfish/v1/no/such/thing", 404},
        {"PUT", serviceUri, 405},
        {"PATCH", serviceUri, 403},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.method + (' ' + row.path));
        const InsertedSession session = frontEnd().insertSession(
            {.privilege = "9", .lastAccessed = std::to_string(uptime() - 100)});
        const long before = uptime();
        client().useToken(session.token);
        EXPECT_EQ(client().request({.method = row.method, .path = row.path}).status, row.status);
        const long noted = std::stol(store().hget(tokenKey(session.token), "LastAccessed"));
        EXPECT_GE(noted, before);
        EXPECT_LE(noted, uptime());
    }
}

TEST_F(WebToken, IsNotLookedAtWhereEverybodyMayRead) {
    const std::string then = std::to_string(uptime() - 100);
    const InsertedSession session = frontEnd().insertSession({.lastAccessed = then});
    for (const std::string& token : {session.token, std::string(64, '0')}) {
        client().useToken(token);
        EXPECT_EQ(client().get("/redfish/v1/").status, 200);
    }
    EXPECT_EQ(store().hget(tokenKey(session.token), "LastAccessed"), then);
}

TEST_F(WebToken, DoesNotBringBackARecordThatHasGone) {
    const InsertedSession session = frontEnd().insertSession();
    client().useToken(session.token);
    EXPECT_EQ(client().get(serviceUri).status, 200);
    store().del(tokenKey(session.token));
    expectUnauthorized(client().get(serviceUri), noValidSession);
    EXPECT_FALSE(store().exists(tokenKey(session.token)));
}

TEST_F(WebToken, WhoseRecordIsIncompleteIsUnauthorized) {
    for (const char* field : {"UserName", "SessionID", "LastAccessed", "Timeout"}) {
        SCOPED_TRACE(field);
        client().useToken(
            frontEnd().insertSession({.member = false, .leaveOutOfToken = {field}}).token);
        expectUnauthorized(client().get(serviceUri), noValidSession);
    }
}

TEST_F(WebToken, WithoutAPrivilegeAllowsNothing) {
    for (const char* privilege : {"", "no number", "-1"}) {
        client().useToken(frontEnd().insertSession({.privilege = privilege}).token);
        EXPECT_EQ(client().get(serviceUri).status, 403) << privilege;
    }
}

TEST_F(WebToken, IsUnavailableToCheckWhileTheStoreDoesNotRun) {
    expectWebErrorLine("redis.sock failed");
    client().useToken(frontEnd().insertSession().token);
    EXPECT_EQ(client().get(serviceUri).status, 200);
    controller.stopStore();
    for (int i = 0; i < 2; ++i) {
        const HttpResponse answer = client().get(serviceUri);
        EXPECT_EQ(answer.status, 503);
        EXPECT_NE(answer.header("retry-after"), "");
    }
}

TEST_F(WebToken, IsUnavailableToCheckWhileTheStoreRefusesToReadIt) {
    client().useToken(frontEnd().insertSession().token);
    store().run({"ACL", "SETUSER", "default", "-hmget"});
    EXPECT_EQ(client().get(serviceUri).status, 503);
    store().run({"ACL", "SETUSER", "default", "+hmget"});
    EXPECT_EQ(client().get(serviceUri).status, 200);
}

TEST_F(WebToken, BelongsToTheOriginItWasGivenTo) {
    const std::string login =
        nlohmann::json{{"UserName", reader.name}, {"Password", reader.password}}.dump();
    const HttpResponse session = client().request({.method = "POST",
                                                   .path = sessionsUri,
                                                   .headers = {"Origin: https://pages.example"},
                                                   .body = login});
    ASSERT_EQ(session.status, 201);
    client().useToken(session.token());
    const auto statusFrom = [&](const std::string& header) {
        return client().request({.path = session.location(), .headers = {header}}).status;
    };
    EXPECT_EQ(statusFrom("Origin: https://pages.example"), 200);
    EXPECT_EQ(statusFrom("Origin:"), 200);
    EXPECT_EQ(statusFrom("Origin: https://another.example"), 403);
    EXPECT_EQ(statusFrom("Origin: null"), 403);
    const HttpResponse refused = client().request({.method = "DELETE",
                                                   .path = session.location(),
                                                   .headers = {"Origin: http://pages.example"}});
    EXPECT_EQ(refused.status, 403);
    EXPECT_EQ(messageIds(refused), Words{"Base.1.12.AccessDenied"});
    EXPECT_TRUE(store().exists(session.location()));
}

// --- HTTP Basic

class WebBasic : public WebTest {
  protected:
    // It is gone soon after its last use.
    void expectNoSession() {
        waitUntil("no session is left", [this] {
            return store().llen(membersKey) == 0 &&
                   store().keys(sessionsUri + std::string("/*")).empty() &&
                   store().keys(tokenKey("*")).empty();
        });
    }
    HttpResponse getWith(const std::string& authorization) {
        return client().request(
            {.path = serviceUri, .headers = {"Authorization: " + authorization}});
    }
};

TEST_F(WebBasic, ServesARequestAndLeavesNoSession) {
    client().useBasic(administrator.name, administrator.password);
    for (int i = 0; i < 10; ++i) {
        const HttpResponse answer = client().get(serviceUri);
        EXPECT_EQ(answer.status, 200);
        EXPECT_EQ(answer.json()["@odata.id"], serviceUri);
        EXPECT_EQ(answer.token(), "");
    }
    expectNoSession();
    EXPECT_EQ(client().patch(serviceUri, R"({"SessionTimeout":600})").status, 200);
    EXPECT_EQ(store().hget(serviceUri, "SessionTimeout"), "600");
    expectNoSession();
}

TEST_F(WebBasic, LeavesNoSessionWhenTheRequestFails) {
    struct Row {
        const char* method;
        const char* path;
        const char* body;
        long status;
    };
    const Row rows[] = {
        {"GET", "/redfish/v1/no/such/thing", "", 404},
        {"PUT", serviceUri, "{}", 405},
        {"PATCH", serviceUri, R"({"SessionTimeout":600})", 403},
        {"PATCH", reader.uri, "{}", 501},
        {"GET", administrator.uri, "", 403},
    };
    client().useBasic(reader.name, reader.password);
    for (const Row& row : rows) {
        SCOPED_TRACE(row.method + std::string(" ") + row.path);
        EXPECT_EQ(
            client().request({.method = row.method, .path = row.path, .body = row.body}).status,
            row.status);
    }
    expectNoSession();
    client().useBasic(administrator.name, administrator.password);
    EXPECT_EQ(client().patch(serviceUri, "no JSON").status, 400);
    expectNoSession();
}

TEST_F(WebBasic, LeavesNoSessionWhenItsTokenCannotBeRead) {
    // The daemon's audit entries need the command as well.
    expectErrorLine("Failed to generate LogEntry.");
    store().run({"ACL", "SETUSER", "default", "-hmget"});
    client().useBasic(administrator.name, administrator.password);
    EXPECT_EQ(client().get(serviceUri).status, 503);
    waitUntil("the session is logged out", [this] { return store().llen(membersKey) == 0; });
    waitUntil("the logout is cleared away",
              [this] { return store().keys("&&/frontend/*").empty(); });
}

TEST_F(WebBasic, IsUnauthorizedWithWrongCredentials) {
    for (const auto& [user, password] :
         {std::pair{administrator.name, reader.password}, {"nobody-here", "anything"}}) {
        client().useBasic(user, password);
        expectUnauthorized(client().get(serviceUri), invalidCredentials);
    }
    EXPECT_EQ(store().llen(membersKey), 0);
}

TEST_F(WebBasic, IsUnauthorizedWhenTheHeaderIsMalformed) {
    usePamTest("env=PRIVILEGES=511");
    const char* headers[] = {
        "Basic",
        "Basic ",
        "Basic !!!",
        "Basic bm9jb2xvbg==",  // without a colon
        "Basic YQBiOmM=",      // with a zero byte in the name
        "Basic YTpiAGM=",      // with one in the password
        "Basic YTpi YTpi",
        "Bearer YTpi",
        "Digest username=\"a\"",
        "YTpi",
        ";",
    };
    for (const char* header : headers) {
        SCOPED_TRACE(header);
        expectUnauthorized(getWith(header), invalidCredentials);
    }
    EXPECT_TRUE(pamRecords().empty());
    EXPECT_EQ(getWith("Basic YTpi").status, 200);
    EXPECT_EQ(getWith("bASIC  YTpi").status, 200);
    expectNoSession();
}

TEST_F(WebBasic, TakesWhatIsBehindTheFirstColonForThePassword) {
    usePamTest("env=PRIVILEGES=511 password=b:c:");
    client().useBasic("a", "b:c:");
    EXPECT_EQ(client().get(serviceUri).status, 200);
    EXPECT_EQ(pamRecords().front().at("user"), "a");
}

TEST_F(WebBasic, IsForbiddenWithoutThePrivilegeToLogIn) {
    usePamTest("env=PRIVILEGES=0");
    client().useBasic("somebody", "anything");
    EXPECT_EQ(client().get(serviceUri).status, 403);
    expectNoSession();
}

TEST_F(WebBasic, IsLimitedAsLoginsAre) {
    for (int i = 0; i < 8; ++i) {
        frontEnd().insertSession();
    }
    client().useBasic(administrator.name, administrator.password);
    const HttpResponse answer = client().get(serviceUri);
    EXPECT_EQ(answer.status, 503);
    EXPECT_EQ(messageIds(answer), Words{"Base.1.12.SessionLimitExceeded"});
}

TEST_F(WebBasic, AllowsTheChangeOfAnExpiredPasswordOnly) {
    client().useBasic(expired.name, expired.password);
    const HttpResponse answer = client().get(serviceUri);
    EXPECT_EQ(answer.status, 403);
    EXPECT_EQ(messageIds(answer), Words{"Base.1.12.PasswordChangeRequired"});
    expectNoSession();
    // No account service is there to carry it out.
    EXPECT_EQ(client().patch(expired.uri, R"({"Password":"Another-1-word"})").status, 501);
    expectNoSession();
}

TEST_F(WebBasic, IsNotLookedAtBesideAToken) {
    client().useBasic(administrator.name, "wrong");
    client().useToken(frontEnd().insertSession().token);
    EXPECT_EQ(client().get(serviceUri).status, 200);
    client().useBasic(administrator.name, administrator.password);
    client().useToken(std::string(64, '0'));
    expectUnauthorized(client().get(serviceUri), noValidSession);
}

TEST_F(WebBasic, ServesRequestsInParallelWithTokens) {
    const HttpResponse login = client().login(administrator.name, administrator.password);
    HttpClient another = newClient();
    another.useBasic(administrator.name, administrator.password);
    EXPECT_EQ(another.get(login.location()).status, 200);
    EXPECT_EQ(another.remove(login.location()).status, 204);
    expectNoSession();
}

// --- privileges

using WebPrivilege = WebTest;

TEST_F(WebPrivilege, IsAskedForByOperation) {
    const std::string others = frontEnd().insertSession({.userName = "another"}).uri;
    const std::string sameUsers = frontEnd().insertSession({.userName = reader.name}).uri;
    struct Row {
        const char* method;
        std::string path;
        const char* privilege;
        long status;
    };
    // Login 1, ConfigureManager 2, ConfigureUsers 4, ConfigureSelf 8
    const Row rows[] = {
        {"GET", serviceUri, "0", 403},
        {"GET", serviceUri, "510", 403},
        {"GET", serviceUri, "1", 200},
        {"HEAD", serviceUri, "0", 403},
        {"HEAD", serviceUri, "1", 200},
        {"PATCH", serviceUri, "1", 403},
        {"PATCH", serviceUri, "509", 403},
        {"PATCH", serviceUri, "3", 200},
        {"GET", sessionsUri, "0", 403},
        {"GET", sessionsUri, "1", 200},
        {"GET", others, "1", 403},
        {"GET", others, "9", 403},
        {"GET", others, "509", 403},
        {"GET", others, "3", 200},
        {"HEAD", others, "9", 403},
        {"GET", sameUsers, "1", 403},
        {"GET", sameUsers, "9", 200},
        {"GET", administrator.uri, "9", 403},
        {"GET", administrator.uri, "5", 200},
        {"GET", reader.uri, "9", 200},
        {"GET", reader.uri, "1", 403},
        {"PATCH", administrator.uri, "9", 403},
        {"PATCH", reader.uri, "9", 501},
        {"GET", "/redfish/v1/AccountService/Roles/ReadOnly", "1", 200},
        {"GET", "/redfish/v1/AccountService/Roles/ReadOnly", "0", 403},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.method + (' ' + row.path) + " with " + row.privilege);
        client().useToken(
            frontEnd().insertSession({.userName = reader.name, .privilege = row.privilege}).token);
        HttpRequest request{.method = row.method, .path = row.path};
        if (request.method == "PATCH") {
            request.body = R"({"SessionTimeout":600})";
        }
        const HttpResponse answer = client().request(request);
        EXPECT_EQ(answer.status, row.status);
        if (row.status == 403 && request.method != "HEAD") {
            EXPECT_EQ(messageIds(answer), Words{"Base.1.12.InsufficientPrivilege"});
        }
    }
}

TEST_F(WebPrivilege, OfTheAccountsIsThatOfTheirSessions) {
    struct Row {
        const Account& account;
        long readsOthers;
        long changes;
    };
    const InsertedSession others = frontEnd().insertSession({.userName = "another"});
    for (const Row& row :
         {Row{administrator, 200, 200}, {operatorAccount, 403, 403}, {reader, 403, 403}}) {
        SCOPED_TRACE(row.account.name);
        const HttpResponse login = client().login(row.account.name, row.account.password);
        EXPECT_EQ(client().get(serviceUri).status, 200);
        EXPECT_EQ(client().get(login.location()).status, 200);
        EXPECT_EQ(client().get(others.uri).status, row.readsOthers);
        EXPECT_EQ(client().patch(serviceUri, R"({"SessionTimeout":600})").status, row.changes);
        EXPECT_EQ(client().remove(login.location()).status, 204);
    }
}

// --- reading without a body

using WebHead = WebTest;

TEST_F(WebHead, AnswersAsAGetWithoutTheBody) {
    const InsertedSession session = frontEnd().insertSession();
    client().useToken(session.token);
    for (const std::string& path :
         {std::string("/redfish"), std::string("/redfish/v1"), std::string(serviceUri), session.uri,
          std::string("/redfish/v1/no/such/thing")}) {
        SCOPED_TRACE(path);
        const HttpResponse got = client().get(path);
        const HttpResponse answer = client().request({.method = "HEAD", .path = path});
        EXPECT_EQ(answer.status, got.status);
        EXPECT_EQ(answer.body, "");
        for (const char* header : {"content-length", "content-type", "etag", "allow", "link",
                                   "odata-version", "cache-control"}) {
            EXPECT_EQ(answer.header(header), got.header(header)) << header;
        }
    }
}

TEST_F(WebHead, NeedsATokenAsAGetDoes) {
    const HttpResponse answer = client().request({.method = "HEAD", .path = serviceUri});
    EXPECT_EQ(answer.status, 401);
    EXPECT_NE(answer.header("www-authenticate"), "");
    EXPECT_EQ(answer.body, "");
}

// --- the connection

using WebConnection = WebTest;

TEST_F(WebConnection, SpeaksTls12And13AndNothingOlder) {
    for (const TlsVersion version : {TlsVersion::tls12, TlsVersion::tls13}) {
        EXPECT_EQ(newClient({.tls = version}).get("/redfish").status, 200);
    }
    HttpClient old = newClient({.tls = TlsVersion::tls11});
    EXPECT_THROW(old.get("/redfish"), Failure);
}

TEST_F(WebConnection, WithoutTlsLeadsToTheOneWithIt) {
    usePamTest("env=PRIVILEGES=511");
    HttpClient plain = newClient({.url = web.plainUrl()});
    for (const std::string path : {"/", "/redfish/v1", "/redfish/v1/SessionService?only=this"}) {
        const HttpResponse answer = plain.get(path);
        EXPECT_EQ(answer.status, 301);
        EXPECT_EQ(answer.location(), web.url() + path);
    }
    EXPECT_EQ(plain.login("somebody", "anything").status, 301);
    EXPECT_TRUE(pamRecords().empty());
    EXPECT_EQ(store().llen(membersKey), 0);
}

TEST_F(WebConnection, ThatSpeaksNoTlsIsRefused) {
    const std::string url = "http" + web.url().substr(std::string("https").size());
    EXPECT_EQ(newClient({.url = url}).get("/redfish").status, 400);
}

}  // namespace
}  // namespace testbed
