// Threads of the daemon for which a call fails that never fails by itself.
#include <ostream>

#include "support/daemon_names.h"
#include "support/system_test.h"

// A sanitizer stands in front of the same calls itself.
#if !TESTBED_SANITIZED

namespace testbed {
namespace {

constexpr ExitStatus failedStart{.bySignal = false, .value = 255};

class FailingThreads : public SystemTest {
  protected:
    void SetUp() override {
        controller.install(TEST_THREAD_FAILURES, library);
        startStore();
    }

    static DaemonOptions withFailing(const std::string& call) {
        return {.environment = {{"LD_PRELOAD", library}, {"THREAD_FAILURES", call}}};
    }
    // The messages of the error lines, each of which is to be expected.
    void expectErrorLines(const Words& messages) {
        for (const std::string& message : messages) {
            expectErrorLine(message);
        }
        Words logged;
        for (const LogLine& line : logLines()) {
            if (line.tag == "[Error]") {
                logged.push_back(line.message);
            }
        }
        EXPECT_EQ(logged, messages);
    }

  private:
    static constexpr char library[] = "/usr/local/lib/thread_failures.so";
};

TEST_F(FailingThreads, WithoutTheirLocksAreNotStarted) {
    expectExitStatus(failedStart);
    for (const char* call : {"lock:1", "lock:2"}) {
        EXPECT_EQ(toText(runDaemon(withFailing(call))), toText(failedStart)) << call;
    }
    expectErrorLines({"Failed to init thread argument.", "Failed to init thread argument."});
    EXPECT_EQ(countLogged("Create session thread is running ..."), 0);
}

TEST_F(FailingThreads, WithoutAConnectionEndEachWithItsLineAndTheProcessInOrder) {
    EXPECT_EQ(toText(runDaemon(withFailing("connection"))), toText(ExitStatus{}));
    expectErrorLines(Words(4, "Failed to connect to Redis."));
    EXPECT_EQ(countLogged(terminates), 1);
}

TEST_F(FailingThreads, WhoseEndIsNotLearntOfFailTheStartWhenItIsThePatchWorkers) {
    expectExitStatus(failedStart);
    startDaemon(withFailing("join:1"));
    stopDaemon();
    expectErrorLines({"Failed to join the SessionService thread.",
                      "Error occurs while initialize data: Failed to join a thread"});
    EXPECT_EQ(countLogged(terminates), 0);
}

struct UnknownEnd {
    const char* name;
    const char* call;
    const char* message;

    friend void PrintTo(const UnknownEnd& value, std::ostream* out) { *out << value.name; }
};

class FailingJoin : public FailingThreads, public testing::WithParamInterface<UnknownEnd> {};

TEST_P(FailingJoin, IsLoggedAndDoesNotKeepTheProcessFromItsEnd) {
    startDaemon(withFailing(GetParam().call));
    stopDaemon();
    expectErrorLines({GetParam().message});
    EXPECT_EQ(countLogged(terminates), 1);
}

INSTANTIATE_TEST_SUITE_P(
    OfTheThread, FailingJoin,
    testing::Values(UnknownEnd{"Create", "join:2", "Failed to join the create thread."},
                    UnknownEnd{"Delete", "join:3", "Failed to join the delete thread."},
                    UnknownEnd{"Timeout", "join:4", "Failed to join the timeout thread."}),
    [](const auto& instance) { return instance.param.name; });

}  // namespace
}  // namespace testbed

#endif
