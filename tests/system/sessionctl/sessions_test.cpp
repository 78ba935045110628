// sessionctl list, show and delete, and how it is called.
#include <gmock/gmock.h>

#include <signal.h>

#include <condition_variable>
#include <optional>

#include "support/sessionctl_test.h"
#include "support/store_proxy.h"
#include "testbed/events_and_audit_log.h"

namespace testbed {
namespace {

using nlohmann::json;
using testing::AllOf;
using testing::Each;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;

constexpr char escapingName[] =
    "\x1b]0;owned\x07\x9b"
    "2J\\\xc3\xbc";

class Sessions : public RunningSessionctlTest {
  protected:
    std::string loggedIn(const Account& account = administrator) {
        const Reply reply = frontEnd().login(account.name, account.password);
        EXPECT_EQ(reply.status(), "OK");
        return reply.location();
    }
    static std::string identifierOf(const std::string& uri) {
        return uri.substr(uri.rfind('/') + 1);
    }
    // Nothing of sessionctl's own is left in the store.
    Words leftovers() { return store().keys("&&/sessionctl/*"); }
};

using Listing = Sessions;
using Showing = Sessions;
using Deleting = Sessions;

TEST_F(Listing, TellsWhoIsLoggedInNewestFirst) {
    const std::string first = loggedIn();
    const std::string second = loggedIn(reader);
    const Outcome outcome = sessionctl({"list", "--json"});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.errors, "");
    json document = outcome.json();
    EXPECT_EQ(document.at("limit"), 8);
    for (json& session : document.at("sessions")) {
        EXPECT_GE(session.at("idleSeconds"), 0);
        EXPECT_EQ(session.at("idleSeconds").get<int>() + session.at("expiresInSeconds").get<int>(),
                  300);
        EXPECT_EQ(session.at("timeoutSeconds"), 300);
        EXPECT_THAT(session.at("loginTime").get<std::string>(),
                    MatchesRegex("[-0-9]+T[0-9:]+[+]00:00"));
        for (const char* changing :
             {"idleSeconds", "expiresInSeconds", "timeoutSeconds", "loginTime"}) {
            session.erase(changing);
        }
    }
    const auto expectedEntry = [](const std::string& uri, const char* user) {
        return json{{"id", identifierOf(uri)},
                    {"user", user},
                    {"client", "192.0.2.10"},
                    {"fault", nullptr}};
    };
    EXPECT_EQ(document.at("sessions"),
              json::array({expectedEntry(second, "reader"), expectedEntry(first, "admin")}));
}

TEST_F(Listing, IsATableForPeople) {
    const std::string id = identifierOf(loggedIn());
    const Outcome outcome = sessionctl({"list"});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_THAT(
        outcome.output,
        MatchesRegex("IDENTIFIER  USER   CLIENT      LOGGED IN     IDLE FOR  EXPIRES IN\n" + id +
                     "    admin  192.0.2.10  [A-Z][a-z]+ [0-9]+ [0-9:]+  [0-9s]+ +"
                     "[#.]+ [0-9ms]+\n"
                     "1 of 8 places are taken.\n"));
}

TEST_F(Listing, OfAnEmptyCollectionHasNoSessions) {
    EXPECT_EQ(sessionctl({"list", "--json"}).json(),
              (json{{"limit", 8}, {"sessions", json::array()}}));
    EXPECT_THAT(sessionctl({"list"}).output, HasSubstr("\n0 of 8 places are taken.\n"));
}

TEST_F(Listing, SendsNothingToTheTerminalThatSteersIt) {
    frontEnd().insertSession({.identifier = "00000001", .userName = escapingName});
    store().run({"LPUSH", membersKey, std::string("\x1b[2J\nfake")});
    const std::string output =
        sessionctl({"list"}).output + sessionctl({"show", "00000001"}).output;
    EXPECT_THAT(output,
                AllOf(HasSubstr(R"(\x1b]0;owned\x07\x9b2J\\)"), HasSubstr(R"(\x1b[2J\x0afake)")));
    for (const char character : output) {
        EXPECT_TRUE(character == '\n' || (character >= ' ' && character <= '~')) << output;
    }
    const Outcome document = sessionctl({"list", "--json"});
    EXPECT_THAT(document.output, Not(HasSubstr("\x1b")));
    EXPECT_EQ(document.json().at("sessions").at(0).at("id"), "\x1b[2J\nfake");
}

TEST_F(Listing, SaysWhatIsWrongWithAMember) {
    frontEnd().insertSession({.identifier = "00000002", .sessionType = "\"Other\""});
    store().run({"LPUSH", membersKey, "&&ObjectRef " + std::string(sessionsUri) + "/00000003"});
    store().run({"SADD", std::string(sessionsUri) + "/00000004", "x"});
    store().run({"LPUSH", membersKey, "&&ObjectRef " + std::string(sessionsUri) + "/00000004"});
    store().run({"LPUSH", membersKey, "x"});
    const std::string nested = "&&ObjectRef " + std::string(sessionsUri) + "/x/00000002";
    store().run({"LPUSH", membersKey, nested});
    std::map<std::string, std::string> faults;
    const json document = sessionctl({"list", "--json"}).json();
    for (const json& session : document.at("sessions")) {
        faults[session.at("id")] = session.at("fault");
    }
    EXPECT_EQ(faults, (std::map<std::string, std::string>{
                          {"00000002", "not of type Redfish: it never expires"},
                          {"00000003", "no session record"},
                          {"00000004", "its key is no hash"},
                          {"x", "names no session"},
                          {nested, "names no session"}}));
}

TEST_F(Listing, SaysWhatTheStoreRefuses) {
    frontEnd().insertSession({.identifier = "00000001"});
    store().run({"ACL", "SETUSER", "default", "-hgetall"});
    EXPECT_THAT(sessionctl({"list"}).output, HasSubstr("its key cannot be read: NOPERM"));
}

TEST_F(Listing, OfAListThatIsNoneFails) {
    store().run({"SET", membersKey, "x"});
    const Outcome outcome = sessionctl({"list"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.output, "");
    EXPECT_THAT(outcome.errors,
                AllOf(StartsWith("sessionctl: "), HasSubstr(membersKey), HasSubstr("WRONGTYPE")));
    const Outcome document = sessionctl({"list", "--json"});
    EXPECT_EQ(document.status, 1);
    EXPECT_EQ(document.errors, "");
    EXPECT_THAT(document.json().at("error"), HasSubstr("WRONGTYPE"));
}

TEST_F(Showing, TellsAllOfASessionButItsToken) {
    const Reply login = frontEnd().login(administrator.name, administrator.password);
    const std::string id = identifierOf(login.location());
    const Outcome plain = sessionctl({"show", id});
    EXPECT_EQ(plain.status, 0);
    EXPECT_THAT(plain.output,
                AllOf(StartsWith("Session " + id + "\n"), HasSubstr("in the collection      yes\n"),
                      HasSubstr("\"#Session.v1_3_0.Session\"\n"), HasSubstr("&&RemoteIP"),
                      HasSubstr("\nToken record\n"), HasSubstr("LastAccessed"),
                      HasSubstr("Privilege              511\n")));
    const Outcome outcome = sessionctl({"show", login.location(), "--json"});
    EXPECT_EQ(outcome.status, 0);
    const json document = outcome.json();
    EXPECT_EQ(document.at("id"), id);
    EXPECT_EQ(document.at("inCollection"), true);
    EXPECT_EQ(document.at("resource").at("UserName"), "admin");
    EXPECT_EQ(document.at("resource").at("Password"), nullptr);
    EXPECT_EQ(document.at("tokenRecord").at("Timeout"), "300");
    for (const std::string& text : {plain.output, outcome.output}) {
        EXPECT_THAT(text, AllOf(Not(HasSubstr(login.token())), Not(HasSubstr("XAUTH"))));
    }
}

TEST_F(Showing, LeavesBareTextAsItIs) {
    const std::string id = identifierOf(loggedIn());
    const std::string digits = "12345678901234567890123";
    store().hset(std::string(sessionsUri) + "/" + id, {{"&&OwnerName", "null"}});
    store().hset(store().keys("&&X-AUTH-TOKEN-*").at(0), {{"UserName", digits}});
    const json document = sessionctl({"show", id, "--json"}).json();
    EXPECT_EQ(document.at("resource").at("&&OwnerName"), "null");
    EXPECT_EQ(document.at("tokenRecord").at("UserName"), digits);
}

TEST_F(Showing, OfAnUnknownSessionFails) {
    const Outcome outcome = sessionctl({"show", "12345678"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.errors, "sessionctl: There is no session 12345678.\n");
}

TEST_F(Deleting, LeavesWhatADeletionOfTheFrontEndLeaves) {
    const std::string byFrontEnd = loggedIn();
    const std::string here = loggedIn();
    frontEnd().remove(byFrontEnd);
    const Outcome outcome = sessionctl({"delete", identifierOf(here)});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.output, "Session " + identifierOf(here) + " of admin is deleted.\n");
    EXPECT_EQ(outcome.errors, "");

    EXPECT_FALSE(store().exists(here));
    EXPECT_EQ(store().llen(membersKey), 0);
    EXPECT_EQ(store().hget(sessionsUri, "Members@odata.count"), "0");
    // Two logins of two events each come first.
    std::vector<Words> events = lifeCycleEvents(store());
    ASSERT_EQ(events.size(), 8u);
    for (Words& event : events) {
        event.pop_back();
    }
    EXPECT_EQ(events[4], (Words{"delete", byFrontEnd, "Session"}));
    EXPECT_EQ(events[6], (Words{"delete", here, "Session"}));
    EXPECT_EQ(events[5], events[7]);
    std::vector<Words> entries = auditEntries(store());
    ASSERT_EQ(entries.size(), 4u);
    EXPECT_THAT(entries[3].at(2), HasSubstr(here));
    EXPECT_EQ(entries[2].at(0), entries[3].at(0));
    EXPECT_EQ(entries[2].at(1), entries[3].at(1));
    EXPECT_THAT(leftovers(), IsEmpty());
}

TEST_F(Deleting, ListensForTheReplyBeforeItAnnouncesTheRequest) {
    const std::string uri = loggedIn();
    Monitor monitor = controller.monitor();
    EXPECT_EQ(sessionctl({"delete", uri, "--json"}).json(), (json{{"id", identifierOf(uri)},
                                                                  {"user", "admin"},
                                                                  {"deleted", true},
                                                                  {"status", "OK_EMPTY"},
                                                                  {"messages", json::array()}}));
    std::string channel;
    bool announced = false;
    for (const MonitoredCommand& command : monitor.soFar()) {
        if (command.words.at(0) == "SUBSCRIBE") {
            channel = command.words.at(1);
        } else if (command.words.at(0) == "PUBLISH" && command.words.at(1) == deleteChannel) {
            announced = true;
            EXPECT_THAT(channel, StartsWith("&&/sessionctl/"));
            EXPECT_THAT(command.words.at(2), testing::EndsWith(" " + channel));
        }
    }
    EXPECT_TRUE(announced);
}

TEST_F(Deleting, StoresAndAnnouncesTheRequestInOneStep) {
    const std::string uri = loggedIn();
    Monitor monitor = controller.monitor();
    EXPECT_EQ(sessionctl({"delete", uri}).status, 0);
    Words step;
    for (const MonitoredCommand& command : monitor.soFar()) {
        if (command.words.at(0) == "MULTI" || !step.empty()) {
            step.push_back(command.words.at(0));
        }
        if (command.words.at(0) == "EXEC") {
            break;
        }
    }
    EXPECT_THAT(
        step, testing::ElementsAre("MULTI", "HSET", "EXPIRE", "HSET", "EXPIRE", "PUBLISH", "EXEC"));
}

TEST_F(Deleting, SaysThatTheSessionMayHaveEndedWhenOnlyTheMemberStays) {
    expectErrorLine("Failed to get sessions.");
    const std::string uri = loggedIn();
    store().run({"HDEL", sessionsUri, "Members@odata.count"});
    const Outcome outcome = sessionctl({"delete", uri});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_THAT(outcome.errors, HasSubstr("the session may have ended and be a member still"));
    EXPECT_FALSE(store().exists(uri));
}

TEST_F(Deleting, IsTheWayOutWhenAllPlacesAreTaken) {
    usePamTest("env=PRIVILEGES=511");
    std::string last;
    for (int i = 0; i < 8; ++i) {
        last = loggedIn();
    }
    EXPECT_EQ(frontEnd().login("admin", "any").status(), "UNAVAILABLE");
    EXPECT_THAT(sessionctl({"list"}).output, HasSubstr("\n8 of 8 places are taken.\n"));
    EXPECT_EQ(sessionctl({"delete", identifierOf(last)}).status, 0);
    EXPECT_EQ(frontEnd().login("admin", "any").status(), "OK");
}

TEST_F(Deleting, OfAnUnknownSessionAsksNobody) {
    Monitor monitor = controller.monitor();
    const Outcome outcome = sessionctl({"delete", "12345678"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.errors, "sessionctl: There is no session 12345678.\n");
    for (const MonitoredCommand& command : monitor.soFar()) {
        EXPECT_NE(command.words.at(0), "PUBLISH");
    }
}

TEST_F(Deleting, TakesAMemberWithoutARecordOutOfTheCollection) {
    // Without a name there is nobody whose logout could be recorded.
    expectErrorLine("Failed to generate LogEntry.");
    store().run({"LPUSH", membersKey, "&&ObjectRef " + std::string(sessionsUri) + "/12345678"});
    EXPECT_EQ(sessionctl({"delete", "12345678"}).output, "Session 12345678 is deleted.\n");
    EXPECT_EQ(store().llen(membersKey), 0);
}

TEST_F(Deleting, HandsOnWhatTheDaemonRefuses) {
    const std::string uri = loggedIn();
    store().hset(serviceUri, {{"ServiceEnabled", "false"}});
    const Outcome plain = sessionctl({"delete", identifierOf(uri)});
    EXPECT_EQ(plain.status, 1);
    EXPECT_EQ(plain.errors,
              "sessionctl: The daemon answers: UNAVAILABLE, ExtendedError.1.2.ServiceDisabled (the "
              "service is switched off; \"sessionctl enable\" switches it on).\n");
    const Outcome outcome = sessionctl({"delete", identifierOf(uri), "--json"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.json(), (json{{"id", identifierOf(uri)},
                                    {"user", "admin"},
                                    {"deleted", false},
                                    {"status", "UNAVAILABLE"},
                                    {"messages", {"ExtendedError.1.2.ServiceDisabled"}}}));
    EXPECT_TRUE(store().exists(uri));
    EXPECT_THAT(leftovers(), IsEmpty());
}

TEST_F(Deleting, OfASessionOfAnotherTypeIsRefused) {
    expectErrorLine("Request SessionType is not Redfish.");
    frontEnd().insertSession({.identifier = "00000001", .sessionType = "\"Other\""});
    const Outcome outcome = sessionctl({"delete", "00000001"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_THAT(outcome.errors, HasSubstr("FAILURE, ExtendedError.1.2.UnprocessableEntity (it is "
                                          "no session of the type Redfish)."));
}

TEST_F(Deleting, NamesNoOtherSessionByASlash) {
    const std::string id = identifierOf(loggedIn());
    for (const std::string& argument : {"x/" + id, std::string(sessionsUri) + "/x/" + id,
                                        std::string(), std::string(sessionsUri) + "/"}) {
        const Outcome outcome = sessionctl({"delete", argument});
        EXPECT_EQ(outcome.status, 2) << argument;
        EXPECT_THAT(outcome.errors, HasSubstr("is no session identifier")) << argument;
    }
    EXPECT_EQ(store().llen(membersKey), 1);
}

TEST_F(Deleting, OfSeveralSessionsGoesOnAfterAFailure) {
    const std::string first = loggedIn();
    const std::string second = loggedIn(reader);
    const Outcome outcome = sessionctl({"delete", first, "12345678", identifierOf(second)});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.output, "Session " + identifierOf(first) + " of admin is deleted.\nSession " +
                                  identifierOf(second) + " of reader is deleted.\n");
    EXPECT_EQ(outcome.errors, "sessionctl: There is no session 12345678.\n");
    EXPECT_EQ(store().llen(membersKey), 0);
}

TEST_F(Deleting, OfSeveralSessionsIsOneDocument) {
    const std::string first = identifierOf(loggedIn());
    const Outcome outcome = sessionctl({"delete", first, "12345678", "--json"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.errors, "");
    EXPECT_EQ(outcome.json(), (json{{"sessions",
                                     {{{"id", first},
                                       {"user", "admin"},
                                       {"deleted", true},
                                       {"status", "OK_EMPTY"},
                                       {"messages", json::array()}},
                                      {{"id", "12345678"},
                                       {"deleted", false},
                                       {"error", "There is no session 12345678."}}}}}));
}

TEST_F(Deleting, OfAUserLeavesTheOthers) {
    loggedIn(reader);
    const std::string kept = loggedIn();
    loggedIn(reader);
    EXPECT_EQ(sessionctl({"delete", "--user", reader.name}).status, 0);
    EXPECT_EQ(store().lrange(membersKey), Words{"&&ObjectRef " + kept});
    const Outcome outcome = sessionctl({"delete", "--user", reader.name});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.errors, "sessionctl: reader has no session.\n");
}

TEST_F(Deleting, OfAllAsksNobodyWithoutATerminal) {
    loggedIn();
    loggedIn(reader);
    EXPECT_EQ(sessionctl({"delete", "--all"}).status, 0);
    EXPECT_EQ(store().llen(membersKey), 0);
    EXPECT_EQ(sessionctl({"delete", "--all"}).output, "There is no session.\n");
    EXPECT_EQ(sessionctl({"delete", "--all", "--json"}).json(),
              (json{{"sessions", json::array()}}));
}

class WithoutADaemon : public SessionctlTest {
  protected:
    void SetUp() override { startStore(); }
};

TEST_F(WithoutADaemon, SessionsAreListedAndShown) {
    frontEnd().insertSession({.identifier = "00000001"});
    EXPECT_THAT(sessionctl({"list"}).output, HasSubstr("00000001"));
    EXPECT_EQ(sessionctl({"show", "00000001"}).status, 0);
}

TEST_F(WithoutADaemon, ADeletionSaysThatNobodyListens) {
    const std::string uri = frontEnd().insertSession({.identifier = "00000001"}).uri;
    const Outcome outcome = sessionctl({"delete", "00000001"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_THAT(outcome.errors, StartsWith("sessionctl: Nobody listens for deletions"));
    EXPECT_TRUE(store().exists(uri));
    EXPECT_THAT(store().keys("&&/sessionctl/*"), IsEmpty());
}

TEST_F(WithoutADaemon, ADeletionThatIsNotAnsweredIsTakenBack) {
    frontEnd().insertSession({.identifier = "00000001"});
    StoreClient silent = controller.connect();
    silent.subscribe(deleteChannel);
    const Outcome outcome = sessionctl({"delete", "00000001", "--timeout", "20"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_THAT(outcome.errors, StartsWith("sessionctl: The daemon has not answered."));
    // What the daemon may still answer ends by itself.
    const std::string notice = silent.nextMessage();
    const std::size_t blank = notice.find(' ');
    EXPECT_FALSE(store().exists(notice.substr(0, blank)));
    EXPECT_GT(store().run({"TTL", notice.substr(blank + 1)}).integer, 0);
}

class UnansweredDeletion : public WithoutADaemon {
  protected:
    void SetUp() override {
        WithoutADaemon::SetUp();
        frontEnd().insertSession({.identifier = "00000001"});
        silentListener.emplace(controller.connect());
        silentListener->subscribe(deleteChannel);
        running = startSessionctl({"delete", "00000001"});
        receivedNotice = silentListener->nextMessage();
    }

    std::optional<StoreClient> silentListener;
    std::unique_ptr<Process> running;
    std::string receivedNotice;
};

TEST_F(UnansweredDeletion, IsTakenBackWhenInterrupted) {
    running->signal(SIGINT);
    EXPECT_EQ(running->wait(), (ExitStatus{.bySignal = true, .value = SIGINT}));
    EXPECT_EQ(controller.errorsOf("sessionctl"),
              "sessionctl: The deletion was taken back, unless it is being carried out.\n");
    EXPECT_FALSE(store().exists(receivedNotice.substr(0, receivedNotice.find(' '))));
}

TEST_F(UnansweredDeletion, MayStillBeCarriedOutWhenTheStoreGoes) {
    controller.stopStore();
    EXPECT_EQ(running->wait(), (ExitStatus{.bySignal = false, .value = 3}));
    EXPECT_EQ(controller.errorsOf("sessionctl"),
              "sessionctl: The store has stopped answering. The deletion may still be carried "
              "out.\n");
}

TEST_F(WithoutADaemon, AFullStoreTakesNoDeletion) {
    frontEnd().insertSession({.identifier = "00000001"});
    store().run({"CONFIG", "SET", "maxmemory", "1"});
    const Outcome outcome = sessionctl({"delete", "00000001"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_THAT(outcome.errors, HasSubstr("The store does not take the request: OOM"));
}

class WithoutAStore : public SessionctlTest {};

TEST_F(WithoutAStore, EachCommandThatNeedsItSaysSo) {
    for (const Words& command :
         std::vector<Words>{{"list"}, {"show", "1"}, {"delete", "1"}, {"watch"}}) {
        const Outcome outcome = sessionctl(command);
        EXPECT_EQ(outcome.status, 3) << command[0];
        EXPECT_EQ(outcome.output, "");
        EXPECT_EQ(outcome.errors,
                  "sessionctl: Nobody listens at /run/session-service-store/redis.sock. Is the "
                  "Redis server "
                  "running?\n");
    }
    const Outcome document = sessionctl({"list", "--json"});
    EXPECT_EQ(document.status, 3);
    EXPECT_THAT(document.json().at("error"), StartsWith("Nobody listens"));
}

TEST_F(WithoutAStore, AMissingAddressIsExplained) {
    controller.removeFile("/etc/redis/redis.conf");
    const Outcome outcome = sessionctl({"list"});
    EXPECT_EQ(outcome.status, 3);
    EXPECT_THAT(outcome.errors, StartsWith("sessionctl: The store's address cannot be found."));
}

TEST_F(WithoutAStore, AnAddressWithNeitherASocketNorAPortIsExplained) {
    controller.removeFile("/run/session-service-store/redis.unixsocket");
    const Outcome outcome = sessionctl({"list"});
    EXPECT_EQ(outcome.status, 3);
    EXPECT_EQ(outcome.errors,
              "sessionctl: redis.port is 0, and redis.unixsocket is missing or empty.\n");
}

TEST_F(WithoutAStore, ARefusedPasswordIsExplained) {
    controller.startStore();
    for (const auto& [password, refusal] :
         std::map<std::string, std::string>{{"something else", "WRONGPASS"}, {"", "NOAUTH"}}) {
        controller.writeFile("/run/session-service-store/redis.requirepass", password);
        const Outcome outcome = sessionctl({"list"});
        EXPECT_EQ(outcome.status, 3);
        EXPECT_THAT(outcome.errors,
                    AllOf(HasSubstr("The store at /run/session-service-store/redis.sock refuses: " +
                                    refusal),
                          HasSubstr("redis.requirepass")));
    }
}

TEST_F(WithoutAStore, OneThatHangsIsGivenUp) {
    controller.startStore();
    StoreProxy proxy(controller);
    std::mutex mutex;
    std::condition_variable changed;
    bool released = false;
    proxy.setFilter([&](const Words& command) {
        std::unique_lock lock(mutex);
        changed.wait(lock, [&] { return released || command.at(0) != "LRANGE"; });
        return StoreProxy::Verdict::pass;
    });
    const Outcome outcome = sessionctl({"list", "--timeout", "1"});
    EXPECT_EQ(outcome.status, 3);
    EXPECT_THAT(outcome.errors, StartsWith("sessionctl: The store "));
    EXPECT_THAT(outcome.errors, HasSubstr(" answer"));
    const std::lock_guard lock(mutex);
    released = true;
    changed.notify_all();
}

class Calling : public SessionctlTest {};

TEST_F(Calling, HelpAndVersionGoToStandardOutput) {
    const Outcome help = sessionctl({"--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_THAT(help.output, StartsWith("usage: sessionctl "));
    EXPECT_EQ(sessionctl({"-h"}).output, help.output);
    EXPECT_EQ(sessionctl({"help"}).output, help.output);
    const Outcome version = sessionctl({"--version"});
    EXPECT_EQ(version.status, 0);
    EXPECT_THAT(version.output, MatchesRegex("sessionctl [0-9]+\\.[0-9]+\\.[0-9]+\n"));
    EXPECT_EQ(sessionctl({"-V"}).output, version.output);
}

TEST_F(Calling, EachCommandHasItsHelp) {
    for (const char* command : {"list", "show", "delete", "login", "watch", "check", "stats",
                                "timeout", "enable", "disable", "help"}) {
        const Outcome help = sessionctl({"help", command});
        EXPECT_EQ(help.status, 0) << command;
        EXPECT_THAT(help.output, StartsWith("usage: sessionctl " + std::string(command)));
        EXPECT_EQ(sessionctl({command, "--help"}).output, help.output);
        EXPECT_THAT(sessionctl({"--help"}).output, HasSubstr(command));
        for (const std::string& line : splitLines(sessionctl({"--help"}).output + help.output)) {
            EXPECT_LE(line.size(), 90U) << line;
        }
    }
}

TEST_F(Calling, InAWrongWayIsExplained) {
    for (const Words& arguments : std::vector<Words>{{},
                                                     {"lisst"},
                                                     {"list", "x"},
                                                     {"show"},
                                                     {"delete"},
                                                     {"login"},
                                                     {"show", "x", "y"},
                                                     {"help", "lisst"},
                                                     {"delete", "x", "--all"},
                                                     {"delete", "--all", "--user", "x"},
                                                     {"list", "--all"},
                                                     {"list", "-y"},
                                                     {"list", "--prometheus"},
                                                     {"stats", "--prometheus", "--json"},
                                                     {"stats", "--state"},
                                                     {"timeout"},
                                                     {"timeout", "29"},
                                                     {"timeout", "86401"},
                                                     {"timeout", "60s"},
                                                     {"enable", "x"},
                                                     {"list", "--jsno"},
                                                     {"list", "-j"},
                                                     {"list", "--timeout"},
                                                     {"list", "--timeout", "0"},
                                                     {"list", "--timeout", "1x"},
                                                     {"list", "--timeout", "-1"}}) {
        const Outcome outcome = sessionctl(arguments);
        EXPECT_EQ(outcome.status, 2) << testing::PrintToString(arguments);
        EXPECT_EQ(outcome.output, "");
        EXPECT_THAT(outcome.errors, MatchesRegex("sessionctl: .* See \"sessionctl --help\".\n"))
            << testing::PrintToString(arguments);
    }
}

TEST_F(Calling, WithABadOptionNamesIt) {
    for (const auto& [argument, named] : std::vector<std::pair<std::string, std::string>>{
             {"-json", "-j"}, {"--jsno", "--jsno"}, {"--json=x", "--json=x"}}) {
        EXPECT_THAT(sessionctl({argument, "list"}).errors,
                    StartsWith("sessionctl: \"" + named + "\" is no option"));
    }
}

TEST_F(Calling, SaysThatTheOutputCannotBeWritten) {
    controller.startStore();
    for (const std::string command :
         {"--help", "--version", "list", "list --json", "watch", "stats", "stats --prometheus"}) {
        frontEnd().insertSession();
        const std::size_t before = controller.errorsOf("sh").size();
        const auto process = controller.startProgram(
            {.command = {"/bin/sh", "-c", std::string(program) + " " + command + " >/dev/full"},
             .environment = Controller::sanitizerOptions()});
        EXPECT_EQ(process->wait(), (ExitStatus{.bySignal = false, .value = 1})) << command;
        EXPECT_EQ(controller.errorsOf("sh").substr(before),
                  "sessionctl: The output cannot be written: No space left on device.\n")
            << command;
    }
}

}  // namespace
}  // namespace testbed
