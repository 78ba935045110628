// The unit itself, as systemd runs it: a copy under another name, with the daemon in the private
// root of a testbed.
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "support/system_test.h"

namespace testbed {
namespace {

namespace fs = std::filesystem;

class RunningUnit : public SystemTest {
  protected:
    void SetUp() override {
        startStore();
        fs::create_directories(dropIns);
        fs::copy_file(TESTBED_UNIT, unitFile);
        std::ofstream(dropIns + "/root.conf") << dropIn();
        systemctl("daemon-reload");
        systemctl("start " + unitName);
    }
    void TearDown() override {
        systemctl("stop " + unitName);
        systemctl("clean --what=logs " + unitName);
        fs::remove(unitFile);
        fs::remove_all(dropIns);
        systemctl("daemon-reload");
        SystemTest::TearDown();
    }

    // A login and its logout.
    void expectLogin(const Account& account) {
        waitUntil("the daemon serves", [this] { return controller.daemonListens(); });
        FakeFrontEnd client(controller.socketPath(), controller.storePassword(),
                            controller.path(keyFile), [] { return true; });
        const Reply login = client.login(account.name, account.password);
        EXPECT_EQ(login.status(), "OK") << account.name;
        EXPECT_EQ(controller.connect().hget(tokenKey(login.token()), "Privilege"),
                  account.privilege);
        EXPECT_EQ(client.remove(login.location()).status(), "OK_EMPTY");
    }

  private:
    static void systemctl(const std::string& arguments) {
        EXPECT_EQ(std::system(("systemctl --quiet " + arguments).c_str()), 0) << arguments;
    }
    // A root of the unit's own, to which it adds /run and the like, and whose folders are those of
    // the controller's root.
    std::string makeRoot() const {
        const std::string root = controller.path("/unit");
        for (const char* folder : {"/usr", "/etc", "/var"}) {
            fs::create_directories(root + folder);
        }
        for (const char* link : {"/bin", "/sbin", "/lib", "/lib64"}) {
            fs::copy(controller.path(link), root + link, fs::copy_options::copy_symlinks);
        }
        return root;
    }
    std::string dropIn() const {
        const std::string outside = controller.path("");
        return "[Unit]\nConditionPathExists=\n"
               "[Service]\nExecStartPre=\nExecStart=\nExecStart=/usr/local/sbin/session-service\n"
               "RootDirectory=" +
               makeRoot() + "\nBindReadOnlyPaths=/usr /etc/alternatives " + outside + "/etc:/etc " +
               outside + "/usr/local:/usr/local " + TESTBED_DAEMON +
               ":/usr/local/sbin/session-service\nBindPaths=" + outside + "/var:/var " + outside +
               "/run/session-service-store:/run/session-service-store\nReadWritePaths=-+/var/"
               "nginx\nLogsDirectory=\nLogsDirectory=" +
               unitName + "\n";
    }

    const std::string unitName = "session-service-test-" + std::to_string(getpid());
    const std::string unitFile = "/run/systemd/system/" + unitName + ".service";
    const std::string dropIns = unitFile + ".d";
};

TEST_F(RunningUnit, LetsLocalAccountsIn) {
    for (const Account& account : {administrator, operatorAccount, reader}) {
        expectLogin(account);
    }
}

TEST_F(RunningUnit, ComesBackWithTheStore) {
    expectLogin(administrator);
    controller.stopStore();
    startStore();
    expectLogin(administrator);
}

}  // namespace
}  // namespace testbed
