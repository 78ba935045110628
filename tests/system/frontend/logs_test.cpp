// What the front end's logs tell, and what they must not.
#include <signal.h>

#include <nlohmann/json.hpp>
#include <regex>

#include "support/web_test.h"

namespace testbed {
namespace {

using testing::HasSubstr;
using testing::Not;

constexpr const char* escape = "\x1b[2J";

class WebLogs : public WebTest {
  protected:
    // A body that is too large, and is not sent.
    HttpResponse sendTooMuch(const std::string& query, const std::string& referrer) {
        return client().request({.method = "PATCH",
                                 .path = serviceUri + query,
                                 .headers = {"Content-Length: 70000", "Referer: " + referrer},
                                 .body = std::string(70000, ' ')});
    }
    // How often a line's text stands for, over all lines that hold it.
    long counted(const std::string& text) const {
        long sum = 0;
        for (const std::string& line : linesWith(text)) {
            std::smatch times;
            sum += std::regex_search(line, times, std::regex(R"(\((\d+) times\))"))
                       ? std::stol(times[1])
                       : 1;
        }
        return sum;
    }
    Words linesWith(const std::string& text) const {
        Words found;
        for (const std::string& line : splitLines(web.errorLog())) {
            if (line.find(text) != std::string::npos) {
                found.push_back(line);
            }
        }
        return found;
    }
    void expectPlain(const std::string& log) {
        for (const char character : log) {
            const auto byte = static_cast<unsigned char>(character);
            ASSERT_TRUE(byte == '\n' || (byte >= ' ' && byte < 0x7f))
                << "the byte " << static_cast<int>(byte);
        }
        EXPECT_THAT(log, Not(HasSubstr("secret")));
        EXPECT_THAT(log, Not(HasSubstr("referrer")));
    }
};

TEST_F(WebLogs, HoldNothingOfTheClientsThatIsNotEscaped) {
    expectWebErrorLine("redis.sock failed");
    expectWebErrorLine("nested too deeply");
    const std::string query = "?secret=\xc2\x9b\"1";
    const std::string referrer = "http://x/secret" + std::string(escape);
    EXPECT_EQ(sendTooMuch(query, referrer).status, 413);

    TlsConnection chunked = client().connect();
    chunked.send("PATCH " + (serviceUri + query) + " HTTP/1.1\r\nHost: x\r\nReferer: " + referrer +
                 "\r\nTransfer-Encoding: chunked\r\n\r\n" + "20000\r\n" +
                 std::string(0x20000, ' ') + "\r\n0\r\n\r\n");
    chunked.receiveUntil("\r\n");
    for (const std::string& bytes :
         {std::string("GET /") + std::string(9000, 'x') + query + " HTTP/1.1\r\n\r\n",
          std::string("\x1b x\r\n\r\n"), std::string("GET /\x1bx HTTP/1.1\r\n\r\n"),
          std::string("GET / HTTP/1.1\r\nHost: secret\x1b\r\n\r\n")}) {
        TlsConnection connection = client().connect();
        connection.send(bytes);
        connection.receiveAll();
    }

    store().hset("circle", {{"&&Object Inner circle", ""}});
    store().hset("/redfish/v1/Chassis",
                 {{"@odata.id", "\"/redfish/v1/Chassis\""}, {"&&Object Inner circle", ""}});
    client().useToken(frontEnd().insertSession().token);
    const auto get = [&](const std::string& path) {
        return client().request({.path = path + query, .headers = {"Referer: " + referrer}});
    };
    EXPECT_EQ(get("/redfish/v1/Chassis").status, 500);
    controller.stopStore();
    EXPECT_EQ(get(serviceUri).status, 503);

    waitUntil("the failures are logged", [&] {
        return !linesWith("nested too deeply").empty() && !linesWith("the store: ").empty() &&
               !linesWith("status 413").empty() && !linesWith("redis.sock failed").empty();
    });
    expectPlain(web.errorLog());
    expectPlain(web.accessLog());
}

// Nobody else uses the store.
class WebLogsWithFewConnections : public WebLogs {
  protected:
    void SetUp() override {
        std::string configuration = controller.readFile(webConfigurationFile);
        const std::string many = "worker_connections 1024;";
        controller.writeFile(
            webConfigurationFile,
            configuration.replace(configuration.find(many), many.size(), "worker_connections 12;"));
        startStore();
        web.start();
        waitUntil("the front end listens", [this] {
            return !store().run({"CLIENT", "LIST", "TYPE", "pubsub"}).text.empty();
        });
    }
};

TEST_F(WebLogsWithFewConnections, HoldNothingOfTheClientWhenThereIsNoneForTheStore) {
    std::vector<TlsConnection> unfinished;
    long status = 0;
    while (status != 503) {
        // The connection to the store is not to be one that is open.
        store().run({"CLIENT", "KILL", "TYPE", "normal", "SKIPME", "yes"});
        status =
            newClient()
                .request({.path = "/redfish/v1?secret", .headers = {"Referer: http://referrer"}})
                .status;
        unfinished.push_back(newClient().connect());
        unfinished.back().send(
            "POST " + std::string(sessionsUri) +
            " HTTP/1.1\r\nHost: x\r\nContent-Type: application/json\r\nContent-Length: 9\r\n\r\n");
    }
    unfinished.clear();
    waitUntil("it is logged", [&] { return !linesWith("the store: ").empty(); });
    expectPlain(web.errorLog());
}

TEST_F(WebLogs, HaveShortLinesWhateverClientsSend) {
    std::string name;
    while (name.size() < 64000) {
        name += "\u00e9";
    }
    EXPECT_EQ(client().login(name, "any").status, 400);
    const std::string path = "/" + std::string(7000, '\xfe');
    EXPECT_EQ(client().get(path).status, 400);
    EXPECT_EQ(client().request({.method = std::string(7000, 'M'), .path = "/redfish"}).status, 501);
    waitUntil("all of them are logged", [&] { return splitLines(web.accessLog()).size() == 3; });
    for (const std::string& log : {web.accessLog(), controller.readFile(webRefusedLoginsFile)}) {
        EXPECT_FALSE(log.empty());
        for (const std::string& line : splitLines(log)) {
            EXPECT_LT(line.size(), 2500U);
        }
    }
}

TEST_F(WebLogs, CountRefusalsAndDoNotListThem) {
    constexpr long times = 60;
    for (int i = 0; i < times; ++i) {
        EXPECT_EQ(sendTooMuch("", "x").status, 413);
    }
    // What has not been told yet is told at the end.
    web.restart();
    EXPECT_EQ(counted("refused by the web server with status 413"), times);
    EXPECT_LE(linesWith("refused").size(), 2U);
    EXPECT_LE(splitLines(web.errorLog()).size(), 4U) << web.errorLog();
}

TEST_F(WebLogs, TellOfRefusalsWhileTheyHappen) {
    sendTooMuch("", "x");
    waitUntil("the refusal is logged", [&] { return !linesWith("status 413").empty(); });
}

TEST_F(WebLogs, AreOpenedAgainAfterTheirRotation) {
    client().get("/redfish");
    for (const char* log : {webAccessLogFile, webErrorLogFile}) {
        controller.writeFile(std::string(log) + ".1", controller.readFile(log));
        controller.removeFile(log);
    }
    web.process().signal(SIGUSR1);
    waitUntil("the logs are there again", [&] {
        return controller.fileExists(webAccessLogFile) && controller.fileExists(webErrorLogFile);
    });
    waitUntil("the worker writes into them", [&] {
        client().get("/redfish");
        return !web.accessLog().empty();
    });
}

TEST_F(WebLogs, AreAllRotated) {
    const std::string configuration = controller.readFile(webConfigurationFile);
    controller.install(TEST_SHIPPED_FRONT_END "/logrotate.conf", "/tmp/logrotate.conf");
    const std::string rotation = controller.readFile("/tmp/logrotate.conf");
    EXPECT_THAT(rotation, HasSubstr("/var/log/session-service-frontend/*.log {"));
    EXPECT_THAT(rotation, HasSubstr("kill -USR1"));
    const std::regex log(R"(\b(?:access|error)_log ([^ ;]+))");
    for (std::sregex_iterator match(configuration.begin(), configuration.end(), log), end;
         match != end; ++match) {
        EXPECT_TRUE(std::regex_match((*match)[1].str(),
                                     std::regex(R"(/var/log/session-service-frontend/[^/]+\.log)")))
            << (*match)[1];
    }
}

}  // namespace
}  // namespace testbed
