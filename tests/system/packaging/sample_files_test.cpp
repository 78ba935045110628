// The sample configuration files: put into place as they are, they change nothing.
#include <algorithm>
#include <fstream>
#include <iterator>

#include "support/login_test.h"
#include "testbed/events_and_audit_log.h"

namespace testbed {
namespace {

std::string sample(const std::string& name) {
    std::ifstream file(TEST_SAMPLE_FILES "/" + name);
    if (!file) {
        throw Failure("There is no sample " + name + ".");
    }
    return {std::istreambuf_iterator<char>(file), {}};
}

class SampleFiles : public LoginTest {
  protected:
    void SetUp() override {}

    // What the store got and the daemon said in a run with a login, as far as it is the same
    // each time.
    Words runWithALogin() {
        const std::size_t before = controller.daemonErrors().size();
        start();
        EXPECT_EQ(privilegeOf(administrator.name, administrator.password), "511");
        Words trail = splitLines(controller.daemonErrors().substr(before));
        trail.push_back(std::to_string(store().run({"XLEN", "&&EventStream"}).integer) + " events");
        stopDaemon();
        std::sort(trail.begin(), trail.end());
        return trail;
    }
    Words privilegesOfTheGroups() {
        Words privileges;
        for (const char* variable : {"aci_group=aciadmin;", "aci_group=aciopera;",
                                     "ACI_GROUP=aciuser;", "pam_module=kerberos", "no=group"}) {
            usePamTest("[env=" + std::string(variable) + "] env=PRIVILEGES=1");
            privileges.push_back(privilegeOf());
        }
        return privileges;
    }
    Fields serviceOfAFreshStore() {
        start();
        Fields service = store().hgetall(serviceUri);
        service.erase("@odata.etag");
        stopDaemon();
        return service;
    }
};

TEST_F(SampleFiles, OfTheSettingsChangeNothing) {
    controller.removeFile(configurationFile);
    const Words without = runWithALogin();
    controller.writeFile(configurationFile, sample("SessionService.conf"));
    EXPECT_EQ(runWithALogin(), without);
}

TEST_F(SampleFiles, OfTheSettingsNameEachKey) {
    const Words lines = splitLines(sample("SessionService.conf"));
    for (const char* line :
         {"#LOG_SYSTEM=", "#LOG_FILE=", "#LOG_FILE_BAK=", "#LOG_FILE_SIZE=0", "#LOG_LEVEL=debug",
          "#GenerateResourceEvent=true", "#LogEntryCollection="}) {
        EXPECT_THAT(lines, testing::Contains(line));
    }
}

TEST_F(SampleFiles, OfTheGroupsAndTheirPrivilegesChangeNothing) {
    controller.removeFile(groupFile);
    controller.removeFile(privilegeFile);
    start();
    const Words without = privilegesOfTheGroups();
    EXPECT_EQ(without, (Words{"511", "121", "9", "511", "1"}));
    controller.writeFile(groupFile, sample("q73.conf"));
    controller.writeFile(privilegeFile, sample("groups2privs.conf"));
    EXPECT_EQ(privilegesOfTheGroups(), without);
}

TEST_F(SampleFiles, OfThePropertiesChangeNothingUntilAClientDoes) {
    controller.removeFile(persistentFile);
    const Fields without = serviceOfAFreshStore();
    const std::string file = sample("SessionPersistentProp.conf");
    controller.writeFile(persistentFile, file);
    EXPECT_EQ(serviceOfAFreshStore(), without);

    start();
    EXPECT_EQ(frontEnd().patch({{"SessionTimeout", "450"}}).status(), "OK");
    // It comes behind the answer; the store must not go before.
    waitUntil("the change is published", [this] { return !lifeCycleEvents(store()).empty(); });
    Words changed = splitLines(file);
    ASSERT_EQ(changed.back(), "SessionTimeout=");
    changed.back() += "450";
    EXPECT_EQ(splitLines(controller.readFile(persistentFile)), changed);
}

TEST_F(SampleFiles, OfThePamServiceLetTheLocalAccountsIn) {
    std::string service = sample("q73");
    // The private root has the module elsewhere.
    const std::string module = " pam_session_role.so";
    const std::size_t at = service.find(module);
    ASSERT_NE(at, std::string::npos);
    service.replace(at, module.size(), " /usr/local/lib/security/pam_session_role.so");
    // The groups are those that the packages make.
    controller.writeFile("/etc/group", controller.readFile("/etc/group") +
                                           "redfish-administrators:x:111:admin\n"
                                           "redfish-operators:x:112:operator,expired\n"
                                           "redfish-readonly:x:113:reader\n");
    start();
    usePamLines(service);
    for (const Account& account : {administrator, operatorAccount, reader, expired}) {
        EXPECT_EQ(privilegeOf(account.name, account.password), account.privilege) << account.name;
    }
    EXPECT_EQ(privilegeOf(reader.name, operatorAccount.password), "AUTH_FAILED");
}

}  // namespace
}  // namespace testbed
