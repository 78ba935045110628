// Kerberos logins against real servers of a private realm, through the real administration
// tool.
#include "support/login_test.h"

namespace testbed {
namespace {

constexpr char kdcLog[] = "/var/log/kdc.log";
constexpr char kadmindLog[] = "/var/log/kadmind.log";

class Kerberos : public LoginTest {
  protected:
    Kerberos() : LoginTest({.sharedNetwork = true}) {}

    void SetUp() override {
        controller.writeFile("/etc/krb5.conf", configuration);
        // Nobody has rights beyond those that principals have over themselves.
        controller.writeFile("/etc/kadm5.acl", "");
        administer({"/usr/sbin/kdb5_util", "create", "-s", "-P", "of the database"});
        controller.writeFile(groupFile, "KrbAttrGrouping=1;\n");
        usePamLines(
            "auth required pam_krb5.so no_ccache\n"
            "auth required /usr/local/lib/security/pam_session_role.so set=pam_module=kerberos "
            "set=PRIVILEGES=" +
            withoutGroup +
            "\n"
            "account required pam_permit.so\n");
        LoginTest::SetUp();
    }

    // Runs a tool on the database to its end.
    void administer(const Words& command) {
        const auto tool = controller.startProgram({.command = command});
        ASSERT_EQ(toText(tool->wait()), "exit status 0") << command.at(1);
    }
    void addPrincipal(const std::string& name, const std::string& password,
                      const Fields& attributes) {
        administer({"/usr/sbin/kadmin.local", "addprinc", "-pw", password, name});
        for (const auto& [attribute, value] : attributes) {
            administer({"/usr/sbin/kadmin.local", "setstr", name, attribute, value});
        }
    }
    void startServers() {
        keyServer = controller.startProgram({.command = {"/usr/sbin/krb5kdc", "-n"}});
        adminServer = controller.startProgram({.command = {"/usr/sbin/kadmind", "-nofork"}});
        waitUntil("the servers answer", [this] {
            return controller.readFile(kdcLog).find("commencing operation") != std::string::npos &&
                   controller.readFile(kadmindLog).find("starting") != std::string::npos;
        });
    }
    void stopAdministrationServer() { adminServer.reset(); }

    const std::string withoutGroup = "1";

  private:
    // The ports need no privileges.
    static constexpr char configuration[] =
        "[libdefaults]\n"
        "    default_realm = TESTBED.EXAMPLE\n"
        "    dns_lookup_kdc = false\n"
        "    dns_canonicalize_hostname = false\n"
        "    rdns = false\n"
        "    default_rcache_name = file2:/tmp/replays\n"
        "[realms]\n"
        "    TESTBED.EXAMPLE = {\n"
        "        kdc = 127.0.0.1:8800\n"
        "        admin_server = 127.0.0.1:8749\n"
        "        kdc_listen = 127.0.0.1:8800\n"
        "        kdc_tcp_listen = 127.0.0.1:8800\n"
        "        kadmind_listen = 127.0.0.1:8749\n"
        "        kpasswd_listen = 127.0.0.1:8464\n"
        "        database_name = /tmp/principals\n"
        "        key_stash_file = /tmp/stash\n"
        "        acl_file = /etc/kadm5.acl\n"
        "    }\n"
        "[logging]\n"
        "    kdc = FILE:/var/log/kdc.log\n"
        "    admin_server = FILE:/var/log/kadmind.log\n";

    std::unique_ptr<Process> keyServer;
    std::unique_ptr<Process> adminServer;
};

TEST_F(Kerberos, GivesEachRoleItsPrivilege) {
    addPrincipal("anna", "Lantern-1", {{"aci_group", "aciadmin;"}});
    addPrincipal("otto", "Meadow-2", {{"a_note", "aci_group"}, {"aci_group", "aciopera;more"}});
    addPrincipal("uwe", "Harbor-3", {{"aci_group", "aciuser;aciadmin;"}});
    addPrincipal("nina", "Bridge-4", {{"aci_group", "nobody;"}});
    addPrincipal("paul", "Garden-5", {});
    startServers();
    EXPECT_EQ(privilegeOf("anna", "Lantern-1"), "511");
    EXPECT_EQ(privilegeOf("otto", "Meadow-2"), "121");
    EXPECT_EQ(privilegeOf("uwe", "Harbor-3"), "9");
    EXPECT_EQ(privilegeOf("nina", "Bridge-4"), withoutGroup);
    EXPECT_EQ(privilegeOf("paul", "Garden-5"), withoutGroup);
    EXPECT_EQ(privilegeOf("uwe", "Lantern-1"), "AUTH_FAILED");
    EXPECT_EQ(controller.daemonErrors(), "");
}

TEST_F(Kerberos, TakesNamesAndPasswordsAsTheyAre) {
    switchOffAuditLog();
    // A slash would make a name of two parts, which is nobody's own.
    const std::string quoted = "o'brien$(touch started)";
    const std::string dashed = "-w";
    addPrincipal(quoted, "it's; touch /tmp/started; 'x", {{"aci_group", "aciopera;"}});
    addPrincipal(dashed, "-p `touch /tmp/started` \"", {{"aci_group", "aciuser;"}});
    startServers();
    EXPECT_EQ(privilegeOf(quoted, "it's; touch /tmp/started; 'x"), "121");
    EXPECT_EQ(privilegeOf(dashed, "-p `touch /tmp/started` \""), "9");
    EXPECT_FALSE(controller.fileExists("/started"));
    EXPECT_FALSE(controller.fileExists("/tmp/started"));
    EXPECT_EQ(controller.daemonErrors(), "");
}

TEST_F(Kerberos, LetsInWithoutAGroupWhileTheAdministrationServerIsDown) {
    addPrincipal("anna", "Lantern-1", {{"aci_group", "aciadmin;"}});
    startServers();
    stopAdministrationServer();
    EXPECT_EQ(privilegeOf("anna", "Lantern-1"), withoutGroup);
}

}  // namespace
}  // namespace testbed
