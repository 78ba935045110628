// Bodies that are made to hurt: many properties, long names, zero bytes.
#include <fstream>
#include <nlohmann/json.hpp>

#include "support/web_test.h"

namespace testbed {
namespace {

using Json = nlohmann::json;

constexpr std::size_t maxBody = 65536;
constexpr std::size_t maxAnswer = 32768;
constexpr std::size_t maxMessages = 11;

// An object with as many properties as fit into the largest body.
std::string bodyOfProperties() {
    std::string body = "{";
    for (int number = 0; body.size() < maxBody - 10; ++number) {
        body += (body.size() > 1 ? ",\"" : "\"") + std::to_string(number) + "\":1";
    }
    return body + "}";
}

// An object with few properties whose names fill the largest body.
std::string bodyOfLongNames() {
    std::string body = R"({"\u00e9)";
    for (char first = 'a'; first < 'g'; ++first) {
        std::string name(1, first);
        while (name.size() < 10000) {
            name += "\u00e9";
        }
        body += "\":1,\"" + name;
    }
    return body + "\":1}";
}

class WebBodies : public WebTest {
  protected:
    // Processor time of the front end's worker so far.
    double workerMilliseconds() {
        const pid_t worker = childrenOf(web.process().pid()).at(0);
        long long nanoseconds = 0;
        std::ifstream(procFile(worker, "schedstat")) >> nanoseconds;
        return static_cast<double>(nanoseconds) / 1e6;
    }

    void expectBounded(const HttpResponse& answer) {
        EXPECT_EQ(answer.status, 400);
        EXPECT_LT(answer.body.size(), maxAnswer);
        const Json messages = answer.json().at("error").at("@Message.ExtendedInfo");
        EXPECT_LE(messages.size(), maxMessages);
        EXPECT_GE(messages.size(), 2U);
    }
};

TEST_F(WebBodies, WithManyPropertiesGetAShortAnswer) {
    const HttpResponse answer = client().post(sessionsUri, bodyOfProperties());
    expectBounded(answer);
    const Json messages = answer.json().at("error").at("@Message.ExtendedInfo");
    const Json& last = messages.back();
    EXPECT_EQ(last.at("MessageId"), "ExtendedError.1.2.FurtherErrors");
    EXPECT_GT(std::stoi(last.at("MessageArgs").at(0).get<std::string>()), 6000);
    // What is missing is told before what is too much.
    EXPECT_THAT(answer.body, testing::HasSubstr("Base.1.12.PropertyMissing"));
}

TEST_F(WebBodies, WithManyPropertiesTakeLittleTime) {
    const std::string body = bodyOfProperties();
    client().post(sessionsUri, body);
    constexpr int times = 20;
    const double before = workerMilliseconds();
    for (int i = 0; i < times; ++i) {
        EXPECT_EQ(client().post(sessionsUri, body).status, 400);
    }
    EXPECT_LT((workerMilliseconds() - before) / times, 20);
}

TEST_F(WebBodies, WithLongNamesGetAShortAnswer) {
    client().useToken(frontEnd().insertSession().token);
    for (const HttpResponse& answer : {client().post(sessionsUri, bodyOfLongNames()),
                                       client().patch(serviceUri, bodyOfLongNames())}) {
        expectBounded(answer);
        // No character is cut in two.
        EXPECT_NO_THROW(answer.json().dump());
    }
}

TEST_F(WebBodies, WithALongValueGetAShortAnswer) {
    client().useToken(frontEnd().insertSession().token);
    const HttpResponse answer =
        client().patch(serviceUri, R"({"SessionTimeout":")" + std::string(60000, 'x') + R"("})");
    EXPECT_EQ(answer.status, 400);
    EXPECT_LT(answer.body.size(), maxAnswer);
}

TEST_F(WebBodies, WithManyPropertiesBesideAChangeStillChange) {
    client().useToken(frontEnd().insertSession().token);
    std::string body = bodyOfProperties();
    body.replace(1, 40, R"("ServiceEnabled":false,"SessionTimeout":600,)");
    body.erase(body.find("600,") + 4,
               body.find(',', body.find("600,") + 4) - body.find("600,") - 3);
    const HttpResponse answer = client().patch(serviceUri, body);
    EXPECT_EQ(answer.status, 200);
    EXPECT_LT(answer.body.size(), maxAnswer);
    EXPECT_EQ(store().hget(serviceUri, "SessionTimeout"), "600");
    const Json shown = answer.json();
    // What the service refused is told, whatever else is wrong.
    EXPECT_EQ(shown.at("ServiceEnabled@Message.ExtendedInfo").at(0).at("MessageId"),
              "Base.1.12.PropertyNotWritable");
    EXPECT_EQ(shown.at("@Message.ExtendedInfo").at(0).at("MessageId"),
              "ExtendedError.1.2.FurtherErrors");
}

TEST_F(WebBodies, WithAZeroByteAreNoJson) {
    usePamTest("env=PRIVILEGES=511");
    const InsertedSession session = frontEnd().insertSession();
    const std::string zero(1, '\0');
    const auto expectMalformed = [](const HttpResponse& answer) {
        EXPECT_EQ(answer.status, 400);
        EXPECT_THAT(answer.body, testing::HasSubstr("Base.1.12.MalformedJSON"));
    };
    const std::string login = R"({"UserName":"a","Password":"b"})";
    const std::string change = R"({"SessionTimeout":600})";
    for (const std::string& behind :
         {zero, zero + "x", zero + login, zero + "\"", zero + "{", "\n" + zero, zero + ":"}) {
        SCOPED_TRACE(behind.substr(1));
        client().useToken("");
        expectMalformed(client().post(sessionsUri, login + behind));
        client().useToken(session.token);
        expectMalformed(client().patch(serviceUri, change + behind));
    }
    for (const std::string& body :
         {zero, zero + change, "{" + zero + change.substr(1),
          "{\"SessionTimeout\":600" + zero + "}", "{\"SessionTimeout\":" + zero + "600}",
          "{\"Session" + zero + "Timeout\":600}"}) {
        expectMalformed(client().patch(serviceUri, body));
    }
    EXPECT_TRUE(pamRecords().empty());
    EXPECT_EQ(store().hget(serviceUri, "SessionTimeout"), "300");
}

}  // namespace
}  // namespace testbed
