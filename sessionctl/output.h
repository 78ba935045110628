// What sessionctl prints, and its exit statuses.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
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

// The text with backslashes doubled and every byte as \xNN that is not printable ASCII and, where
// the terminal shows UTF-8, no part of a letter with a width: text from the store or a file must
// not control the terminal, nor hide or overprint anything.
std::string escaped(std::string_view text);

// The columns that an escaped text takes.
std::size_t columnsOf(std::string_view shown);

// The escaped text, cut to so many columns, with a mark at its end when something is missing.
std::string cutToColumns(const std::string& shown, std::size_t columns);

// The escaped text in lines of so many columns at most (0: no limit), each with that many blanks
// in front. Breaks at blanks, or within a word that is longer than a line.
std::string wrapped(const std::string& shown, std::size_t columns, std::size_t indentation);

// The seconds as "45s", "3m05s", "2h00m" or "1d04h", with a "-" in front of a negative number.
std::string formatDuration(long long seconds);

using Row = std::vector<std::string>;
// The rows as lines, with escaped cells in aligned columns; the last cell of a row does not count
// for the alignment. An empty cell is shown as "-", unless it is the last.
std::string formatTable(const std::vector<Row>& rows);

// The document in ASCII, followed by a line feed; bytes that are not UTF-8 are replaced. An
// indentation of -1 gives a single line.
std::string formatJson(const nlohmann::json& document, int indentation = 2);

// JSON's null for nothing.
template <typename Value>
nlohmann::json orNull(const std::optional<Value>& value) {
    return value ? nlohmann::json(*value) : nlohmann::json();
}

// Writes to standard output and flushes it. Returns 0, or the errno of the failure.
int writeOutput(const std::string& text);
// Says on standard error that the output cannot be written, and why.
void sayOutputFailed(int error);
// Writes as writeOutput; returns whether it was written. Standard error tells why it was not,
// unless its reader has closed the output.
bool print(const std::string& text);

}  // namespace session_service::console
