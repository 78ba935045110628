// The fixture of all tests that run the daemon in a testbed.
//
// At the end of a test the store is stopped, which ends the daemon in order. The test fails when
// the daemon ended by a signal or with an exit status that the test did not expect; when a
// sanitizer or valgrind reported something; when the log holds an error line that the test did
// not expect, or lacks one that it did; and when a password of the controller's accounts is in
// the log, in what the daemon printed or in a command that the store got. A failed test prints
// the log.
#pragma once

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "testbed/accounts.h"
#include "testbed/controller.h"

namespace testbed {

// A line of the daemon's log file.
struct LogLine {
    std::string date;  // as written: "Nov 21 01:39:00"
    std::string epoch;
    std::string tag;  // "[Error]" or "[Debug]"
    std::string message;
};

// What the PAM test module recorded of one call, by name: "entry", "user", "rhost",
// "service", "flags" and, where it asked, "conversation", "answers", "answer0" and so on.
using PamRecord = std::map<std::string, std::string>;

// For tests that prepare the controller before anything runs.
class SystemTest : public testing::Test {
  protected:
    explicit SystemTest(const ControllerOptions& options = {});
    void TearDown() override;

    // Everything that is not running yet: store, scripts, seed, daemon. Returns when the
    // daemon serves.
    void start();
    // The store with its scripts and seed, without the daemon.
    void startStore();
    // The daemon alone, also once more after it ended. Returns when it serves.
    void startDaemon(const DaemonOptions& options = {});
    // A daemon that has to end by itself; returns once it has.
    ExitStatus runDaemon(const DaemonOptions& options = {});
    // Stops the store and waits for the daemon to end because of it. A login that is held inside
    // PAM is released first.
    void stopDaemon();

    // How the daemon has to end; without it: with exit status 0.
    void expectExitStatus(const ExitStatus& status) { expectedStatus = status; }
    // An error line whose message contains the text has to be there, any number of times.
    void expectErrorLine(const std::string& text) { expectedErrors.push_back(text); }

    // How many descriptors the daemon has open; those that valgrind keeps beside them do not
    // count.
    std::ptrdiff_t openDescriptors();

    // The log as it stands, the lines of earlier daemons of this test included.
    std::vector<LogLine> logLines() const;
    // How many lines have exactly this message.
    long countLogged(const std::string& message) const;
    // Blocks until there is a line with exactly this message.
    void waitForLog(const std::string& message) const;

    // The PAM service of the daemon: a stack of the test module alone, with these
    // arguments.
    void usePamTest(const std::string& arguments);
    // The same, as the lines stand.
    void usePamLines(const std::string& lines);
    // Holds each login inside PAM (after usePamTest) until releasePam is called.
    void holdPam();
    // Blocks until a login is held, one more than at the last call.
    void waitUntilPamHolds();
    void releasePam();
    std::vector<PamRecord> pamRecords() const;

    // Installs a fake Kerberos administration tool, which prints the output.
    void useFakeKadmin(const std::string& output);
    // The arguments of each call.
    std::vector<Words> kadminCalls() const;

    // A connection of the test's own; made at first use, and anew once the store stopped.
    StoreClient& store();
    FakeFrontEnd& frontEnd();

    Controller controller;

  private:
    void checkDaemon();
    void checkCommands();
    void keepLog();

    std::optional<StoreClient> storeConnection;
    std::optional<FakeFrontEnd> fakeFrontEnd;
    std::string earlierLog;
    std::size_t heldLogins = 0;
    ExitStatus expectedStatus{};
    Words expectedErrors;
};

// For tests that find everything running, with the accounts of the controller.
class RunningSystemTest : public SystemTest {
  protected:
    using SystemTest::SystemTest;
    void SetUp() override { start(); }
};

bool contains(const std::string& text, const std::string& part);

// Fails the test when an error line contains none of the expected texts, or when one of these is
// in no line.
void expectErrorLines(const Words& lines, const Words& expected);

// The parts of a text, each with a zero byte after it.
Words splitAtZeroBytes(const std::string& text);

// The lines of a text, without their line feeds.
Words splitLines(const std::string& text);

}  // namespace testbed
