#include "support/terminal_program.h"

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>

#include "testbed/wait.h"

namespace testbed {

TerminalProgram::TerminalProgram(const Words& command, unsigned columns,
                                 const std::map<std::string, std::string>& environment) {
    terminal = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
    std::array<char, 64> path{};
    if (terminal < 0 || grantpt(terminal) != 0 || unlockpt(terminal) != 0 ||
        ptsname_r(terminal, path.data(), path.size()) != 0) {
        throw Failure("There is no terminal.");
    }
    // What is written stays readable while the other side is open.
    programSide = open(path.data(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    winsize size{};
    size.ws_row = 24;
    size.ws_col = static_cast<unsigned short>(columns);
    if (programSide < 0 || ioctl(terminal, TIOCSWINSZ, &size) != 0) {
        throw Failure("The terminal cannot be used.");
    }
    Words words{"env", "-i"};
    for (const auto& [name, value] : environment) {
        words.push_back(name + "=" + value);
    }
    words.insert(words.end(), command.begin(), command.end());
    pid = spawn(words, {.input = path.data(), .output = path.data(), .errors = path.data()});
}

TerminalProgram::~TerminalProgram() {
    if (pid > 0) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    close(programSide);
    close(terminal);
}

std::string TerminalProgram::output() {
    std::array<char, 4096> chunk{};
    for (ssize_t count = 0; (count = read(terminal, chunk.data(), chunk.size())) > 0;) {
        received.append(chunk.data(), static_cast<std::size_t>(count));
    }
    std::string text = received;
    for (std::size_t at = 0; (at = text.find("\r\n", at)) != std::string::npos;) {
        text.erase(at, 1);
    }
    return text;
}

void TerminalProgram::waitFor(const std::string& text) {
    waitUntil("the terminal shows \"" + text + "\"",
              [&] { return output().find(text) != std::string::npos; });
}

void TerminalProgram::type(const std::string& text) {
    if (write(terminal, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        throw Failure("The terminal takes no input.");
    }
}

ExitStatus TerminalProgram::wait() {
    int status = 0;
    waitUntil("the program at the terminal ends", [&] {
        // A program cannot end while the terminal has no room for what it writes.
        output();
        return waitpid(pid, &status, WNOHANG) == pid;
    });
    pid = -1;
    if (WIFSIGNALED(status)) {
        return {.bySignal = true, .value = WTERMSIG(status)};
    }
    return {.bySignal = false, .value = WEXITSTATUS(status)};
}

}  // namespace testbed
