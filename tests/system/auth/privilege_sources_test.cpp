// Where a login's privilege comes from: the Kerberos administration tool, the group variable
// of the PAM environment, or its PRIVILEGES variable.
#include <csignal>

#include "support/login_test.h"

namespace testbed {
namespace {

class PrivilegeSources : public LoginTest {
  protected:
    // The privilege of a login whose PAM environment holds the variables.
    std::string privilegeWith(const Words& variables) {
        std::string arguments;
        for (const std::string& variable : variables) {
            arguments += "[env=" + variable + "] ";
        }
        usePamTest(arguments);
        return privilegeOf();
    }
    // The privilege of a Kerberos login whose group is asked for and answered so. Without a
    // match it is 1.
    std::string privilegeForOutput(const std::string& output) {
        controller.writeFile(groupFile, "KrbAttrGrouping=1;\n");
        useFakeKadmin(output);
        return privilegeWith({"pam_module=kerberos", "PRIVILEGES=1"});
    }
    // A tool of the test's own, as a shell script.
    void useKadminScript(const std::string& script) {
        useFakeKadmin("");
        controller.writeFile("/usr/local/bin/kadmin", "#!/bin/sh\n" + script);
    }
};

using GroupVariable = PrivilegeSources;
using KerberosGroup = PrivilegeSources;
using PrivilegesVariable = PrivilegeSources;

TEST_F(GroupVariable, GivesThePrivilegeOfTheRole) {
    EXPECT_EQ(privilegeWith({"aci_group=aciadmin;"}), "511");
    EXPECT_EQ(privilegeWith({"aci_group=aciopera;"}), "121");
    EXPECT_EQ(privilegeWith({"aci_group=aciuser;"}), "9");
}

TEST_F(GroupVariable, MatchesByItsBeginning) {
    EXPECT_EQ(privilegeWith({"aci_group=aciopera;and more"}), "121");
    EXPECT_EQ(privilegeWith({"aci_group=aciuser;aciadmin;"}), "9");
}

TEST_F(GroupVariable, ThatMatchesNoRoleLeavesItToThePrivilegesVariable) {
    for (const char* value : {"aciadmin", "aciadm", "", " aciadmin;", "ACIADMIN;", "x;aciadmin;"}) {
        EXPECT_EQ(privilegeWith({"aci_group=" + std::string(value), "PRIVILEGES=1"}), "1") << value;
    }
}

TEST_F(GroupVariable, IsAlsoFoundUnderItsNameInCapitals) {
    EXPECT_EQ(privilegeWith({"ACI_GROUP=aciuser;"}), "9");
}

TEST_F(GroupVariable, CountsAsItStandsWhereBothAreThere) {
    EXPECT_EQ(privilegeWith({"ACI_GROUP=aciadmin;", "aci_group=aciuser;"}), "9");
    EXPECT_EQ(privilegeWith({"ACI_GROUP=aciadmin;", "aci_group=none;", "PRIVILEGES=1"}), "1");
}

TEST_F(GroupVariable, OfAnyOtherCaseIsNotLookedAt) {
    EXPECT_EQ(privilegeWith({"Aci_Group=aciadmin;", "PRIVILEGES=1"}), "1");
}

TEST_F(GroupVariable, ComesBeforeThePrivilegesVariable) {
    EXPECT_EQ(privilegeWith({"PRIVILEGES=511", "aci_group=aciuser;"}), "9");
}

TEST_F(GroupVariable, OfAnExpiredPasswordCountsToo) {
    usePamTest("acct=PAM_NEW_AUTHTOK_REQD env=aci_group=aciuser;");
    EXPECT_EQ(privilegeOf(), "9");
}

TEST_F(GroupVariable, IsNotLookedAtWhereAModuleIsNamed) {
    for (const char* module : {"ldap", "local", "", "Kerberos", "kerb", " kerberos"}) {
        EXPECT_EQ(privilegeWith(
                      {"pam_module=" + std::string(module), "aci_group=aciadmin;", "PRIVILEGES=1"}),
                  "1")
            << module;
    }
}

TEST_F(GroupVariable, OfAVeryLongNameIsFound) {
    const std::string name(300, 'a');
    controller.writeFile(groupFile, "Attribute=" + name + ";\n");
    EXPECT_EQ(privilegeWith({name + "=aciopera;"}), "121");
    // In capitals only as much of the name counts as was ever looked at.
    EXPECT_EQ(privilegeWith({std::string(255, 'A') + "=aciuser;"}), "9");
}

TEST_F(PrivilegesVariable, IsTakenAsItStands) {
    EXPECT_EQ(privilegeWith({"PRIVILEGES=1"}), "1");
    EXPECT_EQ(privilegeWith({"PRIVILEGES= +33and more"}), " +33and more");
    EXPECT_EQ(privilegeWith({"PRIVILEGES=0x1FF"}), "0x1FF");
}

TEST_F(PrivilegesVariable, IsCutTo511Characters) {
    EXPECT_EQ(privilegeWith({"PRIVILEGES=9" + std::string(510, 'x')}), "9" + std::string(510, 'x'));
    EXPECT_EQ(privilegeWith({"PRIVILEGES=9" + std::string(600, 'x')}), "9" + std::string(510, 'x'));
}

TEST_F(PrivilegesVariable, ThatIsMissingOrEmptyLeavesALoginWithoutPrivilege) {
    expectNoPrivilege();
    EXPECT_EQ(privilegeWith({}), "");
    EXPECT_EQ(privilegeWith({"PRIVILEGES="}), "");
    usePamTest("");
    EXPECT_EQ(frontEnd().login("somebody", "anything").status(), "FORBIDDEN");
}

TEST_F(KerberosGroup, IsAdministratorWithoutAQueryWhereTheQueryIsOff) {
    useFakeKadmin("aci_group: aciuser;");
    for (const char* module : {"kerberos", "kerberos5"}) {
        EXPECT_EQ(privilegeWith(
                      {"pam_module=" + std::string(module), "aci_group=aciuser;", "PRIVILEGES=1"}),
                  "511");
    }
    controller.writeFile(privilegeFile, "administrator=77\n");
    EXPECT_EQ(privilegeWith({"pam_module=kerberos"}), "77");
    EXPECT_TRUE(kadminCalls().empty());
}

TEST_F(KerberosGroup, IsAskedForWithTheUsersOwnPassword) {
    controller.writeFile(groupFile, "KrbAttrGrouping=1;\n");
    useFakeKadmin("aci_group: aciopera;\n");
    usePamTest("env=pam_module=kerberos-v5");
    EXPECT_EQ(privilegeOf("somebody", "some password"), "121");
    EXPECT_EQ(
        kadminCalls(),
        (std::vector<Words>{{"-p", "somebody", "-w", "some password", "getstrs", "somebody"}}));
}

TEST_F(KerberosGroup, IsNotAskedForBeforePamAcceptsTheLogin) {
    controller.writeFile(groupFile, "KrbAttrGrouping=1;\n");
    useFakeKadmin("aci_group: aciadmin;\n");
    usePamTest("auth=PAM_AUTH_ERR env=pam_module=kerberos");
    EXPECT_EQ(privilegeOf(), "AUTH_FAILED");
    usePamTest("acct=PAM_ACCT_EXPIRED env=pam_module=kerberos");
    EXPECT_EQ(privilegeOf(), "AUTH_FAILED");
    EXPECT_TRUE(kadminCalls().empty());
}

TEST_F(KerberosGroup, IsFoundAnywhereInTheOutput) {
    EXPECT_EQ(privilegeForOutput("aci_group: aciadmin;"), "511");
    EXPECT_EQ(privilegeForOutput("other: x\naci_group: aciopera;\nmore: y\n"), "121");
    EXPECT_EQ(privilegeForOutput("my_aci_group: aciuser;and more\n"), "9");
}

TEST_F(KerberosGroup, OfTheHighestRoleCounts) {
    EXPECT_EQ(privilegeForOutput("aci_group: aciuser;\naci_group: aciopera;\n"), "121");
    EXPECT_EQ(privilegeForOutput("aci_group: aciuser;\naci_group: aciadmin;\n"), "511");
}

TEST_F(KerberosGroup, WithoutAMatchLeavesItToThePrivilegesVariable) {
    for (const char* output :
         {"", "aci_group:aciadmin;", "aci_group:  aciadmin;", "aci_group: aciadmin",
          "aci_group: x;aciadmin;", "ACI_GROUP: aciadmin;", "aci_group=aciadmin;"}) {
        EXPECT_EQ(privilegeForOutput(output), "1") << output;
    }
}

TEST_F(KerberosGroup, WithoutAMatchDoesNotFallBackToTheGroupVariable) {
    controller.writeFile(groupFile, "KrbAttrGrouping=1;\n");
    useFakeKadmin("");
    EXPECT_EQ(privilegeWith({"pam_module=kerberos", "aci_group=aciadmin;", "PRIVILEGES=1"}), "1");
}

TEST_F(KerberosGroup, IsFoundAcrossThePiecesOfALongOutput) {
    for (const std::size_t before : {1000, 1008, 1015, 1021, 1022, 1023, 1024, 2040, 200'000}) {
        EXPECT_EQ(privilegeForOutput(std::string(before, 'x') + "aci_group: aciopera;"), "121")
            << before;
    }
}

TEST_F(KerberosGroup, IsFoundForNamesOfAnyLength) {
    const std::string attribute(400, 'a');
    const std::string group(400, 'g');
    controller.writeFile(groupFile,
                         "Attribute=" + attribute + ";\nUser=" + group + ";\nKrbAttrGrouping=1;\n");
    useFakeKadmin(attribute + ": " + group + ";\n");
    EXPECT_EQ(privilegeWith({"pam_module=kerberos"}), "9");
}

TEST_F(KerberosGroup, CountsWhateverTheExitStatusOfTheTool) {
    controller.writeFile(groupFile, "KrbAttrGrouping=1;\n");
    for (const char* end : {"exit 3\n", "kill -9 $$\n"}) {
        useKadminScript("echo 'aci_group: aciopera;'\n" + std::string(end));
        EXPECT_EQ(privilegeWith({"pam_module=kerberos"}), "121") << end;
    }
}

TEST_F(KerberosGroup, IsNotReadFromTheErrorsOfTheTool) {
    controller.writeFile(groupFile, "KrbAttrGrouping=1;\n");
    useKadminScript("echo 'aci_group: aciadmin;' >&2\n");
    EXPECT_EQ(privilegeWith({"pam_module=kerberos", "PRIVILEGES=1"}), "1");
    EXPECT_EQ(controller.daemonErrors(), "aci_group: aciadmin;\n");
}

TEST_F(KerberosGroup, IsUnknownWhenNoCommandCanBeStarted) {
    expectErrorLine("Failed to execute command.");
    controller.writeFile(groupFile, "KrbAttrGrouping=1;\n");
    useFakeKadmin("aci_group: aciadmin;\n");
    controller.removeFile("/bin");  // a link; the shell is behind it
    EXPECT_EQ(privilegeWith({"pam_module=kerberos", "PRIVILEGES=5"}), "5");
    EXPECT_TRUE(kadminCalls().empty());
}

TEST_F(KerberosGroup, IsAskedForByAToolThatInheritsNothingButTheStandardStreams) {
    controller.writeFile(groupFile, "KrbAttrGrouping=1;\n");
    useKadminScript("ls -l /proc/self/fd >/tmp/descriptors\n");
    EXPECT_EQ(privilegeWith({"pam_module=kerberos", "PRIVILEGES=1"}), "1");
    const std::string listing = controller.readFile("/tmp/descriptors");
    EXPECT_NE(listing.find("2 -> "), std::string::npos) << listing;
    EXPECT_EQ(listing.find("socket:"), std::string::npos) << listing;
}

TEST_F(KerberosGroup, IsAskedForByAToolThatEndsWithAClosedPipeAsUsual) {
    controller.writeFile(groupFile, "KrbAttrGrouping=1;\n");
    useKadminScript("sed -n 's/^SigIgn://p' /proc/self/status >/tmp/signals\n");
    EXPECT_EQ(privilegeWith({"pam_module=kerberos", "PRIVILEGES=1"}), "1");
    const auto ignored = std::stoull(controller.readFile("/tmp/signals"), nullptr, 16);
    EXPECT_EQ(ignored >> (SIGPIPE - 1) & 1, 0U) << std::hex << ignored;
}

TEST_F(PrivilegesVariable, OfOneCharacterTooManyIsCut) {
    EXPECT_EQ(privilegeWith({"PRIVILEGES=9" + std::string(511, 'x')}), "9" + std::string(510, 'x'));
}

TEST_F(PrivilegesVariable, LeavesNothingToTheNextLogin) {
    expectNoPrivilege();
    EXPECT_EQ(privilegeWith({"PRIVILEGES=9" + std::string(600, 'x')}).size(), 511U);
    EXPECT_EQ(privilegeWith({"PRIVILEGES=1"}), "1");
    EXPECT_EQ(privilegeWith({}), "");
}

TEST_F(PrivilegesVariable, OfARefusedLoginCountsForNothing) {
    expectNoPrivilege();
    usePamTest("auth=PAM_AUTH_ERR env=PRIVILEGES=511");
    EXPECT_EQ(privilegeOf(), "AUTH_FAILED");
    usePamTest("acct=PAM_ACCT_EXPIRED env=PRIVILEGES=511");
    EXPECT_EQ(privilegeOf(), "AUTH_FAILED");
    EXPECT_EQ(store().keys("&&X-AUTH-TOKEN-*"), Words{});
    EXPECT_EQ(privilegeWith({}), "");
}

}  // namespace
}  // namespace testbed
