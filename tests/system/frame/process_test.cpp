// The daemon as a process: signals, descriptors, what its children inherit, what it exports.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <set>

#include "support/system_test.h"

namespace testbed {
namespace {

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::IsSupersetOf;
using testing::Not;
using testing::StartsWith;
using testing::UnorderedElementsAre;

constexpr char daemonProgram[] = "/usr/local/sbin/session-service";

// The mask of this name, "SigIgn" for instance, in a status file of /proc.
unsigned long signalMask(const std::string& status, const std::string& name) {
    for (const std::string& line : splitLines(status)) {
        if (line.rfind(name + ":", 0) == 0) {
            return std::stoul(line.substr(name.size() + 1), nullptr, 16);
        }
    }
    throw Failure("There is no " + name + ".");
}

bool holds(unsigned long mask, int signal) {
    return (mask >> (signal - 1) & 1U) != 0;
}

class ProcessTest : public SystemTest {
  protected:
    std::string daemonFile(const std::string& name) {
        std::ifstream file("/proc/" + std::to_string(controller.daemon().pid()) + "/" + name);
        std::ostringstream text;
        text << file.rdbuf();
        return text.str();
    }

    // The descriptors beyond the standard streams that a program would inherit.
    Words inheritable() {
        Words result;
        const std::filesystem::path folder =
            "/proc/" + std::to_string(controller.daemon().pid()) + "/fdinfo";
        for (const auto& entry : std::filesystem::directory_iterator(folder)) {
            const std::string number = entry.path().filename();
            for (const std::string& line : splitLines(daemonFile("fdinfo/" + number))) {
                const std::string label = "flags:";
                if (std::stoi(number) > 2 && line.rfind(label, 0) == 0 &&
                    (std::stoul(line.substr(label.size()), nullptr, 8) & O_CLOEXEC) == 0) {
                    result.push_back(number);
                }
            }
        }
        return result;
    }

    // Puts a program in front of the machine's own: it notes the descriptors and the signals
    // that it was started with, and then does this.
    void standInFor(const std::string& program, const std::string& action) {
        const std::string path = "/usr/local/bin/" + program;
        controller.writeFile(path,
                             "#!/bin/sh\n"
                             "ls -1 /proc/self/fd >/tmp/" +
                                 program +
                                 ".descriptors\n"
                                 "cat /proc/self/status >/tmp/" +
                                 program + ".status\n" + action + "\n");
        chmod(controller.path(path).c_str(), S_IRWXU);
    }
    void expectNothingInherited(const std::string& program) {
        // The fourth is the one through which the list was read.
        EXPECT_THAT(splitLines(controller.readFile("/tmp/" + program + ".descriptors")),
                    ElementsAre("0", "1", "2", "3"))
            << program;
        const std::string status = controller.readFile("/tmp/" + program + ".status");
        EXPECT_FALSE(holds(signalMask(status, "SigIgn"), SIGPIPE)) << program;
        EXPECT_EQ(signalMask(status, "SigBlk"), 0U) << program;
    }

    void useKerberosGroups() {
        controller.writeFile("/etc/pam.d/q73.conf", "KrbAttrGrouping=1;\n");
        usePamTest("env=pam_module=kerberos");
    }
    void expectKerberosLogin() {
        EXPECT_EQ(frontEnd().login("anybody", "anything").status(), "OK");
    }
};

class Signals : public ProcessTest, public testing::WithParamInterface<int> {};

TEST_P(Signals, EndTheProcessAtOnce) {
    start();
    expectExitStatus({.bySignal = true, .value = GetParam()});
    controller.daemon().signal(GetParam());
    EXPECT_EQ(toText(controller.daemon().wait()), toText({true, GetParam()}));
    EXPECT_EQ(countLogged("SessionService terminates."), 0);
}

INSTANTIATE_TEST_SUITE_P(OfSupervisors, Signals, testing::Values(SIGTERM, SIGINT, SIGHUP),
                         [](const auto& instance) {
                             return std::string("SIG") + sigabbrev_np(instance.param);
                         });

TEST_F(ProcessTest, IgnoresBrokenPipesAndNoOtherSignal) {
    start();
    const std::string status = daemonFile("status");
    // The signals from 32 on belong to the C library.
    constexpr unsigned long standardSignals = (1UL << 31) - 1;
    EXPECT_EQ(signalMask(status, "SigIgn") & standardSignals, 1UL << (SIGPIPE - 1));
    for (const int number : {SIGTERM, SIGINT, SIGHUP, SIGCHLD}) {
        EXPECT_FALSE(holds(signalMask(status, "SigCgt"), number)) << number;
    }
    EXPECT_EQ(signalMask(status, "SigBlk"), 0U);
}

TEST_F(ProcessTest, MarksItsIdleDescriptorsCloseOnExec) {
    start();
    EXPECT_THAT(inheritable(), IsEmpty());
}

TEST_F(ProcessTest, MarksItsDescriptorsDuringALoginCloseOnExec) {
    usePamTest("env=PRIVILEGES=511");
    start();
    holdPam();
    Request login = frontEnd().prepareLogin("anybody", "anything");
    login.send();
    waitUntilPamHolds();
    EXPECT_THAT(inheritable(), IsEmpty());
    releasePam();
    EXPECT_EQ(login.reply().status(), "OK");
}

TEST_F(ProcessTest, GivesHelpersOfPamNoDescriptor) {
    usePamTest("env=PRIVILEGES=511 descriptors=/tmp/descriptors");
    start();
    EXPECT_EQ(frontEnd().login("anybody", "anything").status(), "OK");
    Words numbers;
    for (const std::string& line : splitLines(controller.readFile("/tmp/descriptors"))) {
        const std::size_t arrow = line.find(" -> ");
        if (arrow != std::string::npos) {
            numbers.push_back(line.substr(line.rfind(' ', arrow - 1) + 1,
                                          arrow - 1 - line.rfind(' ', arrow - 1)));
        }
    }
    // The fourth is the one through which the list was read.
    EXPECT_THAT(numbers, ElementsAre("0", "1", "2", "3"));
}

TEST_F(ProcessTest, GivesTheLookForACollectorCleanSignalsAndNoDescriptor) {
    standInFor("pidof", "exit 1");
    controller.writeFile(configurationFile,
                         std::string("LOG_SYSTEM=collector\nLOG_FILE=") + logFile + "\n");
    start();
    expectNothingInherited("pidof");
}

TEST_F(ProcessTest, GivesTheDiscoveryOfTheStoreCleanSignalsAndNoDescriptor) {
    standInFor("dirname", "exec /usr/bin/dirname \"$@\"");
    start();
    expectNothingInherited("dirname");
}

TEST_F(ProcessTest, GivesTheKerberosToolCleanSignalsAndNoDescriptor) {
    useKerberosGroups();
    standInFor("kadmin", "echo 'aci_group: aciadmin;'");
    start();
    expectKerberosLogin();
    expectNothingInherited("kadmin");
}

TEST_F(ProcessTest, LeavesNoChildBehind) {
    useKerberosGroups();
    standInFor("kadmin", "echo 'aci_group: aciadmin;'");
    start();
    expectKerberosLogin();
    expectKerberosLogin();
    const std::string pid = std::to_string(controller.daemon().pid());
    for (const auto& task : std::filesystem::directory_iterator("/proc/" + pid + "/task")) {
        std::ifstream children(task.path() / "children");
        std::string child;
        EXPECT_FALSE(children >> child) << child;
    }
}

TEST_F(ProcessTest, SwitchesCoreFilesOff) {
    rlimit limit{};
    getrlimit(RLIMIT_CORE, &limit);
    startStore();
    // Where the machine allows core files, the daemon is started with leave to write one.
    startDaemon(limit.rlim_max > 0 ? DaemonOptions{.limits = {"--core=1"}} : DaemonOptions{});
    EXPECT_THAT(
        splitLines(daemonFile("limits")),
        Contains(AllOf(StartsWith("Max core file size"), HasSubstr(" 0 "), Not(HasSubstr(" 1 ")))));
}

// Under a sanitizer everything inside may look into the daemon, for the leak detector's sake.
#if !TESTBED_SANITIZED

TEST_F(ProcessTest, IsClosedToOtherProcessesOfItsUser) {
    useKerberosGroups();
    standInFor("kadmin",
               "tr -d '\\0' </proc/$$/environ >/tmp/own\n"
               "daemon=/proc/$(pidof session-service)\n"
               "cat $daemon/comm >/tmp/name\n"
               "tr -d '\\0' <$daemon/environ >/tmp/daemons\n"
               "echo 'aci_group: aciadmin;'");
    start();
    expectKerberosLogin();
    EXPECT_EQ(controller.readFile("/tmp/name"), "session-service\n");
    EXPECT_NE(controller.readFile("/tmp/own"), "");
    EXPECT_EQ(controller.readFile("/tmp/daemons"), "");
}

#endif

TEST_F(ProcessTest, ReadsNoArguments) {
    const auto program = controller.startProgram(
        {.command = {daemonProgram, "--help", "-c", "/nowhere.conf", "word"}});
    EXPECT_EQ(toText(program->wait()), "exit status 255");
    EXPECT_EQ(controller.daemonOutput(), "");
    const std::vector<LogLine> lines = logLines();
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[0].message, "SessionService log is starting ...");
    EXPECT_EQ(lines[1].message, "Failed to connect to Redis.");
}

TEST_F(ProcessTest, ReadsNoSettingFromTheEnvironment) {
    startStore();
    startDaemon({.environment = {{"LOG_FILE", "/var/log/other.log"},
                                 {"LOG_LEVEL", "error"},
                                 {"LOG_SYSTEM", "bwrap"},
                                 {"GenerateResourceEvent", "false"},
                                 {"port", "1"},
                                 {"unixsocket", "/nowhere.sock"},
                                 {"requirepass", "wrong"},
                                 {"SessionTimeout", "1"}}});
    EXPECT_EQ(countLogged("SessionService is ready for service."), 1);
    EXPECT_FALSE(controller.fileExists("/var/log/other.log"));
    EXPECT_EQ(store().hget(serviceUri, "SessionTimeout"), "300");
}

TEST_F(ProcessTest, ExportsTheConnectionFunctionsAndNothingElseOfItsOwn) {
    const auto program = controller.startProgram(
        {.command = {"/usr/bin/nm", "--dynamic", "--defined-only", daemonProgram}});
    ASSERT_EQ(toText(program->wait()), "exit status 0");
    std::set<std::string> names;
    for (const std::string& line : splitLines(controller.outputOf("nm"))) {
        const std::string name = line.substr(line.rfind(' ') + 1);
        // Copies of the C library's own variables carry its version. What a compiler did not
        // inline of the C++ library is that library's, too.
        const bool ofTheLanguage =
            name.starts_with("_ZSt") && name.find("session_service") == std::string::npos;
        if (name.find('@') == std::string::npos && !ofTheLanguage) {
            names.insert(name);
        }
    }
    const std::set<std::string> exported{"connectToRedis",         "getRedisConfiguration",
                                         "getRedisConnectionInfo", "redisAuthentication",
                                         "redisConnectContext",    "redisDisconnectContext"};
#if TESTBED_SANITIZED
    // The sanitizer's run time exports its own.
    EXPECT_THAT(names, IsSupersetOf(exported));
    EXPECT_THAT(names, Not(Contains(HasSubstr("session_service"))));
#else
    EXPECT_EQ(names, exported);
#endif
}

}  // namespace
}  // namespace testbed
