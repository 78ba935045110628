#include "base/shell.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include "base/file_descriptor.h"
#include "support/captured_output.h"
#include "support/no_descriptors.h"

namespace session_service {
namespace {

// Longer than an argument of a program may be: such a command cannot be started.
const std::string impossibleCommand = "true " + std::string(1 << 20, 'x');

// What the process does with a signal while this lives.
class Disposition {
  public:
    Disposition(int number, void (*handler)(int)) : signal(number) {
        // Without SA_RESTART: the signal interrupts whoever waits.
        struct sigaction action {};
        action.sa_handler = handler;
        EXPECT_EQ(sigaction(signal, &action, &before), 0);
    }
    Disposition(const Disposition&) = delete;
    Disposition& operator=(const Disposition&) = delete;
    ~Disposition() { sigaction(signal, &before, nullptr); }

  private:
    int signal;
    struct sigaction before {};
};

volatile sig_atomic_t interruptions = 0;

void countInterruption(int /*signal*/) {
    interruptions = interruptions + 1;
}

// Interrupts this process each time it waits, and then goes on with the command. The first
// time it may wait for the start of the shell.
std::string interruptingCommand(const std::string& command) {
    return "for i in 1 2 3 4 5; do"
           "  until grep -q '^State:.S' /proc/$PPID/status; do :; done; kill -USR1 $PPID; "
           "done; " +
           command;
}

std::string outputOf(const std::string& command) {
    std::string output;
    EXPECT_TRUE(readCommand(command.c_str(), [&](std::string_view chunk) {
        output += chunk;
        return true;
    }));
    return output;
}

TEST(RunCommand, TellsTheExitStatus) {
    EXPECT_EQ(runCommand("true"), 0);
    const int status = runCommand("exit 3");
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 3);
}

TEST(RunCommand, TellsTheSignalThatEndedIt) {
    const int status = runCommand("kill -TERM $$");
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGTERM);
}

TEST(RunCommand, WritesToTheStandardStreams) {
    EXPECT_EQ(standardOutputOf([] { runCommand("echo out"); }), "out\n");
    EXPECT_EQ(standardErrorOf([] { runCommand("echo err >&2"); }), "err\n");
}

TEST(RunCommand, FailsWhenItCannotBeStarted) {
    EXPECT_EQ(runCommand(impossibleCommand.c_str()), -1);
}

TEST(RunCommand, WaitsOnWhenASignalInterruptsIt) {
    const Disposition interrupted(SIGUSR1, countInterruption);
    interruptions = 0;
    const int status = runCommand(interruptingCommand("exit 3").c_str());
    EXPECT_GT(interruptions, 0);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 3);
}

TEST(RunCommand, TellsNoStatusWhereEndedChildrenAreForgotten) {
    const Disposition forgotten(SIGCHLD, SIG_IGN);
    EXPECT_EQ(runCommand("true"), -1);
}

TEST(ReadCommand, HandsOverTheOutput) {
    EXPECT_EQ(outputOf("echo one; echo two"), "one\ntwo\n");
    EXPECT_EQ(outputOf("printf 'a\\0b'"), std::string("a\0b", 3));
    EXPECT_EQ(outputOf("exit 1"), "");
}

TEST(ReadCommand, HandsOverAtMostTheBytesOfAChunk) {
    std::size_t length = 0;
    std::size_t longest = 0;
    EXPECT_TRUE(readCommand("head -c 100000 /dev/zero", [&](std::string_view chunk) {
        length += chunk.size();
        longest = std::max(longest, chunk.size());
        return true;
    }));
    EXPECT_EQ(length, 100000U);
    EXPECT_EQ(longest, 1023U);
}

TEST(ReadCommand, EndsACommandWhoseOutputIsNoLongerWanted) {
    int chunks = 0;
    EXPECT_TRUE(readCommand("yes", [&](std::string_view) { return ++chunks < 3; }));
    EXPECT_EQ(chunks, 3);
}

TEST(ReadCommand, LeavesStandardErrorAlone) {
    std::string output;
    EXPECT_EQ(standardErrorOf([&] { output = outputOf("echo err >&2; echo out"); }), "err\n");
    EXPECT_EQ(output, "out\n");
}

TEST(ReadCommand, ReadsOnWhenASignalInterruptsIt) {
    const Disposition interrupted(SIGUSR1, countInterruption);
    interruptions = 0;
    EXPECT_EQ(outputOf(interruptingCommand("echo out")), "out\n");
    EXPECT_GT(interruptions, 0);
}

TEST(ReadCommand, FailsWithoutAFreeDescriptor) {
    const NoDescriptors none;
    EXPECT_FALSE(readCommand("true", [](std::string_view) { return true; }));
}

TEST(ReadCommand, FailsWhenItCannotBeStarted) {
    EXPECT_FALSE(readCommand(impossibleCommand.c_str(), [](std::string_view) { return true; }));
}

TEST(Command, GetsTheDefaultDispositionOfABrokenPipe) {
    // This process ignores the signal, as the daemon does; a child would inherit that.
    struct sigaction action {};
    ASSERT_EQ(sigaction(SIGPIPE, nullptr, &action), 0);
    ASSERT_EQ(action.sa_handler, SIG_IGN);
    const std::string ignored = outputOf("sed -n 's/SigIgn:[[:space:]]*//p' /proc/self/status");
    EXPECT_EQ(std::stoull(ignored, nullptr, 16) & (1ULL << (SIGPIPE - 1)), 0U) << ignored;
    EXPECT_EQ(WTERMSIG(runCommand("kill -PIPE $$")), SIGPIPE);
}

TEST(Command, InheritsNothingButTheStandardStreams) {
    const FileDescriptor device(open("/dev/null", O_RDONLY | O_CLOEXEC));
    const FileDescriptor unmarked(fcntl(device.get(), F_DUPFD, 100));
    ASSERT_TRUE(unmarked);
    // The last command keeps the shell itself from becoming ls.
    const std::string list = "ls /proc/$$/fd; true";
    EXPECT_EQ(outputOf(list), "0\n1\n2\n");
    EXPECT_EQ(standardOutputOf([&] { runCommand(list.c_str()); }), "0\n1\n2\n");
}

}  // namespace
}  // namespace session_service
