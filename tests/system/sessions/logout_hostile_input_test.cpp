// Logouts whose target, session, user or keys hold what a client may think of. Only the
// session that the target names is touched, and the others are told of exactly that one.
#include "support/permissive_pam_test.h"

namespace testbed {
namespace {

class HostileLogout : public PermissivePamTest {
  protected:
    std::string uriOf(const std::string& identifier) {
        return std::string(sessionsUri) + "/" + identifier;
    }

    // The keys that every whole deletion of a session changes, besides the session's own.
    Words keysOfTheService() { return {sessionsUri, membersKey, eventServiceUri, "&&EventStream"}; }

    // Logs out with this target and expects that exactly this session goes.
    void expectGone(const std::string& target, const InsertedSession& session) {
        Words expected = keysOfTheService();
        expected.insert(expected.end(),
                        {session.uri, tokenReferenceKey(session.uri), tokenKey(session.token)});
        expectOk(target, expected);
        EXPECT_EQ(count(), "0");
        EXPECT_EQ(eventTarget(), session.uri);
    }
    // The same where no session has the identifier.
    void expectNothingGone(const std::string& target, const std::string& identifier) {
        expectOk(target, {eventServiceUri, "&&EventStream"});
        EXPECT_EQ(eventTarget(), uriOf(identifier));
    }

    const Words identifiers{
        "a b c",
        " ",
        " leading and trailing ",
        "%s%n%d%%",
        "%s%s%s%s%s%s%s%s%s%s%s%s%s%s%s%s",
        "%",
        "\"quoted\"",
        "'single' `back` $(id) ;",
        "line\nfeed\r\n",
        "back\\slash",
        "*",
        "?[a-z]",
        "..",
        ".",
        "&&ObjectRef x",
        "&&EXIT",
        "x y z",
        "\xc3\xbc\xff\x01\x7f",
        "{tag}",
    };

  private:
    void expectOk(const std::string& target, Words expected) {
        // The audit log has its own tests: names are what splits there.
        store().del(auditEntriesUri);
        store().del("&&EventStream");
        const Snapshot before = snapshot();
        EXPECT_EQ(frontEnd().remove(target).status(), "OK_EMPTY");
        std::sort(expected.begin(), expected.end());
        EXPECT_EQ(changedSince(before), expected);
        EXPECT_EQ(lifeCycleEvents(store()).size(), 2U);
    }
    std::string count() { return store().hget(sessionsUri, "Members@odata.count"); }
    // The resource that the event service was told to be deleted.
    std::string eventTarget() { return lifeCycleEvents(store()).front().at(1); }
};

TEST_F(HostileLogout, RemovesExactlyTheSessionWhateverItsIdentifierHolds) {
    // What a target that falls apart would hit.
    for (const char* bystander : {"a", "b", "c", "x", "y", "z", "leading", "(nil)", "%s"}) {
        store().hset(bystander, {{"SessionType", "\"Redfish\""}});
        store().hset(uriOf(bystander), {{"SessionType", "\"Redfish\""}});
        store().hset(tokenReferenceKey(uriOf(bystander)), {{"XAUTH", "\"b\""}});
    }
    for (const std::string& identifier : identifiers) {
        SCOPED_TRACE(identifier);
        const InsertedSession session = frontEnd().insertSession({.identifier = identifier});
        expectGone(session.uri, session);
    }
}

TEST_F(HostileLogout, TouchesNothingWhereNoSessionHasTheIdentifier) {
    frontEnd().insertSession();
    for (const std::string& identifier : identifiers) {
        SCOPED_TRACE(identifier);
        expectNothingGone(uriOf(identifier), identifier);
    }
    expectNothingGone(uriOf(""), "");
    expectNothingGone("/", "");
}

TEST_F(HostileLogout, OfTheServicesOwnResourcesTouchesNoneOfThem) {
    frontEnd().insertSession();
    expectNothingGone(serviceUri, "SessionService");
    expectNothingGone(sessionsUri, "Sessions");
    expectNothingGone("/redfish/v1/AccountService/Accounts/1", "1");
    expectNothingGone("webDefaultValue", "webDefaultValue");
    // Lists that lie where the tokens of sessions with such identifiers would be named.
    for (const char* list : {"Members", "POSTCREATEQ", "DELETEQ"}) {
        expectNothingGone(uriOf(list), list);
    }
}

TEST_F(HostileLogout, RemovesASessionWhoseIdentifierIsKilobytesLong) {
    for (const std::size_t length : {400, 512, 5000, 70'000}) {
        SCOPED_TRACE(length);
        const InsertedSession session =
            frontEnd().insertSession({.identifier = std::string(length, 'x')});
        const InsertedSession shorter =
            frontEnd().insertSession({.identifier = std::string(length - 1, 'x'), .member = false});
        expectGone(session.uri, session);
        EXPECT_TRUE(store().exists(shorter.uri));
    }
}

TEST_F(HostileLogout, FindsTheIdentifierBehindKilobytesOfText) {
    const InsertedSession session = frontEnd().insertSession();
    expectGone(std::string(70'000, '%') + "/" + session.identifier, session);
}

TEST_F(HostileLogout, EndsATargetAtItsFirstZeroByte) {
    const InsertedSession session = frontEnd().insertSession();
    expectGone(session.uri + std::string("\0/more", 6), session);
}

TEST_F(HostileLogout, RemovesOneTokenRecordWhateverTheTokenHolds) {
    for (const char* token : {"two words", "%s%n", "line\nfeed", "*", " ", "a' b"}) {
        SCOPED_TRACE(token);
        store().hset("words", {{"UserName", "somebody"}});
        const InsertedSession session = frontEnd().insertSession({.token = token});
        expectGone(session.uri, session);
    }
}

TEST_F(HostileLogout, SplitsAUserNameAtItsBlanksForTheAuditLogAlone) {
    expectErrorLine("Failed to generate LogEntry. ");
    struct Case {
        const char* name;
        Words pieces;
    };
    for (const Case& given : {Case{"two words", {"two", "words"}}, Case{" leading", {"leading"}},
                              Case{"a  b ", {"a", "b"}}, Case{" ", {}}}) {
        const InsertedSession session = frontEnd().insertSession({.userName = given.name});
        Monitor monitor = controller.monitor();
        EXPECT_EQ(frontEnd().remove(session.uri).status(), "OK_EMPTY");
        Words pieces;
        for (const MonitoredCommand& command : monitor.soFar()) {
            if (command.words.size() > 8 && command.words[3] == "CREATE") {
                pieces.assign(command.words.begin() + 9, command.words.end());
            }
        }
        EXPECT_EQ(pieces, given.pieces);
        EXPECT_FALSE(store().exists(session.uri));
    }
}

TEST_F(HostileLogout, WritesANameIntoTheAuditLogAsItIs) {
    for (const char* name : {"%s%n%d", "o'brien", "$(id)", "line\nfeed", "*"}) {
        frontEnd().remove(
            frontEnd()
                .insertSession({.session = {{"UserName", '"' + std::string(name) + '"'}}})
                .uri);
        const std::string written = auditEntries(store()).back().at(1);
        const std::string expected =
            name == std::string("line\nfeed") ? "[\"line\\nfeed\"]" : "[" + jsonQuoted(name) + "]";
        EXPECT_EQ(written, expected);
    }
}

TEST_F(HostileLogout, AnswersUnderKeysAndOnChannelsOfAnyText) {
    for (const char* text : {"two words", "%s%n", "line\nfeed", "\"quoted\"", "*"}) {
        SCOPED_TRACE(text);
        const std::string prefix = "&&/request/" + std::string(text);
        const RequestOptions options{.replyKey = prefix + "/reply",
                                     .returnChannel = prefix + "/return"};
        const Reply reply = frontEnd().remove(frontEnd().insertSession().uri, options);
        EXPECT_EQ(reply.published, options.replyKey);
        EXPECT_EQ(reply.fields, (Fields{{"&&ReturnStatus", "OK_EMPTY"},
                                        {"&&ExtendedInfo", prefix + "/ExtendedInfo"}}));

        store().hset(serviceUri, {{"ServiceEnabled", "false"}});
        const Reply refusal = frontEnd().remove("/any", options);
        EXPECT_EQ(refusal.messages,
                  (std::vector<Message>{{"ExtendedError.1.2.ServiceDisabled", {}}}));
        store().hset(serviceUri, {{"ServiceEnabled", "true"}});
    }
}

TEST_F(HostileLogout, CutsOnlyTheMessageKeysOfALongReplyKey) {
    store().hset(serviceUri, {{"ServiceEnabled", "false"}});
    const std::string replyKey = "&&/request/" + std::string(600, 'r');
    const std::string list = replyKey + "/ExtendedInfo";
    const Reply reply = frontEnd().remove("/any", {.replyKey = replyKey});
    EXPECT_EQ(reply.published, replyKey);
    EXPECT_EQ(reply["&&ExtendedInfo"], list);
    EXPECT_EQ(store().lrange(list), Words{(list + "/1").substr(0, 511)});
    EXPECT_EQ(reply.messages, (std::vector<Message>{{"ExtendedError.1.2.ServiceDisabled", {}}}));
}

}  // namespace
}  // namespace testbed
