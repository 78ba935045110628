// The example's play for Ansible, on two controllers that a stand-in for ssh leads into.
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "support/sessionctl_test.h"

namespace testbed {
namespace {

namespace fs = std::filesystem;

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

constexpr const char* installerFile = "/usr/local/sbin/apt-get";
constexpr const char* setupFile = "/usr/local/sbin/session-service-setup";
constexpr const char* systemFile = "/usr/local/sbin/systemctl";
constexpr const char* callsFile = "/tmp/calls";

// What a board has beside sessionctl. Packages cannot be installed into a private root: their names
// are noted.
void addCommands(Controller& board) {
    const std::string begin = "#!/bin/sh\n";
    const std::map<std::string, std::string> commands{
        {installerFile,
         "for word do\n"
         "    case $word in\n"
         "        *.deb) dpkg-deb --field \"$word\" Package ;;\n"
         "        *) echo \"$word\" ;;\n"
         "    esac\n"
         "done >>" +
             std::string(callsFile) + "\necho '0 upgraded, 2 newly installed'\n"},
        {setupFile, "echo setup >>" + std::string(callsFile) + "\n"},
        {systemFile, "echo systemctl \"$@\" >>" + std::string(callsFile) + "\n"}};
    for (const auto& [path, text] : commands) {
        board.writeFile(path, begin + text);
        chmod(board.path(path).c_str(), S_IRWXU);
    }
}

class Fleet : public SessionctlTest {
  protected:
    Fleet() { otherBoard.bind({TEST_SESSIONCTL, program, Bind::Kind::readOnly}); }
    void SetUp() override {
        start();
        otherBoard.start();
        fs::copy(TEST_BOARD_SHELL, folder.path() + "/ssh");
        for (const auto& [name, board] : boards) {
            addCommands(*board);
            write(name + ".pid", std::to_string(board->daemon().sandboxPid()));
        }
        write("ansible.cfg", "[defaults]\n");
        write("boards.ini",
              "[boards]\nboard-a\nboard-b\n[boards:vars]\nansible_user=root\n"
              "ansible_remote_tmp=/tmp\nansible_python_interpreter=/usr/bin/python3\n"
              "ansible_ssh_transfer_method=piped\nansible_ssh_args=-C\nansible_ssh_executable=" +
                  folder.path() + "/ssh\n");
    }
    void TearDown() override {
        otherBoard.stopStore();
        EXPECT_EQ(otherBoard.daemon().wait(), ExitStatus{});
        SessionctlTest::TearDown();
    }
    void write(const std::string& name, const std::string& text) const {
        std::ofstream(folder.path() + "/" + name) << text;
    }
    // Runs it, with what it says in the output.
    Outcome play(const std::string& arguments) const {
        const std::string output = shellOutput(
            "cd " + folder.path() + " && env HOME=" + folder.path() +
            " LC_ALL=C.UTF-8 ANSIBLE_CONFIG=ansible.cfg ANSIBLE_NOCOLOR=1 ansible-playbook "
            "-i boards.ini " +
            arguments + " " TEST_SAMPLE_FILES "/ansible/boards.yml 2>&1; echo \"status $?\"");
        const std::size_t status = output.rfind("status ");
        return {std::stoi(output.substr(status + 7)), output.substr(0, status), ""};
    }
    // Packages with nothing in them.
    void makePackages() const {
        for (const std::string name : {"session-service", "session-service-frontend"}) {
            fs::create_directories(folder.path() + "/" + name + "/DEBIAN");
            write(name + "/DEBIAN/control", "Package: " + name +
                                                "\nVersion: 1\nArchitecture: all\nMaintainer: x "
                                                "<x@example>\nDescription: x\n");
            shellOutput("dpkg-deb --build " + folder.path() + "/" + name + " " + folder.path() +
                        "/" + name + "_1_all.deb");
        }
    }

    TemporaryFolder folder;
    Controller otherBoard;
    const std::map<std::string, Controller*> boards{{"board-a", &controller},
                                                    {"board-b", &otherBoard}};
};

TEST_F(Fleet, IsInstalledSetUpCheckedAndRead) {
    makePackages();
    EXPECT_EQ(frontEnd().login(administrator.name, administrator.password).status(), "OK");
    const Outcome outcome = play("-e packages=" + folder.path());
    EXPECT_EQ(outcome.status, 0) << outcome.output;
    EXPECT_THAT(outcome.output,
                AllOf(HasSubstr("\"msg\": \"1 of 8 places taken: admin from 192.0.2.10\""),
                      HasSubstr("\"msg\": \"0 of 8 places taken\"")));
    for (const auto& [name, board] : boards) {
        EXPECT_EQ(board->readFile(callsFile),
                  "-q\ninstall\n--yes\n--no-install-recommends\nsession-service\n"
                  "session-service-frontend\nsetup\n")
            << name;
        for (const auto& entry : fs::directory_iterator(board->path("/tmp"))) {
            EXPECT_EQ(entry.path().filename().string().find("session-service"), std::string::npos)
                << entry.path();
        }
    }
}

TEST_F(Fleet, IsNotTouchedFurtherWhenABoardFails) {
    StoreClient store = controller.connect();
    store.run({"HDEL", "redisSHAScripts", "resourceChange"});
    const Outcome outcome = play("--tags check,sessions");
    EXPECT_NE(outcome.status, 0);
    EXPECT_THAT(outcome.output,
                AllOf(HasSubstr("It is not registered in redisSHAScripts: start the service that "
                                "loads it."),
                      Not(HasSubstr("board-b")), Not(HasSubstr("places taken"))));
}

TEST_F(Fleet, IsNotTouchedWithoutThePackages) {
    const Outcome outcome = play("--tags install -e packages=/nowhere");
    EXPECT_NE(outcome.status, 0);
    EXPECT_THAT(outcome.output, HasSubstr("One package of each kind has to be in /nowhere."));
    EXPECT_EQ(controller.readFile(callsFile), "");
}

// Names are shown, not evaluated.
TEST_F(Fleet, IsReadAsItIs) {
    frontEnd().insertSession({.identifier = "00000001", .userName = "{{ 6 * 7 }}'\""});
    const Outcome outcome = play("--tags sessions,metrics");
    EXPECT_EQ(outcome.status, 0) << outcome.output;
    EXPECT_THAT(outcome.output, HasSubstr(R"(1 of 8 places taken: {{ 6 * 7 }}'\" from ?)"));
    EXPECT_EQ(otherBoard.readFile(callsFile),
              "systemctl enable --now session-service-stats.timer\n");
}

}  // namespace
}  // namespace testbed
