#include "sessionctl/password.h"

#include <termios.h>
#include <unistd.h>

#include <cstdio>

#include "sessionctl/output.h"
#include "sessionctl/signal_catcher.h"
#include "sessions/create_session.h"

namespace session_service::console {
namespace {

// While an instance exists, the terminal echoes nothing but the line feed.
class EchoOff {
  public:
    explicit EchoOff(int terminal) : descriptor(terminal) {
        if (tcgetattr(descriptor, &settings) == 0) {
            termios withoutEcho = settings;
            withoutEcho.c_lflag &= ~static_cast<tcflag_t>(ECHO);
            withoutEcho.c_lflag |= ECHONL;
            changed = tcsetattr(descriptor, TCSAFLUSH, &withoutEcho) == 0;
        }
    }
    EchoOff(const EchoOff&) = delete;
    EchoOff& operator=(const EchoOff&) = delete;
    ~EchoOff() {
        if (changed) {
            tcsetattr(descriptor, TCSAFLUSH, &settings);
        }
    }

    [[nodiscard]] bool isOff() const noexcept { return changed; }

  private:
    int descriptor;
    termios settings{};
    bool changed = false;
};

// Reads byte by byte, so that no buffer keeps a copy. False when there is no line, or one too long.
bool readLine(const SignalCatcher& signals, std::string& line) {
    for (;;) {
        char character = '\0';
        if (signals.wait(STDIN_FILENO, POLLIN, nullptr) == 0 ||
            read(STDIN_FILENO, &character, 1) != 1) {
            return !line.empty();
        }
        if (character == '\n') {
            return true;
        }
        if (line.size() == maxPasswordLength) {
            return false;
        }
        line += character;
    }
}

}  // namespace

SecretText readPassword(const std::string& prompt) {
    SecretText password;
    // A string that grows leaves copies behind.
    password.text.reserve(maxPasswordLength);
    bool given = false;
    int signal = 0;
    {
        const SignalCatcher signals;
        if (isatty(STDIN_FILENO) != 0) {
            const EchoOff terminal(STDIN_FILENO);
            if (!terminal.isOff()) {
                throw CommandError(exit_status::failure,
                                   "The terminal's echo cannot be switched off.");
            }
            std::fputs(prompt.c_str(), stderr);
            given = readLine(signals, password.text);
        } else {
            given = readLine(signals, password.text);
        }
        signal = SignalCatcher::caught();
    }
    if (signal != 0) {
        raise(signal);
    }
    if (!given) {
        throw CommandError(exit_status::failure, "No password was given, or one of more than " +
                                                     std::to_string(maxPasswordLength) + " bytes.");
    }
    return password;
}

}  // namespace session_service::console
