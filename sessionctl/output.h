// What sessionctl prints, and its exit statuses.
#pragma once

#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace session_service::console {

namespace exit_status {
inline constexpr int success = 0;
inline constexpr int failure = 1;
inline constexpr int usageError = 2;
inline constexpr int storeUnavailable = 3;
}  // namespace exit_status

// Ends a command: a sentence that tells a person why, and the exit status.
struct CommandError : std::runtime_error {
    CommandError(int exitStatus, const std::string& sentence)
        : std::runtime_error(sentence), status(exitStatus) {}
    int status;
};

// The text with every byte that is not printable ASCII as \xNN, and backslashes doubled: text
// from the store or a file must not control the terminal, whatever its encoding.
std::string escaped(std::string_view text);

// The seconds as "45s", "3m05s", "2h00m" or "1d04h", with a "-" in front of a negative number.
std::string formatDuration(long long seconds);

using Row = std::vector<std::string>;
// The rows as lines, with escaped cells in aligned columns; the last cell of a row does not count
// for the alignment. An empty cell is shown as "-", unless it is the last.
std::string formatTable(const std::vector<Row>& rows);

// The document in ASCII, followed by a line feed; bytes that are not UTF-8 are replaced. An
// indentation of -1 gives a single line.
std::string formatJson(const nlohmann::json& document, int indentation = 2);

// Writes to standard output and flushes it. Returns 0, or the errno of the failure.
int writeOutput(const std::string& text);
// The same; returns whether it was written.
bool print(const std::string& text);

}  // namespace session_service::console
