// sessionctl check: with everything in order, and with each thing broken in turn.
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <filesystem>

#include "support/sessionctl_test.h"
#include "testbed/web_front_end.h"

namespace testbed {
namespace {

using nlohmann::json;
using testing::AllOf;
using testing::Contains;
using testing::Each;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;

constexpr char groupFile[] = "/etc/pam.d/q73.conf";
constexpr char privilegeFile[] = "/etc/pam.d/groups2privs.conf";
constexpr char daemonProgram[] = "/usr/local/sbin/session-service";
constexpr char pamSubject[] = "PAM service q73";

// Something broken, and what has to be found.
struct Breakage {
    std::string content;  // of a file or a field
    std::string result;
    std::string text;  // a part of what is said
};

class Checking : public SessionctlTest {
  protected:
    // Runs the check; its exit status has to fit what it found.
    std::vector<json> findings() {
        const Outcome outcome = sessionctl({"check", "--json"});
        EXPECT_EQ(outcome.errors, "");
        const json document = outcome.json();
        std::vector<json> findings = document.at("findings");
        const bool failed = std::any_of(findings.begin(), findings.end(), [](const json& finding) {
            return finding.at("result") == "FAILED";
        });
        EXPECT_EQ(outcome.status, failed ? 1 : 0) << outcome.output;
        return findings;
    }
    void expectFound(const std::string& result, const std::string& subject,
                     const std::string& text) {
        const std::vector<json> found = findings();
        EXPECT_TRUE(std::any_of(found.begin(), found.end(),
                                [&](const json& finding) {
                                    return finding.at("result") == result &&
                                           finding.at("subject") == subject &&
                                           finding.at("text").get<std::string>().find(text) !=
                                               std::string::npos;
                                }))
            << result << ' ' << subject << ": " << text << "\nis not in " << json(found).dump(2);
    }
    void expectFoundIn(const std::string& file, const std::vector<Breakage>& breakages) {
        const std::string content = controller.readFile(file);
        for (const Breakage& breakage : breakages) {
            controller.writeFile(file, breakage.content);
            expectFound(breakage.result, file, breakage.text);
        }
        controller.writeFile(file, content);
    }
    void expectFoundInField(const std::string& key, const std::string& field,
                            const std::vector<Breakage>& breakages) {
        const std::string content = store().hget(key, field);
        for (const Breakage& breakage : breakages) {
            store().hset(key, {{field, breakage.content}});
            expectFound(breakage.result, key, breakage.text);
        }
        store().hset(key, {{field, content}});
    }
    void expectAllWell() {
        for (const json& finding : findings()) {
            EXPECT_EQ(finding.at("result"), "ok") << finding;
        }
    }
};

class CheckingARunningService : public Checking {
  protected:
    void SetUp() override { start(); }
};

TEST_F(CheckingARunningService, FindsNothingWhenAllIsWell) {
    expectAllWell();
    const Outcome outcome = sessionctl({"check"});
    EXPECT_EQ(outcome.status, 0);
    Words lines = splitLines(outcome.output);
    EXPECT_EQ(lines.back(), "ok: " + std::to_string(lines.size() - 1) + ", warnings: 0, failed: 0");
    lines.pop_back();
    EXPECT_THAT(lines, Each(MatchesRegex("ok       .+: .+")));
    EXPECT_EQ(lines.at(0), "ok       store: answers at /run/session-service-store/redis.sock");
}

TEST_F(CheckingARunningService, LooksAtTheResources) {
    expectFoundInField(serviceUri, "SessionTimeout",
                       {{"soon", "FAILED", "SessionTimeout is \"soon\""},
                        {"", "FAILED", "sessions expire at once"},
                        {"0", "FAILED", "SessionTimeout is \"0\""},
                        {"300 s", "warning", "SessionTimeout is \"300 s\", which counts as 300"},
                        {"4294967596", "warning", "which counts as 300"}});
    expectFoundInField(serviceUri, "ServiceEnabled",
                       {{"false", "warning", "logins and deletions are refused"},
                        {"False", "warning", "which counts as true"}});
    expectFoundInField(sessionsUri, "Members@odata.count",
                       {{"", "FAILED", "deletions leave members behind"},
                        {"x", "warning", "with which the store cannot count"},
                        {"0x", "warning", "with which the store cannot count"},
                        {"3", "warning", "Members@odata.count is 3, but the list has 0"}});
    expectAllWell();
    store().del(serviceUri);
    expectFound("FAILED", serviceUri, "It is not in the store");
    store().run({"SET", sessionsUri, "x"});
    expectFound("FAILED", sessionsUri, "WRONGTYPE");
}

TEST_F(CheckingARunningService, LooksAtTheMembers) {
    for (int i = 0; i < 8; ++i) {
        frontEnd().insertSession();
    }
    expectFound("warning", sessionsUri, "All 8 places are taken");
    store().run({"LPUSH", membersKey, "&&ObjectRef " + std::string(sessionsUri) + "/12345678"});
    expectFound("warning", sessionsUri,
                "Member 12345678: no session record; \"sessionctl delete\" it.");
    store().run({"LPUSH", membersKey, "x"});
    expectFound("warning", sessionsUri, "Member x: names no session; take it out of");
    store().run({"SET", membersKey, "x"});
    expectFound("FAILED", sessionsUri, membersKey);
}

TEST_F(CheckingARunningService, LooksAtTheSettingsInTheStore) {
    expectFoundInField("webDefaultValue", "REDIS_CONNECTION_DEFAULT_TIMEOUT",
                       {{"x", "warning", "messages live for one second"},
                        {"-5000", "warning", "messages live for one second"},
                        {"5000 ms", "ok", "no bad values"}});
    expectFoundInField("webDefaultValue", "MAX_EVENT_GROUP_ID",
                       {{"0", "warning", "MAX_EVENT_GROUP_ID is no positive number"},
                        {"1.5", "warning", "the built-in value counts"},
                        {"12abc", "ok", "no bad values"}});
    store().run({"SET", "webDefaultValue", "x"});
    expectFound("warning", "webDefaultValue", "WRONGTYPE");
}

TEST_F(CheckingARunningService, LooksAtTheScripts) {
    store().hset("redisSHAScripts", {{"resourceChange", std::string(40, '0')}});
    expectFound("FAILED", "script resourceChange", "It is registered, but not loaded");
    store().run({"HDEL", "redisSHAScripts", "logGeneratorHelper"});
    expectFound("FAILED", "script logGeneratorHelper", "It is not registered");
    store().del("/redfish/v1/Managers/1/LogServices/AuditLog/Entries");
    expectFound("warning", "LogEntryCollection", "there are no audit entries");
    // What is switched off is not needed.
    controller.writeFile(configurationFile,
                         "LOG_FILE=/var/log/session-service.log\nGenerateResourceEvent=false\n");
    for (const json& finding : findings()) {
        EXPECT_THAT(finding.at("subject"), Not(StartsWith("script")));
    }
}

TEST_F(CheckingARunningService, LooksAtTheQueues) {
    const std::string queue = "&&/redfish/v1/SessionService/Sessions/DELETEQ";
    store().del(queue);
    expectFound("FAILED", queue, "It is empty");
    store().run({"RPUSH", queue, "elsewhere"});
    expectFound("FAILED", queue, "It names something else");
    store().run({"SET", queue, "x"});
    expectFound("FAILED", queue, "WRONGTYPE");
}

TEST_F(CheckingARunningService, LooksAtTheDaemonsEnds) {
    StoreClient second = controller.connect();
    second.subscribe(deleteChannel);
    expectFound("warning", "daemon", "2 listen for deletions");
    // The patch thread takes no leave; the others do.
    store().publish(createChannel, "&&EXIT");
    waitUntil("nobody listens for logins", [this] {
        return store().run({"PUBSUB", "NUMSUB", createChannel}).elements.at(1).integer == 0;
    });
    expectFound("FAILED", "daemon", "Nobody listens for logins");
}

TEST_F(Checking, NamesTheProcessesOfADaemonThatRunsTwice) {
    startStore();
    // Processes see one another where they have been started together.
    const auto shell = controller.startProgram(
        {.command = {"/bin/sh", "-c",
                     std::string(daemonProgram) + " & first=$!; " + daemonProgram +
                         " & second=$!\n"
                         "until " +
                         program +
                         " check | grep -q '2 listen for changes'; do sleep 0.1; done\n"
                         "echo $first, $second; exec " +
                         program + " check"}});
    EXPECT_EQ(shell->wait(), (ExitStatus{.value = 1}));
    const Words lines = splitLines(controller.outputOf("sh"));
    EXPECT_THAT(lines,
                Contains("FAILED   daemon: It runs 2 times and serves each request as often: "
                         "end all but one of the processes " +
                         lines.at(0) + "."));
}

TEST_F(Checking, FindsAStoreThatLetsAnybodyIn) {
    startStore();
    store().run({"CONFIG", "SET", "requirepass", ""});
    controller.removeFile("/run/session-service-store/redis.requirepass");
    expectFound("FAILED", "Redis server", "It has no password");
}

TEST_F(Checking, FindsAStoreThatListensOnAPortOrSaves) {
    const std::string configuration = "/etc/redis/redis.conf";
    const std::string lines = controller.readFile(configuration);
    controller.writeFile(configuration, lines + "port 6379\n");
    startStore();
    expectFound("warning", "Redis server", "It listens on port 6379, too");
    store().run({"CONFIG", "SET", "save", "3600 1"});
    expectFound("warning", "Redis server", "It saves to the disk");
    store().run({"CONFIG", "SET", "save", ""});
    store().run({"CONFIG", "SET", "appendonly", "yes"});
    expectFound("warning", "Redis server", "It saves to the disk");
}

TEST_F(Checking, FindsAStoreThatOthersReach) {
    startStore();
    const std::string password = "/run/session-service-store/redis.requirepass";
    const std::string socket = "/run/session-service-store/redis.sock";
    expectFound("ok", socket, "not for others");
    chmod(controller.path(password).c_str(), 0644);
    expectFound("FAILED", password, "others may use it: chmod 640");
    chmod(controller.path(socket).c_str(), 0777);
    expectFound("FAILED", socket, "others may use it");
    // Nobody gets at what is in a closed folder.
    const std::string folder = controller.path("/run/session-service-store");
    chmod(folder.c_str(), 0750);
    for (const json& finding : findings()) {
        EXPECT_THAT(finding.at("subject").get<std::string>(), Not(StartsWith("/run/")));
    }
}

TEST_F(Checking, FindsFilesThatOthersMayChange) {
    for (const char* file :
         {pamServiceFile, groupFile, privilegeFile, configurationFile, persistentFile}) {
        chmod(controller.path(file).c_str(), 0646);
        expectFound("FAILED", file, "others may change it: chmod 644");
        chmod(controller.path(file).c_str(), 0664);  // of root's own group
        for (const json& finding : findings()) {
            EXPECT_FALSE(finding.at("subject") == file && finding.at("result") == "FAILED")
                << finding;
        }
    }
}

// Of the year 2000.
constexpr char expiredCertificate[] =
    "-----BEGIN CERTIFICATE-----\n"
    "MIIBCzCBsgIBATAKBggqhkjOPQQDAjASMRAwDgYDVQQDDAd0ZXN0YmVkMB4XDTAw\n"
    "MDEwMTAwMDAwMFoXDTAxMDEwMTAwMDAwMFowEjEQMA4GA1UEAwwHdGVzdGJlZDBZ\n"
    "MBMGByqGSM49AgEGCCqGSM49AwEHA0IABBCXjJV8MpBX2CoMTuLYvKxFIl7y+4Ly\n"
    "FN2Itl1BHsKlWaaA33DA0rSgZHM7Wtz1nQSrfTT892Wa1+cP+ZRSgY0wCgYIKoZI\n"
    "zj0EAwIDSAAwRQIhAOtbL9hDdgyi9K9PToruiYB6g4k8aM7Px/3tbIyIN6U5AiA3\n"
    "IWSl3rJe7f5elqCJ+6QMhqSdCTP4PAjPBQlc0rmSqQ==\n"
    "-----END CERTIFICATE-----\n";

// With the web front end, which listens on the machine's loopback.
class CheckingTheFrontEnd : public Checking {
  protected:
    void SetUp() override {
        machineNetwork = true;
        start();
        web.start();
    }
    void TearDown() override {
        if (web.started()) {
            web.stop();
        }
        Checking::TearDown();
    }
    void makeCertificate(const std::string& days) {
        const auto openssl = controller.startProgram(
            {.command = {"/usr/bin/openssl", "req", "-x509", "-config", "/tmp/certificate.conf",
                         "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-noenc",
                         "-days", days, "-keyout", certificateKey, "-out", certificate}});
        EXPECT_EQ(openssl->wait(), ExitStatus{});
    }

    static constexpr char certificate[] = "/usr/local/etc/nginx/certificate.pem";
    static constexpr char certificateKey[] = "/usr/local/etc/nginx/certificate.key";
    static constexpr char subject[] = "web front end";
    WebFrontEnd web{controller};
};

TEST_F(CheckingTheFrontEnd, FindsNothingWhenAllIsWell) {
    expectAllWell();
    expectFound("ok", subject, "answers over HTTPS on " + web.address() + ":8443");
}

TEST_F(CheckingTheFrontEnd, FindsOneThatDoesNotAnswer) {
    stopDaemon();
    controller.stopStore();
    expectFound("FAILED", subject, "/redfish/v1 is answered with \"HTTP/1.1 503");
    web.stop();
    expectFound("FAILED", subject, "Nobody answers over HTTPS");
}

TEST_F(CheckingTheFrontEnd, LooksAtTheCertificate) {
    makeCertificate("365");
    expectFound("warning", subject, "It has another certificate than");
    makeCertificate("29");
    expectFound("warning", certificate, "It expires within 30 days");
    controller.writeFile(certificate, expiredCertificate);
    expectFound("FAILED", certificate, "It has expired");
    chmod(controller.path(certificateKey).c_str(), 0604);
    expectFound("FAILED", certificateKey, "others may use it");
    controller.removeFile(certificateKey);
    expectFound("FAILED", certificateKey, "No such file or directory");
    controller.removeFile(certificate);
    expectFound("FAILED", certificate, "There is no certificate");
}

TEST_F(Checking, FindsADaemonThatIsNotThere) {
    startStore();
    for (const char* task : {"logins", "deletions", "changes"}) {
        expectFound("FAILED", "daemon", std::string("Nobody listens for ") + task);
    }
}

TEST_F(Checking, LooksAtTheFilesAllTheSameWithoutAStore) {
    expectFound("FAILED", "store", "Nobody listens at /run/session-service-store/redis.sock.");
    expectFound("ok", pamSubject, "all its modules are there");
    expectFound("ok", keyFile, "well-formed");
    controller.startStore();
    controller.writeFile("/run/session-service-store/redis.requirepass", "something else");
    expectFound("FAILED", "store", "WRONGPASS");
}

TEST_F(Checking, ShowsNothingOfThePasswordThatTheStoreRefuses) {
    constexpr char configuration[] = "/etc/redis/redis.conf";
    controller.writeFile(configuration,
                         controller.readFile(configuration) + "rename-command AUTH LOGIN\n");
    const auto server =
        controller.startProgram({.command = {"/usr/bin/redis-server", configuration}});
    waitUntil("the store listens", [this] {
        return std::filesystem::exists(controller.path("/run/session-service-store/redis.sock"));
    });
    const Outcome outcome = sessionctl({"check"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_THAT(outcome.output,
                AllOf(HasSubstr("refuses: ERR unknown command"), HasSubstr("redis.requirepass"),
                      Not(HasSubstr(controller.storePassword()))));
}

TEST_F(Checking, LooksAtTheConfiguration) {
    expectFoundIn(
        configurationFile,
        {{"", "warning", "LogEntryCollection is not given"},
         {"LOG_FILE=/nowhere/log\n", "FAILED", "/nowhere/log cannot be written (No such file"},
         {"LOG_FILE=/var\n", "FAILED", "cannot be written (Is a directory)"},
         {"LOG_FILE_SIZE=1M\n", "warning", "LOG_FILE_SIZE counts as 1 bytes"},
         {"LOG_FILE_SIZE=M\n", "warning", "LOG_FILE_SIZE is no number"},
         {"LOG_FILE_SIZE=-1\n", "warning", "LOG_FILE_SIZE is no number"},
         {"LOG_LEVEL=Error\n", "warning", "it means debug"},
         {"GenerateResourceEvent=off\n", "warning", "it means true"},
         {"LogEntryCollection=/" + std::string(200, 'x') + "\n", "warning",
          "longer than 127 characters"},
         {"LOG_LEVEL=debug\n", "warning", "LogEntryCollection is not given"}});
    controller.removeFile(configurationFile);
    expectFound("warning", configurationFile, "No such file or directory");
}

TEST_F(Checking, LooksAtNoLogFileWhereACollectorRuns) {
    const std::string lines =
        "LogEntryCollection=/redfish/v1/Managers/1/LogServices/AuditLog/Entries\n"
        "LOG_FILE=/nowhere/log\nLOG_SYSTEM=";
    expectFoundIn(configurationFile,
                  {{lines + "\n", "FAILED", "/nowhere/log cannot be written"},
                   {lines + "collector\n", "FAILED", "/nowhere/log cannot be written"},
                   {lines + "sessionctl\n", "ok", "log, events and audit entries are set up"}});
}

TEST_F(Checking, LooksAtTheGroupsAndTheirPrivileges) {
    expectFoundIn(groupFile,
                  {{"Operator=x\n", "warning", "line 1 is ignored: it must read Operator"},
                   {"\n#Operator=x;\n", "warning", "line 2 counts for Operator"},
                   {"KrbAttrGrouping = 1;\n", "warning", "leaves KrbAttrGrouping off"},
                   {"# KrbAttrGrouping=1;\n", "warning", "switches KrbAttrGrouping on"},
                   {"# The groups of users.\n", "ok", "well-formed"}});
    expectFoundIn(privilegeFile, {{"user=\n", "FAILED", "line 1 takes all privileges away"},
                                  {"# operator=121\n", "FAILED", "line 1 takes all privileges"},
                                  {"12345678user=9\n", "warning", "it must start with user="},
                                  {"user=0x9 \n", "ok", "well-formed"}});
    for (const char* file : {groupFile, privilegeFile}) {
        controller.removeFile(file);
        expectFound("warning", file, "No such file or directory: the built-in");
    }
}

TEST_F(Checking, LooksAtTheProperties) {
    expectFoundIn(persistentFile,
                  {{"SessionTimeout=soon\n", "FAILED", "line 1 must read SessionTimeout=SECONDS"},
                   {"SessionTimeout = 3 \n", "ok", "readable and writable"},
                   {"SessionTimeout= \n", "FAILED", "line 1 must read"},
                   {"OtherSessionTimeout=3\n", "FAILED", "line 1 must read"},
                   {"SessionTimeout=300 s\n", "FAILED", "line 1 must read"},
                   {"SessionTimeout=0\n", "FAILED", "line 1 must read"},
                   {"SessionTimeout=\n", "ok", "readable and writable"},
                   {"# SessionTimeout\n", "warning", "in a comment"},
                   {"Other=1\n", "warning", "No line gives SessionTimeout"}});
    controller.removeFile(persistentFile);
    expectFound("warning", persistentFile, "No such file or directory");
}

TEST_F(Checking, LooksAtTheKey) {
    const std::string digits(64, 'a');
    expectFoundIn(keyFile, {{"", "FAILED", "not 64 hexadecimal digits"},
                            {digits + "a", "FAILED", "not 64 hexadecimal digits"},
                            {digits + "\n\n", "FAILED", "not 64 hexadecimal digits"},
                            {"x" + digits.substr(1), "FAILED", "not 64 hexadecimal digits"},
                            {digits, "ok", "well-formed"}});
    chmod(controller.path(keyFile).c_str(), 0604);
    expectFound("FAILED", keyFile, "others may use it");
    chmod(controller.path(keyFile).c_str(), 0640);
    expectFound("warning", keyFile, "a group may use it");
    controller.removeFile(keyFile);
    expectFound("FAILED", keyFile, "No such file or directory");
}

TEST_F(Checking, FindsAKeyThatTheFrontEndCannotRead) {
    const std::string users = controller.readFile("/etc/passwd");
    expectFound("ok", keyFile, "for nobody else");
    // Root's group is the only one that a file can have in this root.
    controller.writeFile("/etc/passwd",
                         users + "session-service-frontend:x:990:990::/:/usr/sbin/nologin\n");
    expectFound("FAILED", keyFile, "the web front end cannot read it");
    controller.writeFile("/etc/passwd",
                         users + "session-service-frontend:x:990:0::/:/usr/sbin/nologin\n");
    chmod(controller.path(keyFile).c_str(), 0640);
    expectFound("ok", keyFile, "for nobody else");
}

TEST_F(Checking, LooksAtThePamService) {
    const std::string account = "account required pam_permit.so\n";
    const std::vector<std::pair<std::string, std::string>> cases{
        {"auth required pam_nowhere.so\n" + account, "security/pam_nowhere.so is not there"},
        {"auth required /nowhere.so\n" + account, "The module /nowhere.so is not there"},
        {"auth [success=1 default=ignore] pam_nowhere.so\n" + account, "pam_nowhere.so is not"},
        {"auth \\\n required pam_nowhere.so\n" + account, "pam_nowhere.so is not there"},
        {"auth include nowhere\n" + account, "nowhere is not there, or cannot be read"},
        {"@include nowhere\n" + account, "nowhere is not there, or cannot be read"},
        {account, "It has no rule of type auth"},
        {"auth required pam_permit.so\n# " + account, "It has no rule of type account"},
        {"", "It has no rule of type auth"}};
    for (const auto& [lines, text] : cases) {
        usePamLines(lines);
        expectFound("FAILED", pamSubject, text);
    }
    controller.writeFile("/etc/pam.d/other", "@include everybody\n");
    controller.writeFile("/etc/pam.d/everybody", account);
    usePamLines("auth required pam_permit.so\n");
    expectFound("warning", pamSubject, "no rule of type account: those of the service other count");
    usePamLines(account);
    expectFound("FAILED", pamSubject, "It has no rule of type auth: nobody");
    controller.writeFile("/etc/pam.d/common", "auth required pam_permit.so # pam_nowhere.so\n" +
                                                  account + "-session optional pam_nowhere.so\n" +
                                                  "password required pam_nowhere.so\n");
    for (const char* lines : {"auth include common\naccount substack common\n",
                              "auth\tinclude\t/etc/pam.d/common\naccount include common\n",
                              "auth include q73\nAUTH include common\naccount include common\n"}) {
        usePamLines(lines);
        expectFound("ok", pamSubject, "all its modules are there");
    }
    usePamLines("@include common\n");
    expectFound("FAILED", pamSubject, "pam_nowhere.so is not there");
    controller.removeFile(pamServiceFile);
    expectFound("FAILED", pamSubject, "q73 is not there, or cannot be read");
    const std::vector<json> found = findings();
    EXPECT_EQ(
        std::count_if(found.begin(), found.end(),
                      [](const json& finding) { return finding.at("subject") == pamSubject; }),
        1);
}

TEST_F(Checking, SendsNothingToTheTerminalThatSteersIt) {
    startStore();
    usePamLines("auth required /\x1b[2J.so\n");
    controller.writeFile(configurationFile, "LOG_FILE=/nowhere/\x1b[2J\n");
    store().hset(serviceUri, {{"SessionTimeout", "\x1b[2J"}, {"ServiceEnabled", "\x1b[2J"}});
    for (const char character : sessionctl({"check"}).output) {
        EXPECT_TRUE(character == '\n' || (character >= ' ' && character <= '~'));
    }
}

}  // namespace
}  // namespace testbed
