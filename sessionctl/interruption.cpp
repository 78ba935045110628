#include "sessionctl/interruption.h"

namespace session_service::console {
namespace {

volatile sig_atomic_t caughtSignal = 0;

void note(int signal) {
    caughtSignal = signal;
}

}  // namespace

// Outside of wait the signals are blocked: none can come between a look at caught() and
// the wait.
Interruption::Interruption() {
    caughtSignal = 0;
    sigset_t blocked;
    sigemptyset(&blocked);
    for (const int signal : signals) {
        sigaddset(&blocked, signal);
    }
    sigprocmask(SIG_BLOCK, &blocked, &mask);
    struct sigaction action {};
    action.sa_handler = note;
    for (std::size_t i = 0; i < signals.size(); ++i) {
        sigaction(signals[i], &action, &dispositions[i]);
    }
}

Interruption::~Interruption() {
    for (std::size_t i = 0; i < signals.size(); ++i) {
        sigaction(signals[i], &dispositions[i], nullptr);
    }
    sigprocmask(SIG_SETMASK, &mask, nullptr);
}

int Interruption::caught() noexcept {
    return caughtSignal;
}

short Interruption::wait(int descriptor, short events, const timespec* limit) const {
    pollfd polled{.fd = descriptor, .events = events, .revents = 0};
    return ppoll(&polled, 1, limit, &mask) > 0 ? polled.revents : short{0};
}

}  // namespace session_service::console
