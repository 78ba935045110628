// the testbed itself: what all other tests stand on.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <fstream>

#include "support/system_test.h"

namespace testbed {
namespace {

using Testbed = RunningSystemTest;

TEST_F(Testbed, LogsEachAccountInWithItsPrivilege) {
    for (const Account& account : {administrator, operatorAccount, reader, expired}) {
        const Reply reply = frontEnd().login(account.name, account.password);
        EXPECT_EQ(reply.status(), "OK") << account.name;
        EXPECT_EQ(store().hget(tokenKey(reply.token()), "Privilege"), account.privilege)
            << account.name;
    }
}

TEST_F(Testbed, HoldsAnAccountWhosePasswordHasExpired) {
    const Reply reply = frontEnd().login(expired.name, expired.password);
    EXPECT_EQ(
        reply.messages,
        (std::vector<Message>{{"Base.1.12.PasswordChangeRequired", {jsonQuoted(expired.uri)}}}));
}

TEST_F(Testbed, RefusesAWrongPassword) {
    const Reply reply = frontEnd().login(administrator.name, reader.password);
    EXPECT_EQ(reply.status(), "AUTH_FAILED");
}

TEST_F(Testbed, ReadsTheSettingsOfTheRolesFromItsFiles) {
    controller.writeFile("/etc/pam.d/groups2privs.conf", "administrator=257\n");
    const Reply reply = frontEnd().login(administrator.name, administrator.password);
    EXPECT_EQ(store().hget(tokenKey(reply.token()), "Privilege"), "257");
}

TEST_F(Testbed, RestartsTheDaemonOnAKeptStore) {
    const Reply login = frontEnd().login(administrator.name, administrator.password);
    controller.daemon().kill();
    startDaemon();
    EXPECT_EQ(countLogged("SessionService resource has been initialized already."), 1);
    EXPECT_EQ(frontEnd().remove(login.location()).status(), "OK_EMPTY");
}

TEST_F(Testbed, TellsTheEndOfTheDaemonByASignal) {
    controller.daemon().signal(SIGTERM);
    const ExitStatus ending{.bySignal = true, .value = SIGTERM};
    EXPECT_EQ(controller.daemon().wait(), ending);
    expectExitStatus(ending);
}

TEST_F(Testbed, InsertsSessionsThatTheDaemonTakesForItsOwn) {
    const InsertedSession inserted = frontEnd().insertSession();
    EXPECT_EQ(frontEnd().remove(inserted.uri).status(), "OK_EMPTY");
    EXPECT_EQ(store().hget(sessionsUri, "Members@odata.count"), "0");
    EXPECT_FALSE(store().exists(tokenKey(inserted.token)));
}

TEST_F(Testbed, HoldsALoginInsidePam) {
    usePamTest("env=PRIVILEGES=5");
    holdPam();
    Request request = frontEnd().prepareLogin("anybody", "anything");
    request.send();
    waitUntilPamHolds();
    EXPECT_FALSE(request.publishedAlready());
    releasePam();
    EXPECT_EQ(request.reply().status(), "OK");
    EXPECT_EQ(pamRecords().front().at("user"), "anybody");
}

TEST_F(Testbed, TellsItsSecretsToNobodyElse) {
    namespace fs = std::filesystem;
    for (const char* secret :
         {keyFile, "/etc/shadow", "/run/session-service-store/redis.requirepass"}) {
        const fs::perms mode = fs::status(controller.path(secret)).permissions();
        EXPECT_EQ(mode, fs::perms::owner_read | fs::perms::owner_write) << secret;
    }
}

TEST_F(Testbed, LimitsTheDaemonAlone) {
    stopDaemon();
    startStore();
    startDaemon({.limits = {"--nofile=123"}});
    const std::string limits = "/proc/" + std::to_string(controller.daemon().pid()) + "/limits";
    std::ifstream file(limits);
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    EXPECT_NE(text.find("Max open files            123"), std::string::npos) << text;
}

class ControllerOverTcp : public SystemTest {
  protected:
    ControllerOverTcp() : SystemTest({.storeOverTcp = true}) {}
};

TEST_F(ControllerOverTcp, ShowsWhichConnectionOfTheDaemonSentACommand) {
    start();
    Monitor monitor = controller.monitor();
    Request request = frontEnd().prepareRemove("/no/such/session");
    request.send();
    const Words notice{"PUBLISH", deleteChannel, request.requestKey() + " " + request.replyKey()};
    const Words answer{"PUBLISH", request.returnChannel(), request.replyKey()};
    std::map<Words, std::string> clients;
    for (const MonitoredCommand& command :
         monitor.until([&](const MonitoredCommand& last) { return last.words == answer; })) {
        clients[command.words] = command.client;
    }
    EXPECT_EQ(clients[notice].rfind("unix:", 0), 0U) << clients[notice];
    EXPECT_EQ(clients[answer].rfind("127.0.0.1:", 0), 0U) << clients[answer];
    expectErrorLine("Failed to generate LogEntry.");
}

bool isThere(pid_t pid) {
    return kill(pid, 0) == 0;
}

TEST(ControllersFolder, IsGoneWithTheController) {
    std::string folder;
    {
        Controller controller;
        folder = controller.path("");
        EXPECT_TRUE(std::filesystem::exists(folder));
    }
    EXPECT_FALSE(std::filesystem::exists(folder));
}

// What a child process tells about its controller before it is ended.
struct Told {
    pid_t daemon;
    char folder[64];
};

TEST(ControllersFolder, IsGoneWithTheProcessHoweverItEnds) {
    for (const int signal : {SIGINT, SIGTERM, SIGKILL}) {
        int ends[2];
        ASSERT_EQ(pipe(ends), 0);
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            Controller controller;
            controller.start();
            Told told{controller.daemon().pid(), {}};
            controller.path("").copy(told.folder, sizeof told.folder - 1);
            if (write(ends[1], &told, sizeof told) == sizeof told) {
                pause();
            }
            _exit(1);
        }
        Told told{};
        ASSERT_EQ(read(ends[0], &told, sizeof told), static_cast<ssize_t>(sizeof told));
        EXPECT_TRUE(isThere(told.daemon));
        kill(child, signal);
        waitpid(child, nullptr, 0);
        waitUntil("the daemon has ended", [&] { return !isThere(told.daemon); });
        waitUntil("the folder is gone", [&] { return !std::filesystem::exists(told.folder); });
        close(ends[0]);
        close(ends[1]);
    }
}

}  // namespace
}  // namespace testbed
