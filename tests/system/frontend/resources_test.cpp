// Reading resources over HTTPS, and requests that are refused whatever they ask for.
#include <algorithm>
#include <nlohmann/json.hpp>

#include "support/web_test.h"

namespace testbed {
namespace {

using Json = nlohmann::json;

constexpr char rootUri[] = "/redfish/v1";
constexpr char chassisUri[] = "/redfish/v1/Chassis";

std::string errorCode(const HttpResponse& response) {
    return response.json().at("error").at("@Message.ExtendedInfo").at(0).at("MessageId");
}

std::string statusLine(const std::string& answer) {
    return answer.substr(0, answer.find("\r\n"));
}

class WebResources : public WebTest {
  protected:
    void SetUp() override {
        WebTest::SetUp();
        usePrivilege("admin", "511");
    }

    InsertedSession usePrivilege(const std::string& user, const std::string& privilege) {
        InsertedSession session =
            frontEnd().insertSession({.userName = user, .privilege = privilege});
        client().useToken(session.token);
        return session;
    }

    HttpResponse request(const std::string& method, const std::string& path,
                         std::vector<std::string> headers = {}) {
        return client().request({.method = method, .path = path, .headers = std::move(headers)});
    }

    // Stores a resource of the test's own and reads it back.
    HttpResponse readBack(Fields fields) {
        fields["@odata.id"] = jsonQuoted(chassisUri);
        store().del(chassisUri);
        store().hset(chassisUri, fields);
        return client().get(chassisUri);
    }
    Json readBackJson(const Fields& fields) { return readBack(fields).json(); }

    // Sends these bytes on a connection of their own; returns what came back up to its end.
    std::string exchangeBytes(const std::string& bytes) {
        TlsConnection connection = client().connect();
        connection.send(bytes);
        return connection.receiveAll();
    }

    void expectServing() { EXPECT_EQ(newClient().get("/redfish").status, 200); }
};

TEST_F(WebResources, ThatLeadToTheOthersAreReadWithoutAToken) {
    HttpClient anybody = newClient();
    for (const char* path : {"/redfish", "/redfish/", "/redfish/v1", "/redfish/v1/",
                             "/redfish/v1/odata", "/redfish/v1/$metadata"}) {
        for (const char* method : {"GET", "HEAD"}) {
            EXPECT_EQ(anybody.request({.method = method, .path = path}).status, 200)
                << method << " " << path;
        }
    }
    EXPECT_EQ(anybody.get("/redfish").json(), (Json{{"v1", "/redfish/v1/"}}));
    EXPECT_EQ(anybody.get("/redfish/v1/").json()["SessionService"]["@odata.id"], serviceUri);
    EXPECT_EQ(anybody.get("/redfish/v1/odata").json()["@odata.context"], "/redfish/v1/$metadata");
    EXPECT_EQ(anybody.get("/redfish/v1/$metadata").header("content-type"), "application/xml");
}

TEST_F(WebResources, AreHiddenFromAClientWithoutAToken) {
    HttpClient anybody = newClient();
    for (const char* path : {serviceUri, sessionsUri, "/redfish/v1/AccountService/Accounts/1",
                             "/redfish/v1/Systems/1", "/redfish/v1/Nowhere", "/", "/elsewhere",
                             "/redfish/v1//", "/redfish/v1/SessionService/"}) {
        const HttpResponse response = anybody.get(path);
        EXPECT_EQ(response.status, 401) << path;
        EXPECT_EQ(errorCode(response), "Base.1.12.NoValidSession") << path;
        EXPECT_NE(response.header("www-authenticate"), "") << path;
    }
}

TEST_F(WebResources, AllowTheirMethodsOnly) {
    struct Case {
        std::string path;
        std::string method;
        long withToken;
        long withoutToken;
        std::string allow;  // of the refusal
    };
    const std::string collection = "GET,HEAD,POST";
    const std::string service = "GET,HEAD,PATCH";
    const std::string readable = "GET,HEAD";
    const std::string member = frontEnd().insertSession().uri;
    const std::string session = "GET,HEAD,DELETE";
    const std::vector<Case> cases{
        {"/redfish", "POST", 405, 405, readable},
        {rootUri, "DELETE", 405, 405, readable},
        {rootUri, "PATCH", 405, 405, readable},
        {"/redfish/v1/odata", "PUT", 405, 405, readable},
        {"/redfish/v1/$metadata", "OPTIONS", 405, 405, readable},
        {serviceUri, "GET", 200, 401, ""},
        {serviceUri, "HEAD", 200, 401, ""},
        {serviceUri, "POST", 405, 401, service},
        {serviceUri, "PUT", 405, 401, service},
        {serviceUri, "DELETE", 405, 401, service},
        {sessionsUri, "GET", 200, 401, ""},
        {sessionsUri, "HEAD", 200, 401, ""},
        {sessionsUri, "PATCH", 405, 401, collection},
        {sessionsUri, "DELETE", 405, 401, collection},
        {sessionsUri, "POST", 415, 415, ""},
        {member, "GET", 200, 401, ""},
        {member, "HEAD", 200, 401, ""},
        {member, "POST", 405, 401, session},
        {member, "PATCH", 405, 401, session},
        {member, "PUT", 405, 401, session},
        {"/redfish/v1/Systems/1", "GET", 200, 401, ""},
        {"/redfish/v1/Systems/1", "DELETE", 405, 401, readable},
        {"/redfish/v1/AccountService", "PATCH", 405, 401, readable},
        {"/redfish/v1/AccountService/Accounts", "POST", 405, 401, readable},
        {"/redfish/v1/AccountService/Accounts/1", "DELETE", 405, 401, service},
        {"/redfish/v1/AccountService/Roles/Operator", "GET", 200, 401, ""},
        {"/redfish/v1/Nowhere", "GET", 404, 401, ""},
        {"/redfish/v1/Nowhere", "DELETE", 404, 401, ""},
        {serviceUri, "BREW", 501, 501, ""},
        {rootUri, "BREW", 501, 501, ""},
        {rootUri, "TRACE", 501, 501, ""},
    };
    HttpClient anybody = newClient();
    for (const Case& each : cases) {
        const HttpRequest asked{.method = each.method, .path = each.path};
        const HttpResponse known = client().request(asked);
        EXPECT_EQ(known.status, each.withToken) << each.method << " " << each.path;
        EXPECT_EQ(anybody.request(asked).status, each.withoutToken)
            << each.method << " " << each.path;
        if (known.status == 405) {
            EXPECT_EQ(known.header("allow"), each.allow) << each.method << " " << each.path;
            EXPECT_EQ(errorCode(known), "ExtendedError.1.2.MethodNotAllowed");
        }
    }
}

TEST_F(WebResources, AreNotSelectedByAQuery) {
    for (const char* query : {"?$filter=x", "?$expand=.", "?a=b&$top=1", "?%24skip=1", "?$"}) {
        const HttpResponse response = client().get(std::string(serviceUri) + query);
        EXPECT_EQ(response.status, 501) << query;
        EXPECT_EQ(errorCode(response), "Base.1.12.QueryNotSupported") << query;
    }
    for (const char* query : {"?", "?a=b", "?only", "?a=$b", "?a=%zz"}) {
        EXPECT_EQ(client().get(std::string(serviceUri) + query).status, 200) << query;
    }
}

TEST_F(WebResources, AreReadWithTheVersionOfODataThatTheyHave) {
    EXPECT_EQ(request("GET", serviceUri, {"OData-Version: 4.0"}).status, 200);
    for (const char* version : {"4.1", "3.0", "4", "x"}) {
        const HttpResponse response =
            request("GET", rootUri, {std::string("OData-Version: ") + version});
        EXPECT_EQ(response.status, 412) << version;
    }
}

TEST_F(WebResources, AreReadAsJsonOnly) {
    for (const char* accept : {"application/json", "*/*", "application/*", "text/html, */*;q=0.1",
                               "application/json;charset=utf-8", "Application/JSON"}) {
        EXPECT_EQ(request("GET", serviceUri, {std::string("Accept: ") + accept}).status, 200)
            << accept;
    }
    EXPECT_EQ(request("GET", serviceUri, {"Accept: text/html", "Accept: */*"}).status, 200);
    EXPECT_EQ(request("GET", serviceUri, {"Accept;"}).status, 200);
    for (const char* accept : {"text/html", "application/xml", "image/*"}) {
        EXPECT_EQ(request("GET", serviceUri, {std::string("Accept: ") + accept}).status, 406)
            << accept;
        EXPECT_EQ(request("GET", rootUri, {std::string("Accept: ") + accept}).status, 406)
            << accept;
    }
    EXPECT_EQ(request("GET", "/redfish/v1/$metadata", {"Accept: application/xml"}).status, 200);
}

TEST_F(WebResources, ComeWithTheHeadersOfTheStandard) {
    const HttpResponse response = client().get(serviceUri);
    EXPECT_EQ(response.header("odata-version"), "4.0");
    EXPECT_EQ(response.header("cache-control"), "no-store");
    EXPECT_EQ(response.header("content-type"), "application/json");
    EXPECT_EQ(response.header("allow"), "GET,HEAD,PATCH");
    EXPECT_EQ(response.header("etag"), store().hget(serviceUri, "@odata.etag"));
    EXPECT_EQ(response.header("link"),
              "<http://redfish.dmtf.org/schemas/v1/SessionService.v1_1_8.json>; rel=describedby");
    EXPECT_EQ(response.header("server"), "nginx");
    EXPECT_EQ(client().get("/redfish/v1/Nowhere").header("odata-version"), "4.0");
}

TEST_F(WebResources, AreNotSentAgainToAClientThatKnowsThem) {
    const std::string etag = store().hget(serviceUri, "@odata.etag");
    for (const std::string& tags : {etag, "W/" + etag, "\"x\", " + etag, std::string("*")}) {
        const HttpResponse response = request("GET", serviceUri, {"If-None-Match: " + tags});
        EXPECT_EQ(response.status, 304) << tags;
        EXPECT_EQ(response.body, "");
        EXPECT_EQ(response.header("etag"), etag);
    }
    EXPECT_EQ(request("GET", serviceUri, {"If-None-Match: \"x\""}).status, 200);
}

TEST_F(WebResources, KeepAnEntityTagThatIsStoredAsAHeaderHasIt) {
    for (const std::string& etag : {std::string("W/\"123\""), std::string("\"123\"")}) {
        EXPECT_EQ(readBack({{"@odata.etag", Json(etag).dump()}}).header("etag"), etag);
        EXPECT_EQ(request("GET", chassisUri, {"If-None-Match: " + etag}).status, 304);
        EXPECT_EQ(request("GET", chassisUri, {"If-None-Match: \"12\""}).status, 200);
    }
}

TEST_F(WebResources, AreNotAskedForByTheirAge) {
    for (const char* condition : {"If-Unmodified-Since", "If-Modified-Since"}) {
        EXPECT_EQ(
            request("GET", serviceUri, {condition + std::string(": Fri, 21 Nov 1997 10:00:00 GMT")})
                .status,
            200)
            << condition;
    }
}

TEST_F(WebResources, AreNotNamedByWhatIsNoText) {
    const HttpResponse response = client().get("/redfish/v1/%ff");
    EXPECT_EQ(response.status, 400);
    EXPECT_TRUE(response.json().contains("error"));
}

TEST_F(WebResources, AreAnsweredToHeadLikeToGetWithoutTheBody) {
    for (const char* path : {rootUri, serviceUri, "/redfish/v1/Systems/1", "/redfish/v1/Nowhere"}) {
        HttpResponse get = client().get(path);
        HttpResponse head = request("HEAD", path);
        EXPECT_EQ(head.status, get.status) << path;
        EXPECT_EQ(head.body, "") << path;
        get.headers.erase("date");
        head.headers.erase("date");
        EXPECT_EQ(head.headers, get.headers) << path;
    }
}

TEST_F(WebResources, ThatAreNoneAreMissing) {
    store().run({"SET", "/redfish/v1/Text", "x"});
    store().run({"RPUSH", "/redfish/v1/List", "x"});
    store().hset("/redfish/v1/Nameless", {{"Name", "\"x\""}});
    store().hset("/redfish/v1/Other", {{"@odata.id", "\"/redfish/v1/Another\""}});
    store().hset("/redfish/v1/Unquoted", {{"@odata.id", "/redfish/v1/Unquoted"}});
    for (const char* path :
         {"/redfish/v1/Nowhere", "/redfish/v1/Text", "/redfish/v1/List", "/redfish/v1/Nameless",
          "/redfish/v1/Other", "/redfish/v1/Unquoted", "/", "//redfish/v1", "/redfish//v1",
          "/redfish/v1//SessionService", "/redfish/v1/SessionService//", "/redfish/v1/%01",
          "/redfish/v1/%0d%0aX:y", "/redfish/v1/../&&/redfish/v1/SessionService/Sessions/Members",
          "/%26%26/redfish/v1/SessionService/Sessions/Members", "/webDefaultValue",
          "/redfish/v1/%2e%2e/%2e%2e/webDefaultValue", "/refused", "/redfish/v1/sessionservice"}) {
        const HttpResponse response = client().get(path);
        EXPECT_EQ(response.status, 404) << path;
        EXPECT_EQ(errorCode(response), "Base.1.12.ResourceMissingAtURI") << path;
    }
}

TEST_F(WebResources, AreFoundUnderAnEncodedAddress) {
    EXPECT_EQ(client().get("/redfish/v1/%53ystems/../Systems/1/").json()["Name"], "Host");
}

TEST_F(WebResources, ShowTextThatIsNoJsonAsAString) {
    for (const std::string text :
         {"plain", "",       " ",        "1,2",     "1],[2", "{",          "01",
          "+1",    "1.",     ".5",       "-.5",     "0x10",  "nan",        "inf",
          "tru",   "\"open", "\"a\nb\"", "\"\\x\"", "'a'",   "{\"A\":1}}", "\"a\" \"b\""}) {
        const Json shown = readBackJson({{"Text", text}});
        EXPECT_EQ(shown["Text"], text);
    }
}

TEST_F(WebResources, ShowJsonAsItStands) {
    for (const char* text :
         {"12345678901234567890123", "-0.10", "1E+2", "true", "null", "\"a\\nb\"", "\"\\u00e9\"",
          "[1, 2]", "{\"B\":[],\"A\":{}}", "\"a/b,1.\""}) {
        const HttpResponse response = readBack({{"Value", text}});
        EXPECT_NE(response.body.find("\"Value\":" + std::string(text)), std::string::npos)
            << response.body;
        EXPECT_NO_THROW(response.json());
    }
}

TEST_F(WebResources, FollowTheirTokens) {
    store().hset("part", {{"A", "1"}, {"&&Hidden", "x"}});
    store().run(
        {"RPUSH", "list", "1", "text", "&&ObjectRef /redfish/v1/Systems/1", "&&Object part"});
    const Json shown = readBackJson({{"&&Object Part part", ""},
                                     {"&&Array List list", ""},
                                     {"&&Array Empty nothing", ""},
                                     {"&&ObjectRef Link /redfish/v1/Systems", ""},
                                     {"&&Object Gone nothing", ""},
                                     {"&&Object Given part", ""},
                                     {"Given", "2"},
                                     {"&&object Small part", ""},
                                     {"&&Object Blank  part", ""},
                                     {"&&OwnerName", "secret"}});
    EXPECT_EQ(shown, Json::parse(R"({
        "@odata.id": "/redfish/v1/Chassis",
        "Part": {"A": 1},
        "List": [1, "text", {"@odata.id": "/redfish/v1/Systems/1"}, {"A": 1}],
        "Empty": [],
        "Link": {"@odata.id": "/redfish/v1/Systems"},
        "Given": 2
    })"));
}

TEST_F(WebResources, LeaveOutAnElementThatLeadsNowhere) {
    store().run({"RPUSH", "list", "1", "&&Object nothing", "2"});
    EXPECT_EQ(readBackJson({{"&&Array List list", ""}})["List"], (Json{1, 2}));
}

TEST_F(WebResources, ShowAnElementThatIsNoTokenAsAString) {
    const Words elements{"&&Other part", "&&Object", "&&Object two words", "&&ObjectRef "};
    for (const std::string& element : elements) {
        store().run({"RPUSH", "list", element});
    }
    EXPECT_EQ(readBackJson({{"&&Array List list", ""}})["List"], Json(elements));
}

TEST_F(WebResources, ThatAreNestedTooDeeplyAreAFailureOfTheirOwn) {
    expectWebErrorLine("nested too deeply");
    for (int depth = 1; depth < 40; ++depth) {
        const std::string inner = "&&Object Inner level" + std::to_string(depth + 1);
        store().hset("level" + std::to_string(depth), {{"Depth", "1"}, {inner, ""}});
    }
    store().hset("circle", {{"&&Object Inner circle", ""}});
    store().run({"RPUSH", "ring", "&&Array ring"});
    for (const char* token : {"&&Object Inner level1", "&&Object Inner circle", "&&Array A ring"}) {
        const HttpResponse response = readBack({{token, ""}});
        EXPECT_EQ(response.status, 500) << token;
        EXPECT_EQ(errorCode(response), "Base.1.12.InternalError") << token;
    }
    EXPECT_EQ(readBack({{"&&Object Inner level20", ""}}).status, 200);
}

TEST_F(WebResources, ListTheMembersOfTheCollectionOfSessionsTheLatestLast) {
    const InsertedSession newest = frontEnd().insertSession();
    const Json collection = client().get(sessionsUri).json();
    EXPECT_EQ(collection["Members@odata.count"], 2);
    EXPECT_EQ(collection["Members"].size(), 2U);
    EXPECT_EQ(collection["Members"][1], (Json{{"@odata.id", newest.uri}}));
}

TEST_F(WebResources, ThatAreAccountsAreReadByTheirOwners) {
    struct Case {
        const char* user;
        const char* privilege;
        const char* uri;
        long status;
    };
    for (const Case& each :
         {Case{reader.name, "9", reader.uri, 200}, Case{reader.name, "1", reader.uri, 403},
          Case{reader.name, "9", administrator.uri, 403},
          Case{reader.name, "3", administrator.uri, 403},
          Case{reader.name, "5", administrator.uri, 200},
          Case{administrator.name, "511", reader.uri, 200}}) {
        usePrivilege(each.user, each.privilege);
        const HttpResponse response = client().get(each.uri);
        EXPECT_EQ(response.status, each.status) << each.user << each.privilege << each.uri;
        EXPECT_TRUE(each.status != 200 || response.json()["Password"].is_null());
    }
}

TEST_F(WebResources, ThatAreSessionsAreReadByTheirUsers) {
    struct Case {
        const char* user;
        const char* privilege;
        long status;
    };
    const std::string uri = frontEnd().insertSession({.userName = reader.name}).uri;
    for (const Case& each :
         {Case{reader.name, "9", 200}, Case{reader.name, "1", 403},
          Case{operatorAccount.name, "9", 403}, Case{operatorAccount.name, "3", 200}}) {
        usePrivilege(each.user, each.privilege);
        EXPECT_EQ(client().get(uri).status, each.status) << each.user << each.privilege;
    }
}

TEST_F(WebResources, AreReadWithThePrivilegeToLogInAndNotWithoutIt) {
    for (const char* path :
         {serviceUri, sessionsUri, "/redfish/v1/AccountService",
          "/redfish/v1/AccountService/Accounts", "/redfish/v1/AccountService/Roles/ReadOnly",
          "/redfish/v1/Systems", "/redfish/v1/Systems/1"}) {
        usePrivilege(reader.name, "1");
        EXPECT_EQ(client().get(path).json()["@odata.id"], path);
        usePrivilege(reader.name, "8");
        EXPECT_EQ(client().get(path).status, 403) << path;
    }
}

TEST_F(WebResources, AreRefusedWithTheBodyOfTheStandard) {
    const std::string path = "/redfish/v1/No\"where";
    const Json error = client().get("/redfish/v1/No%22where").json();
    ASSERT_EQ(error.size(), 1U);
    EXPECT_EQ(error["error"]["code"], "Base.1.12.ResourceMissingAtURI");
    const Json message = error["error"]["@Message.ExtendedInfo"][0];
    EXPECT_EQ(message["@odata.type"], "#Message.v1_1_2.Message");
    EXPECT_EQ(message["MessageId"], "Base.1.12.ResourceMissingAtURI");
    EXPECT_EQ(message["Message"], "The resource at the URI '" + path + "' was not found.");
    EXPECT_EQ(message["Message"], error["error"]["message"]);
    EXPECT_EQ(message["MessageArgs"], Json{path});
    EXPECT_EQ(message["Severity"], "Critical");
    EXPECT_EQ(message["MessageSeverity"], "Critical");
    EXPECT_FALSE(message["Resolution"].get<std::string>().empty());
    EXPECT_FALSE(message.contains("RelatedProperties"));
}

TEST_F(WebResources, AreNotReachedByAMalformedRequest) {
    const std::string head = "GET /redfish HTTP/1.1\r\n";
    const std::string host = "Host: x\r\n";
    for (const std::string& bytes :
         {std::string("nonsense\r\n\r\n"), std::string("get /redfish HTTP/1.1\r\n\r\n"),
          "GET redfish HTTP/1.1\r\n" + host + "\r\n", "GET /redfish HTTP/x\r\n" + host + "\r\n",
          "GET /%zz HTTP/1.1\r\n" + host + "\r\n", "GET /%00 HTTP/1.1\r\n" + host + "\r\n",
          "GET /\x01 HTTP/1.1\r\n" + host + "\r\n", head + "\r\n", head + host + host + "\r\n",
          head + host + "Content-Length: x\r\n\r\n", head + host + "Content-Length: -1\r\n\r\n",
          head + host + "Content-Length: 1\r\nTransfer-Encoding: chunked\r\n\r\n",
          head + host + "X-Large: " + std::string(9000, 'x') + "\r\n\r\n"}) {
        const std::string answer = exchangeBytes(bytes);
        EXPECT_EQ(statusLine(answer), "HTTP/1.1 400 Bad Request") << bytes.substr(0, 100);
        EXPECT_NE(answer.find("@Message.ExtendedInfo"), std::string::npos) << answer;
        expectServing();
    }
}

TEST_F(WebResources, AreNotReachedInAWayThatTheServerDoesNotSpeak) {
    for (const auto& [bytes, status] : std::vector<std::pair<std::string, std::string>>{
             {"GET /redfish HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: gzip, chunked\r\n\r\n",
              "501"},
             {"GET /redfish HTTP/3.0\r\nHost: x\r\n\r\n", "505"}}) {
        const std::string answer = exchangeBytes(bytes);
        EXPECT_THAT(statusLine(answer), testing::StartsWith("HTTP/1.1 " + status));
        EXPECT_NE(answer.find("@Message.ExtendedInfo"), std::string::npos) << answer;
    }
}

TEST_F(WebResources, AreNotReachedByARequestThatIsTooLong) {
    const std::string answer =
        exchangeBytes("GET /" + std::string(9000, 'x') + " HTTP/1.1\r\nHost: x\r\n\r\n");
    EXPECT_EQ(statusLine(answer), "HTTP/1.1 414 Request-URI Too Large");
    EXPECT_NE(answer.find("ExtendedError.1.2.RequestTooLarge"), std::string::npos) << answer;
    expectServing();
}

// The head of a change of the service by this client.
std::string patchHead(const std::string& headers) {
    return std::string("PATCH ") + serviceUri +
           " HTTP/1.1\r\nHost: x\r\nContent-Type: application/json\r\n" + headers + "\r\n";
}

TEST_F(WebResources, AreNotChangedByABodyThatIsTooLarge) {
    const InsertedSession session = frontEnd().insertSession();
    const std::string token = "X-Auth-Token: " + session.token + "\r\n";
    const std::string tooMuch(65537, ' ');
    for (const std::string& bytes : {patchHead(token + "Content-Length: 65537\r\n"),
                                     patchHead(token + "Content-Length: 99999999999999999999\r\n"),
                                     patchHead(token + "Transfer-Encoding: chunked\r\n") +
                                         "10001\r\n" + tooMuch + "\r\n0\r\n\r\n"}) {
        TlsConnection connection = client().connect();
        connection.send(bytes);
        const std::string answer = connection.receiveUntil("\r\n");
        EXPECT_TRUE(answer.rfind("HTTP/1.1 413 ", 0) == 0 || answer.rfind("HTTP/1.1 400 ", 0) == 0)
            << answer;
        expectServing();
    }
    EXPECT_EQ(client().patch(serviceUri, "{}" + std::string(65536 - 2, ' ')).status, 400);
    EXPECT_EQ(client().patch(serviceUri, "{}" + std::string(65537 - 2, ' ')).status, 413);
}

TEST_F(WebResources, LeaveNoSessionOfABodyThatIsTooLarge) {
    const Words sessions = store().lrange(membersKey);
    HttpClient basic = newClient();
    basic.useBasic(administrator.name, administrator.password);
    const HttpResponse response = basic.request({.method = "PATCH",
                                                 .path = serviceUri,
                                                 .headers = {"Transfer-Encoding: chunked"},
                                                 .body = std::string(65537, ' ')});
    EXPECT_EQ(response.status, 413);
    EXPECT_EQ(errorCode(response), "ExtendedError.1.2.RequestTooLarge");
    EXPECT_EQ(store().lrange(membersKey), sessions);
}

TEST_F(WebResources, AreNotWaitedForByASlowClient) {
    changeLimit("client_header_timeout 10s", "client_header_timeout 2s");
    changeLimit("client_body_timeout 10s", "client_body_timeout 2s");
    web.restart();
    exchangeBytes("GET /redfish HTTP/1.1\r\nHost:");
    expectServing();
    exchangeBytes(patchHead("Content-Length: 100\r\n") + "{");
    expectServing();
}

TEST_F(WebResources, AreGivenToSoManyConnectionsOfAnAddressAtATime) {
    changeLimit("limit_conn connections 64;", "limit_conn connections 2;");
    changeLimit("client_body_timeout 10s", "client_body_timeout 1h");
    web.restart();
    const std::string unfinished = patchHead("Content-Length: 100\r\n") + "{";
    {
        TlsConnection first = client().connect();
        TlsConnection second = client().connect();
        first.send(unfinished);
        second.send(unfinished);
        HttpResponse refused;
        waitUntil("both requests are under way", [&] {
            refused = client().get(rootUri);
            return refused.status != 200;
        });
        EXPECT_EQ(refused.status, 503);
        EXPECT_EQ(errorCode(refused), "Base.1.12.ServiceTemporarilyUnavailable");
        EXPECT_EQ(refused.header("retry-after"), "1");
        EXPECT_EQ(newClient({.sourceAddress = "127.0.0.2"}).get(rootUri).status, 200);
    }
    waitUntil("the requests have ended", [&] { return client().get(rootUri).status == 200; });
}

// Each takes memory until it has come.
TEST_F(WebResources, TakeFewLargeBodiesOfAnAddressAtATime) {
    changeLimit("client_body_timeout 10s", "client_body_timeout 1h");
    web.restart();
    const std::string begin = patchHead("Content-Length: 60000\r\n") + std::string(50000, ' ');
    const std::string large = "{}" + std::string(59998, ' ');
    {
        std::vector<TlsConnection> connections;
        for (int i = 0; i < 8; ++i) {
            connections.push_back(client().connect());
            connections.back().send(begin);
        }
        HttpResponse refused;
        waitUntil("all are under way", [&] {
            refused = client().post(sessionsUri, large);
            return refused.status == 503;
        });
        EXPECT_EQ(refused.header("retry-after"), "1");
        EXPECT_EQ(client().post(sessionsUri, "{}").status, 400);
        EXPECT_EQ(client().get(rootUri).status, 200);
        HttpClient other = newClient({.sourceAddress = "127.0.0.2"});
        EXPECT_EQ(other.post(sessionsUri, large).status, 400);
    }
    waitUntil("the requests have ended",
              [&] { return client().post(sessionsUri, large).status == 400; });
}

}  // namespace
}  // namespace testbed
