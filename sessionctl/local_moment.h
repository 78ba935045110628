// Moments as people and programs read them.
#pragma once

#include <ctime>
#include <optional>
#include <string>

namespace session_service::console {

// Local time in whole seconds with the zone's offset, as 2024-05-06T07:08:09+08:00.
std::string formatTimestamp(std::time_t moment);

// The moment of such a text; also with a "Z" for the zone. Empty when it is none.
std::optional<std::time_t> parseTimestamp(const std::string& text);

// Local time in short, as "May 06 07:08".
std::string formatShortTime(std::time_t moment);

// Local time of day in short, as "07:08:09".
std::string formatTimeOfDay(std::time_t moment);

}  // namespace session_service::console
