// Logins whose PAM modules are slow, broken or careless with the process that they run in.
#include <security/pam_appl.h>
#include <signal.h>

#include "support/login_fault_test.h"

namespace testbed {
namespace {

class BrokenPam : public LoginFaultTest {
  protected:
    BrokenPam() { controller.install(TEST_PAM_MISBEHAVING, misbehavingModule); }

    void SetUp() override {
        startStore();
        serve();
    }
    void serve(const Words& limits = {}) {
        // The library forgets some memory when it cannot start; a leak detector may as well.
        controller.writeFile("/tmp/suppressions", "leak:libpam.so\n");
        startDaemon({.environment = {{"LSAN_OPTIONS",
                                      "suppressions=/tmp/suppressions:print_suppressions=0"}},
                     .limits = limits});
    }

    void useModule(const std::string& path) {
        usePamLines("auth required " + path + "\naccount required " + path + "\n");
    }
    void useMisbehavingPam(const std::string& acts) {
        useModule(std::string(misbehavingModule) + " " + acts);
    }
    // A real module that asks a program.
    void useProgram(const std::string& script, const std::string& options = "") {
        installProgram("/usr/local/bin/decide", script);
        usePamLines("auth required pam_exec.so " + options +
                    " /usr/local/bin/decide\n"
                    "auth required /usr/local/lib/security/pam_session_role.so set=PRIVILEGES=7\n"
                    "account required pam_permit.so\n");
    }

    std::string fileMask() {
        std::ifstream status(processFolder() + "/status");
        const std::string label = "Umask:\t";
        for (std::string line; std::getline(status, line);) {
            if (line.rfind(label, 0) == 0) {
                return line.substr(label.size());
            }
        }
        throw Failure("The process has no mask of new files.");
    }

    // The thread of the logins ends at the next one; the others go on, and the process ends in
    // order.
    void expectOnlyLoginsEnd() {
        const auto threads = [&] {
            return std::distance(std::filesystem::directory_iterator(processFolder() + "/task"),
                                 {});
        };
        const auto before = threads();
        Request login = frontEnd().prepareLogin("somebody", "anything");
        login.send();
        waitUntil("a thread has ended", [&] { return threads() == before - 1; });
        expectNoSession();
        expectOtherRequestsServed();
        EXPECT_FALSE(login.publishedAlready());
        stopDaemon();
        EXPECT_EQ(toText(controller.daemon().wait()), toText(ExitStatus{}));
    }

    // Each login lets those go that have ended.
    void waitUntilChildrenAreGone() {
        waitUntil("the children are gone", [&] {
            const bool in = privilegeOf(reader.name, reader.password) == reader.privilege;
            return !in || children().empty();
        });
        EXPECT_EQ(children(), Words{});
    }

    static constexpr char accountFailed[] = "PAM: pam_acct_mgmt() failed.";
    static constexpr char noHandler[] = "Failed to create pam handler.";
    static constexpr char misbehavingModule[] = "/usr/local/lib/security/pam_misbehaving.so";
};

// --- slow

TEST_F(BrokenPam, ThatBlocksInTheAuthenticationHoldsLoginsAndNothingElse) {
    usePamTest("env=PRIVILEGES=7");
    holdPam();
    expectLoginsSerialized(
        "7", [&] { waitUntilPamHolds(); }, [&] { releasePam(); });
}

TEST_F(BrokenPam, ThatBlocksInTheAccountCheckHoldsLoginsAndNothingElse) {
    const std::string module = "/usr/local/lib/security/pam_test.so record=/tmp/pam.records ";
    usePamLines("auth required " + module + "env=PRIVILEGES=7\naccount required " + module +
                "block=/tmp/pam.block\n");
    holdPam();
    const auto waitUntilHeld = [&] {
        waitUntil("the account is being checked", [&] { return pamRecords().size() == 2; });
    };
    expectLoginsSerialized("7", waitUntilHeld, [&] { releasePam(); });
}

TEST_F(BrokenPam, WhoseProgramHangsHoldsLoginsAndNothingElse) {
    useProgram("touch /tmp/reached\nread -r line </tmp/gate\nexit 0");
    Gate gate(controller, "/tmp/gate");
    expectLoginsSerialized(
        "7", [&] { waitForFile("/tmp/reached"); }, [&] { gate.open(); });
}

TEST_F(BrokenPam, ThatBlocksAndThenFailsRefusesThatLoginOnly) {
    usePamTest("env=PRIVILEGES=7 auth=PAM_AUTHINFO_UNAVAIL");
    holdPam();
    Request first = frontEnd().prepareLogin("somebody", "anything");
    Request second = frontEnd().prepareLogin(reader.name, reader.password);
    first.send();
    waitUntilPamHolds();
    second.send();
    expectOtherRequestsServed();
    useLocalAccounts();
    releasePam();
    EXPECT_EQ(first.reply().status(), "AUTH_FAILED");
    EXPECT_EQ(countLogged(doesNotPass), 1);
    const Reply reply = second.reply();
    EXPECT_EQ(reply.status(), "OK");
    EXPECT_EQ(frontEnd().remove(reply.location()).status(), "OK_EMPTY");
    expectRecovered();
}

// --- helpers and children

TEST_F(BrokenPam, WhoseHelperDiesByASignalRefusesTheLogin) {
    for (const int number : {SIGSEGV, SIGKILL, SIGABRT, SIGTERM, SIGPIPE}) {
        SCOPED_TRACE(number);
        useMisbehavingPam("helper=" + std::to_string(number));
        expectRefusal(doesNotPass);
    }
    expectRecovered();
}

TEST_F(BrokenPam, WhoseProgramDoesNotAnswerProperlyRefusesTheLogin) {
    for (const char* script :
         {"kill -SEGV $$", "kill -KILL $$", "kill -HUP $$", "exit 1", "exit 127", "exit 255",
          "exec </dev/null >/dev/null 2>&1; exit 9", "exec /nowhere/at/all"}) {
        SCOPED_TRACE(script);
        useProgram(script);
        expectRefusal(doesNotPass);
    }
    controller.removeFile("/usr/local/bin/decide");
    expectRefusal(doesNotPass);
    controller.writeFile("/usr/local/bin/decide", "exit 0\n");  // not executable
    expectRefusal(doesNotPass);
    expectRecovered();
}

TEST_F(BrokenPam, WhoseProgramDoesNotReadThePasswordDecidesAllTheSame) {
    useProgram("exec <&-; exit 0", "expose_authtok");
    expectLogin("7");
    useProgram("exec <&-; exit 1", "expose_authtok");
    EXPECT_EQ(privilegeOf(), "AUTH_FAILED");
    expectRecovered();
}

TEST_F(BrokenPam, LeavesItsChildrenToTheNextLogins) {
    useMisbehavingPam("zombie zombie zombie");
    for (int i = 0; i < 5; ++i) {
        expectLogin("7");
    }
    expectRecovered();
    waitUntilChildrenAreGone();
}

TEST_F(BrokenPam, ThatLeavesAChildAtWorkDoesNotHoldTheLogin) {
    controller.writeFile("/tmp/work", "");
    useMisbehavingPam("child=/tmp/work");
    expectLogin("7");
    expectOtherRequestsServed();
    expectRecovered();
    EXPECT_EQ(children().size(), 1U);
    controller.removeFile("/tmp/work");
    waitUntilChildrenAreGone();
}

TEST_F(BrokenPam, ThatLeavesChildrenDoesNotDisturbTheToolsOfTheDaemon) {
    useFakeKadmin("aci_group: aciopera;\n");
    controller.writeFile(groupFile, "KrbAttrGrouping=1;\n");
    controller.writeFile("/tmp/work", "");
    for (const char* acts :
         {"zombie", "child=/tmp/work", "ignore=17 zombie", "handle=17 zombie child=/tmp/work",
          "default=17 zombie", "block", "close=0 close=1 close=2"}) {
        SCOPED_TRACE(acts);
        usePamLines("auth required " + std::string(misbehavingModule) + " " + acts +
                    "\n"
                    "auth required /usr/local/lib/security/pam_session_role.so "
                    "set=pam_module=kerberos\n"
                    "account required pam_permit.so\n");
        expectLogin("121");
    }
    controller.removeFile("/tmp/work");
    controller.writeFile(groupFile, "");
    expectRecovered();
}

// --- odd conversations

TEST_F(BrokenPam, MayAskForThePasswordAsOftenAsItLikes) {
    useMisbehavingPam("answered=password answered=password answered=mixture answered=rounds");
    expectLogin("7");
    EXPECT_EQ(controller.daemonOutput(), "Welcome\n");
    EXPECT_EQ(controller.daemonErrors(), "Careful\n");
    expectRecovered();
}

TEST_F(BrokenPam, ThatAsksWhatNobodyAnswersMayAskForThePasswordAfterwards) {
    for (const char* conversation :
         {"foreign", "foreign_last", "strange_last", "without_text", "no_second_message"}) {
        SCOPED_TRACE(conversation);
        const std::string refused = std::string("refused=") + conversation + " ";
        useMisbehavingPam(refused + refused + "answered=password " + refused + "answered=mixture");
        expectLogin("7");
    }
    expectRecovered();
}

TEST_F(BrokenPam, ThatLeavesSomethingOutOfItsQuestionMayAskAgain) {
    constexpr char line[] = "PAM converse - input data error.";
    expectErrorLine(line);
    long refused = 0;
    for (const char* missing : {"no_messages", "no_answers", "no_data"}) {
        SCOPED_TRACE(missing);
        useMisbehavingPam("refused=" + std::string(missing) + " answered=password");
        expectLogin("7");
        EXPECT_EQ(countLogged(line), ++refused);
    }
    expectRecovered();
}

TEST_F(BrokenPam, MayTalkAtLength) {
    useMisbehavingPam("refused=long_prompt answered=long_info answered=password");
    expectLogin("7");
    EXPECT_EQ(controller.daemonOutput(), std::string(1 << 20, 'x') + "\n");
    EXPECT_EQ(controller.daemonErrors(), "");
    expectRecovered();
}

// --- odd answers

TEST_F(BrokenPam, ThatAnswersWithAnOddNumberRefusesTheLogin) {
    // The last ones are no statuses at all.
    const Words numbers{std::to_string(PAM_ABORT),
                        std::to_string(PAM_INCOMPLETE),
                        std::to_string(PAM_CONV_AGAIN),
                        std::to_string(PAM_MODULE_UNKNOWN),
                        std::to_string(PAM_BAD_ITEM),
                        std::to_string(PAM_TRY_AGAIN),
                        "32",
                        "1000",
                        "-1",
                        "-2147483648",
                        "2147483647"};
    for (const std::string& number : numbers) {
        SCOPED_TRACE(number);
        usePamTest("auth=" + number + " env=PRIVILEGES=511");
        expectRefusal(doesNotPass);
        usePamTest("acct=" + number + " env=PRIVILEGES=511");
        expectRefusal(accountFailed);
    }
    expectRecovered();
}

// --- what cannot be loaded

TEST_F(BrokenPam, ThatCannotBeLoadedRefusesTheLogin) {
    constexpr char damaged[] = "/usr/local/lib/security/pam_damaged.so";
    const std::string sound = controller.readFile("/usr/local/lib/security/pam_test.so");
    const auto without = [&](const std::string& name) {
        std::string text = sound;
        for (std::size_t at = text.find(name); at != std::string::npos; at = text.find(name, at)) {
            text.replace(at, 3, "xxx");
        }
        EXPECT_NE(text, sound) << name;
        return text;
    };
    useModule(damaged);
    expectRefusal(doesNotPass);  // it is not there
    const std::map<std::string, std::string> contents{
        {"nothing", ""},
        {"no library", "#!/bin/sh\n"},
        {"too short", sound.substr(0, 40)},
        {"a library is missing", without("libpam.so.0")},
        {"a function is missing", without("pam_get_item")},
        {"its entry is missing", without("pam_sm_authenticate")},
    };
    for (const auto& [what, content] : contents) {
        SCOPED_TRACE(what);
        // The loader may have the old one mapped.
        controller.removeFile(damaged);
        controller.writeFile(damaged, content);
        expectRefusal(doesNotPass);
    }
    controller.writeFile(damaged, without("pam_sm_acct_mgmt"));
    expectRefusal(accountFailed);
    expectRecovered();
}

TEST_F(BrokenPam, WhoseServiceMakesNoSenseRefusesTheLogin) {
    for (const std::string& lines :
         {std::string(), std::string("\n\n# nothing\n"), std::string("auth\n"),
          std::string("auth required\n"), std::string("nonsense required pam_permit.so\n"),
          std::string("auth nonsense pam_permit.so\n"),
          std::string("auth [success=99 default=die] pam_permit.so\n"),
          std::string("auth [success pam_permit.so\n"), std::string("auth include nowhere\n"),
          std::string("auth substack nowhere\n"), std::string(100'000, 'x'),
          std::string("\0\xff\x7f\0", 4), std::string("account required pam_permit.so\n")}) {
        SCOPED_TRACE(lines.substr(0, 60));
        usePamLines(lines);
        expectRefusal(doesNotPass);
    }
    expectErrorLine(noHandler);
    usePamLines("@include nowhere\n");
    expectRefusal(noHandler);
    usePamLines("auth required pam_permit.so [unclosed\n");
    expectRefusal(accountFailed);
    usePamLines("auth required pam_permit.so\n");
    expectRefusal(accountFailed);
    expectRecovered();
}

TEST_F(BrokenPam, WhoseServiceIncludesItselfRefusesTheLogin) {
    // The library opens it until no descriptor is left.
    controller.daemon().kill();
    serve({"--nofile=1024"});
    for (const char* line : {"auth include q73\n", "auth substack q73\n"}) {
        SCOPED_TRACE(line);
        usePamLines(line);
        expectRefusal(doesNotPass);
    }
    expectErrorLine(noHandler);
    usePamLines("@include q73\n");
    expectRefusal(noHandler);
    expectRecovered();
}

TEST_F(BrokenPam, WhoseServiceCannotBeReadRefusesTheLogin) {
    expectErrorLine(noHandler);
    const std::string path = controller.path(pamServiceFile);
    chmod(path.c_str(), 0);
    expectRefusal(noHandler);
    controller.removeFile(pamServiceFile);
    expectRefusal(noHandler);
    std::filesystem::create_symlink("q73", path);
    expectRefusal(noHandler);
    controller.removeFile(pamServiceFile);
    std::filesystem::create_directory(path);
    expectRefusal(doesNotPass);
    controller.removeFile(pamServiceFile);
    expectRecovered();
}

// --- what belongs to the process

TEST_F(BrokenPam, LeavesTheSignalsOfTheProcessAsTheyWere) {
    // Of each thread: blocked, ignored and handled ones.
    const auto signals = [&] {
        std::map<std::string, Words> masks;
        for (const auto& task : std::filesystem::directory_iterator(processFolder() + "/task")) {
            std::ifstream status(task.path() / "status");
            for (std::string line; std::getline(status, line);) {
                if (line.rfind("Sig", 0) == 0 && line.rfind("SigQ", 0) != 0) {
                    masks[task.path()].push_back(line);
                }
            }
        }
        return masks;
    };
    const auto before = signals();
    for (const char* acts : {"ignore=17", "handle=17", "default=13", "handle=13", "ignore=15",
                             "handle=2 handle=1 handle=14", "block"}) {
        SCOPED_TRACE(acts);
        useMisbehavingPam(acts);
        expectLogin("7");
        EXPECT_EQ(signals(), before);
    }
    expectRecovered();
}

TEST_F(BrokenPam, ThatHandledSignalsIsNotCalledOnceItIsGone) {
    useMisbehavingPam("handle=17 handle=2");
    expectLogin("7");
    controller.daemon().signal(SIGCHLD);
    expectRecovered();
}

TEST_F(BrokenPam, ThatSetAnAlarmDoesNotKillTheDaemonLater) {
    useMisbehavingPam("handle=14 alarm=1");
    expectLogin("7");
    const long later = uptime() + 2;
    waitUntil("its time is over", [&] { return uptime() > later; });
    expectRecovered();
}

TEST_F(BrokenPam, ThatMadeBrokenPipesDeadlyDoesNotKillTheDaemonWhenTheStoreGoes) {
    useMisbehavingPam("default=13");
    expectLogin("7");
    stopDaemon();
    EXPECT_EQ(toText(controller.daemon().wait()), toText(ExitStatus{}));
}

TEST_F(BrokenPam, ThatEndsItsThreadEndsLoginsAndNothingElse) {
    useMisbehavingPam("exit=authentication");
    // libpam takes the end for a call of the module's.
    expectErrorLine("PAM: pam_end() failed.");
    expectOnlyLoginsEnd();
}

TEST_F(BrokenPam, ThatEndsItsThreadWhileItCleansUpEndsLoginsAndNothingElse) {
    useMisbehavingPam("exit=cleanup");
    expectOnlyLoginsEnd();
}

TEST_F(BrokenPam, LeavesTheMaskOfNewFilesAsItWas) {
    const std::string before = fileMask();
    for (const char* mask : {"umask=0", "umask=777"}) {
        useMisbehavingPam(mask);
        expectLogin("7");
        EXPECT_EQ(fileMask(), before) << mask;
    }
    expectRecovered();
}

TEST_F(BrokenPam, LeavesTheWorkingFolderAsItWas) {
    const auto folder = [&] { return std::filesystem::read_symlink(processFolder() + "/cwd"); };
    const auto before = folder();
    useMisbehavingPam("chdir=/tmp");
    expectLogin("7");
    EXPECT_EQ(folder(), before);
    expectRecovered();
}

TEST_F(BrokenPam, ThatChangesTheVariablesOfTheProcessDoesNotHarmTheNextLogin) {
    for (const char* acts : {"setenv=TZ=XYZ-13", "setenv=PATH=/nowhere", "clearenv",
                             "putenv=TZ=XYZ-13", "putenv=OTHER=variable setenv=MORE=variables"}) {
        SCOPED_TRACE(acts);
        useMisbehavingPam(acts);
        expectLogin("7");
        // The clock of the log, and the way to the tool.
        useFakeKadmin("aci_group: aciopera;\n");
        controller.writeFile(groupFile, "KrbAttrGrouping=1;\n");
        usePamTest("env=pam_module=kerberos");
        expectLogin("121");
        controller.writeFile(groupFile, "");
    }
    expectRecovered();
}

TEST_F(BrokenPam, ThatNamedItselfInTheSystemsLogIsForgottenThere) {
    useMisbehavingPam("openlog syslog=hello");
    expectLogin("7");
    // The library complains of this one in the system's log.
    useModule("/usr/local/lib/security/pam_missing.so");
    EXPECT_EQ(privilegeOf(), "AUTH_FAILED");
    expectRecovered();
}

TEST_F(BrokenPam, ThatLeavesADescriptorOpenGivesItToNobody) {
    useFakeKadmin("aci_group: aciopera;\n");
    controller.writeFile(groupFile, "KrbAttrGrouping=1;\n");
    installProgram("/usr/local/bin/kadmin",
                   "ls -l /proc/self/fd >/tmp/descriptors; echo 'aci_group: aciopera;'");
    usePamLines("auth required " + std::string(misbehavingModule) +
                " open=/etc/shadow\n"
                "auth required /usr/local/lib/security/pam_session_role.so "
                "set=pam_module=kerberos\n"
                "account required pam_permit.so\n");
    expectLogin("121");
    const std::string listing = controller.readFile("/tmp/descriptors");
    EXPECT_NE(listing.find("2 -> "), std::string::npos) << listing;
    EXPECT_EQ(listing.find("shadow"), std::string::npos) << listing;
    constexpr std::ptrdiff_t left = 1;
    expectRecovered(left);
}

TEST_F(BrokenPam, ThatClosesTheStandardStreamsDoesNotPutTheStoreInTheirPlace) {
    useMisbehavingPam("close=0 close=1 close=2");
    expectLogin("7");
    for (const char* descriptor : {"0", "1", "2"}) {
        EXPECT_EQ(std::filesystem::read_symlink(processFolder() + "/fd/" + descriptor),
                  "/dev/null");
    }
    useMisbehavingPam("[print=DEL " + std::string(serviceUri) + "]");
    expectLogin("7");
    EXPECT_TRUE(store().exists(serviceUri));
    expectRecovered();
}

TEST_F(BrokenPam, ThatWritesToTheStandardStreamsWritesThere) {
    useMisbehavingPam("[print=100%s of %n]");
    expectLogin("7");
    EXPECT_EQ(controller.daemonErrors(), "100%s of %n\n");
    EXPECT_EQ(controller.daemonOutput(), "100%s of %n\n");
    expectRecovered();
}

}  // namespace
}  // namespace testbed
