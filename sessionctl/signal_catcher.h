// Ending in an orderly way when a person or a supervisor sends a signal.
#pragma once

#include <poll.h>
#include <signal.h>

#include <array>

namespace session_service::console {

// While an instance exists, SIGINT, SIGTERM, SIGHUP and SIGQUIT do not end the process, only a
// wait. One instance at a time.
class SignalCatcher {
  public:
    SignalCatcher();
    SignalCatcher(const SignalCatcher&) = delete;
    SignalCatcher& operator=(const SignalCatcher&) = delete;
    ~SignalCatcher();

    // The signal that was caught; 0 if none was.
    [[nodiscard]] static int caught() noexcept;

    // Blocks until poll reports an event or an error of the descriptor, a signal comes, or the
    // timeout (null: none) has passed. Returns the reported events; 0 in the last two cases.
    [[nodiscard]] short wait(int descriptor, short events, const timespec* timeout) const;

  private:
    static constexpr std::array<int, 4> signals{SIGINT, SIGTERM, SIGHUP, SIGQUIT};

    std::array<struct sigaction, signals.size()> dispositions{};
    sigset_t mask{};
};

}  // namespace session_service::console
