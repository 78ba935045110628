// Logins whose Kerberos administration tool hangs, floods, breaks or is not there. Whatever
// it writes counts, and nothing else of it: without a group in it the variable PRIVILEGES
// decides.
#include "support/login_fault_test.h"

namespace testbed {
namespace {

class BrokenKadmin : public LoginFaultTest {
  protected:
    void SetUp() override {
        LoginFaultTest::SetUp();
        askKadmin();
    }
    void askKadmin() {
        controller.writeFile(groupFile, "KrbAttrGrouping=1;\n");
        usePamTest("env=pam_module=kerberos env=PRIVILEGES=5");
    }
    void useKadmin(const std::string& script) { installProgram(kadmin, script); }
    void expectPrivilege(const std::string& privilege, const std::string& script) {
        SCOPED_TRACE(script);
        useKadmin(script);
        expectLogin(privilege);
    }

    static constexpr char kadmin[] = "/usr/local/bin/kadmin";
    const std::string sayOperator = "echo 'aci_group: aciopera;'";
    const std::string withoutGroup = "5";
    const std::string operatorRole = "121";
};

// --- slow

TEST_F(BrokenKadmin, ThatHangsHoldsLoginsAndNothingElse) {
    useKadmin("touch /tmp/reached\nread -r line </tmp/gate\n" + sayOperator);
    Gate gate(controller, "/tmp/gate");
    expectLoginsSerialized(
        operatorRole, [&] { waitForFile("/tmp/reached"); }, [&] { gate.open(); });
}

TEST_F(BrokenKadmin, ThatHangsHalfWayThroughItsOutputIsHeardToTheEnd) {
    useKadmin(
        "printf 'aci_group: aciop'\ntouch /tmp/reached\nread -r line </tmp/gate\necho 'era;'");
    Gate gate(controller, "/tmp/gate");
    expectLoginsSerialized(
        operatorRole, [&] { waitForFile("/tmp/reached"); }, [&] { gate.open(); });
}

TEST_F(BrokenKadmin, ThatClosesItsOutputEarlyIsWaitedForAllTheSame) {
    useKadmin(sayOperator + "\nexec >&-\ntouch /tmp/reached\nread -r line </tmp/gate");
    Gate gate(controller, "/tmp/gate");
    expectLoginsSerialized(
        operatorRole, [&] { waitForFile("/tmp/reached"); }, [&] { gate.open(); });
}

TEST_F(BrokenKadmin, WhoseChildKeepsTheOutputOpenHoldsLoginsUntilTheChildEnds) {
    useKadmin("(read -r line </tmp/gate; " + sayOperator + ") &\ntouch /tmp/reached");
    Gate gate(controller, "/tmp/gate");
    expectLoginsSerialized(
        operatorRole, [&] { waitForFile("/tmp/reached"); }, [&] { gate.open(); });
}

TEST_F(BrokenKadmin, WhoseChildLeavesTheOutputAloneDoesNotHoldALogin) {
    useKadmin("(exec >&-; read -r line </tmp/gate) &\n" + sayOperator);
    Gate gate(controller, "/tmp/gate");
    expectLogin(operatorRole);
    expectOtherRequestsServed();
    expectRecovered();
}

TEST_F(BrokenKadmin, ThatHangsUntilItIsKilledLetsTheLoginGoOn) {
    useKadmin("touch /tmp/reached\nread -r line </tmp/gate\nkill -KILL $$\n" + sayOperator);
    Gate gate(controller, "/tmp/gate");
    expectLoginsSerialized(
        withoutGroup, [&] { waitForFile("/tmp/reached"); }, [&] { gate.open(); });
}

// --- floods

TEST_F(BrokenKadmin, ThatWritesMegabytesIsReadWhole) {
    expectPrivilege(operatorRole, "yes 'some_attribute: value' | head -c 8000000\n" + sayOperator);
    expectPrivilege(withoutGroup, "yes 'some_attribute: value' | head -c 8000000");
    expectRecovered();
}

TEST_F(BrokenKadmin, ThatWritesMegabytesWithoutALineFeedIsReadWhole) {
    expectPrivilege(operatorRole,
                    "head -c 8000000 /dev/zero | tr '\\0' x\nprintf 'aci_group: aciopera;'");
    expectRecovered();
}

TEST_F(BrokenKadmin, ThatWritesTheGroupAcrossTheLimitOfAChunkIsUnderstood) {
    for (const int before : {1005, 1010, 1022, 1023, 2040}) {
        expectPrivilege(operatorRole, "head -c " + std::to_string(before) +
                                          " /dev/zero | tr '\\0' x\n" + sayOperator);
    }
    expectRecovered();
}

TEST_F(BrokenKadmin, ThatWritesAnythingButTextIsReadWhole) {
    expectPrivilege(operatorRole, "head -c 100000 /dev/zero\n" + sayOperator);
    expectPrivilege(operatorRole, "printf '\\377\\376\\0\\001%%s%%n\\033['\n" + sayOperator);
    expectPrivilege(withoutGroup, "head -c 1000000 /dev/zero");
    expectRecovered();
}

TEST_F(BrokenKadmin, ThatFloodsStandardErrorIsHeardOnStandardOutput) {
    expectPrivilege(operatorRole, "yes kadmin: warning | head -c 1000000 >&2\n" + sayOperator);
    EXPECT_EQ(controller.daemonErrors().size(), 1000000U);
    expectRecovered();
}

// --- broken

TEST_F(BrokenKadmin, ThatWritesNothingLeavesThePrivilegeToTheVariable) {
    for (const char* script : {"true", "exec >&-", "exec >&- 2>&- <&-; sleep 0",
                               "echo 'aci_group: aciadmin;' >&2", "exec >/dev/full; echo x"}) {
        expectPrivilege(withoutGroup, script);
    }
    expectRecovered();
}

TEST_F(BrokenKadmin, ThatWritesHalfAGroupLeavesThePrivilegeToTheVariable) {
    for (const char* text :
         {"aci_group: aciadmin", "aci_group:aciadmin;", "aci_group: \\0aciadmin;",
          "aci_group: aci\\nadmin;", "ACI_GROUP: aciadmin;"}) {
        expectPrivilege(withoutGroup, "printf '" + std::string(text) + "'");
    }
    expectRecovered();
}

TEST_F(BrokenKadmin, CountsWithWhatItWroteHoweverItEnds) {
    for (const char* end : {"exit 1", "exit 42", "exit 126", "exit 127", "exit 255",
                            "kill -SEGV $$", "kill -KILL $$", "kill -PIPE $$", "kill -TERM $$"}) {
        expectPrivilege(operatorRole, sayOperator + "\n" + end);
        expectPrivilege(withoutGroup, end);
    }
    expectRecovered();
}

// The way to the tool leads past the real one.
class AbsentKadmin : public BrokenKadmin {
  protected:
    void SetUp() override {
        for (const char* needed : {"awk", "dirname", "grep", "tr"}) {
            std::filesystem::create_symlink(
                std::string("/usr/bin/") + needed,
                controller.path(std::string("/usr/local/bin/") + needed));
        }
        startStore();
        startDaemon({.environment = {{"PATH", "/usr/local/bin"}}});
        askKadmin();
    }
};

TEST_F(AbsentKadmin, LeavesThePrivilegeToTheVariable) {
    expectLogin(withoutGroup);
    EXPECT_NE(controller.daemonErrors().find("kadmin: not found"), std::string::npos);
    useKadmin(sayOperator);
    expectLogin(operatorRole);
    expectRecovered();
}

TEST_F(AbsentKadmin, WithSomethingInItsPlaceThatCannotBeRunLeavesThePrivilegeToTheVariable) {
    controller.writeFile(kadmin, "#!/bin/sh\n" + sayOperator + "\n");  // not executable
    expectLogin(withoutGroup);
    expectPrivilege(withoutGroup, "");
    for (const std::string& text : {std::string("#!/nowhere/at/all\n"), std::string(),
                                    std::string("\x7f"
                                                "ELF and no more\0",
                                                17)}) {
        controller.writeFile(kadmin, text);
        expectLogin(withoutGroup);
    }
    controller.removeFile(kadmin);
    std::filesystem::create_directory(controller.path(kadmin));
    expectLogin(withoutGroup);
    expectRecovered();
}

}  // namespace
}  // namespace testbed
