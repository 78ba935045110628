// The look-ups of a login: the privileges that its request requires, and the account of a
// user who has to change the password.
#include "support/permissive_pam_test.h"

namespace testbed {
namespace {

class RequiredPrivileges : public PermissivePamTest {
  protected:
    // Whether a user with this privilege meets the list.
    bool meets(const std::string& privilege, const std::string& list) {
        usePamTest("env=PRIVILEGES=" + privilege);
        const Reply reply = login({.fields = {{"&&OperationPrivileges", list}}});
        emptyCollection();
        EXPECT_TRUE(reply.status() == "OK" || reply.status() == "FORBIDDEN") << reply.status();
        return reply.status() == "OK";
    }
};

constexpr char noNumber[] = "Privilege value type error stoi";
constexpr char outOfRange[] = "Privilege value out of range stoi";

TEST_F(RequiredPrivileges, AreEachNumberBetweenCommas) {
    EXPECT_TRUE(meets("4", "1,2,4"));
    EXPECT_TRUE(meets("4", "4,1,2"));
    EXPECT_TRUE(meets("2", "1,2,4"));
    EXPECT_FALSE(meets("8", "1,2,4"));
    EXPECT_TRUE(meets("511", "511"));
    EXPECT_FALSE(meets("255", "511"));
}

TEST_F(RequiredPrivileges, AreReadUpToTheFirstOtherCharacter) {
    EXPECT_TRUE(meets("12", "12abc"));
    EXPECT_FALSE(meets("4", "12abc"));
    EXPECT_TRUE(meets("12", " \t12"));
    EXPECT_TRUE(meets("12", "+12"));
    EXPECT_TRUE(meets("0", "0x1"));
    EXPECT_FALSE(meets("511", "-2147483648"));
}

TEST_F(RequiredPrivileges, RepeatTheLastNumberForWhatIsNone) {
    expectErrorLine(noNumber);
    // 8, 8, 2: nothing comes of the one in the middle.
    EXPECT_FALSE(meets("1", "8,x,2"));
    EXPECT_EQ(tagsOf(noNumber), Words{"[Error]"});
    EXPECT_FALSE(meets("1", "2,"));
    EXPECT_TRUE(meets("2", "2,"));
    EXPECT_EQ(countLogged(noNumber), 3);
}

TEST_F(RequiredPrivileges, BeginWithZeroWhenTheFirstIsNoNumber) {
    expectErrorLine(noNumber);
    // A mask of zero lets everybody in.
    EXPECT_TRUE(meets("0", "x"));
    EXPECT_TRUE(meets("0", "x,4"));
    EXPECT_TRUE(meets("0", ","));
    EXPECT_TRUE(meets("0", " "));
    EXPECT_TRUE(meets("0", "\"4\""));
    EXPECT_EQ(countLogged(noNumber), 6);
}

TEST_F(RequiredPrivileges, TreatNumbersBeyond32BitsAlike) {
    expectErrorLine(outOfRange);
    EXPECT_TRUE(meets("0", "2147483648"));
    EXPECT_TRUE(meets("0", "-2147483649"));
    EXPECT_FALSE(meets("0", "4,99999999999999999999"));
    EXPECT_EQ(tagsOf(outOfRange), Words(3, "[Error]"));
    EXPECT_FALSE(meets("0", "2147483647"));
}

TEST_F(RequiredPrivileges, MayBeThousands) {
    std::string list;
    for (int i = 0; i < 5000; ++i) {
        list += "2,";
    }
    EXPECT_TRUE(meets("1", list + "1"));
    EXPECT_FALSE(meets("1", list + "4"));
}

class AccountOfAnExpiredUser : public PermissivePamTest {
  protected:
    void SetUp() override {
        PermissivePamTest::SetUp();
        usePamTest(allPrivileges + "acct=PAM_NEW_AUTHTOK_REQD");
    }
    // The account that the answer names.
    std::string accountOf(const std::string& user) {
        const Reply reply = frontEnd().login(user, "anything");
        emptyCollection();
        EXPECT_EQ(reply.status(), "OK");
        EXPECT_EQ(reply.messages.size(), 1U);
        return reply.messages.at(0).arguments.at(0);
    }
    // The keys that a scan of the accounts gives, in its order.
    Words scanned() {
        Words keys;
        std::string cursor = "0";
        do {
            const Value page =
                store().run({"SCAN", cursor, "MATCH", "/redfish/v1/AccountService/Accounts/*",
                             "COUNT", "1000"});
            for (const Value& key : page.elements.at(1).elements) {
                keys.push_back(key.text);
            }
            cursor = page.elements[0].text;
        } while (cursor != "0");
        return keys;
    }
};

TEST_F(AccountOfAnExpiredUser, IsTheOneWhoseOwnerIsTheUser) {
    for (const Account& account : {administrator, operatorAccount, reader, expired}) {
        EXPECT_EQ(accountOf(account.name), jsonQuoted(account.uri));
    }
}

TEST_F(AccountOfAnExpiredUser, IsNotOneWhoseOwnerMerelyResemblesTheUser) {
    for (const char* name : {"adm", "admins", "Admin", "admin\t", "\\\"admin", "dmin"}) {
        EXPECT_EQ(accountOf(name), "\"\"") << name;
    }
}

TEST_F(AccountOfAnExpiredUser, IsLookedUpWithOneScanWhereThereAreNoAccounts) {
    for (const std::string& account : scanned()) {
        store().del(account);
    }
    Monitor monitor = controller.monitor();
    EXPECT_EQ(accountOf("admin"), "\"\"");
    int scans = 0;
    for (const MonitoredCommand& command : monitor.soFar()) {
        scans += command.words[0] == "SCAN" ? 1 : 0;
    }
    EXPECT_EQ(scans, 1);
}

TEST_F(AccountOfAnExpiredUser, IsTheFirstOfSeveralThatTheScanGives) {
    // The store's table grows, and its order changes, when the keys outnumber the buckets: well
    // past 512 the few keys of a login leave the order as it is.
    for (int i = 0; i < 800; ++i) {
        store().run({"SET", "filler:" + std::to_string(i), ""});
    }
    for (const std::string& account : scanned()) {
        store().hset(account, {{"&&OwnerName", "shared"}});
    }
    EXPECT_EQ(accountOf("shared"), jsonQuoted(scanned().front()));
}

TEST_F(AccountOfAnExpiredUser, IsFoundWhereverItLiesBelowTheAccounts) {
    const std::string deep = "/redfish/v1/AccountService/Accounts/9/Oem/Keys/1";
    store().hset(deep, {{"&&OwnerName", "deep"}});
    EXPECT_EQ(accountOf("deep"), jsonQuoted(deep));
    store().hset("/redfish/v1/AccountService/Accounts", {{"&&OwnerName", "outside"}});
    store().hset("x/redfish/v1/AccountService/Accounts/1", {{"&&OwnerName", "outside"}});
    EXPECT_EQ(accountOf("outside"), "\"\"");
}

TEST_F(AccountOfAnExpiredUser, IsFoundAmongKeysOfOtherKinds) {
    const std::string accounts = "/redfish/v1/AccountService/Accounts/";
    store().run({"SET", accounts + "text", "admin"});
    store().run({"RPUSH", accounts + "list", "&&OwnerName", "admin"});
    store().hset(accounts + "without", {{"UserName", "\"admin\""}});
    corrupt(accounts + "set");
    EXPECT_EQ(accountOf("admin"), jsonQuoted(administrator.uri));
    for (const LogLine& line : logLines()) {
        EXPECT_EQ(line.tag, "[Debug]") << line.message;
    }
}

TEST_F(AccountOfAnExpiredUser, IsNoneForAnEmptyNameThoughAnAccountHasNoOwner) {
    expectErrorLine("Failed to generate LogEntry. ");
    store().hset("/redfish/v1/AccountService/Accounts/5", {{"Enabled", "true"}});
    corrupt("/redfish/v1/AccountService/Accounts/6");
    EXPECT_EQ(accountOf(""), "\"\"");
}

TEST_F(AccountOfAnExpiredUser, IsFoundAmongThousandsPageByPage) {
    const std::string accounts = "/redfish/v1/AccountService/Accounts/";
    for (int i = 0; i < 5000; ++i) {
        store().hset(accounts + "many/" + std::to_string(i), {{"&&OwnerName", "somebody"}});
    }
    const std::string last = scanned().back();
    store().hset(last, {{"&&OwnerName", "needle"}});
    Monitor monitor = controller.monitor();
    EXPECT_EQ(accountOf("needle"), jsonQuoted(last));
    Words cursors;
    for (const MonitoredCommand& command : monitor.soFar()) {
        if (command.words[0] == "SCAN") {
            cursors.push_back(command.words[1]);
            EXPECT_EQ(command.words,
                      (Words{"SCAN", cursors.back(), "MATCH", accounts + "*", "COUNT", "1000"}));
        }
    }
    EXPECT_GT(cursors.size(), 4U);
    EXPECT_EQ(cursors.front(), "0");
    EXPECT_EQ(accountOf("nobody"), "\"\"");
}

}  // namespace
}  // namespace testbed
