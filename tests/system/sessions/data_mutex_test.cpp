// What does not keep the others out: a logout that is about to publish its answer.
#include <atomic>

#include "support/permissive_pam_test.h"
#include "support/store_proxy.h"

namespace testbed {
namespace {

class LogoutThatPublishes : public PermissivePamTest {
  protected:
    void SetUp() override {
        proxy.setFilter([this](const Words& command) {
            if (command == Words{"PUBLISH", channel, replyKey}) {
                reached = true;
                held.wait(true);
            }
            return StoreProxy::Verdict::pass;
        });
        PermissivePamTest::SetUp();
    }
    void TearDown() override {
        release();
        PermissivePamTest::TearDown();
    }

    // A logout that has come as far as its answer.
    Request heldLogout() {
        Request logout = frontEnd().prepareRemove(frontEnd().insertSession().uri,
                                                  {.replyKey = replyKey, .returnChannel = channel});
        logout.send();
        waitUntil("the answer is held", [this] { return reached.load(); });
        return logout;
    }
    void release() {
        held = false;
        held.notify_all();
    }

    const std::string replyKey = "&&/request/held/reply";
    const std::string channel = "&&/request/held/return";
    std::atomic<bool> reached = false;
    std::atomic<bool> held = true;
    StoreProxy proxy{controller};
};

TEST_F(LogoutThatPublishes, LetsALoginCountTheSessions) {
    Request logout = heldLogout();
    EXPECT_EQ(login().status(), "OK");
    EXPECT_FALSE(logout.publishedAlready());
    release();
    EXPECT_EQ(logout.reply().status(), "OK_EMPTY");
}

TEST_F(LogoutThatPublishes, LetsSessionsExpire) {
    Request logout = heldLogout();
    const InsertedSession idle = frontEnd().insertSession({.timeout = "0"});
    waitUntilExpired(2);
    EXPECT_FALSE(store().exists(idle.uri));
    EXPECT_FALSE(logout.publishedAlready());
    release();
    EXPECT_EQ(logout.reply().status(), "OK_EMPTY");
}

}  // namespace
}  // namespace testbed
