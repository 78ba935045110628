// The PAM module pam_session_role, seen through logins, and through a program that asks for
// more than a login does.
#include <security/pam_appl.h>

#include "support/system_test.h"

namespace testbed {
namespace {

class SessionRole : public RunningSystemTest {
  protected:
    // A stack that lets everybody in, so that only the module decides.
    void useRoleModule(const std::string& arguments) {
        usePamLines("auth required pam_permit.so\nauth required " + module + " " + arguments +
                    "\naccount required pam_permit.so\n");
    }
    // The privilege that a login gets; "none" when it gets a session without.
    std::string privilegeOf(const std::string& user) {
        const Reply reply =
            frontEnd().login(user, "anything", {.fields = {{"&&OperationPrivileges", ""}}});
        if (reply.status() != "OK") {
            return reply.status();
        }
        const std::string privilege = store().hget(tokenKey(reply.token()), "Privilege");
        return privilege.empty() ? "none" : privilege;
    }
    // What the operation gives a program that names the user, or nobody.
    std::string statusOf(const std::string& user, const std::string& operation) {
        constexpr char probe[] = "/usr/local/bin/pam_probe";
        controller.install(TEST_PAM_PROBE, probe);
        const auto program = controller.startProgram(
            {.command = {probe, "q73", user, operation}, .ofThisBuild = true});
        EXPECT_EQ(toText(program->wait()), toText(ExitStatus{}));
        return controller.outputOf("pam_probe");
    }
    // Logins without a privilege leave this line.
    void expectNoPrivilege() { expectErrorLine("Privilege value type error"); }

    const std::string module = "/usr/local/lib/security/pam_session_role.so";
};

TEST_F(SessionRole, AloneInAStackLetsNobodyIn) {
    for (const char* arguments : {"", "role=admins:aciadmin;", "set=PRIVILEGES=511"}) {
        for (const char* control : {"required", "sufficient", "optional"}) {
            const std::string line = std::string(control) + " " + module + " " + arguments + "\n";
            usePamLines("auth " + line + "account " + line);
            EXPECT_EQ(privilegeOf(administrator.name), "AUTH_FAILED") << line;
        }
    }
}

TEST_F(SessionRole, AloneInTheAccountStackLetsNobodyIn) {
    usePamLines("auth required pam_permit.so\naccount required " + module + "\n");
    EXPECT_EQ(privilegeOf(administrator.name), "AUTH_FAILED");
}

TEST_F(SessionRole, GivesTheValueOfTheGroup) {
    useRoleModule("role=admins:aciadmin; role=operators:aciopera; role=readers:aciuser;");
    EXPECT_EQ(privilegeOf(administrator.name), "511");
    EXPECT_EQ(privilegeOf(operatorAccount.name), "121");
    EXPECT_EQ(privilegeOf(reader.name), "9");
}

TEST_F(SessionRole, GivesTheValueOfTheFirstGroupThatTheUserIsIn) {
    controller.writeFile("/etc/group", "admins:x:101:reader\nreaders:x:103:\n");
    useRoleModule("role=readers:aciuser; role=admins:aciadmin;");
    EXPECT_EQ(privilegeOf(reader.name), "9");
    useRoleModule("role=admins:aciadmin; role=readers:aciuser;");
    EXPECT_EQ(privilegeOf(reader.name), "511");
}

TEST_F(SessionRole, GivesNothingToAUserOfNoGroupThatIsNamed) {
    expectNoPrivilege();
    useRoleModule("role=admins:aciadmin; role=nosuchgroup:aciadmin;");
    EXPECT_EQ(privilegeOf(reader.name), "none");
}

TEST_F(SessionRole, GivesNothingToAUserUnknownToTheSystem) {
    expectNoPrivilege();
    useRoleModule("role=admins:aciadmin;");
    EXPECT_EQ(privilegeOf("nobody-here"), "none");
    useRoleModule("");
    EXPECT_EQ(privilegeOf("nobody-here"), "none");
}

TEST_F(SessionRole, GivesTheNameOfThePrimaryGroupWhereNoRoleIsConfigured) {
    controller.writeFile("/etc/pam.d/q73.conf", "Operator=operators;\n");
    useRoleModule("");
    EXPECT_EQ(privilegeOf(operatorAccount.name), "121");
}

TEST_F(SessionRole, PutsTheValueIntoTheVariableThatIsConfigured) {
    controller.writeFile("/etc/pam.d/q73.conf", "Attribute=memberOf;\n");
    useRoleModule("attribute=memberOf role=readers:aciuser;");
    EXPECT_EQ(privilegeOf(reader.name), "9");
}

TEST_F(SessionRole, SetsVariablesForEveryUser) {
    useRoleModule("role=admins:aciadmin; set=PRIVILEGES=33 set=OTHER=");
    EXPECT_EQ(privilegeOf(administrator.name), "511");
    EXPECT_EQ(privilegeOf(reader.name), "33");
    EXPECT_EQ(privilegeOf("nobody-here"), "33");
}

TEST_F(SessionRole, WorksInTheAccountStackToo) {
    usePamLines("auth required pam_permit.so\naccount required pam_permit.so\naccount required " +
                module + " role=readers:aciuser;\n");
    EXPECT_EQ(privilegeOf(reader.name), "9");
}

TEST_F(SessionRole, FailsWhereNobodyNamesTheUser) {
    usePamLines("auth required " + module + " set=PRIVILEGES=511\n");
    EXPECT_EQ(statusOf("", "authenticate"), std::to_string(PAM_CONV_ERR) + "\n");
}

TEST_F(SessionRole, LeavesTheCredentialsToTheOtherModules) {
    useRoleModule("role=readers:aciuser;");
    EXPECT_EQ(statusOf(reader.name, "credentials"), std::to_string(PAM_SUCCESS) + "\n");
}

TEST_F(SessionRole, RefusesTheLoginWhenAnArgumentMakesNoSense) {
    for (const char* argument : {"role=readers", "role=:aciadmin;", "attribute=", "attribute=a=b",
                                 "set=NAME", "set==value", "debug"}) {
        useRoleModule(std::string("role=readers:aciuser; ") + argument);
        EXPECT_EQ(privilegeOf(reader.name), "AUTH_FAILED") << argument;
    }
}

}  // namespace
}  // namespace testbed
