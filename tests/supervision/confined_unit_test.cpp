// The daemon under the restrictions of its unit, without systemd.
#include <gmock/gmock.h>
#include <sys/stat.h>

#include "support/login_test.h"
#include "testbed/events_and_audit_log.h"
#include "unit_restrictions.h"

namespace testbed {
namespace {

constexpr const char* confine = "/usr/local/bin/confine";
constexpr const char* rulesFile = "/usr/local/lib/confine.rules";
constexpr const char* unitLogFile = "/var/log/session-service/session-service.log";

class UnderTheUnit : public LoginTest {
  protected:
    void SetUp() override {
        controller.install(TESTBED_CONFINE, confine);
        controller.writeFile(rulesFile, restrictions.rules);
        controller.writeFile(configurationFile, std::string("LOG_FILE=") + unitLogFile + "\n");
        startStore();
        startDaemon({.limits = restrictions.limits,
                     .runner = {confine, rulesFile},
                     .sandboxOptions = restrictions.sandboxOptions});
    }
    void TearDown() override {
        LoginTest::TearDown();
        EXPECT_EQ(controller.readFile(unitLogFile).find("[Error]"), std::string::npos)
            << controller.readFile(unitLogFile);
    }

    // The output of a shell command that runs in place of the daemon.
    std::string confinedOutput(const std::string& command) {
        const std::size_t before = controller.outputOf("sh").size();
        const auto shell =
            controller.startProgram({.command = {"/bin/sh", "-c", "exec 2>&1; " + command},
                                     .limits = restrictions.limits,
                                     .runner = {confine, rulesFile},
                                     .sandboxOptions = restrictions.sandboxOptions});
        shell->wait();
        return controller.outputOf("sh").substr(before);
    }

  private:
    const UnitRestrictions restrictions = readUnitRestrictions(TESTBED_UNIT, controller.path(""));
};

TEST_F(UnderTheUnit, LocalAccountsLogIn) {
    for (const Account& account : {administrator, operatorAccount, reader, expired}) {
        EXPECT_EQ(privilegeOf(account.name, account.password), account.privilege) << account.name;
    }
}

TEST_F(UnderTheUnit, AWrongPasswordIsRefused) {
    EXPECT_EQ(privilegeOf(administrator.name, "orchid-7-lantern"), "AUTH_FAILED");
}

TEST_F(UnderTheUnit, ChangesOutliveTheStoreAndTheLogIsItsOwnersAlone) {
    EXPECT_EQ(frontEnd().patch({{"SessionTimeout", "450"}}).status(), "OK");
    // The event comes after the reply; the store must not stop before.
    waitUntil("the change is an event", [this] { return !lifeCycleEvents(store()).empty(); });
    EXPECT_NE(controller.readFile(persistentFile).find("\nSessionTimeout=450\n"),
              std::string::npos);
    struct stat log {};
    ASSERT_EQ(stat(controller.path(unitLogFile).c_str(), &log), 0);
    EXPECT_EQ(log.st_mode & ALLPERMS, 0600U);
}

TEST_F(UnderTheUnit, WhatTheUnitForbidsFails) {
    EXPECT_THAT(confinedOutput("touch /etc/pam.d/q73"),
                testing::HasSubstr("Read-only file system"));
    EXPECT_THAT(confinedOutput("touch /usr/local/bin/new"),
                testing::HasSubstr("Read-only file system"));
    EXPECT_THAT(confinedOutput("nice true"), testing::HasSubstr("Operation not permitted"));
    EXPECT_THAT(confinedOutput("unshare --user true"),
                testing::HasSubstr("Operation not permitted"));
    EXPECT_THAT(confinedOutput("perl -e 'socket(my $s, 17, 3, 0) or print \"socket: $!\"'"),
                testing::HasSubstr("socket: Address family not supported"));
    EXPECT_THAT(confinedOutput("ulimit -n"), testing::HasSubstr("1024"));
    EXPECT_THAT(confinedOutput("grep CapEff /proc/self/status"),
                testing::HasSubstr("0000000020000002"));
}

}  // namespace
}  // namespace testbed
