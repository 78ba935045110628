#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "support/store_proxy.h"
#include "support/system_test.h"
#include "testbed/events_and_audit_log.h"

namespace testbed {
namespace {

class Loading : public SystemTest {
  protected:
    void SetUp() override { startStore(); }

    // The service resource after a first start with this file.
    Fields loaded(const std::string& file) {
        controller.writeFile(persistentFile, file);
        startDaemon();
        Fields fields = store().hgetall(serviceUri);
        for (const auto& [field, value] : seeded) {
            if (field != "SessionTimeout" && fields[field] == value) {
                fields.erase(field);
            }
        }
        fields.erase("@odata.etag");
        return fields;
    }
    static std::string failureOf(const std::string& name) {
        return "Failed to set persistent property " + name + ".";
    }
    long failures() {
        long count = 0;
        for (const LogLine& line : logLines()) {
            const bool failed = line.message.rfind("Failed to set persistent property", 0) == 0 ||
                                line.message.rfind("Failed to get persistent properties", 0) == 0;
            count += failed ? 1 : 0;
            EXPECT_TRUE(!failed || line.tag == "[Debug]") << line.message;
        }
        return count;
    }

  private:
    // What the seed puts into the service resource.
    const Fields seeded{
        {"@odata.id", "\"/redfish/v1/SessionService\""},
        {"@odata.type", "\"#SessionService.v1_1_8.SessionService\""},
        {"Id", "\"SessionService\""},
        {"Name", "\"Session Service\""},
        {"Description", "\"Sessions of the management interface\""},
        {"ServiceEnabled", "true"},
        {"Status", R"({"State":"Enabled","Health":"OK"})"},
        {"&&ObjectRef Sessions /redfish/v1/SessionService/Sessions", ""},
        {"&&AllowMethod", "GET,HEAD,PATCH"},
    };
};

TEST_F(Loading, PutsAPropertyIntoTheServiceResource) {
    EXPECT_EQ(loaded("SessionTimeout=600\n"), (Fields{{"SessionTimeout", "600"}}));
    EXPECT_EQ(failures(), 0);
}

TEST_F(Loading, PutsEveryPropertyIntoTheServiceResource) {
    EXPECT_EQ(loaded("SessionTimeout=600\nServiceEnabled=false\nOem=\"x\"\n"),
              (Fields{{"SessionTimeout", "600"}, {"ServiceEnabled", "false"}, {"Oem", "\"x\""}}));
}

TEST_F(Loading, TakesTheLastOfSeveralLinesForAProperty) {
    EXPECT_EQ(loaded("SessionTimeout=600\nSessionTimeout=700\n"),
              (Fields{{"SessionTimeout", "700"}}));
}

TEST_F(Loading, TakesALastLineWithoutALineFeed) {
    EXPECT_EQ(loaded("# comment\nSessionTimeout=600"), (Fields{{"SessionTimeout", "600"}}));
}

TEST_F(Loading, IgnoresEmptyLinesCommentsAndLinesWithoutASeparator) {
    EXPECT_EQ(loaded("\n#SessionTimeout=600\n# A=b\n\nSessionTimeout 700\nSessionTimeout\n"),
              (Fields{{"SessionTimeout", "300"}}));
    EXPECT_EQ(failures(), 0);
}

TEST_F(Loading, SkipsAPropertyWithoutAValue) {
    EXPECT_EQ(loaded("SessionTimeout=\nAfter=1\n"),
              (Fields{{"SessionTimeout", "300"}, {"After", "1"}}));
    EXPECT_EQ(failures(), 0);
}

TEST_F(Loading, LeavesFurtherSeparatorsToTheValue) {
    EXPECT_EQ(loaded("SessionTimeout=a=b=\nNext==\n"),
              (Fields{{"SessionTimeout", "a=b="}, {"Next", "="}}));
}

TEST_F(Loading, TakesALineWithABlankBeforeTheNumberSignForAnEntry) {
    EXPECT_EQ(loaded(" #Note=1\n"), (Fields{{"SessionTimeout", "300"}, {"#Note", "1"}}));
}

TEST_F(Loading, KeepsTabsCarriageReturnsAndQuotes) {
    EXPECT_EQ(loaded("SessionTimeout=600\r\nA\tB=\"c\td\"\n"),
              (Fields{{"SessionTimeout", "600\r"}, {"A\tB", "\"c\td\""}}));
}

TEST_F(Loading, SendsAValueOfSeveralWordsAsSeveralArguments) {
    EXPECT_EQ(loaded("SessionTimeout=600 ServiceEnabled  false\n"),
              (Fields{{"SessionTimeout", "600"}, {"ServiceEnabled", "false"}}));
    EXPECT_EQ(failures(), 0);
}

TEST_F(Loading, LogsAPropertyThatTheStoreRefusesAndGoesOn) {
    EXPECT_EQ(loaded("Two=600 700\nTwo Words=1\nBlank= \n=5\nSessionTimeout=800\n"),
              (Fields{{"SessionTimeout", "800"}}));
    for (const char* name : {"Two", "Two Words", "Blank", ""}) {
        EXPECT_EQ(countLogged(failureOf(name)), 1) << name;
    }
    EXPECT_EQ(failures(), 4);
}

TEST_F(Loading, TakesPercentSignsAsTheyAre) {
    EXPECT_EQ(loaded("SessionTimeout=%s%n%d\n%s=100%\n%n%s=1 2\n"),
              (Fields{{"SessionTimeout", "%s%n%d"}, {"%s", "100%"}}));
    EXPECT_EQ(countLogged(failureOf("%n%s")), 1);
}

TEST_F(Loading, DoesNotCutALongValue) {
    const std::string value(100'000, '7');
    EXPECT_EQ(loaded("SessionTimeout=" + value + "\n"), (Fields{{"SessionTimeout", value}}));
}

TEST_F(Loading, LogsAPropertyNameOnOneLineWhateverItHolds) {
    loaded("a\r\x1b=1 2\n");
    EXPECT_EQ(countLogged(failureOf("a\\x0d\\x1b")), 1);
}

TEST_F(Loading, WithoutAFileChangesNothing) {
    controller.removeFile(persistentFile);
    startDaemon();
    EXPECT_EQ(store().hget(serviceUri, "SessionTimeout"), "300");
    EXPECT_FALSE(controller.fileExists(persistentFile));
    EXPECT_EQ(failures(), 0);
}

TEST_F(Loading, OfAFileThatMustNotBeReadChangesNothing) {
    controller.writeFile(persistentFile, "SessionTimeout=600\n");
    chmod(controller.path(persistentFile).c_str(), 0);
    startDaemon();
    EXPECT_EQ(store().hget(serviceUri, "SessionTimeout"), "300");
    EXPECT_EQ(failures(), 0);
}

TEST_F(Loading, LogsAnErrorWhileReading) {
    controller.removeFile(persistentFile);
    std::filesystem::create_directory(controller.path(persistentFile));
    startDaemon();
    EXPECT_EQ(countLogged("Failed to get persistent properties: Is a directory."), 1);
    EXPECT_EQ(failures(), 1);
    EXPECT_EQ(store().hget(serviceUri, "SessionTimeout"), "300");
}

TEST_F(Loading, IsLoggedWhenTheResourceIsNoHashAndDoesNotKeepTheServiceFromStarting) {
    store().del(serviceUri);
    store().run({"SET", serviceUri, "text"});
    controller.writeFile(persistentFile, "SessionTimeout=600\nServiceEnabled=true\n");
    startDaemon();
    EXPECT_EQ(countLogged(failureOf("SessionTimeout")), 1);
    EXPECT_EQ(countLogged(failureOf("ServiceEnabled")), 1);
}

TEST_F(Loading, HappensBeforeTheResourceIsStampedAndTheChannelsAreRegistered) {
    Monitor monitor = controller.monitor();
    loaded("SessionTimeout=600\n");
    Words order;
    for (const MonitoredCommand& command : monitor.soFar()) {
        const std::string& name = command.words.front();
        if ((name == "HSET" || name == "LPUSH") && command.words.size() == 4) {
            order.push_back(name + " " + command.words[2]);
        } else if (name == "LPUSH") {
            order.push_back(name + " " + command.words[2]);
        }
    }
    ASSERT_GE(order.size(), 4U);
    order.resize(4);
    EXPECT_EQ(order, (Words{"HSET SessionTimeout", "HSET @odata.etag", "HSET @odata.etag",
                            std::string("LPUSH ") + createChannel}));
}

TEST_F(Loading, IsLeftOutWhenTheStoreHasBeenInitialized) {
    loaded("SessionTimeout=600\n");
    store().hset(serviceUri, {{"SessionTimeout", "900"}});
    controller.daemon().kill();
    startDaemon();
    EXPECT_EQ(store().hget(serviceUri, "SessionTimeout"), "900");
}

TEST_F(Loading, OverALostConnectionIsLoggedForEveryProperty) {
    expectErrorLine("Failed to add channels for POST and DELETE.");
    expectExitStatus({.bySignal = false, .value = 255});
    controller.writeFile(persistentFile, "SessionTimeout=600\nServiceEnabled=true\n");
    StoreProxy proxy(controller);
    proxy.setFilter([](const Words& command) {
        return command.front() == "HSET" ? StoreProxy::Verdict::cut : StoreProxy::Verdict::pass;
    });
    runDaemon();
    EXPECT_EQ(countLogged(failureOf("SessionTimeout")), 1);
    EXPECT_EQ(countLogged(failureOf("ServiceEnabled")), 1);
}

class Saving : public RunningSystemTest {
  protected:
    // Sets the timeout by a request and returns the file as it stands when the answer
    // comes; the event that follows the answer is waited for.
    std::string saved(const std::string& timeout) {
        const std::size_t events = lifeCycleEvents(store()).size();
        EXPECT_EQ(frontEnd().patch({{"SessionTimeout", timeout}}).status(), "OK");
        const std::string file = controller.readFile(persistentFile);
        waitUntil("the event is there", [&] { return lifeCycleEvents(store()).size() > events; });
        return file;
    }
    std::string saved(const std::string& timeout, const std::string& before) {
        controller.writeFile(persistentFile, before);
        return saved(timeout);
    }
    struct stat status() const {
        struct stat result {};
        EXPECT_EQ(stat(controller.path(persistentFile).c_str(), &result), 0);
        return result;
    }
};

TEST_F(Saving, GivesTheLineTheNewValue) {
    EXPECT_EQ(saved("600", "SessionTimeout=300\n"), "SessionTimeout=600\n");
}

TEST_F(Saving, KeepsCommentsEmptyLinesAndOtherNamesInTheirOrder) {
    EXPECT_EQ(saved("600", "# Kept\n\nServiceEnabled=true\nSessionTimeout=300\nno separator\n\n"),
              "# Kept\n\nServiceEnabled=true\nSessionTimeout=600\nno separator\n\n");
}

TEST_F(Saving, TurnsACommentThatMentionsThePropertyIntoAnEntry) {
    EXPECT_EQ(saved("600", "# SessionTimeout is in seconds\n"), "SessionTimeout=600\n");
}

TEST_F(Saving, RewritesALineWhoseNameBeginsWithTheProperty) {
    EXPECT_EQ(saved("600", "SessionTimeoutMax=5\n"), "SessionTimeout=600\n");
}

TEST_F(Saving, RewritesALineWhoseValueHoldsTheProperty) {
    EXPECT_EQ(saved("600", "Other=xSessionTimeouty\n"), "SessionTimeout=600\n");
}

TEST_F(Saving, RewritesEveryLineThatMentionsTheProperty) {
    EXPECT_EQ(saved("600", "SessionTimeout=1\nA=2\n  SessionTimeout=3\n"),
              "SessionTimeout=600\nA=2\nSessionTimeout=600\n");
}

TEST_F(Saving, TellsUpperFromLowerCase) {
    EXPECT_EQ(saved("600", "sessiontimeout=1\n"), "sessiontimeout=1\n");
}

TEST_F(Saving, AddsNoLineForAPropertyThatTheFileDoesNotMention) {
    EXPECT_EQ(saved("600", "ServiceEnabled=true\n"), "ServiceEnabled=true\n");
    EXPECT_EQ(saved("700", ""), "");
}

TEST_F(Saving, EndsTheLastLineWithALineFeed) {
    EXPECT_EQ(saved("600", "SessionTimeout=300\nLast=1"), "SessionTimeout=600\nLast=1\n");
}

TEST_F(Saving, KeepsTheCarriageReturnsOfOtherLines) {
    EXPECT_EQ(saved("600", "A=1\r\nSessionTimeout=300\r\nB=2\r\n"),
              "A=1\r\nSessionTimeout=600\nB=2\r\n");
}

TEST_F(Saving, WritesTheValueAsItCame) {
    EXPECT_EQ(saved("\"a b\" = %s%n"),
              "# Properties of the session service that outlive a "
              "restart of the store.\nSessionTimeout=\"a b\" = %s%n\n");
}

TEST_F(Saving, CutsTheFileToALesserLength) {
    EXPECT_EQ(saved("1", "SessionTimeout=" + std::string(9000, '3') + "\nA=1\n"),
              "SessionTimeout=1\nA=1\n");
}

TEST_F(Saving, HappensInPlace) {
    chmod(controller.path(persistentFile).c_str(), 0640);
    const struct stat before = status();
    saved("600");
    EXPECT_EQ(status().st_ino, before.st_ino);
    EXPECT_EQ(status().st_mode, before.st_mode);
    const std::filesystem::path file = controller.path(persistentFile);
    for (const auto& entry : std::filesystem::directory_iterator(file.parent_path())) {
        const std::string name = entry.path().filename().string();
        EXPECT_TRUE(name == file.filename() || name == "pkey.tmp") << name;
    }
}

TEST_F(Saving, GoesThroughALink) {
    controller.removeFile(persistentFile);
    controller.writeFile("/var/kept.conf", "SessionTimeout=300\n");
    std::filesystem::create_symlink("../kept.conf", controller.path(persistentFile));
    saved("600");
    EXPECT_EQ(controller.readFile("/var/kept.conf"), "SessionTimeout=600\n");
    EXPECT_TRUE(std::filesystem::is_symlink(controller.path(persistentFile)));
}

TEST_F(Saving, LeavesNoFileBehindWhereNoneWas) {
    controller.removeFile(persistentFile);
    saved("600");
    EXPECT_FALSE(controller.fileExists(persistentFile));
    EXPECT_EQ(store().hget(serviceUri, "SessionTimeout"), "600");
}

TEST_F(Saving, LeavesAFileAloneThatMustNotBeRead) {
    const std::string before = controller.readFile(persistentFile);
    chmod(controller.path(persistentFile).c_str(), S_IWUSR);
    saved("600");
    chmod(controller.path(persistentFile).c_str(), S_IRUSR);
    EXPECT_EQ(controller.readFile(persistentFile), before);
}

TEST_F(Saving, LeavesAFileAloneThatMustNotBeWritten) {
    const std::string before = controller.readFile(persistentFile);
    chmod(controller.path(persistentFile).c_str(), S_IRUSR);
    EXPECT_EQ(saved("600"), before);
    EXPECT_EQ(store().hget(serviceUri, "SessionTimeout"), "600");
}

TEST_F(Saving, DoesNotTouchTheFileWhenNothingChanges) {
    const std::string untidy = "# SessionTimeout\nSessionTimeout=300";
    controller.writeFile(persistentFile, untidy);
    EXPECT_EQ(frontEnd().patch({{"SessionTimeout", "300"}}).status(), "OK");
    EXPECT_EQ(frontEnd().patch({{"ServiceEnabled", "false"}}).status(), "OK");
    EXPECT_EQ(controller.readFile(persistentFile), untidy);
}

TEST_F(Saving, KeepsTheSettingOverARestartOfTheStore) {
    saved("777");
    stopDaemon();
    startStore();
    ASSERT_EQ(store().hget(serviceUri, "SessionTimeout"), "300");
    startDaemon();
    EXPECT_EQ(store().hget(serviceUri, "SessionTimeout"), "777");
    usePamTest("env=PRIVILEGES=9");
    const Reply login = frontEnd().login("somebody", "anything");
    EXPECT_EQ(store().hget(tokenKey(login.token()), "Timeout"), "777");
    waitUntil("the login is in the audit log", [&] { return !auditEntries(store()).empty(); });
}

TEST_F(Saving, LeavesAFolderInItsPlaceAlone) {
    controller.removeFile(persistentFile);
    std::filesystem::create_directory(controller.path(persistentFile));
    EXPECT_EQ(frontEnd().patch({{"SessionTimeout", "600"}}).status(), "OK");
    EXPECT_EQ(store().hget(serviceUri, "SessionTimeout"), "600");
    waitUntil("the event is there", [&] { return !lifeCycleEvents(store()).empty(); });
    EXPECT_TRUE(std::filesystem::is_directory(controller.path(persistentFile)));
    EXPECT_TRUE(std::filesystem::is_empty(controller.path(persistentFile)));
}

}  // namespace
}  // namespace testbed
