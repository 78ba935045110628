// What the daemon asks of the system where only the call itself shows it.
#include <algorithm>
#include <atomic>

#include "support/store_proxy.h"
#include "support/system_test.h"

// A sanitizer stands in front of the same calls itself.
#if !TESTBED_SANITIZED

namespace testbed {
namespace {

using testing::Contains;
using testing::Ne;
using testing::Not;
using testing::StartsWith;

class SystemCalls : public SystemTest {
  protected:
    void SetUp() override {
        constexpr const char* library = "/usr/local/lib/noted_calls.so";
        controller.install(TEST_NOTED_CALLS, library);
        startStore();
        startDaemon({.environment = {{"LD_PRELOAD", library}, {"NOTED_CALLS", notesFile}}});
    }

    void TearDown() override {
        held = false;
        // Everything that was published before is handled to its end.
        frontEnd().patch({{"Unknown", "1"}});
        SystemTest::TearDown();
    }

    Words notes() { return splitLines(controller.readFile(notesFile)); }
    long count(const std::string& note) {
        const Words lines = notes();
        return std::count(lines.begin(), lines.end(), note);
    }

    static constexpr const char* notesFile = "/tmp/noted.calls";
    std::atomic<bool> isAnswered = false;
    std::atomic<bool> wasOnDisk = false;
    std::atomic<bool> held = false;
    std::atomic<bool> inside = false;
    StoreProxy proxy{controller};
};

TEST_F(SystemCalls, BringThePropertyFileToTheDiskBeforeAPatchIsAnswered) {
    controller.writeFile(persistentFile, "SessionTimeout=\n");
    const std::string note = std::string("fsync ") + persistentFile;
    proxy.setFilter([this, note](const Words& command) {
        if (command[0] == "PUBLISH" && !isAnswered.exchange(true)) {
            wasOnDisk = count(note) > 0;
        }
        return StoreProxy::Verdict::pass;
    });
    EXPECT_EQ(frontEnd().patch({{"SessionTimeout", "600"}}).status(), "OK");
    EXPECT_TRUE(isAnswered);
    EXPECT_TRUE(wasOnDisk) << testing::PrintToString(notes());
    EXPECT_EQ(controller.readFile(persistentFile), "SessionTimeout=600\n");
}

TEST_F(SystemCalls, MakeNoSocketThatStartedProgramsInherit) {
    frontEnd().patch({{"SessionTimeout", "600"}});
    EXPECT_THAT(notes(), Contains("socket private"));
    EXPECT_THAT(notes(), Not(Contains("socket open")));
}

TEST_F(SystemCalls, LetTheExpirySleepForASecondBetweenItsPasses) {
    waitUntil("there are pauses", [this] { return count("usleep 1000000") > 1; });
    EXPECT_THAT(notes(), Not(Contains(AllOf(StartsWith("usleep"), Ne("usleep 1000000")))));
}

TEST_F(SystemCalls, WaitForAPassTwentyTimesATenthOfASecond) {
    held = true;
    proxy.setFilter([this](const Words& command) {
        // What each pass begins with.
        if (command == Words{"LRANGE", membersKey, "0", "-1"}) {
            inside = true;
            waitUntil("the pass may go on", [this] { return !held; });
        }
        return StoreProxy::Verdict::pass;
    });
    waitUntil("the expiry is inside a pass", [this] { return inside.load(); });
    EXPECT_EQ(frontEnd().remove(frontEnd().insertSession().uri).status(), "UNAVAILABLE");
    // After the last try of 21 nothing is waited for.
    EXPECT_EQ(count("wait"), 20);
}

}  // namespace
}  // namespace testbed

#endif
