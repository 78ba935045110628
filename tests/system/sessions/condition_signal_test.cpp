// The condition that tells of a new session.
#include <atomic>

#include "support/permissive_pam_test.h"
#include "support/store_proxy.h"

// A sanitizer stands in front of the same call itself.
#if !TESTBED_SANITIZED

namespace testbed {
namespace {

class NewSessionSignal : public PermissivePamTest {
  protected:
    void SetUp() override {
        constexpr const char* library = "/usr/local/lib/condition_signals.so";
        controller.install(TEST_CONDITION_SIGNALS, library);
        usePamTest(allPrivileges);
        startStore();
        startDaemon({.environment = {{"LD_PRELOAD", library}, {"CONDITION_SIGNALS", signalFile}}});
    }

    long signals() { return static_cast<long>(controller.readFile(signalFile).size()); }

    static constexpr const char* signalFile = "/tmp/condition.signals";
    StoreProxy proxy{controller};
};

TEST_F(NewSessionSignal, ComesOnceWhenTheCollectionHasTakenTheSession) {
    std::atomic<long> before = -1;
    std::atomic<long> after = -1;
    const std::string channel = "&&/request/signal/return";
    proxy.setFilter([&](const Words& command) {
        if (command[0] == "HINCRBY" && command[1] == sessionsUri) {
            before = signals();
        } else if (command == Words{"HSET", channel, "&&ResponseData", ""}) {
            after = signals();
        }
        return StoreProxy::Verdict::pass;
    });
    EXPECT_EQ(login({.returnChannel = channel}).status(), "OK");
    EXPECT_EQ(before, 0);
    EXPECT_EQ(after, 1);
    EXPECT_EQ(signals(), 1);
    EXPECT_EQ(login().status(), "OK");
    EXPECT_EQ(signals(), 2);
}

TEST_F(NewSessionSignal, DoesNotComeForAnythingElse) {
    expectErrorLine("Failed to add session entry to Members.");
    usePamTest("auth=PAM_AUTH_ERR");
    EXPECT_EQ(login().status(), "AUTH_FAILED");
    usePamTest("env=PRIVILEGES=9");
    EXPECT_EQ(login({.fields = {{"&&OperationPrivileges", "2"}}}).status(), "FORBIDDEN");
    EXPECT_EQ(frontEnd().remove(frontEnd().insertSession().uri).status(), "OK_EMPTY");
    frontEnd().insertSession({.timeout = "0"});
    waitUntilExpired(2);
    corrupt(membersKey);
    EXPECT_EQ(login().status(), "FAILURE");
    EXPECT_EQ(signals(), 0);
}

}  // namespace
}  // namespace testbed

#endif
