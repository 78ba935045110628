// Logins for which a call of the PAM library fails.
#include <security/pam_appl.h>

#include "support/login_test.h"

namespace testbed {
namespace {

// With a library in front of PAM that has calls fail.
class FailingPam : public LoginTest {
  protected:
    void SetUp() override {}

    void startWithFailing(const std::string& calls) {
        constexpr char library[] = "/usr/local/lib/pam_failures.so";
        controller.install(TEST_PAM_FAILURES, library);
        startStore();
        // A sanitizer's library is not the first one then; it wants to be told.
        startDaemon({.environment = {{"LD_PRELOAD", library},
                                     {"PAM_FAILURES", calls},
                                     {"ASAN_OPTIONS", "verify_asan_link_order=0"}}});
        usePamTest("password=secret env=PRIVILEGES=7");
    }
    // The messages of the error lines.
    Words errorLines() {
        Words messages;
        for (const LogLine& line : logLines()) {
            if (line.tag == "[Error]") {
                messages.push_back(line.message);
            }
        }
        return messages;
    }
};

TEST_F(FailingPam, EndsEveryTransactionWithSuccess) {
    startWithFailing("");
    EXPECT_EQ(privilegeOf("somebody", "secret"), "7");
    EXPECT_EQ(privilegeOf("somebody", "wrong"), "AUTH_FAILED");
    EXPECT_EQ(controller.daemonErrors(), "pam_end with status 0\npam_end with status 0\n");
}

TEST_F(FailingPam, ThatDoesNotTakeTheAddressRefusesTheLogin) {
    expectErrorLine("PAM: pam_set_item() failed.");
    startWithFailing("pam_set_item");
    EXPECT_EQ(privilegeOf("somebody", "secret"), "AUTH_FAILED");
    EXPECT_EQ(controller.daemonErrors(),
              "pam_end with status " + std::to_string(PAM_BUF_ERR) + "\n");
    EXPECT_TRUE(pamRecords().empty());
}

TEST_F(FailingPam, ThatNeitherTakesTheAddressNorEndsIsLoggedInThatOrder) {
    expectErrorLine("PAM: pam_end() failed.");
    expectErrorLine("PAM: pam_set_item() failed.");
    startWithFailing("pam_set_item,pam_end");
    EXPECT_EQ(privilegeOf("somebody", "secret"), "AUTH_FAILED");
    EXPECT_EQ(errorLines(), (Words{"PAM: pam_end() failed.", "PAM: pam_set_item() failed."}));
}

TEST_F(FailingPam, ThatDoesNotEndLeavesTheResultAsItIs) {
    expectErrorLine("PAM: pam_end() failed.");
    startWithFailing("pam_end");
    EXPECT_EQ(privilegeOf("somebody", "secret"), "7");
    EXPECT_EQ(privilegeOf("somebody", "wrong"), "AUTH_FAILED");
    EXPECT_EQ(errorLines(), Words(2, "PAM: pam_end() failed."));
}

TEST_F(FailingPam, ThatDoesNotStartIsNotEnded) {
    expectErrorLine("Failed to create pam handler.");
    constexpr const char* library = "/usr/local/lib/pam_failures.so";
    controller.install(TEST_PAM_FAILURES, library);
    // The library forgets some memory when it cannot start; a leak detector may as well.
    controller.writeFile("/tmp/suppressions", "leak:libpam.so\n");
    startStore();
    startDaemon(
        {.environment = {{"LD_PRELOAD", library},
                         {"ASAN_OPTIONS", "verify_asan_link_order=0"},
                         {"LSAN_OPTIONS", "suppressions=/tmp/suppressions:print_suppressions=0"}}});
    controller.removeFile(pamServiceFile);
    EXPECT_EQ(frontEnd().login("somebody", "secret").status(), "AUTH_FAILED");
    EXPECT_EQ(errorLines(), Words{"Failed to create pam handler."});
    EXPECT_EQ(controller.daemonErrors().find("pam_end"), std::string::npos);
}

}  // namespace
}  // namespace testbed
