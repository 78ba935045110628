// sessionctl login: trying a PAM set-up from the console.
#include <gmock/gmock.h>
#include <pty.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <fstream>
#include <iterator>

#include "support/sessionctl_test.h"

namespace testbed {
namespace {

using nlohmann::json;
using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

class Trying : public SessionctlTest {
  protected:
    Outcome tryLogin(const std::string& user, const std::string& password) {
        return sessionctl({"login", user, "--json"}, password + "\n");
    }
    static json refusal(const std::string& user, const std::string& reason) {
        return {{"user", user},     {"admitted", false}, {"mustChangePassword", false},
                {"reason", reason}, {"privilege", 0},    {"privileges", json::array()},
                {"role", ""},       {"source", ""}};
    }
};

TEST_F(Trying, TellsThePrivilegesAndWhereTheyComeFrom) {
    const Outcome outcome = tryLogin(operatorAccount.name, operatorAccount.password);
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.errors, "");
    EXPECT_EQ(outcome.json(),
              (json{{"user", "operator"},
                    {"admitted", true},
                    {"mustChangePassword", false},
                    {"reason", ""},
                    {"privilege", 121},
                    {"privileges", {"Login", "ConfigureSelf", "ConfigureComponents"}},
                    {"role", "operator"},
                    {"source", "PAM variable aci_group"}}));
    const Outcome plain =
        sessionctl({"login", administrator.name}, std::string(administrator.password) + "\n");
    EXPECT_EQ(plain.status, 0);
    EXPECT_EQ(plain.output,
              "user       admin\n"
              "login      admitted\n"
              "privilege  511 Login ConfigureManager ConfigureUsers ConfigureSelf "
              "ConfigureComponents\n"
              "role       administrator\n"
              "source     PAM variable aci_group\n");
}

TEST_F(Trying, SaysWhichCallRefused) {
    const Outcome outcome = tryLogin("admin", "something else");
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.json(), refusal("admin", "pam_authenticate: Authentication failure"));
    EXPECT_EQ(outcome.errors, "[Debug]: admin does not pass the PAM auth.\n");

    usePamTest("acct=PAM_ACCT_EXPIRED");
    EXPECT_EQ(tryLogin("admin", "x").json(),
              refusal("admin", "pam_acct_mgmt: User account has expired"));
    usePamTest("prompt=Passcode:");
    EXPECT_EQ(tryLogin("admin", "x").status, 1);
}

TEST_F(Trying, SaysThatThePasswordMustBeChanged) {
    const Outcome outcome =
        sessionctl({"login", expired.name}, std::string(expired.password) + "\n");
    EXPECT_EQ(outcome.status, 0);
    EXPECT_THAT(outcome.output,
                AllOf(HasSubstr("login      admitted\n"), HasSubstr("password   must be changed")));
    EXPECT_TRUE(tryLogin(expired.name, expired.password).json().at("mustChangePassword"));
}

TEST_F(Trying, OfAUserWithoutPrivilegesIsRefused) {
    for (const char* arguments : {"", "env=PRIVILEGES=8"}) {
        usePamTest(arguments);
        const Outcome outcome = tryLogin("somebody", "x");
        EXPECT_EQ(outcome.status, 1) << arguments;
        EXPECT_FALSE(outcome.json().at("admitted")) << arguments;
        EXPECT_EQ(outcome.json().at("reason"),
                  "PAM admits the user, but nothing gives the privilege Login");
    }
}

TEST_F(Trying, TellsEachSourceOfPrivileges) {
    struct Case {
        std::string arguments;
        std::string source;
        std::string role;
        int privilege;
    };
    const std::vector<Case> cases{
        {"env=PRIVILEGES=9", "PAM variable PRIVILEGES", "", 9},
        {"env=pam_module=kerberos5", "Kerberos login while KrbAttrGrouping is off", "administrator",
         511},
        {"env=ACI_GROUP=aciuser;", "PAM variable aci_group", "user", 9},
    };
    for (const Case& each : cases) {
        usePamTest(each.arguments);
        const json verdict = tryLogin("somebody", "x").json();
        EXPECT_EQ(verdict.at("source"), each.source);
        EXPECT_EQ(verdict.at("role"), each.role);
        EXPECT_EQ(verdict.at("privilege"), each.privilege);
    }
    usePamTest("env=pam_module=kerberos5");
    controller.writeFile("/etc/pam.d/q73.conf", "KrbAttrGrouping=1;\n");
    useFakeKadmin("aci_group: aciopera;\n");
    const json verdict = tryLogin("somebody", "x").json();
    EXPECT_EQ(verdict.at("source"), "Kerberos attribute aci_group");
    EXPECT_EQ(verdict.at("role"), "operator");
}

TEST_F(Trying, KeepsWhatModulesPrintOutOfTheDocument) {
    usePamTest("style=info prompt=greetings env=PRIVILEGES=511");
    const Outcome outcome = tryLogin("somebody", "x");
    EXPECT_EQ(outcome.json().at("admitted"), true);
    EXPECT_THAT(outcome.errors, HasSubstr("greetings\n"));
}

TEST_F(Trying, AnswersNoOtherQuestionAsNobodyAnswersTheDaemon) {
    usePamTest("style=echo_on prompt=Code: env=PRIVILEGES=511");
    const Outcome outcome = sessionctl({"login", "somebody", "--json"}, "x\n1234\n");
    EXPECT_EQ(outcome.status, 1);
    EXPECT_FALSE(outcome.json().at("admitted"));
}

TEST_F(Trying, PassesThePasswordOnAsItIs) {
    usePamLines(
        "auth required /usr/local/lib/security/pam_test.so [password=two words\"] "
        "env=PRIVILEGES=511\naccount required /usr/local/lib/security/pam_test.so\n");
    EXPECT_EQ(tryLogin("somebody", "two words\"").status, 0);
    // The last line may lack its line feed.
    EXPECT_EQ(sessionctl({"login", "somebody"}, "two words\"").status, 0);
    EXPECT_EQ(tryLogin("somebody", "two").status, 1);
}

TEST_F(Trying, NeedsAPasswordThatALoginMayHave) {
    usePamTest("env=PRIVILEGES=511");
    EXPECT_EQ(sessionctl({"login", "somebody"}, std::string(1024, 'x') + "\n").status, 0);
    for (const std::string& input : {std::string(), std::string(1025, 'x') + "\n"}) {
        const Outcome outcome = sessionctl({"login", "somebody"}, input);
        EXPECT_EQ(outcome.status, 1);
        EXPECT_EQ(outcome.errors,
                  "sessionctl: No password was given, or one of more than 1024 bytes.\n");
    }
}

TEST_F(Trying, MakesNoSession) {
    start();
    EXPECT_EQ(tryLogin(administrator.name, administrator.password).status, 0);
    EXPECT_EQ(store().llen(membersKey), 0);
    EXPECT_THAT(store().keys("&&X-AUTH-TOKEN-*"), IsEmpty());
}

// What /proc tells of a process.
std::string procText(pid_t pid, const char* file) {
    std::ifstream stream("/proc/" + std::to_string(pid) + "/" + file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

// A terminal for one program.
class Terminal {
  public:
    Terminal() {
        std::array<char, 128> name{};
        if (openpty(&master, &slave, name.data(), nullptr, nullptr) != 0) {
            throw Failure("No terminal.");
        }
        terminalPath = name.data();
    }
    ~Terminal() {
        close(slave);
        close(master);
    }
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    const std::string& path() const { return terminalPath; }
    bool echoes() const {
        termios settings{};
        tcgetattr(slave, &settings);
        return (settings.c_lflag & ECHO) != 0;
    }
    void type(const std::string& text) const {
        EXPECT_EQ(write(master, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }
    // What it has shown so far; blocks until there is something.
    std::string shown() const {
        std::array<char, 1024> text{};
        const ssize_t count = read(master, text.data(), text.size());
        return {text.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0))};
    }

  private:
    int master = -1;
    int slave = -1;
    std::string terminalPath;
};

class TryingAtATerminal : public Trying {
  protected:
    void SetUp() override {
        usePamTest("password=" + secret + " env=PRIVILEGES=511");
        running = startSessionctl({"login",
                                   "some\x1b"
                                   "body"},
                                  console.path());
        waitUntil("the password is asked for", [this] {
            return controller.errorsOf("sessionctl") == R"(Password of some\x1bbody: )";
        });
    }
    void TearDown() override {
        EXPECT_TRUE(console.echoes());
        EXPECT_THAT(controller.outputOf("sessionctl") + controller.errorsOf("sessionctl"),
                    Not(HasSubstr(secret)));
        Trying::TearDown();
    }

    const std::string secret = "Cobalt-3-thicket";
    Terminal console;
    std::unique_ptr<Process> running;
};

TEST_F(TryingAtATerminal, ShowsNothingOfThePassword) {
    EXPECT_FALSE(console.echoes());
    console.type(secret + "\n");
    EXPECT_EQ(running->wait(), ExitStatus{});
    EXPECT_EQ(console.shown(), "\r\n");
}

TEST_F(TryingAtATerminal, KeepsThePasswordOutOfItsArguments) {
    holdPam();
    console.type(secret + "\n");
    waitUntilPamHolds();
    EXPECT_THAT(procText(running->pid(), "cmdline"),
                AllOf(HasSubstr("login"), Not(HasSubstr(secret))));
    EXPECT_THAT(procText(running->pid(), "environ"), Not(HasSubstr(secret)));
    releasePam();
    EXPECT_EQ(running->wait(), ExitStatus{});
}

TEST_F(TryingAtATerminal, EndsAsAskedWhileItWaitsForThePassword) {
    running->signal(SIGINT);
    EXPECT_EQ(running->wait(), (ExitStatus{.bySignal = true, .value = SIGINT}));
}

TEST_F(TryingAtATerminal, EndsWithTheInput) {
    console.type("\x04");
    EXPECT_EQ(running->wait(), (ExitStatus{.bySignal = false, .value = 1}));
}

}  // namespace
}  // namespace testbed
