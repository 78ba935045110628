// Reading the lines that a log has got since the last time, across its rotation.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace session_service::console {

// How far a log has been read. The number of a file that was deleted is given to another one, which
// begins in another way.
struct LogPosition {
    std::uint64_t inode = 0;
    std::uint64_t offset = 0;
    std::uint64_t beginning = 0;  // a digest of what the log begins with

    bool operator==(const LogPosition&) const = default;
};

// Hands each complete line, without its line feed, to `handle`: those after the position, or
// without one all of the log and of its last rotation, PATH.1. Where the position is in neither of
// them, nothing of the log has been read. Returns the new position; empty when there is no log.
std::optional<LogPosition> readLog(const std::string& path,
                                   const std::optional<LogPosition>& position,
                                   const std::function<void(const std::string&)>& handle);

}  // namespace session_service::console
