// How the daemon hands events to the script of the event service, and what it makes of
// the script's answers.
#include "support/permissive_pam_test.h"

namespace testbed {
namespace {

class LifeCycleEvents : public PermissivePamTest {
  protected:
    void configure(const std::string& lines) {
        controller.writeFile(configurationFile, "LOG_FILE=" + std::string(logFile) + "\n" + lines);
        restart();
    }
    void useAnswer(const std::string& lua) { useScript("resourceChange", "return " + lua); }
    // What is logged about the events of a login. Errors only.
    Words loggedByALogin() {
        const std::vector<LogLine> before = logLines();
        EXPECT_EQ(login().status(), "OK");
        emptyCollection();
        Words messages;
        const std::vector<LogLine> after = logLines();
        for (auto line = after.begin() + static_cast<std::ptrdiff_t>(before.size());
             line != after.end(); ++line) {
            if (line->tag == "[Error]") {
                messages.push_back(line->message);
            }
        }
        return messages;
    }
};

constexpr char wanted[] =
    "SessionService will generate events when resource is created/updated/removed.";
constexpr char notWanted[] =
    "SessionService will not generate events when resource is created/updated/removed.";
const std::string failed = "Failed to generate life cycle event. ";

TEST_F(LifeCycleEvents, ArePassedAsKeysWithoutFurtherArguments) {
    useScript("resourceChange", "redis.call('RPUSH', 'seen', #ARGV, unpack(KEYS)) return 1");
    const Reply reply = login();
    EXPECT_EQ(store().lrange("seen"),
              (Words{"0", "add", reply.location(), "Session", "EventGroupId", "1", "change",
                     sessionsUri, "SessionCollection", "EventGroupId", "1"}));
}

TEST_F(LifeCycleEvents, ArePublishedBeforeTheAnswerIs) {
    Request request = frontEnd().prepareLogin("alice", "a password");
    useScript("resourceChange", "redis.call('SET', 'status', redis.call('HGET', '" +
                                    request.replyKey() + "', '&&ReturnStatus')) return 1");
    request.send();
    EXPECT_EQ(request.reply().status(), "OK");
    EXPECT_EQ(store().run({"GET", "status"}).text, "OK");
}

TEST_F(LifeCycleEvents, AreTakenWhenTheScriptAnswersWithAnyInteger) {
    for (const char* integer : {"1", "0", "2", "5", "-1", "true"}) {
        useAnswer(integer);
        EXPECT_EQ(loggedByALogin(), Words{}) << integer;
    }
}

TEST_F(LifeCycleEvents, FailWithTheReasonInASecondElement) {
    expectErrorLine(failed);
    const std::vector<std::pair<const char*, const char*>> answers{
        {"{'INVALID', 'The reason.'}", "The reason."},
        {"{1, 'After a number'}", "After a number"},
        {"{'INVALID', ''}", ""},
        {"{'INVALID', '%s%n %d'}", "%s%n %d"},
        {"{'INVALID', 'two\\nlines'}", "two\\x0alines"},
        {"{'INVALID', {ok = 'a status'}}", "a status"},
        {"{'INVALID', {err = 'an error'}}", "an error"},
        // Neither has a text.
        {"{'INVALID', 7}", ""},
        {"{'INVALID', false}", ""},
        {"{'INVALID', {'nested'}}", ""},
    };
    for (const auto& [answer, reason] : answers) {
        useAnswer(answer);
        EXPECT_EQ(loggedByALogin(), Words{failed + reason}) << answer;
    }
}

TEST_F(LifeCycleEvents, FailWithTheTextOfAnError) {
    expectErrorLine(failed);
    useAnswer("redis.error_reply('MYERR out of order')");
    EXPECT_EQ(loggedByALogin(), Words{failed + "MYERR out of order"});
    useScript("resourceChange", "error('thrown')");
    const Words thrown = loggedByALogin();
    ASSERT_EQ(thrown.size(), 1U);
    EXPECT_NE(thrown[0].find("thrown"), std::string::npos);
    EXPECT_EQ(thrown[0].rfind(failed, 0), 0U);
}

TEST_F(LifeCycleEvents, FailWithoutAReasonOnAnyOtherAnswer) {
    expectErrorLine(failed + "(Unknown error)");
    for (const char* answer : {"'a text'", "''", "{ok = 'FINE'}", "nil", "false", "{}", "{'one'}",
                               "{'one', 'two', 'three'}", "{1, 2, 3, 4}"}) {
        useAnswer(answer);
        EXPECT_EQ(loggedByALogin(), Words{failed + "(Unknown error)"}) << answer;
    }
}

TEST_F(LifeCycleEvents, FailWhenTheScriptIsNotLoaded) {
    expectErrorLine(failed + "NOSCRIPT");
    store().hset("redisSHAScripts", {{"resourceChange", std::string(40, 'a')}});
    EXPECT_EQ(loggedByALogin(), Words{failed + "NOSCRIPT No matching script. Please use EVAL."});
}

TEST_F(LifeCycleEvents, FailWhenTheDigestIsAnyText) {
    expectErrorLine(failed + "NOSCRIPT");
    for (const char* digest : {"%s%n", "two words", "\n", "\"", "0", " "}) {
        store().hset("redisSHAScripts", {{"resourceChange", digest}});
        EXPECT_EQ(loggedByALogin().size(), 1U) << digest;
    }
}

TEST_F(LifeCycleEvents, FailWhenNoScriptIsRegistered) {
    expectErrorLine("Cannot get SHA script resourceChange.");
    store().run({"HDEL", "redisSHAScripts", "resourceChange"});
    EXPECT_EQ(loggedByALogin(), Words{"Cannot get SHA script resourceChange."});
    store().hset("redisSHAScripts", {{"resourceChange", ""}});
    EXPECT_EQ(loggedByALogin(), Words{"Cannot get SHA script resourceChange."});
    EXPECT_TRUE(lifeCycleEvents(store()).empty());
    EXPECT_EQ(auditEntries(store()).size(), 2U);
}

TEST_F(LifeCycleEvents, FollowAScriptThatIsReplacedWhileTheDaemonRuns) {
    useAnswer("1");
    login();
    EXPECT_TRUE(lifeCycleEvents(store()).empty());
    controller.loadScripts();
    login();
    EXPECT_EQ(lifeCycleEvents(store()).size(), 2U);
}

TEST_F(LifeCycleEvents, AreSwitchedOffByExactlyFalse) {
    configure("GenerateResourceEvent=false\n");
    EXPECT_EQ(countLogged(notWanted), 0) << "the setting is read at the first event";
    Monitor monitor = controller.monitor();
    login();
    login();
    for (const MonitoredCommand& command : monitor.soFar()) {
        EXPECT_NE(command.words, (Words{"HGET", "redisSHAScripts", "resourceChange"}));
    }
    EXPECT_TRUE(lifeCycleEvents(store()).empty());
    EXPECT_EQ(tagsOf(notWanted), Words{"[Debug]"});
    // The identifier is drawn all the same.
    EXPECT_EQ(store().hget(eventServiceUri, eventGroupCounter), "2");
}

TEST_F(LifeCycleEvents, AreOnForAnyOtherSetting) {
    long count = 0;
    for (const char* line : {"", "GenerateResourceEvent=\n", "GenerateResourceEvent=False\n",
                             "GenerateResourceEvent=0\n", "GenerateResourceEvent=\"false\"\n",
                             "GenerateResourceEvent=false;\n", "#GenerateResourceEvent=false\n",
                             "GenerateResourceEvent=true\nGenerateResourceEvent=false\n"}) {
        configure(line);
        const std::size_t before = lifeCycleEvents(store()).size();
        login();
        emptyCollection();
        EXPECT_EQ(lifeCycleEvents(store()).size(), before + 2) << line;
        EXPECT_EQ(countLogged(wanted), ++count) << line;
    }
    EXPECT_EQ(countLogged(notWanted), 0);
}

TEST_F(LifeCycleEvents, KeepTheSettingOfTheFirstEvent) {
    login();
    controller.writeFile(configurationFile, "GenerateResourceEvent=false\n");
    login();
    EXPECT_EQ(lifeCycleEvents(store()).size(), 4U);
    EXPECT_EQ(countLogged(wanted), 1);
}

TEST_F(LifeCycleEvents, AreSentForALogoutUnderAnIdentifierOfItsOwn) {
    const Reply reply = login();
    frontEnd().remove(reply.location());
    const std::vector<Words> events = lifeCycleEvents(store());
    ASSERT_EQ(events.size(), 4U);
    EXPECT_EQ(events[2], (Words{"delete", reply.location(), "Session", "2"}));
    EXPECT_EQ(events[3], (Words{"change", sessionsUri, "SessionCollection", "2"}));
}

}  // namespace
}  // namespace testbed
