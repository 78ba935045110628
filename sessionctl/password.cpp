#include "sessionctl/password.h"

#include <termios.h>
#include <unistd.h>

#include <cstdio>

#include "sessionctl/interruption.h"
#include "sessionctl/output.h"
#include "sessions/create_session.h"

namespace session_service::console {
namespace {

// As long as it lives, the terminal shows nothing of what is typed but the line feed.
class SilentTerminal {
  public:
    explicit SilentTerminal(int terminal) : descriptor(terminal) {
        if (tcgetattr(descriptor, &settings) == 0) {
            termios silent = settings;
            silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
            silent.c_lflag |= ECHONL;
            changed = tcsetattr(descriptor, TCSAFLUSH, &silent) == 0;
        }
    }
    SilentTerminal(const SilentTerminal&) = delete;
    SilentTerminal& operator=(const SilentTerminal&) = delete;
    ~SilentTerminal() {
        if (changed) {
            tcsetattr(descriptor, TCSAFLUSH, &settings);
        }
    }

    [[nodiscard]] bool isSilent() const noexcept { return changed; }

  private:
    int descriptor;
    termios settings{};
    bool changed = false;
};

// Byte by byte: no buffer keeps a copy. False when there is no line, or only one too long.
bool readLine(const Interruption& interruption, std::string& line) {
    for (;;) {
        char character = '\0';
        if (interruption.wait(STDIN_FILENO, POLLIN, nullptr) == 0 ||
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
    // Growing would leave copies behind.
    password.text.reserve(maxPasswordLength);
    bool given = false;
    int signal = 0;
    {
        const Interruption interruption;
        if (isatty(STDIN_FILENO) != 0) {
            const SilentTerminal terminal(STDIN_FILENO);
            if (!terminal.isSilent()) {
                throw Problem(failed, "The terminal's echo cannot be switched off.");
            }
            std::fputs(prompt.c_str(), stderr);
            given = readLine(interruption, password.text);
        } else {
            given = readLine(interruption, password.text);
        }
        signal = Interruption::caught();
    }
    if (signal != 0) {
        raise(signal);
    }
    if (!given) {
        throw Problem(failed, "No password was given, or one of more than " +
                                  std::to_string(maxPasswordLength) + " bytes.");
    }
    return password;
}

}  // namespace session_service::console
