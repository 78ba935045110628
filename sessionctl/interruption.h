// The signals with which a person or a supervisor ends the program, taken in an orderly way.
#pragma once

#include <poll.h>
#include <signal.h>

#include <array>

namespace session_service::console {

// As long as it lives, SIGINT, SIGTERM, SIGHUP and SIGQUIT end nothing but a wait. One
// instance at a time.
class Interruption {
  public:
    Interruption();
    Interruption(const Interruption&) = delete;
    Interruption& operator=(const Interruption&) = delete;
    ~Interruption();

    // The signal that came; 0 when none did.
    [[nodiscard]] static int caught() noexcept;

    // Blocks until one of the events or an error is there on the descriptor, a signal comes or
    // the limit (null: none) has passed. Returns what poll reports; 0 in the last two cases.
    [[nodiscard]] short wait(int descriptor, short events, const timespec* limit) const;

  private:
    static constexpr std::array<int, 4> signals{SIGINT, SIGTERM, SIGHUP, SIGQUIT};

    std::array<struct sigaction, signals.size()> dispositions{};
    sigset_t mask{};
};

}  // namespace session_service::console
