// Shows the life of sessions on a testbed, and checks all that it shows.
// Exit status 0: everything was as it must be.
#include <signal.h>

#include <cctype>
#include <chrono>
#include <cstdlib>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <thread>

#include "testbed/accounts.h"
#include "testbed/controller.h"
#include "testbed/demo_output.h"
#include "testbed/events_and_audit_log.h"
#include "testbed/web_front_end.h"

namespace {

using testbed::Account;
using testbed::Fields;
using testbed::Reply;
using testbed::Words;

constexpr std::size_t sessionLimit = 8;

// An entry of the event stream.
struct Event {
    std::string action;
    std::string resource;
    std::string type;
    std::string group;

    bool operator==(const Event&) const = default;
};

struct AuditEntry {
    std::string messageId;
    std::string user;
    std::string origin;

    bool operator==(const AuditEntry&) const = default;
};

// Nobody needs a whole token on the screen.
std::string withShortTokens(std::string text) {
    constexpr std::size_t digits = 64;
    constexpr std::size_t kept = 8;
    std::size_t run = 0;
    for (std::size_t at = 0; at < text.size(); ++at) {
        run = std::isxdigit(static_cast<unsigned char>(text[at])) != 0 ? run + 1 : 0;
        if (run == digits) {
            at = at + 1 - digits + kept;
            text.replace(at, digits - kept, "...");
            run = 0;
        }
    }
    return text;
}

std::string unquoted(const std::string& json) {
    return json.size() > 1 && json.front() == '"' ? json.substr(1, json.size() - 2) : json;
}

std::string loginBody(const Account& account, const std::string& password) {
    return std::string(R"({"UserName":")") + account.name + R"(","Password":")" + password +
           R"("})";
}

// What an HTTPS client got: the status, and the header lines with the body as they came.
struct WebAnswer {
    std::string status;
    std::string text;

    // A header's value; empty when it is not there.
    std::string header(const std::string& name) const {
        const std::size_t at = text.find("\n" + name + ": ");
        if (at == std::string::npos) {
            return {};
        }
        const std::size_t begin = at + name.size() + 3;
        return text.substr(begin, text.find_first_of("\r\n", begin) - begin);
    }
    bool holds(const std::string& part) const { return text.find(part) != std::string::npos; }
};

class Demo {
  public:
    explicit Demo(bool verbose) : output(verbose) {}
    // Runs all chapters; returns whether everything was right.
    bool run();
    // Says how to use the running controller, and waits for an interrupt.
    void keep();

  private:
    void showStart();
    void showRefusal();
    void showLogin();
    void showPatch();
    void showExpiry();
    void showLogout();
    void showLimit();
    void showWeb();
    void showRecords();

    // Logs in without output, and expects the events and the audit entry of a success.
    Reply login(const Account& account);
    // Logs the reader in until there are as many sessions as there can be; returns the new ones.
    Words fillUp(std::size_t present);
    // Logs these out again; returns whether all were.
    bool removeAll(const Words& sessions);
    // Expects the events and the audit entry of a session's end.
    void expectLogout(const std::string& sessionUri, const Account& account);
    void expectEvents(const std::string& action, const std::string& sessionUri);
    void show(const std::string& title, const Fields& fields);
    void showReply(const Reply& reply);
    // Shows a curl command and what it got, and runs it: `arguments` is all but the options that
    // every command has, and the address.
    WebAnswer curl(const std::string& arguments, const std::string& path);
    std::string curlCommand() const;

    std::vector<Event> events();
    std::vector<AuditEntry> auditEntries();

    testbed::Controller controller;
    testbed::WebFrontEnd web{controller};
    std::optional<testbed::FakeFrontEnd> frontEnd;
    std::optional<testbed::StoreClient> store;
    std::string firstSession;
    std::vector<Event> expectedEvents;
    std::vector<AuditEntry> expectedAuditEntries;
    int lastGroup = 0;
    testbed::DemoOutput output;
};

void Demo::show(const std::string& title, const Fields& fields) {
    output.details() << "   " << withShortTokens(title) << "\n";
    for (const auto& [field, value] : fields) {
        output.details() << "      " << std::left << std::setw(22) << field << " "
                         << withShortTokens(value) << "\n";
    }
}

void Demo::showReply(const Reply& reply) {
    show("reply", reply.fields);
    for (const testbed::Message& message : reply.messages) {
        output.details() << "      message                " << message.id;
        for (const std::string& argument : message.arguments) {
            output.details() << " " << argument;
        }
        output.details() << "\n";
    }
}

std::vector<Event> Demo::events() {
    std::vector<Event> found;
    for (const Words& event : testbed::lifeCycleEvents(*store)) {
        found.push_back({event.at(0), event.at(1), event.at(2), event.at(3)});
    }
    return found;
}

std::vector<AuditEntry> Demo::auditEntries() {
    std::vector<AuditEntry> found;
    for (const Words& entry : testbed::auditEntries(*store)) {
        // ["user"] and {"OriginOfCondition":{"@odata.id":"uri"}}
        const std::string& user = entry.at(1);
        const std::string& links = entry.at(2);
        const std::size_t uri = links.rfind(":\"") + 2;
        found.push_back({unquoted(entry.at(0)), user.substr(2, user.size() - 4),
                         links.substr(uri, links.rfind('"') - uri)});
    }
    return found;
}

void Demo::expectEvents(const std::string& action, const std::string& sessionUri) {
    const std::string group = std::to_string(++lastGroup);
    expectedEvents.push_back({action, sessionUri, "Session", group});
    expectedEvents.push_back({"change", testbed::sessionsUri, "SessionCollection", group});
}

Reply Demo::login(const Account& account) {
    Reply reply = frontEnd->login(account.name, account.password);
    if (reply.status() == "OK") {
        expectEvents("add", reply.location());
        expectedAuditEntries.push_back(
            {"AuditEvent.1.1.UserLogin", account.name, reply.location()});
    }
    return reply;
}

void Demo::expectLogout(const std::string& sessionUri, const Account& account) {
    expectEvents("delete", sessionUri);
    expectedAuditEntries.push_back({"AuditEvent.1.1.UserLogout", account.name, sessionUri});
}

void Demo::showStart() {
    const auto begin = std::chrono::steady_clock::now();
    controller.start();
    const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now() - begin);
    frontEnd.emplace(controller.frontEnd());
    store.emplace(controller.connect());
    std::cout << "Clients of a server's management controller log in, work and log out. The\n"
                 "session service decides who may, and for how long, and records it. Here with\n"
                 "a store, a web front end and accounts, in a private root, up in "
              << took.count() << " ms:\n\n"
              << std::flush;
}

void Demo::showRefusal() {
    output.beginChapter("wrong password", "A login with a wrong password");
    const Reply reply = frontEnd->login(testbed::administrator.name, "not the password");
    showReply(reply);
    output.check(reply.status() == "AUTH_FAILED" && reply.messages.size() == 1 &&
                     reply.messages[0].id == "ExtendedError.1.2.InvalidCredentials",
                 "the login is refused: the credentials are not valid");
    output.check(reply.token().empty() && store->llen(testbed::membersKey) == 0,
                 "there is no token and no session");
    const std::string reason =
        std::string(testbed::administrator.name) + " does not pass the PAM auth.";
    output.check(controller.readFile(testbed::logFile).find(reason) != std::string::npos,
                 "the log says why: " + reason);
    output.endChapter("refused: no session, no token; the log says why");
}

void Demo::showLogin() {
    output.beginChapter("login", "A login of the administrator");
    const Reply reply = login(testbed::administrator);
    showReply(reply);
    firstSession = reply.location();
    output.check(reply.status() == "OK" && reply.messages.size() == 1 &&
                     reply.messages[0].id == "Base.1.12.Created",
                 "the session is created");

    const Fields session = store->hgetall(firstSession);
    show("session resource " + firstSession, session);
    output.check(unquoted(store->hget(firstSession, "UserName")) == testbed::administrator.name &&
                     unquoted(store->hget(firstSession, "@odata.id")) == firstSession,
                 "the session resource belongs to the user");

    const std::string tokenKey = testbed::tokenKey(reply.token());
    show("token record " + tokenKey, store->hgetall(tokenKey));
    output.check(store->hget(tokenKey, "SessionID") == firstSession &&
                     store->hget(tokenKey, "Privilege") == testbed::administrator.privilege,
                 "the token leads to the session and carries the privilege of the user's role");
    output.check(
        unquoted(store->hget(testbed::tokenReferenceKey(firstSession), "XAUTH")) == reply.token(),
        "the session leads to the token");

    show(std::string("collection ") + testbed::sessionsUri, store->hgetall(testbed::sessionsUri));
    const Words members = store->lrange(testbed::membersKey);
    output.check(members == Words{"&&ObjectRef " + firstSession} &&
                     store->hget(testbed::sessionsUri, "Members@odata.count") == "1",
                 "the collection holds this session and counts one");

    for (const Event& event : events()) {
        output.details() << "   event " << event.action << " " << event.resource << " (group "
                         << event.group << ")\n";
    }
    output.check(events() == expectedEvents, "both changes are events, as one group");
    const std::vector<AuditEntry> audit = auditEntries();
    for (const AuditEntry& entry : audit) {
        output.details() << "   audit entry " << entry.messageId << " " << entry.user << "\n";
    }
    output.check(audit == expectedAuditEntries, "the login is in the audit log");
    output.endChapter(std::string(testbed::administrator.name) +
                      " has a session, a token and privileges");
}

void Demo::showPatch() {
    output.beginChapter("change", "The session timeout is changed");
    const std::string before = store->hget(testbed::serviceUri, "SessionTimeout");
    const Reply reply = frontEnd->patch({{"SessionTimeout", "600"}});
    showReply(reply);
    output.check(reply.status() == "OK", "the change is accepted");
    const std::string after = store->hget(testbed::serviceUri, "SessionTimeout");
    output.check(before == "300" && after == "600",
                 "the service says " + after + ", it was " + before);
    const std::string kept = controller.readFile(testbed::persistentFile);
    output.details() << "   " << testbed::persistentFile << "\n";
    std::istringstream lines(kept);
    for (std::string line; std::getline(lines, line);) {
        output.details() << "      " << line << "\n";
    }
    output.check(kept.find("\nSessionTimeout=600\n") != std::string::npos, "the file keeps it");
    expectedEvents.push_back(
        {"change", testbed::serviceUri, "SessionService", std::to_string(++lastGroup)});
    testbed::waitUntil("the change is an event",
                       [this] { return events().size() >= expectedEvents.size(); });
    output.check(events() == expectedEvents, "the change is an event");
    output.endChapter("SessionTimeout " + before + " -> " + after + " s; a file keeps it");
}

void Demo::showExpiry() {
    output.beginChapter("expiry", "A session expires");
    const Reply reply = login(testbed::operatorAccount);
    output.check(reply.status() == "OK", "the operator has logged in: " + reply.location());
    const std::string tokenKey = testbed::tokenKey(reply.token());
    output.check(store->hget(tokenKey, "Timeout") == "600", "the session has the new timeout");

    constexpr long timeout = 4;
    output.details() << "   Nobody wants to wait that long: this one gets " << timeout
                     << " seconds.\n";
    const long lastUse = std::stol(store->hget(tokenKey, "LastAccessed"));
    store->hset(tokenKey, {{"Timeout", std::to_string(timeout)}});
    long shown = -1;
    testbed::waitUntil("the session expires", [&] {
        const long left = timeout - (testbed::uptime() - lastUse);
        if (left != shown) {
            shown = left;
            output.showWait("idle until it expires", left, timeout);
        }
        return !store->exists(reply.location());
    });
    expectLogout(reply.location(), testbed::operatorAccount);
    testbed::waitUntil("the expiry is in the audit log",
                       [this] { return auditEntries().size() >= expectedAuditEntries.size(); });
    output.check(testbed::uptime() - lastUse >= timeout, "it was not removed early");
    output.check(
        !store->exists(tokenKey) && !store->exists(testbed::tokenReferenceKey(reply.location())),
        "its token is worth nothing any more");
    output.check(store->lrange(testbed::membersKey) == Words{"&&ObjectRef " + firstSession},
                 "the administrator's session is still there");
    output.endChapter("a session that nobody used for " + std::to_string(timeout) + " s is gone");
}

void Demo::showLogout() {
    output.beginChapter("logout", "The administrator logs out");
    const Reply reply = frontEnd->remove(firstSession);
    showReply(reply);
    expectLogout(firstSession, testbed::administrator);
    output.check(reply.status() == "OK_EMPTY", "the session is removed");
    output.check(store->llen(testbed::membersKey) == 0 && !store->exists(firstSession) &&
                     store->hget(testbed::sessionsUri, "Members@odata.count") == "0",
                 "the collection is empty");
    output.endChapter("session and token are gone");
}

Words Demo::fillUp(std::size_t present) {
    Words sessions;
    while (present + sessions.size() < sessionLimit) {
        const Reply reply = login(testbed::reader);
        if (reply.status() != "OK") {
            output.check(false, "a login below the limit answered " + reply.status());
            break;
        }
        sessions.push_back(reply.location());
    }
    return sessions;
}

bool Demo::removeAll(const Words& sessions) {
    bool allRemoved = true;
    for (const std::string& session : sessions) {
        allRemoved = frontEnd->remove(session).status() == "OK_EMPTY" && allRemoved;
        expectLogout(session, testbed::reader);
    }
    return allRemoved;
}

void Demo::showLimit() {
    output.beginChapter("limit", "As many sessions as there can be");
    const Words sessions = fillUp(0);
    output.check(
        store->hget(testbed::sessionsUri, "Members@odata.count") == std::to_string(sessionLimit),
        "the reader has logged in eight times");
    const Reply ninth = login(testbed::reader);
    showReply(ninth);
    output.check(ninth.status() == "UNAVAILABLE" && ninth.messages.size() == 1 &&
                     ninth.messages[0].id == "Base.1.12.SessionLimitExceeded",
                 "the ninth login is refused");

    output.check(removeAll(sessions), "all eight have logged out");
    output.check(store->llen(testbed::membersKey) == 0 && store->keys("&&X-AUTH-TOKEN-*").empty() &&
                     store->keys("*" + std::string(testbed::sessionsUri) + "/????????").empty(),
                 "nothing is left of any session");
    output.endChapter("eight sessions; a ninth login is refused");
}

std::string Demo::curlCommand() const {
    return "curl -sS -i --cacert " + web.certificatePath();
}

WebAnswer Demo::curl(const std::string& arguments, const std::string& path) {
    const std::string rest = arguments + (arguments.empty() ? "" : " ") + web.url() + path;
    output.details() << "   $ " << curlCommand() << " \\\n        " << rest << "\n";
    WebAnswer answer{.status = {}, .text = testbed::shellOutput(curlCommand() + " " + rest)};
    answer.status = answer.text.substr(0, answer.text.find('\r'));
    output.details() << "      " << answer.status << "\n";
    for (const char* header : {"Location", "X-Auth-Token", "ETag", "Retry-After"}) {
        if (const std::string value = answer.header(header); !value.empty()) {
            output.details() << "      " << header << ": " << withShortTokens(value) << "\n";
        }
    }
    const std::size_t body = answer.text.find("\r\n\r\n");
    if (body != std::string::npos && body + 4 < answer.text.size()) {
        output.details() << "      " << answer.text.substr(body + 4) << "\n";
    }
    return answer;
}

void Demo::showWeb() {
    output.beginChapter("HTTPS", "The same with curl, through the web front end");
    const std::string service = testbed::serviceUri;
    const std::string sessions = testbed::sessionsUri;
    const std::string json = "-H 'Content-Type: application/json' ";
    web.start();
    output.details() << "   It listens on " << web.url() << ".\n";
    output.check(curl("", "/redfish/v1/SessionService").holds("401 Unauthorized"),
                 "without a token nothing can be read");
    output.check(
        curl(json + "-d '" + loginBody(testbed::administrator, "not the password") + "'", sessions)
            .holds("401 Unauthorized"),
        "a wrong password is refused");

    const WebAnswer created = curl(
        json + "-d '" + loginBody(testbed::administrator, testbed::administrator.password) + "'",
        sessions);
    const std::string session = created.header("Location");
    output.check(created.holds("201 Created") && store->exists(session), "the session is created");
    expectEvents("add", session);
    expectedAuditEntries.push_back(
        {"AuditEvent.1.1.UserLogin", testbed::administrator.name, session});

    // The commands name the token as a variable: nobody needs the whole of it on the screen.
    setenv("TOKEN", created.header("X-Auth-Token").c_str(), 1);
    output.details() << "   $ TOKEN=... (the X-Auth-Token above)\n";
    const std::string token = "-H \"X-Auth-Token: $TOKEN\"";
    output.check(curl(token, session).holds(R"("UserName":"admin")"),
                 "the token reads its session");

    output.check(curl(token + " " + json + R"(-X PATCH -d '{"SessionTimeout":900}')", service)
                     .holds(R"("SessionTimeout":900)"),
                 "the session timeout is changed");
    expectedEvents.push_back(
        {"change", testbed::serviceUri, "SessionService", std::to_string(++lastGroup)});
    testbed::waitUntil("the change is an event",
                       [this] { return events().size() >= expectedEvents.size(); });
    output.check(curl(token + " " + json + R"(-X PATCH -d '{"SessionTimeout":5}')", service)
                     .holds("400 Bad Request"),
                 "a timeout below 30 seconds is refused");

    const WebAnswer second =
        curl(json + "-d '" +
                 loginBody(testbed::operatorAccount, testbed::operatorAccount.password) + "'",
             sessions);
    const std::string expiring = second.header("Location");
    expectEvents("add", expiring);
    expectedAuditEntries.push_back(
        {"AuditEvent.1.1.UserLogin", testbed::operatorAccount.name, expiring});
    output.details() << "   This one gets one second.\n";
    store->hset(testbed::tokenKey(second.header("X-Auth-Token")), {{"Timeout", "1"}});
    expectLogout(expiring, testbed::operatorAccount);
    testbed::waitUntil("the expiry is in the audit log",
                       [this] { return auditEntries().size() >= expectedAuditEntries.size(); });
    output.check(curl(token, expiring).holds("404 Not Found"), "it has expired by itself");

    const Words others = fillUp(1);
    output.check(
        curl(json + "-d '" + loginBody(testbed::reader, testbed::reader.password) + "'", sessions)
            .holds("503 Service"),
        "with eight sessions a ninth login is refused for now");
    output.check(removeAll(others), "the others have logged out");

    output.check(
        curl(token + " -X DELETE", session).holds("204 No Content") && !store->exists(session),
        "the session is removed");
    expectLogout(session, testbed::administrator);
    output.check(curl(token, service).holds("401 Unauthorized"),
                 "the token is worth nothing any more");
    unsetenv("TOKEN");
    output.check(store->keys("&&/frontend/*").empty(),
                 "the front end has left nothing in the store");
    output.endChapter("curl: login 201, read 200, limit 503, logout 204");
}

void Demo::showRecords() {
    output.beginChapter("records", "All events and audit entries");
    const std::vector<Event> foundEvents = events();
    for (const Event& event : foundEvents) {
        output.details() << "   event " << std::right << std::setw(3) << event.group << "  "
                         << std::left << std::setw(7) << event.action << event.resource << "\n";
    }
    output.check(
        foundEvents == expectedEvents,
        "the stream holds exactly these " + std::to_string(expectedEvents.size()) + " events");
    const std::vector<AuditEntry> foundEntries = auditEntries();
    for (const AuditEntry& entry : foundEntries) {
        output.details() << "   audit " << std::left << std::setw(27) << entry.messageId
                         << std::setw(9) << entry.user << entry.origin << "\n";
    }
    output.check(foundEntries == expectedAuditEntries,
                 "the audit log holds exactly these " +
                     std::to_string(expectedAuditEntries.size()) + " entries");
    output.check(controller.readFile(testbed::logFile).find("[Error]") == std::string::npos,
                 "the log of the service holds no error");
    output.endChapter(std::to_string(expectedEvents.size()) + " events and " +
                      std::to_string(expectedAuditEntries.size()) + " audit entries, as expected");
}

bool Demo::run() {
    showStart();
    showRefusal();
    showLogin();
    showPatch();
    showExpiry();
    showLogout();
    showLimit();
    showWeb();
    showRecords();
    std::cout << "\n"
              << output.count() << " statements checked: "
              << (output.allRight() ? "everything was as it must be.\n"
                                    : "something was WRONG, see above.\n");
    return output.allRight();
}

void Demo::keep() {
    const std::string user = testbed::administrator.name;
    const std::string password = testbed::administrator.password;
    std::cout
        << "\nThe controller goes on until you interrupt it (Ctrl-C). It serves a page for\n"
        << "browsers, and Redfish, on\n   " << web.url()
        << "\n(the browser asks whether to trust the certificate: it is this controller's own).\n"
        << "To read and to log in:\n"
        << "   " << curlCommand() << " -u " << user << ":" << password << " " << web.url()
        << testbed::serviceUri << "\n"
        << "   " << curlCommand() << " -H 'Content-Type: application/json' -d '"
        << loginBody(testbed::administrator, password) << "' " << web.url() << testbed::sessionsUri
        << "\nWith redfishtool (package redfishtool):\n"
        << "   redfishtool -r " << web.address() << ":8443 -u " << user << " -p " << password
        << " -A Session -S Always SessionService\n"
        << "With Python (package python3-sushy):\n"
        << "   /usr/bin/python3 -c \"import sushy; print(sushy.Sushy('" << web.url()
        << "/redfish/v1', '" << user << "', '" << password << "', verify='" << web.certificatePath()
        << "').get_session_service().session_timeout)\"\n"
        << "To see who comes and goes, in another terminal:\n   " << TESTBED_SESSIONCTL
        << " --root " << controller.path("") << " watch\n"
        << "Its store:\n   REDISCLI_AUTH='" << controller.storePassword() << "' redis-cli -s "
        << controller.socketPath() << "\nThe logs of the service and of the front end:\n   "
        << controller.path(testbed::logFile) << "\n   " << controller.path(testbed::webErrorLogFile)
        << "\nIts accounts:\n";
    for (const Account& account :
         {testbed::administrator, testbed::operatorAccount, testbed::reader, testbed::expired}) {
        std::cout << "   " << std::left << std::setw(10) << account.name << account.password
                  << "\n";
    }
    std::cout << std::flush;
    int received = 0;
    sigset_t interrupts;
    sigemptyset(&interrupts);
    sigaddset(&interrupts, SIGINT);
    sigaddset(&interrupts, SIGTERM);
    sigprocmask(SIG_BLOCK, &interrupts, nullptr);
    sigwait(&interrupts, &received);
    std::cout << "\nThe controller ends.\n";
}

}  // namespace

int main(int argc, char** argv) {
    bool keep = false;
    bool verbose = false;
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if (argument == "--keep") {
            keep = true;
        } else if (argument == "--verbose") {
            verbose = true;
        } else {
            std::cerr << "usage: demo [--keep] [--verbose]\n";
            return 2;
        }
    }
    try {
        Demo demo(verbose);
        const bool right = demo.run();
        if (keep) {
            demo.keep();
        } else {
            std::cout << "--verbose shows every request; --keep leaves it running, to try.\n";
        }
        return right ? 0 : 1;
    } catch (const std::exception& failure) {
        std::cerr << "\nThe demo cannot go on: " << failure.what() << "\n";
        return 1;
    }
}
