// Processes that the testbed starts.
#pragma once

#include <sys/types.h>

#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace testbed {

// How a process ended, by itself or by a signal.
struct ExitStatus {
    bool bySignal = false;
    int value = 0;  // the exit status or the signal

    bool operator==(const ExitStatus&) const = default;
};
std::string toText(const ExitStatus& status);

// The files of the standard streams; what is written is appended to them.
struct Streams {
    std::string input = "/dev/null";
    std::string output = "/dev/null";
    std::string errors = "/dev/null";
};

// A descriptor of ours, and its number in a program that is started.
struct PassedDescriptor {
    int outside;
    int inside;
};

// Starts a program of the machine, found by PATH, in a session of its own and with our
// environment. Whoever starts it waits for its end. Throws Failure when it cannot be started.
pid_t spawn(const std::vector<std::string>& arguments, const Streams& streams = {},
            const std::optional<PassedDescriptor>& extra = {});

// Runs a shell command in our environment; returns what it wrote to its standard output. Throws
// Failure when the shell cannot be started.
std::string shellOutput(const std::string& command);

// The path of a file in the process's folder under /proc.
std::string procFile(pid_t pid, const std::string& name);
// The children that its first thread has now.
std::vector<pid_t> childrenOf(pid_t pid);

// Where a program in a sandbox finds the descriptor for bubblewrap's --info-fd.
inline constexpr int infoDescriptor = 3;

// Owns a program that runs in a sandbox, together with everything that the program
// starts: all of it has ended when this object is gone.
class Process {
  public:
    // Starts bubblewrap with these arguments, which have it report on infoDescriptor.
    // `name` is the program's name in the kernel. The process lives no longer than the calling
    // thread.
    Process(const std::vector<std::string>& arguments, std::string name, const Streams& streams);
    ~Process();
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    // The sandbox's first process, as seen from outside; its namespaces can be joined.
    pid_t sandboxPid() const { return initPid; }
    // The program itself, as seen from outside: for /proc and for signals. Blocks until
    // the program runs; throws Failure when it ends before.
    pid_t pid();

    // Sends a signal to the program.
    void signal(int number);
    // None while it runs. May be called by several threads at once.
    std::optional<ExitStatus> exitStatus();
    // Blocks until the program has ended.
    ExitStatus wait();
    // Ends the program and all that it started, if it still runs.
    void kill() noexcept;

  private:
    std::string programName;
    pid_t bubblewrapPid = -1;
    pid_t initPid = -1;
    pid_t programPid = -1;
    std::mutex mutex;  // guards endedWith, and that the process is waited for only once
    std::optional<ExitStatus> endedWith;
};

// A fresh folder with a short name in /tmp, or in TMPDIR where the environment sets that.
// It is removed with all that it holds when the object is gone, and also when this process
// ends in any other way, a deadly signal included. With TESTBED_KEEP set in the environment
// it stays, and its name goes to standard error.
class TemporaryFolder {
  public:
    TemporaryFolder();
    ~TemporaryFolder();
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    const std::string& path() const { return folder; }

  private:
    std::string folder;
    pid_t removerPid = -1;
    int lifeline = -1;
};

}  // namespace testbed
