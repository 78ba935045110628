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
    std::array<char, PATH_MAX> folder{};
    std::vector<char*> variables;  // ends with a null pointer, as environ does
};

std::optional<ProcessState> noted;

// What environ points to from the first restoration on. Of this array every element is
// replaced by itself, so that other threads may read their variables meanwhile.
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
    // Kernels before 5.11 refuse; there is no harm in that but a restart that may have to wait.
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
    ProcessState& state = noted.emplace();
    for (std::size_t i = 1; i < signalsEnd; ++i) {
        sigaction(static_cast<int>(i), nullptr, &state.dispositions[i]);
    }
    pthread_sigmask(SIG_SETMASK, nullptr, &state.blocked);
    // It cannot be read without being changed.
    state.fileMask = umask(0);
    umask(state.fileMask);
    // Stays empty where there is none any more; what cannot be entered is left as it is.
    [[maybe_unused]] const char* folder = getcwd(state.folder.data(), state.folder.size());
    for (char** variable = environ; variable && *variable; ++variable) {
        state.variables.push_back(*variable);
    }
    state.variables.push_back(nullptr);
    variables = state.variables;
}

void restoreProcessState() {
    if (!noted) {
        return;
    }
    alarm(0);
    for (std::size_t i = 1; i < signalsEnd; ++i) {
        sigaction(static_cast<int>(i), &noted->dispositions[i], nullptr);
    }
    pthread_sigmask(SIG_SETMASK, &noted->blocked, nullptr);
    umask(noted->fileMask);
    [[maybe_unused]] const int changed = chdir(noted->folder.data());
    variables = noted->variables;
    environ = variables.data();
    closelog();
    openStandardStreams();
}

void reapChildren() {
    while (waitpid(-1, nullptr, WNOHANG) > 0) {
    }
}

}  // namespace session_service
