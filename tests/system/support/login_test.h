// The fixture of tests about the outcome of a login.
#pragma once

#include <string>

#include "support/system_test.h"

namespace testbed {

class LoginTest : public SystemTest {
  protected:
    using SystemTest::SystemTest;
    void SetUp() override { start(); }

    // Logs in where no privilege is required, and out again. Returns the privilege that
    // the session had, or the status of the reply when there was no session. Name and
    // password reach the daemon as they are.
    std::string privilegeOf(const std::string& user = "somebody",
                            const std::string& password = "anything") {
        const Reply login = frontEnd().login(
            user, password,
            {.leaveOut = {"&&OperationPrivileges"}, .body = {{"UserName", '"' + user + '"'}}});
        if (login.status() != "OK") {
            return login.status();
        }
        const std::string privilege = store().hget(tokenKey(login.token()), "Privilege");
        frontEnd().remove(login.location());
        return privilege;
    }
    // A session with an empty privilege leaves this line.
    void expectNoPrivilege() { expectErrorLine("Privilege value type error: stoi"); }
    // The audit log's script cannot take names with blanks; without a log it is not run.
    void switchOffAuditLog() { store().del(auditEntriesUri); }

    static constexpr const char* groupFile = "/etc/pam.d/q73.conf";
    static constexpr const char* privilegeFile = "/etc/pam.d/groups2privs.conf";
};

}  // namespace testbed
