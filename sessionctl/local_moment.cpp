#include "sessionctl/local_moment.h"

#include <array>
#include <cstring>

#include "base/local_time.h"
#include "base/number.h"

namespace session_service::console {
namespace {

std::string formatLocal(std::time_t moment, const char* format) {
    std::tm local{};
    std::array<char, 64> text{};
    if (!toLocalTime(moment, local)) {
        return {};
    }
    return {text.data(), std::strftime(text.data(), text.size(), format, &local)};
}

}  // namespace

std::string formatTimestamp(std::time_t moment) {
    std::string text = formatLocal(moment, "%FT%T%z");
    if (text.size() >= 2) {
        text.insert(text.end() - 2, ':');
    }
    return text;
}

std::optional<std::time_t> parseTimestamp(const std::string& text) {
    std::tm time{};
    const char* zone = strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &time);
    if (!zone) {
        return std::nullopt;
    }
    const std::time_t moment = timegm(&time);
    if (std::strcmp(zone, "Z") == 0) {
        return moment;
    }
    constexpr std::size_t zoneLength = sizeof("+00:00") - 1;
    if (std::strlen(zone) != zoneLength || (zone[0] != '+' && zone[0] != '-') || zone[3] != ':') {
        return std::nullopt;
    }
    const std::time_t hours = parseInt32({zone + 1, 2}).value.value_or(0);
    const std::time_t minutes = parseInt32(zone + 4).value.value_or(0);
    const std::time_t offset = (hours * 60 + minutes) * 60;
    return zone[0] == '+' ? moment - offset : moment + offset;
}

std::string formatShortTime(std::time_t moment) {
    return formatLocal(moment, "%b %d %H:%M");
}

std::string formatTimeOfDay(std::time_t moment) {
    return formatLocal(moment, "%T");
}

}  // namespace session_service::console
