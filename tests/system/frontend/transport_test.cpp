// Below Redfish: headers of every answer, the way from HTTP to HTTPS, and IPv6.
#include <regex>

#include "support/web_test.h"

namespace testbed {
namespace {

using testing::HasSubstr;
using testing::Not;

class WebTransport : public WebTest {
  protected:
    // The head of what comes back for these bytes, over TLS or without.
    std::string headOf(const std::string& bytes, const std::string& url) {
        TlsConnection connection = newClient({.url = url}).connect();
        connection.send(bytes);
        return connection.receiveUntil("\r\n\r\n");
    }
    // Where a request without TLS is sent that names this host.
    std::string redirectionOf(const std::string& host) {
        const HttpResponse answer =
            newClient({.url = web.plainUrl()}).request({.path = "/redfish?a=b", .headers = {host}});
        EXPECT_EQ(answer.status, 301) << host;
        return answer.location();
    }
};

TEST_F(WebTransport, TellsBrowsersToKeepToTlsAndToTheType) {
    client().useToken(frontEnd().insertSession().token);
    const auto expectHeaders = [](const HttpResponse& answer) {
        EXPECT_EQ(answer.headers.count("strict-transport-security"), 1U) << answer.status;
        EXPECT_THAT(answer.header("strict-transport-security"), HasSubstr("max-age=31536000"));
        EXPECT_EQ(answer.header("x-content-type-options"), "nosniff") << answer.status;
    };
    for (const char* path : {"/redfish", "/redfish/v1/$metadata", serviceUri, "/redfish/v1/Nowhere",
                             "/redfish/v1?$top=1", "/refused"}) {
        expectHeaders(client().get(path));
    }
    for (const char* method : {"HEAD", "PUT", "TRACE", "BREW", "PATCH"}) {
        expectHeaders(client().request({.method = method, .path = serviceUri}));
    }
    expectHeaders(client().login(reader.name, reader.password));
    expectHeaders(client().patch(serviceUri, std::string(65537, ' ')));
    for (const char* bytes :
         {"nonsense\r\n\r\n", "GET / HTTP/1.1\r\n\r\n", "GET / HTTP/3.0\r\nHost: x\r\n\r\n"}) {
        const std::string head = headOf(bytes, web.url());
        EXPECT_THAT(head, HasSubstr("Strict-Transport-Security: max-age=31536000\r\n")) << bytes;
        EXPECT_THAT(head, HasSubstr("X-Content-Type-Options: nosniff\r\n")) << bytes;
    }
}

TEST_F(WebTransport, LeadsToNoHostThatIsAnothers) {
    const std::string own = web.url() + "/redfish?a=b";
    for (const char* host :
         {"Host: evil.example", "Host: evil.example:8080", "Host: 192.0.2.1", "Host: [2001:db8::1]",
          "Host: localhost.evil.example", "Host: evillocalhost", "Host: testbed"}) {
        EXPECT_EQ(redirectionOf(host), own) << host;
    }
    EXPECT_EQ(redirectionOf("Host: " + web.address()), own);
    EXPECT_EQ(redirectionOf("Host: " + web.address() + ":8080"), own);
    EXPECT_THAT(headOf("GET http://evil.example/redfish HTTP/1.1\r\nHost: evil.example\r\n\r\n",
                       web.plainUrl()),
                HasSubstr("Location: " + web.url() + "/redfish\r\n"));
    EXPECT_THAT(headOf("GET /redfish HTTP/1.0\r\n\r\n", web.plainUrl()),
                HasSubstr("Location: " + web.url() + "/redfish\r\n"));
    const std::string plain = headOf("GET / HTTP/1.0\r\n\r\n", web.plainUrl());
    EXPECT_THAT(plain, HasSubstr("X-Content-Type-Options: nosniff\r\n"));
    // This header means something over TLS only.
    EXPECT_THAT(plain, Not(HasSubstr("Strict-Transport-Security")));
}

TEST_F(WebTransport, LeadsToANameThatItsCertificateHas) {
    for (const char* host : {"Host: localhost", "Host: localhost:8080", "Host: LOCALHOST"}) {
        EXPECT_EQ(redirectionOf(host), "https://localhost:8443/redfish?a=b") << host;
    }
}

// With the files that say where to listen as they are shipped, but for ports that need no
// privilege, in a network of its own.
class WebShippedAddresses : public WebTest {
  protected:
    void SetUp() override {
        startStore();
        listenAt("listen.conf", "443", "8443");
        listenAt("listen-http.conf", "80", "8080");
    }
    void listenAt(const std::string& name, const std::string& shipped, const std::string& port) {
        const std::string file = "/usr/local/etc/nginx/" + name;
        controller.install(TEST_SHIPPED_FRONT_END "/" + name, file);
        std::string text = controller.readFile(file);
        EXPECT_THAT(text, HasSubstr("listen " + shipped));
        EXPECT_THAT(text, HasSubstr("listen [::]:" + shipped));
        if (!hasIpv6()) {
            text = std::regex_replace(text, std::regex("listen \\[::\\][^\n]*"), "");
        }
        controller.writeFile(file,
                             std::regex_replace(text, std::regex("\\b" + shipped + "\\b"), port));
    }
    bool hasIpv6() { return !run("cat /proc/net/if_inet6 || true", "").empty(); }
    Words hosts() { return hasIpv6() ? Words{"127.0.0.1", "[::1]"} : Words{"127.0.0.1"}; }

    // What curl gets of a front end that runs as long as this.
    std::string get(const std::string& url) {
        return run("nginx -c " + std::string(webConfigurationFile) +
                       " & "
                       "curl --silent --show-error --insecure --globoff --include "
                       "--retry 30 --retry-delay 1 --retry-connrefused \"$1\"; "
                       "status=$?; kill $!; wait; exit $status",
                   url);
    }

  private:
    // What a shell writes that runs this with one argument.
    std::string run(const std::string& script, const std::string& argument) {
        const std::string before = controller.outputOf("sh");
        const auto program = controller.startProgram(
            {.command = {"/bin/sh", "-c", script, "sh", argument}, .user = 33});
        EXPECT_EQ(toText(program->wait()), toText(ExitStatus{})) << controller.errorsOf("sh");
        return controller.outputOf("sh").substr(before.size());
    }
};

TEST_F(WebShippedAddresses, AreReached) {
    for (const std::string& host : hosts()) {
        EXPECT_THAT(get("https://" + host + ":8443/redfish"),
                    HasSubstr(R"({"v1":"/redfish/v1/"})"));
    }
}

TEST_F(WebShippedAddresses, LeadFromHttpToHttps) {
    for (const std::string& host : hosts()) {
        EXPECT_THAT(get("http://" + host + ":8080/redfish"),
                    HasSubstr("Location: https://" + host + "/redfish\r\n"));
    }
}

}  // namespace
}  // namespace testbed
