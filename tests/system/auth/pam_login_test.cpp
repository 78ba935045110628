// The login through PAM: the calls, what each of their outcomes leads to, and the password's
// way.
#include <security/pam_appl.h>

#include <algorithm>

#include "support/login_test.h"

namespace testbed {
namespace {

class PamLogin : public LoginTest {
  protected:
    // The entry points that were called since the test began.
    Words entries() {
        Words names;
        for (const PamRecord& record : pamRecords()) {
            names.push_back(record.at("entry"));
        }
        return names;
    }
    // The tags of the lines with this message.
    Words tagsOf(const std::string& message) {
        Words tags;
        for (const LogLine& line : logLines()) {
            if (line.message == message) {
                tags.push_back(line.tag);
            }
        }
        return tags;
    }
};

TEST_F(PamLogin, ChecksThePasswordAndThenTheAccount) {
    usePamTest("password=secret env=PRIVILEGES=1");
    const Reply reply =
        frontEnd().login("somebody", "secret", {.fields = {{"&&RemoteIP", "198.51.100.7"}}});
    EXPECT_EQ(reply.status(), "OK");
    const PamRecord whoAndWhere{
        {"user", "somebody"}, {"rhost", "198.51.100.7"}, {"service", "q73"}};
    PamRecord password = whoAndWhere;
    password.insert({{"entry", "auth"},
                     {"flags", "0"},
                     {"conversation", std::to_string(PAM_SUCCESS)},
                     {"answers", "given"},
                     {"answer0", "secret"}});
    PamRecord account = whoAndWhere;
    account.insert({{"entry", "acct"}, {"flags", std::to_string(PAM_DISALLOW_NULL_AUTHTOK)}});
    EXPECT_EQ(pamRecords(), (std::vector<PamRecord>{password, account}));
}

TEST_F(PamLogin, RefusesAPasswordThatPamDoesNotAccept) {
    usePamTest("password=secret env=PRIVILEGES=511");
    const Reply reply = frontEnd().login("somebody", "Secret");
    EXPECT_EQ(reply.status(), "AUTH_FAILED");
    EXPECT_EQ(reply.messages, (std::vector<Message>{{"ExtendedError.1.2.InvalidCredentials", {}}}));
    EXPECT_EQ(tagsOf("somebody does not pass the PAM auth."), Words{"[Debug]"});
    EXPECT_EQ(entries(), Words{"auth"});
    EXPECT_EQ(store().llen(membersKey), 0);
}

TEST_F(PamLogin, RefusesWhateverStatusTheAuthenticationFailsWith) {
    long failures = 0;
    for (const char* status :
         {"PAM_OPEN_ERR", "PAM_SYSTEM_ERR", "PAM_BUF_ERR", "PAM_PERM_DENIED", "PAM_AUTH_ERR",
          "PAM_CRED_INSUFFICIENT", "PAM_AUTHINFO_UNAVAIL", "PAM_USER_UNKNOWN", "PAM_MAXTRIES",
          "PAM_ACCT_EXPIRED", "PAM_AUTHTOK_EXPIRED", "PAM_NEW_AUTHTOK_REQD", "PAM_IGNORE"}) {
        usePamTest("env=PRIVILEGES=511 auth=" + std::string(status));
        EXPECT_EQ(privilegeOf("somebody"), "AUTH_FAILED") << status;
        EXPECT_EQ(countLogged("somebody does not pass the PAM auth."), ++failures) << status;
    }
    const Words asked = entries();
    EXPECT_EQ(std::count(asked.begin(), asked.end(), "acct"), 0);
}

TEST_F(PamLogin, RefusesWhateverStatusTheAccountFailsWith) {
    long failures = 0;
    for (const char* status :
         {"PAM_OPEN_ERR", "PAM_SYSTEM_ERR", "PAM_PERM_DENIED", "PAM_AUTH_ERR", "PAM_USER_UNKNOWN",
          "PAM_ACCT_EXPIRED", "PAM_AUTHTOK_EXPIRED", "PAM_IGNORE"}) {
        usePamTest("env=PRIVILEGES=511 acct=" + std::string(status));
        EXPECT_EQ(privilegeOf("somebody"), "AUTH_FAILED") << status;
        EXPECT_EQ(countLogged("PAM: pam_acct_mgmt() failed."), ++failures) << status;
    }
    const Words tags = tagsOf("PAM: pam_acct_mgmt() failed.");
    EXPECT_EQ(std::count(tags.begin(), tags.end(), "[Debug]"), failures);
    EXPECT_EQ(countLogged("somebody does not pass the PAM auth."), 0);
}

TEST_F(PamLogin, LetsInWhoeverHasToChangeThePassword) {
    usePamTest("acct=PAM_NEW_AUTHTOK_REQD env=aci_group=aciopera;");
    const Reply reply = frontEnd().login(reader.name, "anything");
    EXPECT_EQ(reply.status(), "OK");
    EXPECT_EQ(
        reply.messages,
        (std::vector<Message>{{"Base.1.12.PasswordChangeRequired", {jsonQuoted(reader.uri)}}}));
    const Fields token = store().hgetall(tokenKey(reply.token()));
    EXPECT_EQ(token.at("Privilege"), "121");
    EXPECT_TRUE(token.contains("&&PasswordChangeRequired"));
    EXPECT_EQ(tagsOf("PAM: password change required."), Words{"[Debug]"});
}

TEST_F(PamLogin, KeepsThePasswordOutOfAllThatItWrites) {
    const std::string password = "Kept-1-secret";
    useFakeKadmin("aci_group: aciuser;");
    controller.writeFile(groupFile, "KrbAttrGrouping=1;\n");
    usePamTest("env=pam_module=kerberos password=" + password);
    EXPECT_EQ(privilegeOf("somebody", password), "9");
    EXPECT_EQ(privilegeOf("somebody", password + "!"), "AUTH_FAILED");
    stopDaemon();
    for (const std::string& text :
         {controller.readFile(logFile), controller.daemonErrors(), controller.daemonOutput()}) {
        EXPECT_EQ(text.find(password), std::string::npos) << text;
    }
}

TEST_F(PamLogin, WritesANameIntoTheLogAsOneLine) {
    switchOffAuditLog();
    usePamTest("auth=PAM_AUTH_ERR");
    for (const auto& [name, written] :
         std::map<std::string, std::string>{{"two\nlines", "two\\x0alines"},
                                            {"bell\a\x7f", "bell\\x07\\x7f"},
                                            {"%s%n%d%%", "%s%n%d%%"},
                                            {"[Error]: root", "[Error]: root"}}) {
        EXPECT_EQ(privilegeOf(name), "AUTH_FAILED");
        EXPECT_EQ(countLogged(written + " does not pass the PAM auth."), 1) << written;
    }
}

TEST_F(PamLogin, HandsNamesAddressesAndPasswordsToPamAsTheyAre) {
    switchOffAuditLog();
    expectNoPrivilege();
    for (const std::string& text :
         {std::string("o'brien \"x\" \\"), std::string("%s%n"), std::string("$(id)`id`;id"),
          std::string("line\nline"), std::string("-p"), std::string("\xc3\xbc\xff"),
          std::string(1024, 'x')}) {
        usePamTest("[prompt=Password: ]");
        controller.removeFile("/tmp/pam.records");
        const Reply reply = frontEnd().login("", text,
                                             {.fields = {{"&&RemoteIP", text}},
                                              .leaveOut = {"&&OperationPrivileges"},
                                              .body = {{"UserName", '"' + text + '"'}}});
        EXPECT_EQ(reply.status(), "OK") << text;
        const PamRecord record = pamRecords().at(0);
        EXPECT_EQ(record.at("user"), text);
        EXPECT_EQ(record.at("rhost"), text);
        EXPECT_EQ(record.at("answer0"), text);
    }
}

TEST_F(PamLogin, EndsThePasswordAtItsFirstZeroByte) {
    usePamTest("password=front env=PRIVILEGES=1");
    EXPECT_EQ(privilegeOf("somebody", std::string("front\0back", 10)), "1");
}

TEST_F(PamLogin, AsksForAnEmptyPasswordToo) {
    usePamTest("password= env=PRIVILEGES=1");
    EXPECT_EQ(privilegeOf("somebody", ""), "1");
}

TEST_F(PamLogin, LeavesTheHelpersOfModulesNothingButTheStandardStreams) {
    usePamTest("env=PRIVILEGES=1 descriptors=/tmp/descriptors");
    EXPECT_EQ(privilegeOf(), "1");
    const std::string listing = controller.readFile("/tmp/descriptors");
    EXPECT_NE(listing.find("2 -> "), std::string::npos) << listing;
    EXPECT_EQ(listing.find("socket:"), std::string::npos) << listing;
}

class PamWithoutItsService : public PamLogin {
  protected:
    void SetUp() override {
        // The library forgets some memory when it cannot start; a leak detector may as well.
        controller.writeFile("/tmp/suppressions", "leak:libpam.so\n");
        startStore();
        startDaemon({.environment = {
                         {"LSAN_OPTIONS", "suppressions=/tmp/suppressions:print_suppressions=0"}}});
    }
};

TEST_F(PamWithoutItsService, RefusesALogin) {
    expectErrorLine("Failed to create pam handler.");
    const std::string service = controller.readFile(pamServiceFile);
    controller.removeFile(pamServiceFile);
    EXPECT_EQ(frontEnd().login(reader.name, reader.password).status(), "AUTH_FAILED");
    EXPECT_EQ(tagsOf("Failed to create pam handler."), Words{"[Error]"});

    controller.writeFile(pamServiceFile, service);
    EXPECT_EQ(frontEnd().login(reader.name, reader.password).status(), "OK");
}

}  // namespace
}  // namespace testbed
