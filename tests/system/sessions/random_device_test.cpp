// How the random device is used for the names of a session.
#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <cstring>

#include "support/permissive_pam_test.h"

namespace testbed {
namespace {

// Notes how a file is used.
class Watch {
  public:
    explicit Watch(const std::string& file) : descriptor(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
        if (inotify_add_watch(descriptor, file.c_str(), IN_OPEN | IN_ACCESS | IN_CLOSE) < 0) {
            throw Failure(file + " cannot be watched.");
        }
    }
    ~Watch() { close(descriptor); }
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;

    // What was done with it since the last call, in order.
    Words uses() const {
        Words uses;
        std::array<char, 16384> buffer{};
        ssize_t length = 0;
        while ((length = read(descriptor, buffer.data(), buffer.size())) > 0) {
            const char* at = buffer.data();
            while (at < buffer.data() + length) {
                inotify_event event{};
                std::memcpy(&event, at, sizeof(event));
                uses.emplace_back((event.mask & IN_OPEN) != 0     ? "open"
                                  : (event.mask & IN_ACCESS) != 0 ? "read"
                                                                  : "close");
                at += sizeof(event) + event.len;
            }
        }
        return uses;
    }

  private:
    int descriptor;
};

class RandomDevice : public PermissivePamTest {
  protected:
    // Opened, read and closed so many times.
    static Words openings(int count) {
        Words uses;
        for (int i = 0; i < count; ++i) {
            uses.insert(uses.end(), {"open", "read", "close"});
        }
        return uses;
    }
};

TEST_F(RandomDevice, IsOpenedOnceForAnIdentifierAndEightTimesForAToken) {
    restart(withRandomBytes(randomBytes + "these are never read"));
    const Watch watch(controller.path("/random"));
    EXPECT_EQ(login().token(), randomToken);
    EXPECT_EQ(watch.uses(), openings(9));
}

TEST_F(RandomDevice, IsOpenedOnceMoreForEachIdentifierThatIsTaken) {
    restart(withRandomBytes(randomBytes));
    frontEnd().insertSession({.identifier = randomIdentifier});
    Monitor monitor = controller.monitor();
    const Watch watch(controller.path("/random"));
    Request request = frontEnd().prepareLogin("alice", "a password");
    request.send();
    const auto asksForIt = [](const MonitoredCommand& command) {
        return command.words == Words{"HGET", randomUri, "Id"};
    };
    monitor.until(asksForIt);
    store().run({"HDEL", randomUri, "Id"});
    EXPECT_EQ(request.reply().location(), randomUri);
    int identifiers = 1;
    for (const MonitoredCommand& command : monitor.soFar()) {
        identifiers += asksForIt(command) ? 1 : 0;
    }
    EXPECT_EQ(watch.uses(), openings(identifiers + 8));
}

TEST_F(RandomDevice, ThatGivesLessThanAskedForStillGivesAllDigits) {
    restart(withRandomBytes("\x01"));
    const Reply reply = login();
    EXPECT_EQ(reply.location().size(), std::string(sessionsUri).size() + 1 + 8);
    EXPECT_EQ(reply.token().size(), 64U);
    EXPECT_EQ(reply.token().find_first_not_of("0123456789abcdef"), std::string::npos);
}

TEST_F(RandomDevice, IsNotTouchedByALoginThatIsRefused) {
    restart(withRandomBytes(randomBytes));
    usePamTest("auth=PAM_AUTH_ERR");
    const Watch watch(controller.path("/random"));
    EXPECT_EQ(login().status(), "AUTH_FAILED");
    EXPECT_EQ(watch.uses(), Words{});
}

}  // namespace
}  // namespace testbed
