#include "support/web_test.h"

#include <openssl/evp.h>
#include <signal.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <fstream>
#include <iostream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <regex>

namespace testbed {

namespace {

constexpr const char* requestKeys = "&&/frontend/*";
constexpr std::array errorLevels{"[error]", "[crit]", "[alert]", "[emerg]"};

// As HTTP Basic sends them.
std::string encodedCredentials(const Account& account) {
    const std::string plain = std::string(account.name) + ":" + account.password;
    // Four characters for three bytes, and a zero byte.
    std::vector<unsigned char> text((plain.size() + 2) / 3 * 4 + 1);
    EVP_EncodeBlock(text.data(), reinterpret_cast<const unsigned char*>(plain.data()),
                    static_cast<int>(plain.size()));
    return {text.begin(), text.end() - 1};
}

// The digits of a token. An encrypted password has more of them.
bool containsToken(const std::string& text) {
    constexpr std::size_t digits = 64;
    std::size_t run = 0;
    return std::any_of(text.begin(), text.end(), [&](unsigned char character) {
        run = std::isxdigit(character) != 0 ? run + 1 : 0;
        return run == digits;
    });
}

}  // namespace

WebTest::WebTest(const ControllerOptions& options) : SystemTest(options) {}

void WebTest::SetUp() {
    start();
    web.start();
}

void WebTest::TearDown() {
    httpClient.reset();
    if (web.started()) {
        checkLeftovers();
        if (const auto ended = web.process().exitStatus()) {
            ADD_FAILURE() << "The web front end ended with " << toText(*ended) << ".";
        } else {
            waitForErrorLines();
            EXPECT_EQ(toText(web.stop()), toText(ExitStatus{}))
                << "for the end of the web front end";
        }
    }
    checkErrorLog();
    checkSecrets(web.accessLog());
    checkSecrets(web.errorLog());
    checkSecrets(controller.readFile(webRefusedLoginsFile));
    waitUntilDaemonIsIdle();
    SystemTest::TearDown();
    if (HasFailure()) {
        std::cerr << "--- access log of the web front end\n"
                  << web.accessLog() << "--- its error log\n"
                  << web.errorLog() << "--- its standard error\n"
                  << controller.errorsOf("nginx") << "---\n";
    }
}

// The daemon replies before it writes events and audit entries: the store must not stop
// meanwhile. Each thread serves one request after the other, and refuses these at once.
void WebTest::waitUntilDaemonIsIdle() {
    if (!controller.storeStarted() || !controller.daemonStarted() ||
        controller.daemon().exitStatus()) {
        return;
    }
    releasePam();
    controller.writeFile(keyFile, std::string(64, '0'));
    store().del(serviceUri);
    store().hset(serviceUri, {{"ServiceEnabled", "false"}});
    frontEnd().login("nobody", "");
    frontEnd().remove(sessionsUri + std::string("/none"));
    frontEnd().patch({{"Unknown", "1"}});
}

void WebTest::changeSetting(const std::string& name, const std::string& value) {
    const std::regex line("\n    " + name + " = [^\n]*");
    const std::string settings = controller.readFile(webSettingsFile);
    if (!std::regex_search(settings, line)) {
        throw Failure("There is no setting " + name + ".");
    }
    controller.writeFile(webSettingsFile,
                         std::regex_replace(settings, line, "\n    " + name + " = " + value + ","));
}

void WebTest::changeLimit(const std::string& text, const std::string& replacement) {
    std::string limits = controller.readFile(webLimitsFile);
    const std::size_t at = limits.find(text);
    if (at == std::string::npos) {
        throw Failure("There is no limit " + text + ".");
    }
    controller.writeFile(webLimitsFile, limits.replace(at, text.size(), replacement));
}

pid_t WebTest::reload() {
    const pid_t worker = childrenOf(web.process().pid()).at(0);
    web.process().signal(SIGHUP);
    // Its title tells.
    const std::string titleFile = "/proc/" + std::to_string(worker) + "/cmdline";
    waitUntil("the worker is about to end", [&] {
        std::ifstream file(titleFile);
        const std::string title{std::istreambuf_iterator<char>(file), {}};
        return title.empty() || contains(title, "shutting down");
    });
    return worker;
}

HttpClient& WebTest::client() {
    if (!httpClient) {
        httpClient.emplace(newClient());
    }
    return *httpClient;
}

HttpClient WebTest::newClient(HttpOptions options) const {
    if (options.url.empty()) {
        options.url = web.url();
    }
    if (options.certificatePath.empty()) {
        options.certificatePath = web.certificatePath();
    }
    return HttpClient(std::move(options));
}

void WebTest::checkLeftovers() {
    if (!controller.storeStarted()) {
        return;
    }
    StoreClient store = controller.connect();
    Words keys;
    try {
        waitUntil("no request is left in the store",
                  [&] { return (keys = store.keys(requestKeys)).empty(); });
    } catch (const Failure& failure) {
        ADD_FAILURE() << failure.what() << " " << testing::PrintToString(keys);
    }
}

// Some lines are written a moment after what they tell of.
void WebTest::waitForErrorLines() {
    try {
        waitUntil("the expected error lines are there", [&] {
            const std::string log = web.errorLog();
            return std::all_of(expectedWebErrors.begin(), expectedWebErrors.end(),
                               [&](const std::string& text) { return contains(log, text); });
        });
    } catch (const Failure& failure) {
        ADD_FAILURE() << failure.what();
    }
}

void WebTest::checkErrorLog() {
    Words errorLines;
    for (const std::string& line : splitLines(web.errorLog())) {
        if (std::any_of(errorLevels.begin(), errorLevels.end(),
                        [&](const char* level) { return contains(line, level); })) {
            errorLines.push_back(line);
        }
    }
    expectErrorLines(errorLines, expectedWebErrors);
}

void WebTest::checkSecrets(const std::string& log) const {
    for (const Account& account : {administrator, operatorAccount, reader, expired}) {
        EXPECT_FALSE(contains(log, account.password)) << "The log tells a password.";
        EXPECT_FALSE(contains(log, encodedCredentials(account))) << "The log tells credentials.";
    }
    EXPECT_FALSE(containsToken(log)) << "The log tells a token.";
}

Words messageIds(const HttpResponse& response) {
    const nlohmann::json body = response.json();
    Words ids;
    for (const nlohmann::json& message : body.at("error").at("@Message.ExtendedInfo")) {
        ids.push_back(message.at("MessageId"));
    }
    return ids;
}

}  // namespace testbed
