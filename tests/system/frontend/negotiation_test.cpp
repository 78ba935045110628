// What a client says about the answer that it wants: media types and entity tags; and what an
// answer says of itself.
#include <atomic>
#include <nlohmann/json.hpp>
#include <set>
#include <thread>

#include "support/web_test.h"

namespace testbed {
namespace {

using Json = nlohmann::json;

class WebNegotiation : public WebTest {
  protected:
    void SetUp() override {
        WebTest::SetUp();
        client().useToken(frontEnd().insertSession().token);
    }
    HttpResponse request(const std::string& method, const std::string& path,
                         const std::string& header) {
        return client().request({.method = method, .path = path, .headers = {header}});
    }
    long statusFor(const std::string& accept) {
        return request("GET", serviceUri, "Accept: " + accept).status;
    }
    std::string etag() { return store().hget(serviceUri, "@odata.etag"); }
    long changeIfMatch(const std::string& tags) {
        return client()
            .request({.method = "PATCH",
                      .path = serviceUri,
                      .headers = {"If-Match: " + tags},
                      .body = R"({"SessionTimeout":600})"})
            .status;
    }
};

TEST_F(WebNegotiation, TakesTheMostSpecificMediaRange) {
    for (const char* accept :
         {"application/json", "application/json;q=0.001", "text/html, application/json;q=0.5",
          "application/*;q=0.1", "*/*;q=0, application/json", "application/*;q=0, application/json",
          "text/*;q=0, */*", "application/json; charset=utf-8; q=1", "application/json;Q=1",
          "application/json;profile=\"a,b;q=0\"", " , application/json", "APPLICATION/JSON ; q=0.5",
          "application/json;odata.metadata=minimal", "application/xml;q=0,*/*;q=0.1"}) {
        EXPECT_EQ(statusFor(accept), 200) << accept;
    }
    for (const char* accept :
         {"application/json;q=0", "application/json;q=0, */*", "application/json;q=0.000, */*;q=1",
          "*/*;q=0", "application/*;q=0, */*", "text/html", "application/jsonx",
          "x-application/json", "application/json-patch+json", "application/xml, text/*"}) {
        EXPECT_EQ(statusFor(accept), 406) << accept;
    }
}

TEST_F(WebNegotiation, ReadsWhatComesBehindAHundredOthers) {
    Words headers;
    std::string query = "?";
    for (int i = 0; i < 150; ++i) {
        headers.push_back("X-Header-" + std::to_string(i) + ": x");
        query += "x" + std::to_string(i) + "=1&";
    }
    const auto get = [&](const std::string& path, const std::string& accept) {
        Words all = headers;
        all.push_back("Accept: " + accept);
        return client().request({.path = path, .headers = all}).status;
    };
    EXPECT_EQ(get(serviceUri, "application/json"), 200);
    EXPECT_EQ(get(serviceUri, "text/plain"), 406);
    EXPECT_EQ(client().get(serviceUri + query).status, 200);
    EXPECT_EQ(client().get(serviceUri + query + "$select=Id").status, 501);
}

TEST_F(WebNegotiation, RefusesTheMediaTypeAfterWhatIsWrongOtherwise) {
    const std::string page = "Accept: text/html";
    EXPECT_EQ(request("GET", "/redfish/v1/Nowhere", page).status, 404);
    EXPECT_EQ(request("PUT", serviceUri, page).status, 405);
    EXPECT_EQ(request("POST", "/redfish/v1", page).status, 405);
    EXPECT_EQ(request("GET", serviceUri, page).status, 406);
    EXPECT_EQ(request("GET", "/redfish/v1", page).status, 406);
    EXPECT_EQ(request("GET", "/redfish/v1/$metadata", "Accept: application/json").status, 406);
    client().useToken(frontEnd().insertSession({.privilege = "8"}).token);
    EXPECT_EQ(request("GET", serviceUri, page).status, 403);
    client().useToken("");
    EXPECT_EQ(request("GET", serviceUri, page).status, 401);
    EXPECT_EQ(request("GET", "/redfish/v1/Nowhere", page).status, 401);
}

TEST_F(WebNegotiation, ChangesNothingThatItCouldNotAnswer) {
    usePamTest("env=PRIVILEGES=511");
    const HttpResponse changed = client().request({.method = "PATCH",
                                                   .path = serviceUri,
                                                   .headers = {"Accept: text/html"},
                                                   .body = R"({"SessionTimeout":600})"});
    EXPECT_EQ(changed.status, 406);
    EXPECT_EQ(store().hget(serviceUri, "SessionTimeout"), "300");
    const HttpResponse login = client().request({.method = "POST",
                                                 .path = sessionsUri,
                                                 .headers = {"Accept: text/html"},
                                                 .body = R"({"UserName":"a","Password":"b"})"});
    EXPECT_EQ(login.status, 406);
    EXPECT_TRUE(pamRecords().empty());
    // There is nothing in the answer that could be of the wrong type.
    const InsertedSession session = frontEnd().insertSession();
    EXPECT_EQ(request("DELETE", session.uri, "Accept: text/html").status, 204);
}

TEST_F(WebNegotiation, HasTheSameEntityTagInTheBodyAsInTheHeader) {
    const InsertedSession session = frontEnd().insertSession();
    client().patch(serviceUri, R"({"SessionTimeout":700})");
    store().hset("/redfish/v1/Chassis", {{"@odata.id", "\"/redfish/v1/Chassis\""},
                                         {"@odata.etag", Json("W/\"12\"").dump()}});
    for (const std::string& path :
         {std::string(serviceUri), session.uri, std::string("/redfish/v1/Chassis")}) {
        const HttpResponse answer = client().get(path);
        EXPECT_NE(answer.header("etag"), "") << path;
        EXPECT_EQ(answer.json().at("@odata.etag"), answer.header("etag")) << path;
    }
    const HttpResponse login = client().login(reader.name, reader.password);
    EXPECT_EQ(login.json().at("@odata.etag"), login.header("etag"));
    // What has no tag yet shows none.
    store().hset("/redfish/v1/Chassis", {{"@odata.etag", "0"}});
    client().useToken(frontEnd().insertSession().token);
    const HttpResponse answer = client().get("/redfish/v1/Chassis");
    EXPECT_EQ(answer.header("etag"), "");
    EXPECT_FALSE(answer.json().contains("@odata.etag"));
}

TEST_F(WebNegotiation, TakesAnEntityTagWithAndWithoutItsQuotes) {
    const auto bare = [this] { return etag().substr(1, etag().size() - 2); };
    EXPECT_EQ(changeIfMatch(etag()), 200);
    EXPECT_EQ(changeIfMatch(bare()), 200);
    EXPECT_EQ(changeIfMatch("\"other\" , " + bare()), 200);
    EXPECT_EQ(changeIfMatch(client().get(serviceUri).json().at("@odata.etag")), 200);
    EXPECT_EQ(changeIfMatch("other," + etag()), 200);
    for (const std::string& tags : {bare() + "0", "\"" + bare(), bare() + "\"", "W/" + bare()}) {
        EXPECT_EQ(changeIfMatch(tags), 412) << tags;
    }
    for (const std::string& tags : {etag(), bare(), "W/" + etag()}) {
        EXPECT_EQ(request("GET", serviceUri, "If-None-Match: " + tags).status, 304) << tags;
    }
}

TEST_F(WebNegotiation, TakesAWeakEntityTagToReadAndNotToChange) {
    EXPECT_EQ(changeIfMatch("W/" + etag()), 412);
    EXPECT_EQ(changeIfMatch("W/" + etag() + ", " + etag()), 200);
    EXPECT_EQ(changeIfMatch("*"), 200);
}

TEST_F(WebNegotiation, CountsTheMembersThatItShows) {
    // The service adds a member first and counts it afterwards.
    store().hset(sessionsUri, {{"Members@odata.count", "7"}});
    const Json shown = client().get(sessionsUri).json();
    EXPECT_EQ(shown.at("Members").size(), 1U);
    EXPECT_EQ(shown.at("Members@odata.count"), 1);
    store().hset(sessionsUri, {{"Members@odata.count", "1"}});
}

TEST_F(WebNegotiation, CountsMembersThatComeAndGo) {
    const std::string token = frontEnd().insertSession().token;
    std::atomic<bool> ended = false;
    std::thread others([&] {
        auto another = controller.frontEnd();
        for (int i = 0; i < 40; ++i) {
            const Reply reply = another.login(reader.name, reader.password);
            another.remove(reply.location());
        }
        ended = true;
    });
    client().useToken(token);
    while (!ended) {
        const Json shown = client().get(sessionsUri).json();
        EXPECT_EQ(shown.at("Members").size(), shown.at("Members@odata.count"));
    }
    others.join();
}

TEST_F(WebNegotiation, NamesInItsMetadataWhatAnswersAreMadeOf) {
    const std::string metadata = client().get("/redfish/v1/$metadata").body;
    const auto expectNamespace = [&](const std::string& name) {
        EXPECT_THAT(metadata, testing::HasSubstr("Namespace=\"" + name + "\"")) << name;
    };
    // An answer carries annotations and messages.
    expectNamespace("RedfishExtensions.v1_0_0");
    EXPECT_THAT(metadata, testing::HasSubstr("Alias=\"Redfish\""));
    std::set<std::string> types;
    for (const std::string& key : store().keys("/redfish/v1*")) {
        const Json type = client().get(key).json().at("@odata.type");
        types.insert(type.get<std::string>());
    }
    types.insert(client()
                     .get("/redfish/v1/Nowhere")
                     .json()
                     .at("error")
                     .at("@Message.ExtendedInfo")
                     .at(0)
                     .at("@odata.type"));
    EXPECT_GE(types.size(), 15U);
    for (const std::string& type : types) {
        const std::string versioned = type.substr(1, type.rfind('.') - 1);
        expectNamespace(versioned);
        expectNamespace(versioned.substr(0, versioned.find('.')));
    }
}

TEST_F(WebNegotiation, LetsAUserWithAnExpiredPasswordReadTheAccount) {
    const HttpResponse login = client().login(expired.name, expired.password);
    ASSERT_EQ(login.status, 201);
    const HttpResponse account = client().get(expired.uri);
    EXPECT_EQ(account.status, 200);
    EXPECT_EQ(account.json().at("PasswordChangeRequired"), true);
    EXPECT_EQ(request("HEAD", expired.uri, "Accept: */*").status, 200);
    for (const std::string& path :
         {std::string(serviceUri), std::string(sessionsUri), std::string(reader.uri),
          login.location(), std::string("/redfish/v1/Nowhere")}) {
        const HttpResponse refused = client().get(path);
        EXPECT_EQ(refused.status, 403) << path;
        EXPECT_THAT(refused.body, testing::HasSubstr("Base.1.12.PasswordChangeRequired"));
    }
    EXPECT_EQ(request("DELETE", expired.uri, "Accept: */*").status, 403);
    EXPECT_EQ(client().remove(login.location()).status, 204);
}

TEST_F(WebNegotiation, SaysWhichMethodsThePagesFilesTake) {
    for (const char* method : {"POST", "PUT", "PATCH", "DELETE"}) {
        const HttpResponse answer = client().request({.method = method, .path = "/page/main.js"});
        EXPECT_EQ(answer.status, 405) << method;
        EXPECT_EQ(answer.header("allow"), "GET,HEAD") << method;
        EXPECT_EQ(messageIds(answer), Words{"ExtendedError.1.2.MethodNotAllowed"}) << method;
    }
    for (const char* method : {"TRACE", "BREW"}) {
        const HttpResponse answer = client().request({.method = method, .path = "/page/main.js"});
        EXPECT_EQ(answer.status, 501) << method;
        EXPECT_EQ(messageIds(answer), Words{"ExtendedError.1.2.MethodNotImplemented"}) << method;
    }
}

}  // namespace
}  // namespace testbed
