// The fixture of tests that follow a request command by command.
#pragma once

#include <initializer_list>
#include <regex>
#include <string>
#include <vector>

#include "support/permissive_pam_test.h"
#include "testbed/events_and_audit_log.h"

namespace testbed {

using Commands = std::vector<Words>;

// What replaces values that come from a clock in recorded commands.
inline const std::string etag = "<milliseconds>";
inline const std::string now = "<uptime>";
inline const std::string timeStamp = "<local time>";

// The parts as one sequence.
inline Commands sequence(std::initializer_list<Commands> parts) {
    Commands whole;
    for (const Commands& part : parts) {
        whole.insert(whole.end(), part.begin(), part.end());
    }
    return whole;
}

// Replaces values that come from a clock, where they have the form that they should have.
inline Commands maskTimes(Commands commands) {
    const std::regex tag("\"[0-9]{13}\"");
    const std::regex seconds("[0-9]+");
    const std::regex stamp(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d[+-]\d\d:\d\d)");
    for (Words& words : commands) {
        for (std::size_t i = 1; i < words.size(); ++i) {
            if (words[i - 1] == "@odata.etag" && std::regex_match(words[i], tag)) {
                words[i] = etag;
            } else if (words[i - 1] == "LastAccessed" && std::regex_match(words[i], seconds)) {
                words[i] = now;
            } else if (std::regex_match(words[i], stamp)) {
                words[i] = timeStamp;
            }
        }
    }
    return commands;
}

class CommandSequenceTest : public PermissivePamTest {
  protected:
    // Each connection of the daemon has an address of its own.
    CommandSequenceTest() : PermissivePamTest({.storeOverTcp = true}) {}

    // Publishes the notice and returns everything that the connection of its request has sent
    // by the time it is closed. `first` is the connection's first command after AUTH.
    Commands commandsOfRequest(Request& request, const std::string& notice, const Words& first) {
        Monitor monitor = controller.monitor();
        request.send(notice);
        std::vector<MonitoredCommand> commands =
            monitor.until([&](const MonitoredCommand& command) { return command.words == first; });
        const std::string client = commands.back().client;
        waitUntil("the connection of the request is closed", [&] {
            return store().run({"CLIENT", "LIST"}).text.find(client + " ") == std::string::npos;
        });
        const std::vector<MonitoredCommand> rest = monitor.soFar();
        commands.insert(commands.end(), rest.begin(), rest.end());
        return maskTimes(commandsOf(commands, client));
    }
};

}  // namespace testbed
