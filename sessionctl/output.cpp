#include "sessionctl/output.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace session_service::console {

std::string escaped(std::string_view text) {
    constexpr std::string_view digits = "0123456789abcdef";
    std::string shown;
    shown.reserve(text.size());
    for (const char character : text) {
        const auto code = static_cast<unsigned char>(character);
        if (character == '\\') {
            shown += "\\\\";
        } else if (code >= 0x20 && code < 0x7f) {
            shown += character;
        } else {
            shown += "\\x";
            shown += digits[code >> 4];
            shown += digits[code & 0xf];
        }
    }
    return shown;
}

std::string formatDuration(long long seconds) {
    constexpr long long minute = 60;
    constexpr long long hour = 60 * minute;
    constexpr long long day = 24 * hour;
    const char* sign = seconds < 0 ? "-" : "";
    const long long length = std::llabs(seconds);
    std::array<char, 64> text{};
    if (length < minute) {
        std::snprintf(text.data(), text.size(), "%s%llds", sign, length);
    } else if (length < hour) {
        std::snprintf(text.data(), text.size(), "%s%lldm%02llds", sign, length / minute,
                      length % minute);
    } else if (length < day) {
        std::snprintf(text.data(), text.size(), "%s%lldh%02lldm", sign, length / hour,
                      length % hour / minute);
    } else {
        std::snprintf(text.data(), text.size(), "%s%lldd%02lldh", sign, length / day,
                      length % day / hour);
    }
    return text.data();
}

std::string formatTable(const std::vector<Row>& rows) {
    std::vector<Row> shown;
    std::vector<std::size_t> widths;
    for (const Row& row : rows) {
        Row& cells = shown.emplace_back();
        for (const std::string& cell : row) {
            cells.push_back(cell.empty() && cells.size() + 1 < row.size() ? "-" : escaped(cell));
        }
        widths.resize(std::max(widths.size(), cells.size()));
        for (std::size_t i = 0; i + 1 < cells.size(); ++i) {
            widths[i] = std::max(widths[i], cells[i].size());
        }
    }
    std::string text;
    for (const Row& cells : shown) {
        std::string line;
        for (std::size_t i = 0; i < cells.size(); ++i) {
            line += cells[i];
            if (i + 1 < cells.size()) {
                line.append(widths[i] - cells[i].size() + 2, ' ');
            }
        }
        line.erase(line.find_last_not_of(' ') + 1);
        text += line + '\n';
    }
    return text;
}

std::string formatJson(const nlohmann::json& document, int indentation) {
    return document.dump(indentation, ' ', true, nlohmann::json::error_handler_t::replace) + '\n';
}

int writeOutput(const std::string& text) {
    const bool written = std::fwrite(text.data(), 1, text.size(), stdout) == text.size();
    return written && std::fflush(stdout) == 0 ? 0 : errno;
}

bool print(const std::string& text) {
    return writeOutput(text) == 0;
}

}  // namespace session_service::console
