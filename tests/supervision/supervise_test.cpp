// The script that keeps the daemon running where there is no systemd.
#include <gmock/gmock.h>
#include <signal.h>

#include <regex>

#include "support/system_test.h"

namespace testbed {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

constexpr const char* supervise = "/usr/local/libexec/supervise";
constexpr const char* mendProperties = "/usr/local/libexec/mend-properties";
constexpr const char* daemonPath = "/usr/local/sbin/session-service";

class Supervisor : public SystemTest {
  protected:
    void SetUp() override {
        controller.install(TESTBED_SUPERVISE, supervise);
        controller.install(TESTBED_MEND_PROPERTIES, mendProperties);
        startStore();
    }
    void TearDown() override {
        for (const auto& supervisor : {first.get(), second.get()}) {
            if (supervisor && !supervisor->exitStatus()) {
                stop(*supervisor);
            }
        }
        SystemTest::TearDown();
    }

    std::unique_ptr<Process> startSupervisor() {
        return controller.startProgram({.command = {"/bin/sh", supervise, daemonPath, lock}});
    }
    void stop(Process& supervisor) {
        supervisor.signal(SIGTERM);
        EXPECT_EQ(supervisor.wait(), ExitStatus{});
    }
    void waitUntilListening() {
        waitUntil("the daemon serves", [this] { return controller.daemonListens(); });
    }
    std::string errors() { return controller.errorsOf("sh"); }
    void waitForMessage(const std::string& text) {
        waitUntil("the supervisor says \"" + text + "\"",
                  [&] { return errors().find(text) != std::string::npos; });
    }

    static constexpr const char* lock = "/tmp/supervise.lock";
    std::unique_ptr<Process> first;
    std::unique_ptr<Process> second;
};

TEST_F(Supervisor, EndsAfterItsDaemonWhenItIsTold) {
    // The end of the supervisor alone would end the sandbox, and the daemon with it.
    first = controller.startProgram(
        {.command = {"/bin/sh", "-c",
                     std::string("sh ") + supervise + " " + daemonPath + " " + lock +
                         " & supervisor=$!\n"
                         "trap 'kill $supervisor; wait $supervisor; echo $?\n"
                         "      pidof session-service || echo gone; exit 0' TERM\n"
                         "wait"}});
    waitUntilListening();
    stop(*first);
    EXPECT_EQ(controller.outputOf("sh"), "0\ngone\n");
}

TEST_F(Supervisor, StartsTheDaemonAgainWhenTheStoreComesBack) {
    first = startSupervisor();
    waitUntilListening();
    controller.stopStore();
    waitForMessage("; again in 1 s.");
    waitForMessage(" ended with status 255; again in 2 s.");
    startStore();
    waitUntilListening();
}

TEST_F(Supervisor, WaitsWhileAnotherOneRuns) {
    first = startSupervisor();
    waitUntilListening();
    second = startSupervisor();
    waitForMessage("runs already; waiting for its end.");
    EXPECT_TRUE(controller.daemonListens());
    stop(*first);
    waitUntilListening();
}

TEST_F(Supervisor, KeepsItsLockFromTheHelpersOfPam) {
    usePamTest("env=PRIVILEGES=511 descriptors=/tmp/descriptors");
    first = startSupervisor();
    waitUntilListening();
    EXPECT_EQ(frontEnd().login("anybody", "anything").status(), "OK");
    EXPECT_THAT(controller.readFile("/tmp/descriptors"),
                AllOf(HasSubstr(" 2 -> "), Not(HasSubstr(lock))));
}

TEST_F(Supervisor, ThatWaitsEndsWhenItIsTold) {
    first = startSupervisor();
    waitUntilListening();
    second = startSupervisor();
    waitForMessage("runs already; waiting for its end.");
    stop(*second);
    EXPECT_TRUE(controller.daemonListens());
}

TEST_F(Supervisor, WorksWithTheToolsOfBusybox) {
    first = controller.startProgram(
        {.command = {"/bin/busybox", "sh", "-c",
                     std::string("mkdir /tmp/tools; /bin/busybox --install -s /tmp/tools\n"
                                 // Debian builds busybox without it.
                                 "[ -e /tmp/tools/flock ] || ln -s /usr/bin/flock /tmp/tools\n"
                                 "PATH=/tmp/tools exec sh ") +
                         supervise + " " + daemonPath + " " + lock},
         .name = "sh"});
    waitUntilListening();
    controller.stopStore();
    waitUntil("the supervisor starts the daemon again", [this] {
        return controller.errorsOf("busybox").find("; again in 1 s.") != std::string::npos;
    });
    startStore();
    waitUntilListening();
    // The lock is the one of everybody's tools.
    second = startSupervisor();
    waitForMessage("runs already; waiting for its end.");
}

TEST_F(Supervisor, NamesTheToolThatIsMissing) {
    first = controller.startProgram(
        {.command = {"/bin/sh", supervise, daemonPath, lock}, .environment = {{"PATH", "/tmp"}}});
    EXPECT_EQ(first->wait(), (ExitStatus{.value = 2}));
    EXPECT_THAT(errors(), HasSubstr("there is no flock, which it needs"));
}

TEST_F(Supervisor, ReplacesAPropertyFileThatAPowerCutHasEmptied) {
    const std::string sample = "# A sample.\nSessionTimeout=\n";
    controller.writeFile("/usr/local/share/sample", sample);
    std::string script = controller.readFile(mendProperties);
    const std::regex place("sample=[^\n]*");
    controller.writeFile(mendProperties,
                         std::regex_replace(script, place, "sample=/usr/local/share/sample"));
    for (const std::string& remains : {std::string(), std::string("\n"), std::string(300, '\0')}) {
        controller.writeFile(persistentFile, remains);
        first = startSupervisor();
        waitUntilListening();
        EXPECT_EQ(controller.readFile(persistentFile), sample);
        stop(*first);
    }
    const std::string kept = "SessionTimeout=77\n";
    controller.writeFile(persistentFile, kept);
    first = startSupervisor();
    waitUntilListening();
    EXPECT_EQ(controller.readFile(persistentFile), kept);
}

TEST_F(Supervisor, WithoutADaemonSaysHowItIsCalled) {
    first = controller.startProgram({.command = {"/bin/sh", supervise}});
    EXPECT_EQ(first->wait(), (ExitStatus{.value = 2}));
    EXPECT_EQ(errors(), "usage: supervise DAEMON [LOCK_FILE]\n");
}

}  // namespace
}  // namespace testbed
