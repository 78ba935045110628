#include "sessionctl/signal_catcher.h"

namespace session_service::console {
namespace {

volatile sig_atomic_t caughtSignal = 0;

void rememberSignal(int signal) {
    caughtSignal = signal;
}

}  // namespace

// The signals are blocked except during a wait, so that none can come between a call of caught()
// and the wait.
SignalCatcher::SignalCatcher() {
    caughtSignal = 0;
    sigset_t blocked;
    sigemptyset(&blocked);
    for (const int signal : signals) {
        sigaddset(&blocked, signal);
    }
    sigprocmask(SIG_BLOCK, &blocked, &mask);
    struct sigaction action {};
    action.sa_handler = rememberSignal;
    for (std::size_t i = 0; i < signals.size(); ++i) {
        sigaction(signals[i], &action, &dispositions[i]);
    }
}

SignalCatcher::~SignalCatcher() {
    for (std::size_t i = 0; i < signals.size(); ++i) {
        sigaction(signals[i], &dispositions[i], nullptr);
    }
    sigprocmask(SIG_SETMASK, &mask, nullptr);
}

int SignalCatcher::caught() noexcept {
    return caughtSignal;
}

short SignalCatcher::wait(int descriptor, short events, const timespec* timeout) const {
    pollfd polled{.fd = descriptor, .events = events, .revents = 0};
    return ppoll(&polled, 1, timeout, &mask) > 0 ? polled.revents : short{0};
}

}  // namespace session_service::console
