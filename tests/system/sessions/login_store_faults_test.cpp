// A login while the store fails it: at each of its commands, with each fault. What the log
// says, what the store carries out after it, and that the next login is whole.
#include <algorithm>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <ostream>
#include <regex>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "support/command_sequence_test.h"
#include "support/daemon_names.h"
#include "support/fault_injector.h"

namespace testbed {
namespace {

// --- what the log says

const std::string noConnection = "[Error] Failed to connect to Redis.";
const std::string noChannel = "[Error] Create session: &&ReturnChannel not found.";
const std::string newPassword = "[Debug] PAM: password change required.";
const std::string noSession = "[Error] Failed to add session entry.";
const std::string noIncrease = "[Debug] Failed to increase the counter &&EVENT_GROUP_ID_COUNTER";
const std::string noReset = "[Debug] Failed to reset the EventGroupId counter.";
const Words noValidMaximum{"[Debug] Max EventGroupId value type error stoi",
                           "[Debug] The default max value was set to invalid value."};
const std::string noToken = "[Error] Failed to create meta session table.";
const std::string noMember = "[Error] Failed to add session entry to Members.";
const std::string noReply = "[Error] Failed to update Return Status.";
const std::string noMessageArray = "[Error] Failed to get length of extended info array.";
const std::string noEventDigest = "[Error] Cannot get SHA script resourceChange.";
const std::string noAuditCollection =
    "[Debug] LogEntry collection doesn't exist, Session Service will not generate audit log.";
const std::string noAuditDigest = "[Error] Cannot get SHA script logGeneratorHelper.";

std::string notLetIn(const std::string& user) {
    return "[Debug] " + user + " does not pass the PAM auth.";
}

Words lines(std::initializer_list<Words> parts) {
    Words whole;
    for (const Words& part : parts) {
        whole.insert(whole.end(), part.begin(), part.end());
    }
    return whole;
}

// What follows once the connection is lost: all that has to be reported of an answer that
// cannot be written, and of events and an audit entry that cannot be sent.
const Words unanswered{noReply, noMessageArray};
const Words unpublished{noReply, noMessageArray, noEventDigest};
const Words unrecorded{noReply, noMessageArray, noEventDigest, noAuditCollection};

// --- what the store carries out

// Stand for a session's names and for what names one request.
const std::string sessionMark = std::string(sessionsUri) + "/<identifier>";
const std::string tokenMark = "<token>";
const std::string requestMark = "&&/request/<number>";
const std::string replyMark = requestMark + "/reply";
const std::string messagesMark = requestMark + "/ExtendedInfo";

Commands withoutNames(Commands commands) {
    const std::regex token("[0-9a-f]{64}");
    const std::regex session(std::string(sessionsUri) + "/[0-9a-f]{8}");
    const std::regex identifier("\"[0-9a-f]{8}\"");
    const std::regex request("&&/request/[0-9]+");
    for (Words& words : commands) {
        for (std::string& word : words) {
            word = std::regex_replace(word, token, tokenMark);
            word = std::regex_replace(word, session, sessionMark);
            word = std::regex_replace(word, identifier, "\"<identifier>\"");
            word = std::regex_replace(word, request, requestMark);
        }
    }
    return maskTimes(std::move(commands));
}

// What a refused command leads to: the commands that follow it, given those that would have
// followed otherwise.
using Consequence = std::function<Commands(const Commands& rest)>;

Commands goOn(const Commands& rest) {
    return rest;
}
Commands endThere(const Commands&) {
    return {};
}
Consequence leaveOut(std::ptrdiff_t next) {
    return [=](const Commands& rest) { return Commands(rest.begin() + next, rest.end()); };
}
Consequence goOnWith(const std::string& word, const std::string& inPlaceOf) {
    return [=](Commands rest) {
        for (Words& words : rest) {
            std::replace(words.begin(), words.end(), inPlaceOf, word);
        }
        return rest;
    };
}

// One command of a login.
struct FaultyCommand {
    Words beginning;  // of the command
    Words lost;       // the log when the connection ends there; nothing follows then
    Words refused;    // the log when the answer is of no use
    Consequence consequence = goOn;
};

constexpr char lifetime[] = "3601";  // of messages

// The answer of a login that fails, up to its publication.
Commands answer(const std::string& status, const std::string& messageId) {
    const std::string message = messagesMark + "/1";
    return {{"HSET", replyMark, "&&ExtendedInfo", messagesMark, "&&ReturnStatus", status},
            {"LLEN", messagesMark},
            {"HGET", defaults, "REDIS_CONNECTION_DEFAULT_TIMEOUT"},
            {"HSET", message, "&&MessageId", messageId},
            {"LPUSH", messagesMark, message},
            {"EXPIRE", messagesMark, lifetime},
            {"EXPIRE", message, lifetime}};
}

Consequence failWith(const std::string& status, const std::string& messageId) {
    return [=](const Commands& rest) {
        return sequence({answer(status, messageId), {rest.back()}});
    };
}

// The same for a session that has come into being: its event is sent all the same.
Consequence failAndTellOfTheSession(const std::string& messageId) {
    return [=](const Commands& rest) {
        constexpr std::ptrdiff_t oneEvent = 5;
        const auto script = std::find_if(
            rest.begin(), rest.end(), [](const Words& words) { return words.at(0) == "EVALSHA"; });
        Words event{"EVALSHA", script->at(1), std::to_string(oneEvent)};
        event.insert(event.end(), script->begin() + 3, script->begin() + 3 + oneEvent);
        return sequence({answer("FAILURE", messageId), {*(script - 1), event, rest.back()}});
    };
}

// The same for a login whose user is not let in, with the commands that come before that.
Consequence refuseAfter(std::ptrdiff_t next) {
    return [=](const Commands& rest) {
        return sequence({Commands(rest.begin(), rest.begin() + next),
                         answer("AUTH_FAILED", "ExtendedError.1.2.InvalidCredentials"),
                         {rest.back()}});
    };
}

// --- the steps

// The error line of a script that answered to no purpose.
std::string scriptFailure(const Fault& fault, const std::string& line, const std::string& unknown) {
    return "[Error] " + line + (fault.reason ? ". " + *fault.reason : unknown);
}

// A write of several fields, which counts as done unless the store says that it is not; then
// there is a line more, and its consequence.
FaultyCommand writeOfARecord(const Fault& fault, Words beginning, Words lost, Words fine,
                             const std::string& line, Consequence failed = goOn) {
    if (!fault.isError()) {
        return {std::move(beginning), std::move(lost), std::move(fine)};
    }
    fine.push_back(line);
    return {std::move(beginning), std::move(lost), std::move(fine), std::move(failed)};
}

// A login with the right password, which has expired.
std::vector<FaultyCommand> stepsOfALogin(const Fault& fault) {
    const std::string body = requestMark + "/body";
    const std::string reference = tokenReferenceKey(sessionMark);
    const std::string argumentList = messagesMark + "/1/MessageArgs";
    const Consequence nobodysAccount = goOnWith("\"\"", jsonQuoted(expired.uri));

    const Words fine{newPassword};
    const Words noSessionNorAnswer = lines({{newPassword, noSession}, unanswered});
    const Words noMaximumNorToken = lines({{newPassword}, noValidMaximum, {noToken}, unpublished});
    const Words noTokenNorAnswer = lines({{newPassword, noToken}, unpublished});
    const Words noAnswer = lines({{newPassword}, unrecorded});
    const Words noEventNorEntry{newPassword, noEventDigest, noAuditCollection};

    return {
        {{"AUTH"}, {noConnection}, {noConnection}, endThere},
        {{"HGETALL", requestMark}, {noChannel}, {noChannel}, endThere},
        {{"HGET", body, "UserName"},
         lines({{notLetIn("")}, unanswered}),
         {notLetIn("")},
         refuseAfter(4)},
        {{"HGET", body, "Password"},
         lines({{notLetIn(expired.name)}, unanswered}),
         {notLetIn(expired.name)},
         refuseAfter(3)},
        // What cannot be read counts as enabled, as no session and as free.
        {{"HGET", serviceUri, "ServiceEnabled"}, noSessionNorAnswer, fine},
        {{"LRANGE", membersKey}, noSessionNorAnswer, fine, leaveOut(1)},
        {{"HGET", sessionMark, "SessionType"}, noSessionNorAnswer, fine},
        {{"HGET", sessionMark, "Id"}, noSessionNorAnswer, fine},
        {{"HGET", tokenKey(tokenMark), "UserName"}, noSessionNorAnswer, fine},
        writeOfARecord(fault, {"HSET", sessionMark, "&&AllowMethod"}, noSessionNorAnswer, fine,
                       noSession, failWith("FAILURE", "ExtendedError.1.2.DatabaseOperationError")),
        {{"HINCRBY", eventServiceUri, eventGroupCounter},
         lines({{newPassword, noIncrease, noReset}, noValidMaximum, {noToken}, unpublished}),
         {newPassword, noIncrease},
         [](const Commands& rest) {
             return sequence(
                 {{{"HSET", eventServiceUri, eventGroupCounter, "1"}}, goOnWith("1", "41")(rest)});
         }},
        {{"HGET", defaults, "MAX_EVENT_GROUP_ID"},
         noMaximumNorToken,
         lines({{newPassword}, noValidMaximum})},
        {{"HSET", sessionMark, "@odata.etag"}, noTokenNorAnswer, fine},
        {{"HSET", reference, "XAUTH"}, noTokenNorAnswer, fine},
        {{"HSET", sessionMark, "&&CRUDprefix"}, noTokenNorAnswer, fine},
        {{"HGET", serviceUri, "SessionTimeout"}, noTokenNorAnswer, fine, goOnWith("", "300")},
        writeOfARecord(fault, {"HSET", tokenKey(tokenMark), "&&Origin"}, noTokenNorAnswer, fine,
                       noToken,
                       failAndTellOfTheSession("ExtendedError.1.2.DatabaseOperationError")),
        {{"LPUSH", membersKey},
         lines({{newPassword, noMember}, unpublished}),
         {newPassword, noMember},
         failAndTellOfTheSession("ExtendedError.1.2.UnprocessableEntity")},
        {{"HSET", sessionsUri, "@odata.etag"}, noAnswer, fine},
        {{"HINCRBY", sessionsUri, "Members@odata.count"}, noAnswer, fine},
        {{"HSET", requestMark + "/return", "&&ResponseData"}, noAnswer, fine},
        {{"SCAN", "0"},
         noAnswer,
         fine,
         [=](const Commands& rest) { return nobodysAccount(leaveOut(1)(rest)); }},
        {{"HGET", expired.uri, "&&OwnerName"}, noAnswer, fine, nobodysAccount},
        writeOfARecord(fault, {"HSET", replyMark, "&&ExtendedInfo"}, noAnswer, fine, noReply),
        {{"LLEN", messagesMark},
         {newPassword, noMessageArray, noEventDigest, noAuditCollection},
         fine},
        {{"HGET", defaults, "REDIS_CONNECTION_DEFAULT_TIMEOUT"},
         noEventNorEntry,
         fine,
         goOnWith("6", lifetime)},
        {{"HSET", messagesMark + "/1", "&&MessageId"}, noEventNorEntry, fine},
        {{"RPUSH", argumentList}, noEventNorEntry, fine},
        {{"HSET", messagesMark + "/1", "&&MessageArgs"}, noEventNorEntry, fine},
        {{"EXPIRE", argumentList}, noEventNorEntry, fine},
        {{"LPUSH", messagesMark}, noEventNorEntry, fine},
        {{"EXPIRE", messagesMark}, noEventNorEntry, fine},
        {{"EXPIRE", messagesMark + "/1"}, noEventNorEntry, fine},
        {{"HGET", scriptDigests, "resourceChange"},
         noEventNorEntry,
         {newPassword, noEventDigest},
         leaveOut(1)},
        {{"EVALSHA"},
         {newPassword, noAuditCollection},
         {newPassword,
          scriptFailure(fault, "Failed to generate life cycle event", ". (Unknown error)")}},
        {{"EXISTS", auditEntriesUri},
         {newPassword, noAuditCollection},
         {newPassword, noAuditCollection},
         leaveOut(2)},
        {{"HGET", scriptDigests, "logGeneratorHelper"},
         {newPassword, noAuditDigest},
         {newPassword, noAuditDigest},
         leaveOut(1)},
        {{"EVALSHA"},
         fine,
         {newPassword, scriptFailure(fault, "Failed to generate LogEntry", "(unknown error).")}},
        {{"PUBLISH", requestMark + "/return"}, fine, fine},
    };
}

// A login with a wrong password.
std::vector<FaultyCommand> stepsOfARefusal(const Fault& fault) {
    const std::string user = administrator.name;
    const std::string body = requestMark + "/body";
    const Words fine{notLetIn(user)};
    const Words noAnswer = lines({fine, unanswered});
    return {
        {{"AUTH"}, {noConnection}, {noConnection}, endThere},
        {{"HGETALL", requestMark}, {noChannel}, {noChannel}, endThere},
        {{"HGET", body, "UserName"}, lines({{notLetIn("")}, unanswered}), {notLetIn("")}},
        {{"HGET", body, "Password"}, noAnswer, fine},
        {{"HGET", serviceUri, "ServiceEnabled"}, noAnswer, fine},
        {{"LRANGE", membersKey}, noAnswer, fine, leaveOut(1)},
        {{"HGET", sessionMark, "SessionType"}, noAnswer, fine},
        writeOfARecord(fault, {"HSET", replyMark, "&&ExtendedInfo"}, noAnswer, fine, noReply),
        {{"LLEN", messagesMark}, {notLetIn(user), noMessageArray}, fine},
        {{"HGET", defaults, "REDIS_CONNECTION_DEFAULT_TIMEOUT"},
         fine,
         fine,
         goOnWith("6", lifetime)},
        {{"HSET", messagesMark + "/1", "&&MessageId"}, fine, fine},
        {{"LPUSH", messagesMark}, fine, fine},
        {{"EXPIRE", messagesMark}, fine, fine},
        {{"EXPIRE", messagesMark + "/1"}, fine, fine},
        {{"PUBLISH", requestMark + "/return"}, fine, fine},
    };
}

// A login with a password that is too long.
std::vector<FaultyCommand> stepsOfAnEarlyRefusal() {
    const std::string user = administrator.name;
    const std::string body = requestMark + "/body";
    const std::string messages = replyMark + "/ExtendedInfo";
    const std::string argumentList = messages + "/1/MessageArgs";
    const Words fine{"[Debug] Password exceeds maxlength."};
    const Words noAnswer = lines({fine, {noMessageArray}});
    const Consequence refuseTheEmptyOne = [](const Commands& rest) {
        return sequence({{{"HGET", serviceUri, "ServiceEnabled"},
                          {"LRANGE", membersKey, "0", "-1"},
                          {"HGET", sessionMark, "SessionType"}},
                         refuseAfter(0)(rest)});
    };
    return {
        {{"AUTH"}, {noConnection}, {noConnection}, endThere},
        {{"HGETALL", requestMark}, {noChannel}, {noChannel}, endThere},
        {{"HGET", body, "UserName"}, lines({{notLetIn("")}, unanswered}), fine},
        {{"HGET", body, "Password"},
         lines({{notLetIn(user)}, unanswered}),
         {notLetIn(user)},
         refuseTheEmptyOne},
        {{"HSET", replyMark, "&&ReturnStatus", "FAILURE"}, noAnswer, fine},
        {{"HSET", replyMark, "&&ExtendedInfo", messages}, noAnswer, fine},
        {{"LLEN", messages}, noAnswer, fine},
        {{"HGET", defaults, "REDIS_CONNECTION_DEFAULT_TIMEOUT"},
         fine,
         fine,
         goOnWith("6", lifetime)},
        {{"HSET", messages + "/1", "&&MessageId"}, fine, fine},
        {{"RPUSH", argumentList}, fine, fine},
        {{"RPUSH", argumentList}, fine, fine},
        {{"HSET", messages + "/1", "&&MessageArgs"}, fine, fine},
        {{"EXPIRE", argumentList}, fine, fine},
        {{"LPUSH", messages}, fine, fine},
        {{"EXPIRE", messages}, fine, fine},
        {{"EXPIRE", messages + "/1"}, fine, fine},
        {{"PUBLISH", requestMark + "/return"}, fine, fine},
    };
}

// --- the walk

struct Credentials {
    std::string user;
    std::string password;
    std::string status;  // that they lead to
};

const Credentials theExpired{expired.name, expired.password, "OK"};

class FaultyLogin : public PermissivePamTest {
  protected:
    void SetUp() override {
        // The controller's own accounts, without the delay after a wrong password.
        usePamLines(
            "auth required pam_unix.so nodelay\n"
            "auth required /usr/local/lib/security/pam_session_role.so attribute=aci_group "
            "role=admins:aciadmin; role=operators:aciopera; role=readers:aciuser;\n"
            "account required pam_unix.so\n");
        startStore();
        for (const Account& account : {administrator, operatorAccount, reader}) {
            store().del(account.uri);
        }
        // A lifetime of its own, and a largest event group that is of no use, so that each
        // login asks for it.
        store().hset(defaults, {{"REDIS_CONNECTION_DEFAULT_TIMEOUT", "3600000"},
                                {"MAX_EVENT_GROUP_ID", "10.5"}});
        startDaemon();
        injector.hideSessionsFromExpiry();
        // Settings that are read once have been read after it.
        expectAWholeLogin();
    }

    // One session, 40 event groups drawn, and no traces of requests.
    InsertedSession restore() {
        const std::regex traces("&&/request/.*|&&X-AUTH-TOKEN-.*|(&&)?" + std::string(sessionsUri) +
                                "/(Members|[0-9a-f]{8})");
        for (const std::string& key : store().keys("*")) {
            if (std::regex_match(key, traces)) {
                store().del(key);
            }
        }
        store().hset(sessionsUri, {{"Members@odata.count", "0"}});
        store().hset(eventServiceUri, {{eventGroupCounter, "40"}});
        return frontEnd().insertSession();
    }

    // Logs somebody in who has nothing to do with a fault.
    void expectAWholeLogin() {
        expectWhole(frontEnd().login(administrator.name, administrator.password), administrator,
                    {{"Base.1.12.Created", {}}});
    }
    // The login was the latest one, and there is all that belongs to it.
    void expectWhole(const Reply& reply, const Account& account,
                     const std::vector<Message>& messages) {
        ASSERT_EQ(reply.status(), "OK");
        EXPECT_EQ(reply.messages, messages);
        const std::string uri = reply.location();
        EXPECT_EQ(store().hget(uri, "UserName"), jsonQuoted(account.name));
        EXPECT_EQ(store().hget(uri, "SessionType"), "\"Redfish\"");
        EXPECT_EQ(store().hget(tokenReferenceKey(uri), "XAUTH"), jsonQuoted(reply.token()));
        const std::string token = tokenKey(reply.token());
        EXPECT_EQ(store().hget(token, "SessionID"), uri);
        EXPECT_EQ(store().hget(token, "Privilege"), account.privilege);
        EXPECT_EQ(store().hget(token, "Timeout"), "300");
        const Words members = store().lrange(membersKey);
        EXPECT_EQ(members.empty() ? "" : members.front(), "&&ObjectRef " + uri);
        EXPECT_EQ(timesIn(lifeCycleEvents(store()), 1, uri), 1);
        EXPECT_EQ(timesIn(auditEntries(store()), 2, uri), 1);
    }
    // How many of the records have a word with this text in it at that place.
    static std::ptrdiff_t timesIn(const std::vector<Words>& records, std::size_t place,
                                  const std::string& text) {
        return std::count_if(records.begin(), records.end(), [&](const Words& record) {
            return record.at(place).find(text) != std::string::npos;
        });
    }

    // The log from that line on.
    Words logFrom(std::size_t line) const {
        Words log;
        const std::vector<LogLine> all = logLines();
        for (; line < all.size(); ++line) {
            log.push_back(all[line].tag + " " + all[line].message);
        }
        return log;
    }
    // Each line is one of them, or begins with the one that ends with a blank.
    void expectLog(std::size_t from, const Words& lines) {
        std::vector<testing::Matcher<std::string>> beginnings;
        for (const std::string& line : lines) {
            beginnings.push_back(line.back() == ' ' ? testing::StartsWith(line)
                                                    : testing::Matcher<std::string>(line));
        }
        EXPECT_THAT(logFrom(from), testing::ElementsAreArray(beginnings));
        const std::string tag = "[Error] ";
        for (const std::string& line : lines) {
            if (line.rfind(tag, 0) == 0) {
                expectErrorLine(line.substr(tag.size()));
            }
        }
    }

    Request prepare(const Credentials& credentials) {
        return frontEnd().prepareLogin(credentials.user, credentials.password);
    }

    // The commands of a login that nothing disturbs.
    Commands commandsSentFor(const Credentials& credentials) {
        restore();
        Request request = prepare(credentials);
        injector.record(injector.newConnections());
        request.send();
        EXPECT_EQ(request.reply().status(), credentials.status);
        Commands commands;
        for (const FaultInjector::SentCommand& sent : injector.recorded()) {
            commands.push_back(sent.words);
        }
        return withoutNames(commands);
    }

    void injectAtEachCommand(const Fault& fault, const Credentials& credentials,
                             const std::vector<FaultyCommand>& steps) {
        const Commands commands = commandsSentFor(credentials);
        ASSERT_EQ(commands.size(), steps.size()) << testing::PrintToString(commands);
        for (std::size_t n = 0; n < commands.size(); ++n) {
            SCOPED_TRACE("at command " + std::to_string(n) + ": " +
                         testing::PrintToString(commands[n]));
            const Words& beginning = steps[n].beginning;
            ASSERT_GE(commands[n].size(), beginning.size());
            ASSERT_TRUE(std::equal(beginning.begin(), beginning.end(), commands[n].begin()))
                << "in the place of " << testing::PrintToString(beginning);
            if (fault.fits(commands[n])) {
                inject(fault, credentials, commands, n, steps[n]);
            }
        }
    }

    void inject(const Fault& fault, const Credentials& credentials, const Commands& commands,
                std::size_t n, const FaultyCommand& step) {
        restore();
        const std::size_t logged = logLines().size();
        Request request = prepare(credentials);
        injector.inject(fault, n, injector.newConnections());
        request.send();
        // Logins come one after the other: once this one is over, so is the first.
        expectAWholeLogin();

        expectLog(logged, fault.endsConnection() ? step.lost : step.refused);
        const auto struck = commands.begin() + static_cast<std::ptrdiff_t>(n);
        Commands expected(commands.begin(), fault.isExecuted() ? struck + 1 : struck);
        if (!fault.endsConnection()) {
            const Commands rest = step.consequence(Commands(struck + 1, commands.end()));
            expected.insert(expected.end(), rest.begin(), rest.end());
        }
        EXPECT_EQ(executed(), expected);
        const bool published = !expected.empty() && expected.back().at(0) == "PUBLISH";
        EXPECT_EQ(request.publishedAlready(),
                  published ? std::optional(request.replyKey()) : std::nullopt);
    }

    // What the store has carried out of the login that was struck: the first that came.
    Commands executed() const {
        const std::vector<FaultInjector::SentCommand> seen = injector.recorded();
        Commands commands;
        for (const FaultInjector::SentCommand& sent : seen) {
            if (sent.connection == seen.front().connection && sent.executed) {
                commands.push_back(sent.words);
            }
        }
        return withoutNames(std::move(commands));
    }

    FaultInjector injector{controller};
};

class LoginOnAStore : public FaultyLogin, public testing::WithParamInterface<Fault> {};

TEST_P(LoginOnAStore, LeavesWhatItsStepsSayAndHarmsNoOther) {
    injectAtEachCommand(GetParam(), theExpired, stepsOfALogin(GetParam()));
}

TEST_P(LoginOnAStore, LetsNobodyInWithoutTheRightPassword) {
    injectAtEachCommand(GetParam(), {administrator.name, "a wrong password", "AUTH_FAILED"},
                        stepsOfARefusal(GetParam()));
    injectAtEachCommand(GetParam(), {administrator.name, std::string(1025, 'p'), "FAILURE"},
                        stepsOfAnEarlyRefusal());
}

INSTANTIATE_TEST_SUITE_P(That, LoginOnAStore, testing::ValuesIn(storeFaults()), nameOfFault);

// --- replies that no step can make anything of

class LoginWithoutTexts : public FaultyLogin {
  protected:
    // Has the first command of this name in a login answered so.
    void expectTheEndOfTheThreadAt(const std::string& command) {
        const std::string ends = "The thread of " + std::string(createChannel) +
                                 " ends: basic_string::_M_construct null not valid";
        expectErrorLine(ends);
        const Commands commands = commandsSentFor(theExpired);
        const auto at = std::find_if(commands.begin(), commands.end(),
                                     [&](const Words& words) { return words.at(0) == command; });
        ASSERT_NE(at, commands.end());
        const InsertedSession session = restore();
        Request request = prepare(theExpired);
        injector.inject(arrayWithoutTexts(), static_cast<std::size_t>(at - commands.begin()),
                        injector.newConnections());
        request.send();
        waitForLog(ends);
        waitUntil("nobody serves logins", [&] {
            return store().run({"PUBSUB", "NUMSUB", createChannel}).elements.at(1).integer == 0;
        });
        EXPECT_EQ(executed(), Commands(commands.begin(), at));
        EXPECT_FALSE(request.publishedAlready());
        // The other threads are unharmed, and nobody holds the sessions.
        EXPECT_EQ(frontEnd().patch({{"SessionTimeout", "300"}}).status(), "OK");
        EXPECT_EQ(frontEnd().remove(session.uri).status(), "OK_EMPTY");
    }
};

TEST_F(LoginWithoutTexts, InItsRequestIsTheLastOne) {
    expectTheEndOfTheThreadAt("HGETALL");
}

TEST_F(LoginWithoutTexts, InTheListOfSessionsIsTheLastOne) {
    expectTheEndOfTheThreadAt("LRANGE");
}

// --- a store that stays unwilling

struct Ailment {
    const char* name;
    Words begin;
    Words end;
    std::string reason;  // that a script's failure gives
};
std::ostream& operator<<(std::ostream& out, const Ailment& ailment) {
    return out << ailment.name;
}

class LoginOnAStoreThatTurns : public FaultyLogin, public testing::WithParamInterface<Ailment> {
  protected:
    // What the log says of a login when the store takes no writes from its n-th command on.
    static Words logOf(const Commands& commands, std::size_t n) {
        const auto positionOf = [&](const Words& beginning, std::size_t from = 0) {
            while (!std::equal(beginning.begin(), beginning.end(), commands.at(from).begin())) {
                ++from;
            }
            return from;
        };
        const std::string events =
            "[Error] Failed to generate life cycle event. " + GetParam().reason;
        const std::string entry = "[Error] Failed to generate LogEntry. " + GetParam().reason;
        const std::size_t eventScript = positionOf({"EVALSHA"});
        if (n <= positionOf({"HSET", sessionMark})) {
            return {newPassword, noSession, noReply};
        }
        if (n <= positionOf({"HINCRBY", eventServiceUri})) {
            return {newPassword, noIncrease, noReset, noToken, noReply, events};
        }
        if (n <= positionOf({"HSET", tokenKey(tokenMark)})) {
            return {newPassword, noToken, noReply, events};
        }
        if (n <= positionOf({"LPUSH", membersKey})) {
            return {newPassword, noMember, noReply, events};
        }
        if (n <= positionOf({"HSET", replyMark})) {
            return {newPassword, noReply, events, entry};
        }
        if (n <= eventScript) {
            return {newPassword, events, entry};
        }
        if (n <= positionOf({"EVALSHA"}, eventScript + 1)) {
            return {newPassword, entry};
        }
        return {newPassword};
    }
    static bool has(const Words& log, const std::string& line) {
        return std::find(log.begin(), log.end(), line) != log.end();
    }
};

TEST_P(LoginOnAStoreThatTurns, LeavesWhatItsStepsSayAndHarmsNoOther) {
    const Commands commands = commandsSentFor(theExpired);
    for (std::size_t n = 0; n < commands.size(); ++n) {
        SCOPED_TRACE("at command " + std::to_string(n) + ": " +
                     testing::PrintToString(commands[n]));
        restore();
        const std::size_t logged = logLines().size();
        Request request = prepare(theExpired);
        injector.inject(
            [this](const Words&) {
                controller.connect().run(GetParam().begin);
                return StoreProxy::Verdict::pass;
            },
            n, injector.newConnections());
        request.send();
        // It is published in any case.
        EXPECT_EQ(request.published(), request.replyKey());
        store().run(GetParam().end);

        const Words log = logOf(commands, n);
        expectLog(logged, log);
        EXPECT_EQ(store().exists(request.replyKey()), !has(log, noReply));
        const bool session = !has(log, noSession);
        const bool token = session && !has(log, noToken);
        const bool member = token && !has(log, noMember);
        EXPECT_EQ(store().keys(std::string(sessionsUri) + "/*").size(), session ? 2U : 1U);
        EXPECT_EQ(store().keys(tokenKey("*")).size(), token ? 2U : 1U);
        EXPECT_EQ(store().llen(membersKey), member ? 2 : 1);
        expectAWholeLogin();
    }
}

INSTANTIATE_TEST_SUITE_P(Unwilling, LoginOnAStoreThatTurns,
                         testing::Values(Ailment{"BeingOutOfMemory",
                                                 {"CONFIG", "SET", "maxmemory", "1"},
                                                 {"CONFIG", "SET", "maxmemory", "0"},
                                                 "OOM "},
                                         Ailment{"BeingReadOnly",
                                                 {"REPLICAOF", "127.0.0.1", "1"},
                                                 {"REPLICAOF", "NO", "ONE"},
                                                 "READONLY "}),
                         [](const testing::TestParamInfo<Ailment>& ailment) {
                             return std::string(ailment.param.name);
                         });

// --- a slow store

// Where a command is held until the gate is opened.
class Gate {
  public:
    void hold() {
        std::unique_lock lock(stateMutex);
        isHolding = true;
        hasOpened.wait(lock, [this] { return isOpen; });
    }
    bool holds() const {
        const std::lock_guard lock(stateMutex);
        return isHolding;
    }
    void open() {
        const std::lock_guard lock(stateMutex);
        isOpen = true;
        hasOpened.notify_all();
    }

  private:
    mutable std::mutex stateMutex;
    std::condition_variable hasOpened;
    bool isHolding = false;
    bool isOpen = false;
};

class SlowLogin : public FaultyLogin {
  protected:
    void TearDown() override {
        gate->open();
        FaultyLogin::TearDown();
    }

    std::shared_ptr<Gate> gate = std::make_shared<Gate>();
};

TEST_F(SlowLogin, HoldsNobodyUpAndIsWholeInTheEnd) {
    const Commands commands = commandsSentFor(theExpired);
    for (std::size_t n = 0; n < commands.size(); ++n) {
        SCOPED_TRACE("at command " + std::to_string(n) + ": " +
                     testing::PrintToString(commands[n]));
        const InsertedSession session = restore();
        gate = std::make_shared<Gate>();
        Request request = prepare(theExpired);
        injector.inject(
            [held = gate](const Words&) {
                held->hold();
                return StoreProxy::Verdict::pass;
            },
            n, injector.newConnections());
        request.send();
        waitUntil("the command is held", [this] { return gate->holds(); });

        EXPECT_EQ(frontEnd().patch({{"SessionTimeout", "300"}}).status(), "OK");
        // Only while the sessions are counted they are not to be had.
        const bool counting = commands[n].at(0) == "LRANGE" || commands[n].back() == "SessionType";
        EXPECT_EQ(frontEnd().remove(session.uri).status(), counting ? "UNAVAILABLE" : "OK_EMPTY");
        EXPECT_FALSE(request.publishedAlready());
        gate->open();
        expectWhole(request.reply(), expired,
                    {{"Base.1.12.PasswordChangeRequired", {jsonQuoted(expired.uri)}}});
        EXPECT_EQ(store().hget(sessionsUri, "Members@odata.count"), counting ? "2" : "1");
    }
}

}  // namespace
}  // namespace testbed
