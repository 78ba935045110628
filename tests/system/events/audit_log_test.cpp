// How the daemon hands logins to the script of the log service, and what it makes of the
// script's answers.
#include <chrono>
#include <regex>

#include "support/permissive_pam_test.h"

namespace testbed {
namespace {

class AuditLog : public PermissivePamTest {
  protected:
    void configure(const std::string& lines) {
        controller.writeFile(configurationFile, "LOG_FILE=" + std::string(logFile) + "\n" + lines);
        restart();
    }
    void useAnswer(const std::string& lua) { useScript("logGeneratorHelper", "return " + lua); }
    // Keeps what the script was given: the number of arguments, then the keys.
    void recordKeys() {
        useScript("logGeneratorHelper",
                  "redis.call('RPUSH', 'seen', #ARGV, unpack(KEYS)) return 1");
    }
    // What is logged about a login from its events on, each line with its tag.
    Words loggedByALogin(const std::string& user = "alice") {
        const std::vector<LogLine> before = logLines();
        EXPECT_EQ(frontEnd().login(user, "a password").status(), "OK");
        emptyCollection();
        Words messages;
        const std::vector<LogLine> after = logLines();
        for (auto line = after.begin() + static_cast<std::ptrdiff_t>(before.size());
             line != after.end(); ++line) {
            messages.push_back(line->tag + " " + line->message);
        }
        return messages;
    }
    // So that nothing but the audit entry is ever logged.
    void passFirstLogin() {
        login();
        emptyCollection();
    }
    static Words refused(const std::string& reason) {
        return {"[Error] Failed to generate LogEntry. " + reason};
    }
    std::string createdOfNewestEntry() {
        const std::string entry =
            store().lrange("&&" + std::string(auditEntriesUri) + "/Members").front();
        return store().hget(entry.substr(entry.find(' ') + 1), "Created");
    }
};

constexpr char full[] =
    "[Debug] The LogEntry cannot be generated since logs already reached the max count.";
constexpr char notDesired[] =
    "[Debug] The LogEntry is not generated since the severity of the message is not desired.";
constexpr char unknown[] = "[Error] Failed to generate LogEntry(unknown error).";
constexpr char noCollection[] =
    "LogEntry collection doesn't exist, Session Service will not generate audit log.";

TEST_F(AuditLog, GetsSevenKeysAndNoFurtherArguments) {
    recordKeys();
    const Reply reply = login();
    Words seen = store().lrange("seen");
    ASSERT_EQ(seen.size(), 8U);
    EXPECT_TRUE(std::regex_match(seen[3], std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\+00:00)")))
        << seen[3];
    seen[3] = "time stamp";
    EXPECT_EQ(seen, (Words{"0", "CREATE", auditEntriesUri, "time stamp", "AuditEvent.1.1.UserLogin",
                           reply.location(), "1", "alice"}));
}

TEST_F(AuditLog, GetsNoEntryForARefusedLogin) {
    usePamTest("auth=PAM_AUTH_ERR");
    login();
    EXPECT_TRUE(auditEntries(store()).empty());
}

TEST_F(AuditLog, SaysWhyThereIsNoEntryOrThatThereIsOneByAnInteger) {
    passFirstLogin();
    const std::vector<std::pair<const char*, Words>> answers{
        {"0", {full}}, {"2", {notDesired}}, {"1", {}}, {"5", {}},
        {"-1", {}},    {"true", {}},        {"3", {}}, {"2^40", {}},
    };
    for (const auto& [answer, lines] : answers) {
        useAnswer(answer);
        EXPECT_EQ(loggedByALogin(), lines) << answer;
    }
}

TEST_F(AuditLog, FailsWithTheReasonInASecondElement) {
    passFirstLogin();
    expectErrorLine("Failed to generate LogEntry. ");
    const std::vector<std::pair<const char*, const char*>> answers{
        {"{'INVALID', 'The reason.'}", "The reason."},
        {"{0, 'After a number'}", "After a number"},
        {"{'INVALID', ''}", ""},
        {"{'INVALID', '%s%n %d'}", "%s%n %d"},
        {"{'INVALID', 'two\\nlines'}", "two\\x0alines"},
        {"{'INVALID', {err = 'an error'}}", "an error"},
        // Neither has a text.
        {"{'INVALID', 7}", ""},
        {"{'INVALID', false}", ""},
        {"{'INVALID', {'nested'}}", ""},
    };
    for (const auto& [answer, reason] : answers) {
        useAnswer(answer);
        EXPECT_EQ(loggedByALogin(), refused(reason)) << answer;
    }
}

TEST_F(AuditLog, FailsWithTheTextOfAnError) {
    passFirstLogin();
    expectErrorLine("Failed to generate LogEntry. ");
    useAnswer("redis.error_reply('MYERR out of order')");
    EXPECT_EQ(loggedByALogin(), refused("MYERR out of order"));
}

TEST_F(AuditLog, FailsWithoutAReasonOnAnyOtherAnswer) {
    passFirstLogin();
    expectErrorLine("Failed to generate LogEntry(unknown error).");
    for (const char* answer : {"'a text'", "''", "'0'", "{ok = 'FINE'}", "nil", "false", "{}",
                               "{0}", "{'one', 'two', 'three'}"}) {
        useAnswer(answer);
        EXPECT_EQ(loggedByALogin(), Words{unknown}) << answer;
    }
}

TEST_F(AuditLog, FailsWhenTheScriptIsNotLoaded) {
    passFirstLogin();
    expectErrorLine("Failed to generate LogEntry. NOSCRIPT");
    store().hset("redisSHAScripts", {{"logGeneratorHelper", std::string(40, 'a')}});
    EXPECT_EQ(loggedByALogin(), refused("NOSCRIPT No matching script. Please use EVAL."));
    for (const char* digest : {"%s%n", "two words", "\n", "\""}) {
        store().hset("redisSHAScripts", {{"logGeneratorHelper", digest}});
        EXPECT_EQ(loggedByALogin().size(), 1U) << digest;
    }
}

TEST_F(AuditLog, FailsWhenNoScriptIsRegistered) {
    passFirstLogin();
    expectErrorLine("Cannot get SHA script logGeneratorHelper.");
    store().run({"HDEL", "redisSHAScripts", "logGeneratorHelper"});
    EXPECT_EQ(loggedByALogin(), Words{"[Error] Cannot get SHA script logGeneratorHelper."});
    store().hset("redisSHAScripts", {{"logGeneratorHelper", ""}});
    EXPECT_EQ(loggedByALogin(), Words{"[Error] Cannot get SHA script logGeneratorHelper."});
}

TEST_F(AuditLog, TellsWhenItIsFullAndWhenTheSeverityIsNotWanted) {
    passFirstLogin();
    store().hset(auditEntriesUri, {{"&&MaxEntries", "1"}, {"&&WhenFull", "keep"}});
    EXPECT_EQ(loggedByALogin(), Words{full});
    store().hset(auditEntriesUri, {{"&&MaxEntries", "10"}, {"&&Severities", "Critical"}});
    EXPECT_EQ(loggedByALogin(), Words{notDesired});
    EXPECT_EQ(auditEntries(store()).size(), 1U);
}

TEST_F(AuditLog, WithoutItsCollectionIsOnlyMentioned) {
    passFirstLogin();
    store().del(auditEntriesUri);
    Monitor monitor = controller.monitor();
    EXPECT_EQ(loggedByALogin(), Words{std::string("[Debug] ") + noCollection});
    EXPECT_EQ(loggedByALogin(), Words{std::string("[Debug] ") + noCollection});
    for (const MonitoredCommand& command : monitor.soFar()) {
        EXPECT_NE(command.words, (Words{"HGET", "redisSHAScripts", "logGeneratorHelper"}));
    }
}

TEST_F(AuditLog, IsUsedAsSoonAsItsCollectionIsThere) {
    store().del(auditEntriesUri);
    login();
    EXPECT_TRUE(auditEntries(store()).empty());
    store().hset(auditEntriesUri, {{"Name", "\"Audit Log Entries\""}});
    login();
    EXPECT_EQ(auditEntries(store()).size(), 1U);
}

TEST_F(AuditLog, WithoutTheSettingIsMentionedAtEachLoginAndLogout) {
    for (const char* line : {"", "LogEntryCollection=\n"}) {
        configure(line);
        const long before = countLogged(noCollection);
        const Reply reply = login();
        frontEnd().remove(reply.location());
        waitUntil("the logout is through", [&] { return countLogged(noCollection) == before + 2; });
    }
    EXPECT_TRUE(auditEntries(store()).empty());
}

TEST_F(AuditLog, IsTheCollectionOfTheSettingCutTo127Characters) {
    const std::string longest = "/" + std::string(126, 'c');
    store().hset(longest, {{"Name", "a collection"}});
    configure("LogEntryCollection=" + longest + "beyond\n");
    recordKeys();
    login();
    EXPECT_EQ(store().lrange("seen").at(2), longest);
}

TEST_F(AuditLog, KeepsTheSettingOfTheFirstLogin) {
    login();
    controller.writeFile(configurationFile, "LogEntryCollection=/elsewhere\n");
    store().hset("/elsewhere", {{"Name", "elsewhere"}});
    login();
    EXPECT_EQ(auditEntries(store()).size(), 2U);
}

TEST_F(AuditLog, IsWrittenAfterTheEventsAndBeforeTheAnswerIsPublished) {
    recordKeys();
    useScript("resourceChange", "redis.call('RPUSH', 'seen', 'events') return 1");
    login();
    EXPECT_EQ(store().lrange("seen").front(), "events");
    EXPECT_EQ(store().llen("seen"), 9);
}

TEST_F(AuditLog, SplitsANameAtItsBlanks) {
    passFirstLogin();
    useScript("logGeneratorHelper",
              "redis.call('RPUSH', 'seen', #KEYS, KEYS[7], unpack(ARGV)) return 1");
    EXPECT_EQ(loggedByALogin("two words"), Words{});
    EXPECT_EQ(store().lrange("seen"), (Words{"7", "two", "words"}));
    store().del("seen");
    EXPECT_EQ(loggedByALogin("  many   blanks and words "), Words{});
    EXPECT_EQ(store().lrange("seen"), (Words{"7", "many", "blanks", "and", "words"}));
    controller.loadScripts();
    expectErrorLine("Failed to generate LogEntry. ");
    EXPECT_EQ(loggedByALogin("two words"), refused("Seven keys and no arguments are needed."));
}

TEST_F(AuditLog, LacksAKeyForAnEmptyName) {
    passFirstLogin();
    expectErrorLine("Failed to generate LogEntry. ");
    const Words tooFew = refused("ERR Number of keys can't be greater than number of args");
    EXPECT_EQ(loggedByALogin(""), tooFew);
    EXPECT_EQ(loggedByALogin("   "), tooFew);
}

struct Zone {
    const char* name;
    const char* rule;
    const char* offset;
};

class AuditTimeStamp : public AuditLog, public testing::WithParamInterface<Zone> {
  protected:
    // Not std::time, which may lag behind the clock of the stamps by a tick.
    static std::time_t secondsNow() {
        return std::chrono::system_clock::to_time_t(
            std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now()));
    }
};

TEST_P(AuditTimeStamp, EndsWithTheOffsetOfTheLocalTime) {
    restart({.environment = {{"TZ", GetParam().rule}}});
    const std::time_t before = secondsNow();
    login();
    const std::time_t after = secondsNow();
    const std::string created = createdOfNewestEntry();
    const std::regex shape(
        R"re("(\d{4})-(\d\d)-(\d\d)T(\d\d):(\d\d):(\d\d)([+-])(\d\d):(\d\d)")re");
    std::smatch parts;
    ASSERT_TRUE(std::regex_match(created, parts, shape)) << created;
    EXPECT_EQ(parts.str(7) + parts.str(8) + ":" + parts.str(9), GetParam().offset);

    std::tm local{};
    local.tm_year = std::stoi(parts[1]) - 1900;
    local.tm_mon = std::stoi(parts[2]) - 1;
    local.tm_mday = std::stoi(parts[3]);
    local.tm_hour = std::stoi(parts[4]);
    local.tm_min = std::stoi(parts[5]);
    local.tm_sec = std::stoi(parts[6]);
    const long east = (std::stol(parts[8]) * 60 + std::stol(parts[9])) * 60;
    const std::time_t stamped = timegm(&local) - (parts[7] == "-" ? -east : east);
    EXPECT_GE(stamped, before);
    EXPECT_LE(stamped, after);
}

INSTANTIATE_TEST_SUITE_P(In, AuditTimeStamp,
                         testing::Values(Zone{"Utc", "UTC0", "+00:00"},
                                         Zone{"TheFarEast", "<+08>-8", "+08:00"},
                                         Zone{"TheWest", "EST5", "-05:00"},
                                         Zone{"AHalfHourZone", "IST-5:30", "+05:30"},
                                         Zone{"AQuarterWest", "<-0345>3:45", "-03:45"}),
                         [](const auto& instance) { return instance.param.name; });

}  // namespace
}  // namespace testbed
