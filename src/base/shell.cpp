#include "base/shell.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>

#include "base/file_descriptor.h"

namespace session_service {
namespace {

// Starts `/bin/sh -c command`, with `output` as its standard output unless it is
// negative. Returns the child's process identifier or -1.
pid_t startShell(const char* command, int output) {
    posix_spawn_file_actions_t actions;
    if (posix_spawn_file_actions_init(&actions) != 0) {
        return -1;
    }
    posix_spawnattr_t attributes;
    if (posix_spawnattr_init(&attributes) != 0) {
        posix_spawn_file_actions_destroy(&actions);
        return -1;
    }

    sigset_t defaults;
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGPIPE);
    bool ready = posix_spawnattr_setsigdefault(&attributes, &defaults) == 0 &&
                 posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF) == 0;
    if (output >= 0) {
        ready = ready && posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO) == 0;
    }
    // A library on another thread may be between opening a descriptor and marking it.
    ready = ready && posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1) == 0;

    pid_t child = -1;
    if (ready) {
        const char* arguments[] = {"sh", "-c", command, nullptr};
        if (posix_spawn(&child, "/bin/sh", &actions, &attributes,
                        const_cast<char* const*>(arguments), environ) != 0) {
            child = -1;
        }
    }
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    return child;
}

// Returns the child's wait status, or -1.
int waitFor(pid_t child) {
    int status = -1;
    while (waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) {
            return -1;
        }
    }
    return status;
}

}  // namespace

int runCommand(const char* command) {
    const pid_t child = startShell(command, -1);
    return child < 0 ? -1 : waitFor(child);
}

bool readCommand(const char* command, const std::function<bool(std::string_view)>& receive) {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        return false;
    }
    FileDescriptor readEnd(ends[0]);
    FileDescriptor writeEnd(ends[1]);
    const pid_t child = startShell(command, writeEnd.get());
    if (child < 0) {
        return false;
    }
    writeEnd.reset();

    std::array<char, 1023> chunk{};
    for (;;) {
        const ssize_t length = read(readEnd.get(), chunk.data(), chunk.size());
        if (length < 0 && errno == EINTR) {
            continue;
        }
        if (length <= 0 || !receive({chunk.data(), static_cast<std::size_t>(length)})) {
            break;
        }
    }
    readEnd.reset();
    waitFor(child);
    return true;
}

}  // namespace session_service
