#include "testbed/monitor.h"

#include <cctype>
#include <optional>
#include <sstream>

namespace testbed {

namespace {

// Reads one word in double quotes at `at`, undoing the server's escapes, and moves on.
std::string readWord(const std::string& line, std::size_t& at) {
    std::string word;
    for (++at; at < line.size() && line[at] != '"'; ++at) {
        if (line[at] != '\\') {
            word += line[at];
            continue;
        }
        const char escaped = line.at(++at);
        const std::string letters = "nrtab";
        const std::size_t letter = letters.find(escaped);
        if (escaped == 'x') {
            word += static_cast<char>(std::stoi(line.substr(at + 1, 2), nullptr, 16));
            at += 2;
        } else {
            word += letter == std::string::npos ? escaped : "\n\r\t\a\b"[letter];
        }
    }
    ++at;
    return word;
}

// A line looks like: 1700000000.123456 [0 127.0.0.1:4711] "HGET" "key" "field"
MonitoredCommand toCommand(const std::string& line) {
    MonitoredCommand command;
    const std::size_t point = line.find('.');
    command.at = std::chrono::seconds(std::stoll(line)) +
                 std::chrono::microseconds(std::stoll(line.substr(point + 1)));
    const std::size_t client = line.find(' ', line.find('[')) + 1;
    const std::size_t end = line.find("] ", client);
    command.client = line.substr(client, end - client);
    for (std::size_t at = line.find('"', end); at < line.size(); at = line.find('"', at)) {
        command.words.push_back(readWord(line, at));
    }
    return command;
}

}  // namespace

Monitor::Monitor(const std::string& socketPath, const std::string& password)
    : monitorConnection(socketPath, password), markConnection(socketPath, password) {
    monitorConnection.run({"MONITOR"});
}

std::vector<MonitoredCommand> Monitor::until(
    const std::function<bool(const MonitoredCommand&)>& condition) {
    std::vector<MonitoredCommand> commands;
    const Deadline end = deadlineFromNow();
    for (;;) {
        const std::optional<Value> line = monitorConnection.next(end);
        if (!line) {
            throw Failure("Timed out waiting for a command.");
        }
        commands.push_back(toCommand(line->text));
        if (condition(commands.back())) {
            return commands;
        }
    }
}

std::vector<MonitoredCommand> Monitor::soFar() {
    const std::string mark = "monitor mark " + std::to_string(++lastMark);
    markConnection.run({"ECHO", mark});
    std::vector<MonitoredCommand> commands = until([&](const MonitoredCommand& command) {
        return command.words == Words{"ECHO", mark};
    });
    commands.pop_back();
    return commands;
}

std::vector<Words> commandsOf(const std::vector<MonitoredCommand>& commands,
                              const std::string& client) {
    std::vector<Words> words;
    for (const MonitoredCommand& command : commands) {
        if (command.client == client) {
            words.push_back(command.words);
        }
    }
    return words;
}

}  // namespace testbed
