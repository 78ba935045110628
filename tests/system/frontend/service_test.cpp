// Changes of the service's settings over HTTPS.
#include <nlohmann/json.hpp>

#include "support/web_test.h"

namespace testbed {
namespace {

using Json = nlohmann::json;

constexpr char allPrivileges[] = "511";
constexpr char withoutConfigureManager[] = "13";  // Login, ConfigureUsers, ConfigureSelf

// The identifiers of an array of messages, in the order of the array.
Words identifiersOf(const Json& messages) {
    Words identifiers;
    for (const Json& message : messages) {
        identifiers.push_back(message.at("MessageId"));
    }
    return identifiers;
}

Json errorsOf(const HttpResponse& response) {
    return response.json().at("error").at("@Message.ExtendedInfo");
}

Json annotationsOf(const HttpResponse& response, const std::string& property) {
    return response.json().at(property + "@Message.ExtendedInfo");
}

class WebService : public WebTest {
  protected:
    void SetUp() override {
        WebTest::SetUp();
        usePrivilege(allPrivileges);
    }

    void usePrivilege(const std::string& privilege) {
        client().useToken(frontEnd().insertSession({.privilege = privilege}).token);
    }

    HttpResponse patch(const std::string& body) { return client().patch(serviceUri, body); }
    HttpResponse patchIfMatch(const std::string& tags, const std::string& body) {
        return client().request({.method = "PATCH",
                                 .path = serviceUri,
                                 .headers = {"If-Match: " + tags},
                                 .body = body});
    }

    std::string timeout() { return store().hget(serviceUri, "SessionTimeout"); }
    std::string etag() { return store().hget(serviceUri, "@odata.etag"); }

    // What was announced to the daemon during an action.
    Words announcedDuring(const std::function<void()>& action) {
        StoreClient listener = controller.connect();
        listener.subscribe(patchChannel);
        action();
        const std::string mark = "mark";
        store().publish(patchChannel, mark);
        Words announced;
        for (std::string text; (text = listener.nextMessage()) != mark;) {
            announced.push_back(text);
        }
        return announced;
    }
};

TEST_F(WebService, TakesATimeoutWithinItsRange) {
    const std::vector<std::pair<std::string, std::string>> cases{
        {"30", "30"}, {"86400", "86400"}, {"300.0", "300"}, {"6e2", "600"}};
    for (const auto& [sent, stored] : cases) {
        const HttpResponse response = patch(R"({"SessionTimeout":)" + sent + "}");
        EXPECT_EQ(response.status, 200) << sent;
        EXPECT_EQ(timeout(), stored);
        EXPECT_EQ(response.json()["SessionTimeout"].dump(), stored);
        EXPECT_EQ(response.json()["@odata.id"], serviceUri);
        EXPECT_EQ(response.header("content-type"), "application/json");
    }
}

TEST_F(WebService, RefusesATimeoutOfAnotherTypeOrOutsideItsRange) {
    const std::string type = "Base.1.12.PropertyValueTypeError";
    const std::string range = "Base.1.12.PropertyValueOutOfRange";
    const std::vector<std::pair<std::string, std::string>> cases{
        {"29", range},     {"86401", range}, {"-1", range},   {"1e400", range},
        {"30.5", type},    {"null", type},   {"true", type},  {"\"300\"", type},
        {"[1e400]", type}, {"{}", type},     {"[300]", type}, {"{\"A\":300}", type},
    };
    const std::string before = etag();
    const Words announced = announcedDuring([&] {
        for (const auto& [sent, message] : cases) {
            const HttpResponse response = patch(R"({"SessionTimeout":)" + sent + "}");
            EXPECT_EQ(response.status, 400) << sent;
            EXPECT_EQ(identifiersOf(errorsOf(response)), Words{message}) << sent;
            EXPECT_EQ(errorsOf(response)[0]["RelatedProperties"], Json{"/SessionTimeout"});
            EXPECT_EQ(errorsOf(response)[0]["MessageArgs"].back(), "SessionTimeout");
        }
    });
    EXPECT_EQ(announced, Words{});
    EXPECT_EQ(timeout(), "300");
    EXPECT_EQ(etag(), before);
}

TEST_F(WebService, RefusesABodyThatHoldsNothingItCanChange) {
    struct Case {
        std::string body;
        Words messages;
    };
    const std::vector<Case> cases{
        {"{}", {"Base.1.12.EmptyJSON"}},
        {R"({"@odata.id":"/redfish/v1/SessionService"})", {"Base.1.12.NoOperation"}},
        {R"({"@odata.etag":"1","SessionTimeout@Message.ExtendedInfo":[]})",
         {"Base.1.12.NoOperation"}},
        {R"({"Unheard":1})", {"Base.1.12.PropertyUnknown"}},
        {R"({"sessiontimeout":600})", {"Base.1.12.PropertyUnknown"}},
        {R"({"&&AllowMethod":"GET"})", {"Base.1.12.PropertyUnknown"}},
        {R"({"":1})", {"Base.1.12.PropertyUnknown"}},
        {R"({"Id":"x"})", {"Base.1.12.PropertyNotWritable"}},
        {R"({"Name":"x"})", {"Base.1.12.PropertyNotWritable"}},
        {R"({"Status":{}})", {"Base.1.12.PropertyNotWritable"}},
        {R"({"Sessions":{}})", {"Base.1.12.PropertyNotWritable"}},
        {R"({"Oem":{}})", {"Base.1.12.PropertyNotWritable"}},
        {R"({"ServiceEnabled":"false"})", {"Base.1.12.PropertyValueTypeError"}},
        {R"({"Id":"x","Name":"x"})",
         {"Base.1.12.PropertyNotWritable", "Base.1.12.PropertyNotWritable"}},
        {"[]", {"Base.1.12.MalformedJSON"}},
        {"", {"Base.1.12.MalformedJSON"}},
        {R"({"SessionTimeout":600,"SessionTimeout":700})", {"Base.1.12.MalformedJSON"}},
        {R"({"SessionTimeout":600}})", {"Base.1.12.MalformedJSON"}},
    };
    const Fields before = store().hgetall(serviceUri);
    const Words announced = announcedDuring([&] {
        for (const auto& [body, messages] : cases) {
            const HttpResponse response = patch(body);
            EXPECT_EQ(response.status, 400) << body;
            EXPECT_EQ(identifiersOf(errorsOf(response)), messages) << body;
        }
    });
    EXPECT_EQ(announced, Words{});
    EXPECT_EQ(store().hgetall(serviceUri), before);
}

TEST_F(WebService, NamesThePropertyThatItRefuses) {
    const Json message = errorsOf(patch(R"({"Unheard":1})"))[0];
    EXPECT_EQ(message["RelatedProperties"], Json{"/Unheard"});
    EXPECT_EQ(message["MessageArgs"], Json{"Unheard"});
    EXPECT_NE(message["Message"].get<std::string>().find("Unheard"), std::string::npos);
}

TEST_F(WebService, RefusesABodyOfAnotherMediaType) {
    for (const char* type : {"text/plain", "application/json-patch+json", ""}) {
        const HttpResponse response =
            client().request({.method = "PATCH",
                              .path = serviceUri,
                              .headers = {std::string("Content-Type: ") + type},
                              .body = R"({"SessionTimeout":600})"});
        EXPECT_EQ(response.status, 415) << type;
    }
    EXPECT_EQ(timeout(), "300");
}

TEST_F(WebService, AppliesThePartThatItCanAndAnnotatesTheRest) {
    const HttpResponse response = patch(
        R"({"SessionTimeout":600,"Id":"x","Unheard":1,"ServiceEnabled":5,"@odata.etag":"1"})");
    EXPECT_EQ(response.status, 200);
    EXPECT_EQ(timeout(), "600");
    EXPECT_EQ(response.json()["SessionTimeout"], 600);
    EXPECT_EQ(response.json()["Id"], "SessionService");
    EXPECT_EQ(identifiersOf(annotationsOf(response, "Id")), Words{"Base.1.12.PropertyNotWritable"});
    EXPECT_EQ(identifiersOf(annotationsOf(response, "Unheard")),
              Words{"Base.1.12.PropertyUnknown"});
    EXPECT_EQ(identifiersOf(annotationsOf(response, "ServiceEnabled")),
              Words{"Base.1.12.PropertyValueTypeError"});
    EXPECT_FALSE(response.json().contains("SessionTimeout@Message.ExtendedInfo"));
}

TEST_F(WebService, TakesThePropertiesOfARequestForNothingButNames) {
    const HttpResponse response =
        patch(R"({"SessionTimeout":600,"&&ObjectRef Foo /bar":1,"&&Array Bar x":1})");
    EXPECT_EQ(response.status, 200);
    EXPECT_FALSE(response.json().contains("Foo"));
    EXPECT_FALSE(response.json().contains("Bar"));
    EXPECT_EQ(identifiersOf(annotationsOf(response, "&&ObjectRef Foo /bar")),
              Words{"Base.1.12.PropertyUnknown"});
}

TEST_F(WebService, IsNotChangedByItsAge) {
    const HttpResponse response =
        client().request({.method = "PATCH",
                          .path = serviceUri,
                          .headers = {"If-Unmodified-Since: Fri, 21 Nov 1997 10:00:00 GMT"},
                          .body = R"({"SessionTimeout":600})"});
    EXPECT_EQ(response.status, 200);
    EXPECT_EQ(timeout(), "600");
}

TEST_F(WebService, RefusesAPropertyThatNobodyHandled) {
    const HttpResponse response = patch(R"({"ServiceEnabled":false})");
    EXPECT_EQ(response.status, 400);
    EXPECT_EQ(identifiersOf(errorsOf(response)), Words{"Base.1.12.PropertyNotWritable"});
    EXPECT_EQ(errorsOf(response)[0]["RelatedProperties"], Json{"/ServiceEnabled"});
    EXPECT_EQ(store().hget(serviceUri, "ServiceEnabled"), "true");
}

TEST_F(WebService, AnnotatesAPropertyThatNobodyHandledBesideOneThatWas) {
    const HttpResponse response = patch(R"({"ServiceEnabled":false,"SessionTimeout":600})");
    EXPECT_EQ(response.status, 200);
    EXPECT_EQ(timeout(), "600");
    EXPECT_EQ(identifiersOf(annotationsOf(response, "ServiceEnabled")),
              Words{"Base.1.12.PropertyNotWritable"});
    EXPECT_EQ(response.json()["ServiceEnabled"], true);
}

TEST_F(WebService, AnswersWithTheEntityTagOfTheChange) {
    const std::string before = etag();
    const HttpResponse response = patch(R"({"SessionTimeout":600})");
    EXPECT_NE(etag(), before);
    EXPECT_EQ(response.header("etag"), etag());
    EXPECT_EQ(client().get(serviceUri).header("etag"), etag());
}

TEST_F(WebService, ChangesWhatMatchesTheClientsEntityTag) {
    long seconds = 600;
    const std::vector<std::function<std::string()>> cases{
        [&] { return etag(); },
        [&] { return "\"other\", " + etag(); },
        [] { return std::string("*"); },
    };
    for (const auto& tags : cases) {
        const std::string text = std::to_string(++seconds);
        EXPECT_EQ(patchIfMatch(tags(), R"({"SessionTimeout":)" + text + "}").status, 200);
        EXPECT_EQ(timeout(), text);
    }
}

TEST_F(WebService, RefusesToChangeWhatDoesNotMatchTheClientsEntityTag) {
    const Words announced = announcedDuring([&] {
        for (const std::string& tags :
             {std::string("\"other\""), "W/" + etag(), "\"1" + etag().substr(1),
              std::string("\"\""), std::string("nonsense")}) {
            const HttpResponse response = patchIfMatch(tags, R"({"SessionTimeout":600})");
            EXPECT_EQ(response.status, 412) << tags;
            EXPECT_EQ(identifiersOf(errorsOf(response)), Words{"Base.1.12.PreconditionFailed"});
        }
    });
    EXPECT_EQ(announced, Words{});
    EXPECT_EQ(timeout(), "300");
}

TEST_F(WebService, MatchesAnOldEntityTagNoMore) {
    const std::string before = etag();
    EXPECT_EQ(patchIfMatch(before, R"({"SessionTimeout":600})").status, 200);
    EXPECT_EQ(patchIfMatch(before, R"({"SessionTimeout":700})").status, 412);
    EXPECT_EQ(timeout(), "600");
}

TEST_F(WebService, RefusesAUserWithoutThePrivilegeToConfigureIt) {
    usePrivilege(withoutConfigureManager);
    const Words announced = announcedDuring([&] {
        const HttpResponse response = patch(R"({"SessionTimeout":600})");
        EXPECT_EQ(response.status, 403);
        EXPECT_EQ(identifiersOf(errorsOf(response)), Words{"Base.1.12.InsufficientPrivilege"});
    });
    EXPECT_EQ(announced, Words{});
    EXPECT_EQ(client().get(serviceUri).status, 200);
}

TEST_F(WebService, RefusesAClientWithoutAToken) {
    client().useToken("");
    EXPECT_EQ(patch(R"({"SessionTimeout":600})").status, 401);
    EXPECT_EQ(timeout(), "300");
}

TEST_F(WebService, KeepsAChangeInTheFileOfPersistentProperties) {
    patch(R"({"SessionTimeout":600})");
    EXPECT_NE(controller.readFile(persistentFile).find("SessionTimeout=600\n"), std::string::npos);
}

TEST_F(WebService, TellsThatTheStoreRefusedTheChange) {
    expectErrorLine("OperationFailed: Failed to SetMultipleFields.");
    // Everything but the service can be written.
    store().run({"ACL", "SETUSER", "default", "resetkeys", "~&&*", "~/redfish/v1/*/*",
                 std::string("%R~") + serviceUri, "~webDefaultValue"});
    const HttpResponse response = patch(R"({"SessionTimeout":600})");
    store().run({"ACL", "SETUSER", "default", "allkeys"});
    EXPECT_EQ(response.status, 500);
    EXPECT_EQ(identifiersOf(errorsOf(response)), Words{"Base.1.12.OperationFailed"});
    EXPECT_EQ(timeout(), "300");
}

TEST_F(WebService, EndsTheSessionOfARequestWithBasicCredentials) {
    client().useToken("");
    client().useBasic(administrator.name, administrator.password);
    const Words sessions = store().lrange(membersKey);
    EXPECT_EQ(patch(R"({"SessionTimeout":600})").status, 200);
    EXPECT_EQ(patch(R"({"SessionTimeout":6})").status, 400);
    EXPECT_EQ(timeout(), "600");
    waitUntil("the session has ended", [&] { return store().lrange(membersKey) == sessions; });
}

// The store and the front end run, the daemon does not.
class WebWithoutItsService : public WebTest {
  protected:
    void SetUp() override {
        startStore();
        web.start();
        client().useToken(frontEnd().insertSession().token);
    }

    void expectUnavailable() {
        const HttpResponse response = client().patch(serviceUri, R"({"SessionTimeout":600})");
        EXPECT_EQ(response.status, 503);
        EXPECT_NE(response.header("retry-after"), "");
        EXPECT_EQ(identifiersOf(errorsOf(response)),
                  Words{"Base.1.12.ServiceTemporarilyUnavailable"});
        EXPECT_EQ(store().hget(serviceUri, "SessionTimeout"), "300");
    }
};

TEST_F(WebWithoutItsService, TellsThatItIsUnavailableWhenItNeverStarted) {
    expectUnavailable();
}

TEST_F(WebWithoutItsService, TellsThatItIsUnavailableWhenNobodyListensAnyMore) {
    store().run({"RPUSH", "&&/redfish/v1/SessionService/PATCHQ", patchChannel});
    expectUnavailable();
}

TEST_F(WebWithoutItsService, TellsThatItIsUnavailableWhenNoAnswerComesInTime) {
    changeSetting("answerTimeout", "0.05");
    web.restart();
    store().run({"RPUSH", "&&/redfish/v1/SessionService/PATCHQ", patchChannel});
    StoreClient slow = controller.connect();
    slow.subscribe(patchChannel);
    expectUnavailable();

    // The answer that comes in the end is taken, and nothing is left.
    const std::string notice = slow.nextMessage();
    const std::string reply = notice.substr(notice.find(' ') + 1);
    EXPECT_GT(store().run({"TTL", reply}).integer, 0);
    store().hset(reply, {{"&&ReturnStatus", "OK"}});
    store().publish(reply, reply);
}

TEST_F(WebWithoutItsService, RefusesAFaultyBodyAllTheSame) {
    EXPECT_EQ(client().patch(serviceUri, R"({"SessionTimeout":6})").status, 400);
}

}  // namespace
}  // namespace testbed
