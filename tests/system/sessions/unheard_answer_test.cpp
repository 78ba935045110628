// Requests whose answer nobody waits for: they are served like any other.
#include <functional>

#include "support/permissive_pam_test.h"

namespace testbed {
namespace {

class UnheardAnswer : public PermissivePamTest {
  protected:
    // Has the request answered where nobody listens, and waits until it has been served.
    void serve(Request& request, const std::function<void()>& serveAnother) {
        store().hset(request.requestKey(), {{"&&ReturnChannel", "nobody's"}});
        request.send();
        serveAnother();
        EXPECT_FALSE(request.publishedAlready());
    }
    void serveLogin(Request& request) {
        serve(request, [this] { login(); });
    }
    void serveLogout(Request& request) {
        serve(request, [this] { frontEnd().remove(frontEnd().insertSession().uri); });
    }
};

TEST_F(UnheardAnswer, OfALoginLeavesTheSessionAndTheReply) {
    Request request = frontEnd().prepareLogin("alice", "a password");
    serveLogin(request);
    const Fields reply = store().hgetall(request.replyKey());
    EXPECT_EQ(reply.at("&&ReturnStatus"), "OK");
    EXPECT_TRUE(store().exists(reply.at("&&Location")));
    EXPECT_EQ(store().llen(membersKey), 2);
    EXPECT_EQ(store().hgetall("nobody's"), (Fields{{"&&ResponseData", ""}}));
}

TEST_F(UnheardAnswer, OfARefusedLoginLeavesTheReply) {
    Request request = frontEnd().prepareLogin("alice", std::string(1025, 'p'));
    serveLogin(request);
    EXPECT_EQ(store().hget(request.replyKey(), "&&ReturnStatus"), "FAILURE");
    EXPECT_EQ(store().llen(membersKey), 1);
}

TEST_F(UnheardAnswer, OfALogoutLeavesNoSessionAndTheReply) {
    const InsertedSession session = frontEnd().insertSession();
    Request request = frontEnd().prepareRemove(session.uri);
    serveLogout(request);
    EXPECT_EQ(store().hget(request.replyKey(), "&&ReturnStatus"), "OK_EMPTY");
    EXPECT_FALSE(store().exists(session.uri));
}

}  // namespace
}  // namespace testbed
