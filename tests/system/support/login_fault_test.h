// The fixture of tests about logins that meet a fault outside the daemon, such as a broken PAM
// module: afterwards the daemon must work as before.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "support/login_test.h"
#include "testbed/events_and_audit_log.h"

namespace testbed {

// A FIFO inside the private root. A program that reads it blocks until the gate is opened.
class Gate {
  public:
    Gate(Controller& host, std::string fifo) : controller(host), inside(std::move(fifo)) {
        const std::string path = controller.path(inside);
        if (mkfifo(path.c_str(), S_IRUSR | S_IWUSR) != 0) {
            throw Failure("No FIFO: " + std::string(std::strerror(errno)));
        }
        // For reading as well, because there may be no reader yet.
        descriptor = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
    }
    ~Gate() { open(); }
    Gate(const Gate&) = delete;
    Gate& operator=(const Gate&) = delete;

    void open() {
        if (descriptor >= 0) {
            // Removed first, so that no later reader blocks for ever.
            controller.removeFile(inside);
            close(descriptor);
            descriptor = -1;
        }
    }

  private:
    Controller& controller;
    std::string inside;
    int descriptor = -1;
};

class LoginFaultTest : public LoginTest {
  protected:
    using LoginTest::LoginTest;

    void installProgram(const std::string& inside, const std::string& script) {
        controller.writeFile(inside, "#!/bin/sh\n" + script + "\n");
        chmod(controller.path(inside).c_str(), S_IRWXU);
    }
    void waitForFile(const std::string& inside) {
        waitUntil(inside + " is there", [&] { return controller.fileExists(inside); });
    }

    std::string processFolder() { return "/proc/" + std::to_string(controller.daemon().pid()); }
    // The process numbers of the daemon's children, as seen from outside, zombies included.
    Words children() {
        Words numbers;
        for (const auto& task : std::filesystem::directory_iterator(processFolder() + "/task")) {
            std::ifstream list(task.path() / "children");
            for (std::string number; list >> number;) {
                numbers.push_back(number);
            }
        }
        return numbers;
    }

    // There is no session and never was one: no token, no event, no audit entry.
    void expectNoSession() {
        EXPECT_EQ(store().lrange(membersKey), Words{});
        EXPECT_EQ(store().keys(std::string(sessionsUri) + "/*"), Words{});
        EXPECT_EQ(store().keys("&&X-AUTH-TOKEN-*"), Words{});
        EXPECT_EQ(auditEntries(store()), std::vector<Words>{});
        EXPECT_EQ(lifeCycleEvents(store()), std::vector<Words>{});
    }

    // A login is refused like one with a wrong password, with this debug line.
    void expectRefusal(const std::string& line) {
        const long before = countLogged(line);
        const Reply reply = frontEnd().login("somebody", "anything");
        const std::string list =
            reply.published.substr(0, reply.published.rfind('/') + 1) + "ExtendedInfo";
        EXPECT_EQ(reply.fields,
                  (Fields{{"&&ReturnStatus", "AUTH_FAILED"}, {"&&ExtendedInfo", list}}));
        EXPECT_EQ(reply.messages,
                  (std::vector<Message>{{"ExtendedError.1.2.InvalidCredentials", {}}}));
        EXPECT_EQ(countLogged(line), before + 1);
        expectNoSession();
    }
    // A login succeeds, with this privilege and everything that belongs to a session; and its
    // logout does.
    void expectLogin(const std::string& privilege) {
        Request login =
            frontEnd().prepareLogin("somebody", "anything", {.leaveOut = {operationPrivileges}});
        login.send();
        expectLoggedIn(login.reply(), privilege);
    }
    void expectLoggedIn(const Reply& reply, const std::string& privilege) {
        ASSERT_EQ(reply.status(), "OK");
        EXPECT_EQ(reply.messages, (std::vector<Message>{{"Base.1.12.Created", {}}}));
        EXPECT_EQ(reply.token().size(), 64U);
        const Fields token = store().hgetall(tokenKey(reply.token()));
        EXPECT_EQ(token.at("UserName"), "somebody");
        EXPECT_EQ(token.at("Privilege"), privilege);
        EXPECT_EQ(token.at("SessionID"), reply.location());
        EXPECT_EQ(store().hget(reply.location(), "UserName"), "\"somebody\"");
        const std::vector<Words> entries = auditEntries(store());
        ASSERT_FALSE(entries.empty());
        EXPECT_EQ(entries.back(),
                  (Words{"\"AuditEvent.1.1.UserLogin\"", R"(["somebody"])",
                         R"({"OriginOfCondition":{"@odata.id":")" + reply.location() + R"("}})"}));
        EXPECT_EQ(frontEnd().remove(reply.location()).status(), "OK_EMPTY");
        EXPECT_FALSE(store().exists(tokenKey(reply.token())));
    }

    // Logouts, expiry and PATCH work, while logins wait.
    void expectOtherRequestsServed() {
        EXPECT_EQ(frontEnd().remove(frontEnd().insertSession().uri).status(), "OK_EMPTY");
        const InsertedSession session = frontEnd().insertSession({.timeout = "0"});
        waitUntil("the session has expired", [&] {
            const std::vector<Words> entries = auditEntries(store());
            return !entries.empty() && entries.back().at(2).find(session.uri) != std::string::npos;
        });
        EXPECT_FALSE(store().exists(session.uri));
        EXPECT_EQ(frontEnd().patch({{"SessionTimeout", "600"}}).status(), "OK");
        // The event of a change follows its reply; this request, which changes nothing, is served
        // after both.
        EXPECT_EQ(frontEnd().patch({{"SessionTimeout", "600"}}).status(), "OK");
        EXPECT_EQ(store().hget(serviceUri, "SessionTimeout"), "600");
    }

    // Of two logins the second waits until the first has been served. The first blocks in
    // something; `release` lets it go on.
    template <typename Reached, typename Release>
    void expectLoginsSerialized(const std::string& privilege, Reached waitUntilReached,
                                Release release) {
        Request first =
            frontEnd().prepareLogin("somebody", "anything", {.leaveOut = {operationPrivileges}});
        Request second =
            frontEnd().prepareLogin("somebody", "anything", {.leaveOut = {operationPrivileges}});
        first.send();
        waitUntilReached();
        second.send();
        expectOtherRequestsServed();
        EXPECT_FALSE(first.publishedAlready());
        EXPECT_FALSE(second.publishedAlready());
        EXPECT_EQ(store().lrange(membersKey), Words{});
        release();
        const Reply earlier = first.reply();
        const Reply later = second.reply();
        EXPECT_EQ(store().lrange(membersKey),
                  (Words{"&&ObjectRef " + later.location(), "&&ObjectRef " + earlier.location()}));
        expectLoggedIn(later, privilege);
        EXPECT_EQ(store().hget(tokenKey(earlier.token()), "Privilege"), privilege);
        EXPECT_EQ(frontEnd().remove(earlier.location()).status(), "OK_EMPTY");
        expectRecovered();
    }

    // The PAM stack that the controller comes with.
    void useLocalAccounts() { usePamLines(localAccounts); }
    // The daemon works as at its start: a local account logs in, and no descriptor has been
    // leaked.
    void expectRecovered(std::ptrdiff_t foreignDescriptors = 0) {
        useLocalAccounts();
        EXPECT_EQ(privilegeOf(reader.name, reader.password), reader.privilege);
        // Standard streams, and one connection of each worker.
        const std::ptrdiff_t idle = 3 + 4 + foreignDescriptors;
        waitUntil("no descriptor is leaked", [&] { return openDescriptors() == idle; });
        EXPECT_FALSE(controller.daemon().exitStatus());
    }

    static constexpr const char* operationPrivileges = "&&OperationPrivileges";
    static constexpr const char* doesNotPass = "somebody does not pass the PAM auth.";

  private:
    const std::string localAccounts = controller.readFile(pamServiceFile);
};

}  // namespace testbed
