// What sessionctl prints.
#pragma once

#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace session_service::console {

// Exit statuses.
inline constexpr int done = 0;
inline constexpr int failed = 1;
inline constexpr int wrongUsage = 2;
inline constexpr int storeUnreachable = 3;

// Ends a command: a sentence for the person, and the exit status.
struct Problem : std::runtime_error {
    Problem(int exitStatus, const std::string& sentence)
        : std::runtime_error(sentence), status(exitStatus) {}
    int status;
};

// The text with everything but printable ASCII as \xNN, and a backslash doubled: what
// comes from the store or a file must not steer the terminal, of whatever encoding that is.
std::string escaped(std::string_view text);

// The seconds as "45s", "3m05s", "2h00m" or "1d04h", with a "-" in front of a negative number.
std::string durationText(long long seconds);

using Row = std::vector<std::string>;
// The rows as lines, their cells made escaped and in columns; a row's last cell takes the room
// that it needs. An empty cell is a "-", a row's last one nothing.
std::string tableText(const std::vector<Row>& rows);

// The document in ASCII, with a line feed behind it; bytes that are no UTF-8 are replaced.
// An indentation of -1 gives one line.
std::string jsonText(const nlohmann::json& document, int indentation = 2);

// Writes to standard output and hands over at once. Returns 0, or the errno that says why it cannot
// be written.
int writeOutput(const std::string& text);
// The same; whether it was written.
bool print(const std::string& text);

}  // namespace session_service::console
