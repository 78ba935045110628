// Logins that end early: what the client is told, what is logged, and what stays in the
// store. Nothing is rolled back.
#include <condition_variable>
#include <mutex>

#include "support/permissive_pam_test.h"
#include "support/store_proxy.h"

namespace testbed {
namespace {

class RefusedLogin : public PermissivePamTest {
  protected:
    // A reply with nothing but its status and at most one message, whose list stands beside
    // the reply.
    void expectReply(const Reply& reply, const std::string& status,
                     const std::vector<Message>& messages) {
        const std::string list =
            reply.published.substr(0, reply.published.rfind('/') + 1) + "ExtendedInfo";
        EXPECT_EQ(reply.fields, (Fields{{"&&ReturnStatus", status}, {"&&ExtendedInfo", list}}));
        EXPECT_EQ(reply.messages, messages);
    }
    // The same, with a list below the reply.
    void expectEarlyReply(const Reply& reply, const std::string& status,
                          const std::vector<Message>& messages) {
        EXPECT_EQ(reply.fields, (Fields{{"&&ReturnStatus", status},
                                        {"&&ExtendedInfo", reply.published + "/ExtendedInfo"}}));
        EXPECT_EQ(reply.messages, messages);
    }
    Reply refused(const RequestOptions& options = {}) {
        snapshotBefore = snapshot();
        return login(options);
    }
    void expectNothingStays() { EXPECT_EQ(changedSince(snapshotBefore), Words{}); }

    Snapshot snapshotBefore;
};

// --- without an answer

TEST_F(RefusedLogin, WithoutAReturnChannelIsLoggedOnly) {
    expectErrorLine("Create session: &&ReturnChannel not found.");
    const Snapshot before = snapshot();
    Request request =
        frontEnd().prepareLogin("alice", "a password", {.leaveOut = {"&&ReturnChannel"}});
    request.send();
    waitForLog("Create session: &&ReturnChannel not found.");
    EXPECT_FALSE(store().exists(request.replyKey()));
    EXPECT_EQ(changedSince(before), Words{});
    // The next one is served.
    EXPECT_EQ(login().status(), "OK");
    EXPECT_FALSE(request.publishedAlready());
}

TEST_F(RefusedLogin, WithAnEmptyReturnChannelIsLoggedOnly) {
    expectErrorLine("Create session: &&ReturnChannel not found.");
    Request request = frontEnd().prepareLogin("alice", "a password");
    store().hset(request.requestKey(), {{"&&ReturnChannel", ""}});
    request.send();
    waitForLog("Create session: &&ReturnChannel not found.");
    EXPECT_FALSE(store().exists(request.replyKey()));
}

TEST_F(RefusedLogin, WithoutABodyIsLoggedOnly) {
    expectErrorLine("Create session: &&RequestData not found.");
    for (const bool present : {true, false}) {
        Request request =
            frontEnd().prepareLogin("alice", "a password", {.leaveOut = {"&&RequestData"}});
        if (present) {
            store().hset(request.requestKey(), {{"&&RequestData", ""}});
        }
        request.send();
        waitUntil("the request is refused", [&] {
            return countLogged("Create session: &&RequestData not found.") == (present ? 1 : 2);
        });
        EXPECT_FALSE(request.publishedAlready());
        EXPECT_FALSE(store().exists(request.replyKey()));
    }
}

TEST_F(RefusedLogin, WhoseRecordIsMissingIsLoggedOnly) {
    expectErrorLine("Create session: &&ReturnChannel not found.");
    store().publish(createChannel, "&&/request/nowhere &&/request/nowhere/reply");
    waitForLog("Create session: &&ReturnChannel not found.");
    EXPECT_FALSE(store().exists("&&/request/nowhere/reply"));
}

TEST_F(RefusedLogin, WithoutAStoreConnectionIsLoggedOnly) {
    expectErrorLine("Failed to connect to Redis.");
    // The daemon's password no longer fits; its subscriptions go on.
    Request request = frontEnd().prepareLogin("alice", "a password");
    store().run({"CONFIG", "SET", "requirepass", "another"});
    request.send();
    waitForLog("Failed to connect to Redis.");
    store().run({"CONFIG", "SET", "requirepass", controller.storePassword()});
    EXPECT_EQ(login().status(), "OK");
    EXPECT_EQ(store().llen(membersKey), 1);
    EXPECT_FALSE(store().exists(request.replyKey()));
    EXPECT_FALSE(request.publishedAlready());
}

// --- before anything is looked at

TEST_F(RefusedLogin, WithAPasswordOf1025Characters) {
    const Snapshot before = snapshot();
    const Reply reply = frontEnd().login("alice", std::string(1025, 'p'));
    expectEarlyReply(reply, "FAILURE",
                     {{"Base.1.12.StringValueTooLong", {"\"(password string)\"", "\"1024\""}}});
    EXPECT_EQ(tagsOf("Password exceeds maxlength."), Words{"[Debug]"});
    EXPECT_EQ(changedSince(before), Words{});
    EXPECT_TRUE(pamRecords().empty());
}

TEST_F(RefusedLogin, WithATooLongPasswordIsToldSoEvenWhenTheServiceIsOff) {
    store().hset(serviceUri, {{"ServiceEnabled", "false"}});
    const Reply reply = frontEnd().login("alice", std::string(100000, 'p'));
    EXPECT_EQ(reply.status(), "FAILURE");
    EXPECT_EQ(countLogged("SessionService disabled."), 0);
}

TEST_F(RefusedLogin, WhileTheServiceIsSwitchedOff) {
    store().hset(serviceUri, {{"ServiceEnabled", "false"}});
    expectEarlyReply(refused(), "UNAVAILABLE", {{"ExtendedError.1.2.ServiceDisabled", {}}});
    EXPECT_EQ(tagsOf("SessionService disabled."), Words{"[Debug]"});
    expectNothingStays();
    EXPECT_TRUE(pamRecords().empty());
}

TEST_F(RefusedLogin, WhileTheServiceIsSwitchedOffHidesTheLimit) {
    for (int i = 0; i < 8; ++i) {
        frontEnd().insertSession();
    }
    store().hset(serviceUri, {{"ServiceEnabled", "false"}});
    EXPECT_EQ(refused().messages,
              (std::vector<Message>{{"ExtendedError.1.2.ServiceDisabled", {}}}));
}

// --- the limit

TEST_F(RefusedLogin, BeyondEightSessions) {
    for (int i = 0; i < 7; ++i) {
        frontEnd().insertSession();
    }
    EXPECT_EQ(login().status(), "OK");
    const std::size_t asked = pamRecords().size();
    expectReply(refused(), "UNAVAILABLE", {{"Base.1.12.SessionLimitExceeded", {}}});
    expectNothingStays();
    EXPECT_EQ(pamRecords().size(), asked) << "PAM was asked although there is no room";
}

TEST_F(RefusedLogin, BeyondTheLimitLeavesRoomForTheNextOnceOneIsGone) {
    const InsertedSession inserted = frontEnd().insertSession();
    for (int i = 0; i < 7; ++i) {
        frontEnd().insertSession();
    }
    EXPECT_EQ(refused().status(), "UNAVAILABLE");
    EXPECT_EQ(frontEnd().remove(inserted.uri).status(), "OK_EMPTY");
    EXPECT_EQ(login().status(), "OK");
}

// The expiry thread is held at the last command of an expiry, the audit entry, so that it keeps the
// sessions to itself, and gives them up as soon as it is released.
class LoginDuringAnExpiry : public RefusedLogin {
  protected:
    void SetUp() override {
        proxy.setFilter([this](const Words& command) {
            std::unique_lock lock(mutex);
            if (command.size() > 6 && command[6] == "AuditEvent.1.1.UserLogout") {
                held = true;
                changed.notify_all();
                changed.wait(lock, [this] { return released; });
            }
            return StoreProxy::Verdict::pass;
        });
        PermissivePamTest::SetUp();
        frontEnd().insertSession({.timeout = "0"});
        std::unique_lock lock(mutex);
        changed.wait(lock, [this] { return held; });
    }
    void TearDown() override {
        release();
        waitUntilExpired(1);
        PermissivePamTest::TearDown();
    }
    void release() {
        const std::lock_guard lock(mutex);
        released = true;
        changed.notify_all();
    }

    std::mutex mutex;
    std::condition_variable changed;
    bool held = false;
    bool released = false;
    StoreProxy proxy{controller};
};

TEST_F(LoginDuringAnExpiry, IsRefusedAfterAWhileWithoutAMessage) {
    const Reply reply = refused();
    expectReply(reply, "UNAVAILABLE", {});
    EXPECT_FALSE(store().exists(reply["&&ExtendedInfo"]));
    expectNothingStays();
    EXPECT_TRUE(pamRecords().empty());
}

TEST_F(LoginDuringAnExpiry, IsRefusedForTheLimitWhenThereAreEightAnyway) {
    for (int i = 0; i < 8; ++i) {
        frontEnd().insertSession();
    }
    expectReply(refused(), "UNAVAILABLE", {{"Base.1.12.SessionLimitExceeded", {}}});
    expectNothingStays();
}

TEST_F(LoginDuringAnExpiry, IsServedWhenTheExpiryIsOverInTime) {
    Request request = frontEnd().prepareLogin("alice", "a password");
    Monitor monitor = controller.monitor();
    request.send();
    monitor.until([](const MonitoredCommand& command) {
        return command.words == Words{"HGET", serviceUri, "ServiceEnabled"};
    });
    release();
    EXPECT_EQ(request.reply().status(), "OK");
}

// --- who it is and what they may do

TEST_F(RefusedLogin, WhenPamRefusesThePassword) {
    usePamTest("auth=PAM_AUTH_ERR");
    expectReply(refused(), "AUTH_FAILED", {{"ExtendedError.1.2.InvalidCredentials", {}}});
    EXPECT_EQ(tagsOf("alice does not pass the PAM auth."), Words{"[Debug]"});
    expectNothingStays();
}

TEST_F(RefusedLogin, WhenPamRefusesTheAccount) {
    usePamTest(allPrivileges + "acct=PAM_ACCT_EXPIRED");
    expectReply(refused(), "AUTH_FAILED", {{"ExtendedError.1.2.InvalidCredentials", {}}});
    expectNothingStays();
}

TEST_F(RefusedLogin, WhenTheBodyHasNeitherNameNorPassword) {
    usePamTest(allPrivileges + "password=secret");
    expectReply(refused({.leaveOutOfBody = {"UserName", "Password"}}), "AUTH_FAILED",
                {{"ExtendedError.1.2.InvalidCredentials", {}}});
    EXPECT_EQ(pamRecords().front().at("user"), "");
    EXPECT_EQ(pamRecords().front().at("answer0"), "");
    expectNothingStays();
}

TEST_F(RefusedLogin, WithoutThePrivilege) {
    usePamTest("env=PRIVILEGES=9");
    expectReply(refused({.fields = {{"&&OperationPrivileges", "2,4"}}}), "FORBIDDEN",
                {{"Base.1.12.InsufficientPrivilege", {}}});
    expectNothingStays();
}

TEST_F(RefusedLogin, WithoutThePrivilegeThoughThePasswordMustBeChanged) {
    usePamTest("env=PRIVILEGES=9 acct=PAM_NEW_AUTHTOK_REQD");
    expectReply(refused({.fields = {{"&&OperationPrivileges", "2"}}}), "FORBIDDEN",
                {{"Base.1.12.InsufficientPrivilege", {}}});
    expectNothingStays();
}

TEST_F(RefusedLogin, KeepsTheServiceGoing) {
    usePamTest("auth=PAM_AUTH_ERR");
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(login().status(), "AUTH_FAILED");
    }
    usePamTest(allPrivileges);
    EXPECT_EQ(login().status(), "OK");
}

// --- half-made sessions stay

class HalfMadeSession : public RefusedLogin {
  protected:
    void SetUp() override {
        usePamTest(allPrivileges);
        startStore();
        startDaemon(withRandomBytes(randomBytes));
    }
};

TEST_F(HalfMadeSession, WhoseResourceIsNotTakenLeavesNothing) {
    expectErrorLine("Failed to add session entry.");
    corrupt(randomUri);
    expectReply(refused(), "FAILURE", {{"ExtendedError.1.2.DatabaseOperationError", {}}});
    EXPECT_EQ(countLogged("Failed to add session entry."), 1);
    expectNothingStays();
}

TEST_F(HalfMadeSession, WhoseTokenRecordIsNotTakenKeepsResourceAndReference) {
    expectErrorLine("Failed to create meta session table.");
    corrupt(tokenKey(randomToken));
    expectReply(refused(), "FAILURE", {{"ExtendedError.1.2.DatabaseOperationError", {}}});
    EXPECT_EQ(countLogged("Failed to create meta session table."), 1);
    EXPECT_EQ(changedSince(snapshotBefore),
              (Words{tokenReferenceKey(randomUri), "&&EventStream", eventServiceUri, randomUri}));
    EXPECT_EQ(lifeCycleEvents(store()), (std::vector<Words>{{"add", randomUri, "Session", "1"}}));
    EXPECT_EQ(store().hget(tokenReferenceKey(randomUri), "XAUTH"), jsonQuoted(randomToken));
    EXPECT_EQ(store().hget(randomUri, "&&CRUDprefix"), "&&" + std::string(sessionsUri));
}

TEST_F(HalfMadeSession, ThatTheCollectionDoesNotTakeKeepsItsTokenRecordToo) {
    expectErrorLine("Failed to add session entry to Members.");
    corrupt(membersKey);
    expectReply(refused(), "FAILURE", {{"ExtendedError.1.2.UnprocessableEntity", {}}});
    EXPECT_EQ(countLogged("Failed to add session entry to Members."), 1);
    EXPECT_EQ(changedSince(snapshotBefore),
              (Words{tokenReferenceKey(randomUri), "&&EventStream", tokenKey(randomToken),
                     eventServiceUri, randomUri}));
    EXPECT_EQ(lifeCycleEvents(store()), (std::vector<Words>{{"add", randomUri, "Session", "1"}}));
    EXPECT_EQ(store().hget(sessionsUri, "Members@odata.count"), "0");
}

}  // namespace
}  // namespace testbed
