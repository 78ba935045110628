#include "testbed/process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>
#include <utility>

#include "testbed/wait.h"

namespace testbed {

namespace {

struct ClosePipe {
    void operator()(std::FILE* pipe) const noexcept { pclose(pipe); }
};

struct Pipe {
    int readEnd = -1;
    int writeEnd = -1;
};

Pipe makePipe() {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        throw Failure("No pipe: " + std::string(std::strerror(errno)));
    }
    return {ends[0], ends[1]};
}

// Bubblewrap exits as a shell does: 128 and the signal's number for a signal.
ExitStatus toExitStatus(int status) {
    const int value = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
    if (value > 128 && value <= 128 + SIGRTMAX) {
        return {true, value - 128};
    }
    return {false, value};
}

std::string firstLine(const std::string& path) {
    std::ifstream file(path);
    std::string line;
    std::getline(file, line);
    return line;
}

// Reads what bubblewrap reports about the sandbox; -1 when it could not make one.
pid_t readSandboxPid(int descriptor) {
    std::string report;
    std::array<char, 256> chunk{};
    while (report.find('}') == std::string::npos) {
        const ssize_t count = read(descriptor, chunk.data(), chunk.size());
        if (count <= 0) {
            return -1;
        }
        report.append(chunk.data(), static_cast<std::size_t>(count));
    }
    const std::string label = "\"child-pid\":";
    const std::size_t at = report.find(label);
    return at == std::string::npos ? -1 : std::stoi(report.substr(at + label.size()));
}

}  // namespace

std::string shellOutput(const std::string& command) {
    // NOLINTNEXTLINE(cert-env33-c): all commands are the programs' own.
    const std::unique_ptr<std::FILE, ClosePipe> pipe(popen(command.c_str(), "re"));
    if (!pipe) {
        throw Failure("No shell: " + std::string(std::strerror(errno)));
    }
    std::string output;
    std::array<char, 4096> chunk{};
    while (const std::size_t count = std::fread(chunk.data(), 1, chunk.size(), pipe.get())) {
        output.append(chunk.data(), count);
    }
    return output;
}

std::string procFile(pid_t pid, const std::string& name) {
    return "/proc/" + std::to_string(pid) + "/" + name;
}

std::vector<pid_t> childrenOf(pid_t pid) {
    std::ifstream file(procFile(pid, "task/" + std::to_string(pid) + "/children"));
    std::vector<pid_t> children;
    for (pid_t child = 0; file >> child;) {
        children.push_back(child);
    }
    return children;
}

pid_t spawn(const std::vector<std::string>& arguments, const Streams& streams,
            const std::optional<PassedDescriptor>& extra) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, streams.input.c_str(), O_RDONLY, 0);
    const int appending = O_WRONLY | O_CREAT | O_APPEND;
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, streams.output.c_str(), appending,
                                     0600);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, streams.errors.c_str(), appending,
                                     0600);
    int last = STDERR_FILENO;
    if (extra) {
        last = extra->inside;
        posix_spawn_file_actions_adddup2(&actions, extra->outside, last);
    }
    posix_spawn_file_actions_addclosefrom_np(&actions, last + 1);

    // A session of its own keeps a terminal's signals away: the testbed ends its programs in order.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setflags(&attributes,
                             POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSID);
    sigset_t signals;
    sigfillset(&signals);
    posix_spawnattr_setsigdefault(&attributes, &signals);
    sigemptyset(&signals);
    posix_spawnattr_setsigmask(&attributes, &signals);

    std::vector<char*> pointers;
    pointers.reserve(arguments.size() + 1);
    for (const std::string& argument : arguments) {
        pointers.push_back(const_cast<char*>(argument.c_str()));
    }
    pointers.push_back(nullptr);
    pid_t pid = -1;
    const int error =
        posix_spawnp(&pid, pointers.front(), &actions, &attributes, pointers.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    if (error != 0) {
        throw Failure(arguments.front() + " could not be started: " + std::strerror(error));
    }
    return pid;
}

std::string toText(const ExitStatus& status) {
    return (status.bySignal ? "signal " : "exit status ") + std::to_string(status.value);
}

Process::Process(const std::vector<std::string>& arguments, std::string name,
                 const Streams& streams)
    : programName(std::move(name)) {
    // The kernel keeps 15 characters of a program's name.
    programName.resize(std::min<std::size_t>(programName.size(), 15));
    const Pipe report = makePipe();
    bubblewrapPid = spawn(arguments, streams, PassedDescriptor{report.writeEnd, infoDescriptor});
    close(report.writeEnd);
    initPid = readSandboxPid(report.readEnd);
    close(report.readEnd);
}

Process::~Process() {
    kill();
}

pid_t Process::pid() {
    if (programPid > 0) {
        return programPid;
    }
    waitUntil(programName + " runs", [this] {
        if (const auto ended = exitStatus()) {
            throw Failure(programName + " ended with " + toText(*ended) + ".");
        }
        for (const pid_t child : childrenOf(initPid)) {
            if (firstLine(procFile(child, "comm")) == programName) {
                programPid = child;
                return true;
            }
        }
        return false;
    });
    return programPid;
}

void Process::signal(int number) {
    if (::kill(pid(), number) != 0) {
        throw Failure(programName + " cannot be signalled: " + std::strerror(errno));
    }
}

std::optional<ExitStatus> Process::exitStatus() {
    const std::lock_guard lock(mutex);
    int status = 0;
    if (!endedWith && waitpid(bubblewrapPid, &status, WNOHANG) == bubblewrapPid) {
        endedWith = toExitStatus(status);
    }
    return endedWith;
}

ExitStatus Process::wait() {
    std::optional<ExitStatus> ended;
    waitUntil(programName + " ends", [&] { return (ended = exitStatus()).has_value(); });
    return *ended;
}

void Process::kill() noexcept {
    if (exitStatus()) {
        return;
    }
    const std::lock_guard lock(mutex);
    int status = 0;
    // With the sandbox's first process everything in it ends before that one is reaped.
    ::kill(initPid > 0 ? initPid : bubblewrapPid, SIGKILL);
    waitpid(bubblewrapPid, &status, 0);
    endedWith = toExitStatus(status);
}

TemporaryFolder::TemporaryFolder() {
    const char* parent = std::getenv("TMPDIR");
    folder = std::string(parent ? parent : "/tmp") + "/testbed-XXXXXX";
    if (!mkdtemp(folder.data())) {
        throw Failure("No temporary folder: " + std::string(std::strerror(errno)));
    }
    if (std::getenv("TESTBED_KEEP")) {
        std::cerr << "The testbed is kept in " << folder << ".\n";
        return;
    }
    // The end of this process, however it comes, closes the pipe that the shell reads.
    const Pipe pipe = makePipe();
    removerPid = spawn({"sh", "-c", "read -r _ <&3; exec rm -rf -- \"$1\"", "sh", folder}, {},
                       PassedDescriptor{pipe.readEnd, 3});
    close(pipe.readEnd);
    lifeline = pipe.writeEnd;
}

TemporaryFolder::~TemporaryFolder() {
    if (removerPid > 0) {
        close(lifeline);
        waitpid(removerPid, nullptr, 0);
    }
}

}  // namespace testbed
