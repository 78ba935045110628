// What the daemon asks of the system where only the call itself shows it.
#include <atomic>

#include "support/store_proxy.h"
#include "support/system_test.h"

// A sanitizer stands in front of the same calls itself.
#if !TESTBED_SANITIZED

namespace testbed {
namespace {

class SystemCalls : public SystemTest {
  protected:
    void SetUp() override {
        constexpr const char* library = "/usr/local/lib/noted_calls.so";
        controller.install(TEST_NOTED_CALLS, library);
        startStore();
        startDaemon({.environment = {{"LD_PRELOAD", library}, {"NOTED_CALLS", notesFile}}});
    }

    void TearDown() override {
        // Everything that was published before is handled to its end.
        frontEnd().patch({{"Unknown", "1"}});
        SystemTest::TearDown();
    }

    std::string notes() { return controller.readFile(notesFile); }

    static constexpr const char* notesFile = "/tmp/noted.calls";
    std::atomic<bool> isAnswered = false;
    std::atomic<bool> wasOnDisk = false;
    StoreProxy proxy{controller};
};

TEST_F(SystemCalls, BringThePropertyFileToTheDiskBeforeAPatchIsAnswered) {
    controller.writeFile(persistentFile, "SessionTimeout=\n");
    const std::string note = std::string("fsync ") + persistentFile + "\n";
    proxy.setFilter([this, note](const Words& command) {
        if (command[0] == "PUBLISH" && !isAnswered.exchange(true)) {
            wasOnDisk = contains(notes(), note);
        }
        return StoreProxy::Verdict::pass;
    });
    EXPECT_EQ(frontEnd().patch({{"SessionTimeout", "600"}}).status(), "OK");
    EXPECT_TRUE(isAnswered);
    EXPECT_TRUE(wasOnDisk) << notes();
    EXPECT_EQ(controller.readFile(persistentFile), "SessionTimeout=600\n");
}

TEST_F(SystemCalls, MakeNoSocketThatStartedProgramsInherit) {
    frontEnd().patch({{"SessionTimeout", "600"}});
    EXPECT_TRUE(contains(notes(), "socket private\n"));
    EXPECT_FALSE(contains(notes(), "socket open\n")) << notes();
}

}  // namespace
}  // namespace testbed

#endif
