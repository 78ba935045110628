// Requests that are refused early and whose notice names no reply: the answer lies under the empty
// key, and an empty text is published.
#include "support/permissive_pam_test.h"

namespace testbed {
namespace {

class EmptyReplyKey : public PermissivePamTest {
  protected:
    void SetUp() override {
        PermissivePamTest::SetUp();
        // Messages outlive the test.
        store().hset("webDefaultValue", {{"REDIS_CONNECTION_DEFAULT_TIMEOUT", "9000000"}});
    }
    void switchTheServiceOff() { store().hset(serviceUri, {{"ServiceEnabled", "false"}}); }

    void expectRefusal(Request request, const std::string& status, const Fields& message) {
        const Snapshot before = snapshot();
        request.send(request.requestKey() + " ");
        EXPECT_EQ(request.published(), "");
        EXPECT_EQ(store().hgetall(""),
                  (Fields{{"&&ReturnStatus", status}, {"&&ExtendedInfo", "/ExtendedInfo"}}));
        EXPECT_EQ(store().lrange("/ExtendedInfo"), Words{"/ExtendedInfo/1"});
        EXPECT_EQ(store().hgetall("/ExtendedInfo/1"), message);
        Words written{"", "/ExtendedInfo", "/ExtendedInfo/1"};
        if (message.count("&&MessageArgs") != 0) {
            written.emplace_back("/ExtendedInfo/1/MessageArgs");
        }
        EXPECT_EQ(changedSince(before), written);
        EXPECT_FALSE(store().exists(request.replyKey()));
    }
};

TEST_F(EmptyReplyKey, OfALoginWithATooLongPassword) {
    expectRefusal(frontEnd().prepareLogin("alice", std::string(1025, 'p')), "FAILURE",
                  {{"&&MessageId", "Base.1.12.StringValueTooLong"},
                   {"&&MessageArgs", "/ExtendedInfo/1/MessageArgs"}});
    EXPECT_EQ(store().lrange("/ExtendedInfo/1/MessageArgs"),
              (Words{"\"(password string)\"", "\"1024\""}));
}

TEST_F(EmptyReplyKey, OfALoginWhileTheServiceIsSwitchedOff) {
    switchTheServiceOff();
    expectRefusal(frontEnd().prepareLogin("alice", "a password"), "UNAVAILABLE",
                  {{"&&MessageId", "ExtendedError.1.2.ServiceDisabled"}});
}

TEST_F(EmptyReplyKey, OfALogoutFromASessionOfAnotherType) {
    expectErrorLine("Request SessionType is not Redfish.");
    const InsertedSession session = frontEnd().insertSession({.sessionType = "\"Other\""});
    expectRefusal(frontEnd().prepareRemove(session.uri), "FAILURE",
                  {{"&&MessageId", "ExtendedError.1.2.UnprocessableEntity"}});
}

TEST_F(EmptyReplyKey, OfALogoutWhileTheServiceIsSwitchedOff) {
    const InsertedSession session = frontEnd().insertSession();
    switchTheServiceOff();
    expectRefusal(frontEnd().prepareRemove(session.uri), "UNAVAILABLE",
                  {{"&&MessageId", "ExtendedError.1.2.ServiceDisabled"}});
}

TEST_F(EmptyReplyKey, OfALoginThatIsRefusedLaterWritesNothing) {
    usePamTest("auth=PAM_AUTH_ERR");
    const Snapshot before = snapshot();
    Request request = frontEnd().prepareLogin("alice", "a password");
    request.send(request.requestKey() + " ");
    EXPECT_EQ(request.published(), "");
    EXPECT_EQ(changedSince(before), Words{});
}

}  // namespace
}  // namespace testbed
