// Logins of the local accounts, with the PAM stack of a controller that has them: pam_unix for
// the passwords, pam_session_role for what an account's Unix group may do.
#include "support/login_test.h"

namespace testbed {
namespace {

class LocalAccounts : public LoginTest {
  protected:
    // Changes one field, counted from 0, of the account's line.
    void change(const char* file, const std::string& account, std::size_t field,
                const std::string& value) {
        std::string text = controller.readFile(file);
        std::size_t begin = text.find("\n" + account + ":") + 1;
        for (; field > 0; --field) {
            begin = text.find(':', begin) + 1;
        }
        text.replace(begin, text.find_first_of(":\n", begin) - begin, value);
        controller.writeFile(file, text);
    }

    static constexpr char accounts[] = "/etc/passwd";
    static constexpr char passwords[] = "/etc/shadow";
};

TEST_F(LocalAccounts, HaveThePrivilegeOfTheirGroup) {
    for (const Account& account : {administrator, operatorAccount, reader}) {
        EXPECT_EQ(privilegeOf(account.name, account.password), account.privilege) << account.name;
    }
}

TEST_F(LocalAccounts, WithAnotherPasswordAreRefused) {
    EXPECT_EQ(privilegeOf(administrator.name, "orchid-7-lantern"), "AUTH_FAILED");
    EXPECT_EQ(countLogged("admin does not pass the PAM auth."), 1);
}

TEST_F(LocalAccounts, ThatDoNotExistAreRefused) {
    EXPECT_EQ(privilegeOf("nobody-here", administrator.password), "AUTH_FAILED");
    EXPECT_EQ(countLogged("nobody-here does not pass the PAM auth."), 1);
}

TEST_F(LocalAccounts, WithAnExpiredPasswordHaveTheirPrivilegeAndHaveToChangeIt) {
    EXPECT_EQ(privilegeOf(expired.name, expired.password), expired.privilege);
    EXPECT_EQ(countLogged("PAM: password change required."), 1);
}

TEST_F(LocalAccounts, ThatHaveExpiredThemselvesAreRefused) {
    constexpr std::size_t expiryDay = 7;
    change(passwords, reader.name, expiryDay, "1");
    EXPECT_EQ(privilegeOf(reader.name, reader.password), "AUTH_FAILED");
    EXPECT_EQ(countLogged("PAM: pam_acct_mgmt() failed."), 1);
}

TEST_F(LocalAccounts, WithoutAPasswordAreRefused) {
    constexpr std::size_t hash = 1;
    change(passwords, reader.name, hash, "");
    EXPECT_EQ(privilegeOf(reader.name, ""), "AUTH_FAILED");
}

TEST_F(LocalAccounts, ThatAreLockedAreRefused) {
    constexpr std::size_t hash = 1;
    change(passwords, reader.name, hash, "!");
    EXPECT_EQ(privilegeOf(reader.name, reader.password), "AUTH_FAILED");
}

TEST_F(LocalAccounts, HaveThePrivilegeOfAnotherGroupFromTheNextLoginOn) {
    constexpr std::size_t group = 3;
    change(accounts, reader.name, group, "102");
    EXPECT_EQ(privilegeOf(reader.name, reader.password), operatorAccount.privilege);
    change(accounts, reader.name, group, "0");
    expectNoPrivilege();
    EXPECT_EQ(privilegeOf(reader.name, reader.password), "");
}

TEST_F(LocalAccounts, MayGetTheirPrivilegeAsAVariableOfSeveralWords) {
    usePamLines(
        "auth required pam_unix.so\n"
        "auth required /usr/local/lib/security/pam_session_role.so role=admins:aciadmin; "
        "[set=PRIVILEGES=33 and more]\n"
        "account required pam_unix.so\n");
    EXPECT_EQ(privilegeOf(reader.name, reader.password), "33 and more");
    EXPECT_EQ(privilegeOf(administrator.name, administrator.password), "511");
}

}  // namespace
}  // namespace testbed
