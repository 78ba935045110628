#include "base/process_state.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <climits>
#include <optional>
#include <vector>

namespace session_service {
namespace {

// The signals from 32 on belong to the C library.
constexpr std::size_t signalsEnd = 32;

struct ProcessState {
    std::array<struct sigaction, signalsEnd> dispositions{};
    sigset_t blocked{};
    mode_t fileMask = 0;
    std::array<char, PATH_MAX> directory{};
    std::vector<char*> variables;  // ends with a null pointer, as environ does
};

std::optional<ProcessState> saved;

// What environ points to from the first restoration on. Restoring overwrites each element with the
// same pointer, so that other threads may call getenv meanwhile.
std::vector<char*> variables;

}  // namespace

void openStandardStreams() {
    int descriptor = open("/dev/null", O_RDWR);
    while (descriptor >= 0 && descriptor <= STDERR_FILENO) {
        descriptor = open("/dev/null", O_RDWR);
    }
    close(descriptor);
}

void closeDescriptorsOnExec() {
    // Kernels before 5.11 refuse; a child may then keep a supervisor's lock, and a restart waits.
    close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC);
}

void disableCoreDumps() {
    // A limit of 0 stops core files; a kernel that pipes cores to a handler heeds only the
    // dumpable flag.
    const rlimit noCore{0, 0};
    setrlimit(RLIMIT_CORE, &noCore);
    prctl(PR_SET_DUMPABLE, 0, 0, 0, 0);
}

void saveProcessState() {
    ProcessState& state = saved.emplace();
    for (std::size_t i = 1; i < signalsEnd; ++i) {
        sigaction(static_cast<int>(i), nullptr, &state.dispositions[i]);
    }
    pthread_sigmask(SIG_SETMASK, nullptr, &state.blocked);
    // It cannot be read without being changed.
    state.fileMask = umask(0);
    umask(state.fileMask);
    // Stays empty when the working directory is gone; chdir then fails and changes nothing.
    [[maybe_unused]] const char* directory = getcwd(state.directory.data(), state.directory.size());
    for (char** variable = environ; variable && *variable; ++variable) {
        state.variables.push_back(*variable);
    }
    state.variables.push_back(nullptr);
    variables = state.variables;
}

void restoreProcessState() {
    if (!saved) {
        return;
    }
    alarm(0);
    for (std::size_t i = 1; i < signalsEnd; ++i) {
        sigaction(static_cast<int>(i), &saved->dispositions[i], nullptr);
    }
    pthread_sigmask(SIG_SETMASK, &saved->blocked, nullptr);
    umask(saved->fileMask);
    [[maybe_unused]] const int changed = chdir(saved->directory.data());
    variables = saved->variables;
    environ = variables.data();
    closelog();
    openStandardStreams();
}

void reapChildren() {
    while (waitpid(-1, nullptr, WNOHANG) > 0) {
    }
}

}  // namespace session_service
