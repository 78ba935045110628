// Names and passwords of clients on the command line of the Kerberos administration tool.
#include "support/login_test.h"

namespace testbed {
namespace {

class KadminArguments : public LoginTest {
  protected:
    void SetUp() override {
        LoginTest::SetUp();
        switchOffAuditLog();
        controller.writeFile(groupFile, "KrbAttrGrouping=1;\n");
        useFakeKadmin("aci_group: aciuser;\n");
        usePamTest("env=pam_module=kerberos env=PRIVILEGES=1");
    }
    // Whether the tool was called once, with these as whole arguments.
    void expectOneCall(const std::string& user, const std::string& password) {
        controller.removeFile("/tmp/kadmin.arguments");
        EXPECT_EQ(privilegeOf(user, password), "9");
        EXPECT_EQ(kadminCalls(),
                  (std::vector<Words>{{"-p", user, "-w", password, "getstrs", user}}));
    }

    // What means something to a shell or to the tool; the commands among them would leave
    // the file /tmp/started behind.
    const Words texts{
        "o'brien",
        "'",
        "''",
        "'\\''",
        "'; touch /tmp/started; '",
        "'$(touch /tmp/started)'",
        "'`touch /tmp/started`'",
        "'\ntouch /tmp/started\n'",
        "\"; touch /tmp/started; \"",
        "$(touch /tmp/started)",
        "`touch /tmp/started`",
        "${IFS}$HOME$$",
        "a;touch /tmp/started",
        "a\ntouch /tmp/started",
        "a&touch /tmp/started&",
        "a||touch /tmp/started",
        "a|touch /tmp/started",
        ">/tmp/started",
        "</etc/passwd",
        "line feed at the end\n",
        "\r\n\t\x01\x7f",
        "-p",
        "-w",
        "-q",
        "--",
        "--help",
        "-",
        "two words",
        " ",
        "* ? [a-z] ~ {a,b}",
        "# comment",
        "!!",
        "%s%n%d%%",
        "back\\slash\\",
        "\"quoted\"",
        "name@REALM",
        "\xc3\xbc\xe2\x82\xac\xff",
    };
};

TEST_F(KadminArguments, AreOneForEachNameWhateverItHolds) {
    for (const std::string& text : texts) {
        SCOPED_TRACE(text);
        expectOneCall(text, "secret");
    }
    EXPECT_FALSE(controller.fileExists("/tmp/started"));
    EXPECT_EQ(controller.daemonErrors(), "");
}

TEST_F(KadminArguments, AreOneForEachPasswordWhateverItHolds) {
    for (const std::string& text : texts) {
        SCOPED_TRACE(text);
        expectOneCall("somebody", text);
    }
    EXPECT_FALSE(controller.fileExists("/tmp/started"));
    EXPECT_EQ(controller.daemonErrors(), "");
}

TEST_F(KadminArguments, AreKeptApartWhenBothHoldQuotes) {
    expectOneCall("a' -w 'b", "c' getstrs 'd");
    expectOneCall("'", "'");
}

TEST_F(KadminArguments, MayBeEmpty) {
    expectOneCall("somebody", "");
    expectOneCall("", "secret");
}

TEST_F(KadminArguments, MayBeLong) {
    expectOneCall(std::string(300, 'n'), std::string(1024, '\''));
    expectOneCall(std::string(20'000, 'n'), "secret");
}

TEST_F(KadminArguments, TooLongForACommandAreNotRun) {
    expectErrorLine("Failed to execute command.");
    EXPECT_EQ(privilegeOf(std::string(100'000, 'n'), "secret"), "1");
    EXPECT_TRUE(kadminCalls().empty());
}

}  // namespace
}  // namespace testbed
