#include "sessionctl/output.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <cwctype>

#include "sessionctl/terminal.h"

namespace session_service::console {
namespace {

// A letter at the start of a text; one without columns must not be shown as it is.
struct Letter {
    std::size_t bytes = 1;
    std::size_t columns = 0;
};

Letter readLetter(std::string_view text, bool unicode) {
    const auto first = static_cast<unsigned char>(text.front());
    if (first < 0x80 || !unicode) {
        return {.columns = first >= 0x20 && first < 0x7f ? 1U : 0U};
    }
    constexpr wchar_t noBreakSpace = 0xa0;
    constexpr wchar_t softHyphen = 0xad;
    wchar_t code = 0;
    std::mbstate_t state{};
    const std::size_t bytes = std::mbrtowc(&code, text.data(), text.size(), &state);
    if (bytes == 0 || bytes > text.size()) {
        return {};
    }
    // Marks that combine with the letter before, and those that turn the direction, have no width.
    const bool isVisible =
        std::iswgraph(static_cast<wint_t>(code)) != 0 && code != noBreakSpace && code != softHyphen;
    const int columns = isVisible ? wcwidth(code) : 0;
    return {bytes, columns > 0 ? static_cast<std::size_t>(columns) : 0U};
}

void appendEscape(std::string& shown, std::string_view bytes) {
    constexpr std::string_view digits = "0123456789abcdef";
    for (const char byte : bytes) {
        const auto code = static_cast<unsigned char>(byte);
        shown += "\\x";
        shown += digits[code >> 4];
        shown += digits[code & 0xf];
    }
}

// As much of an escaped text as fits into so many columns.
Letter prefixOf(std::string_view shown, std::size_t columns) {
    const bool unicode = showsUnicode();
    Letter prefix{.bytes = 0};
    while (prefix.bytes < shown.size()) {
        const Letter next = readLetter(shown.substr(prefix.bytes), unicode);
        if (prefix.columns + next.columns > columns) {
            break;
        }
        prefix.bytes += next.bytes;
        prefix.columns += next.columns;
    }
    return prefix;
}

}  // namespace

std::string escaped(std::string_view text) {
    const bool unicode = showsUnicode();
    std::string shown;
    shown.reserve(text.size());
    for (std::size_t at = 0; at < text.size();) {
        const Letter letter = readLetter(text.substr(at), unicode);
        const std::string_view bytes = text.substr(at, letter.bytes);
        if (bytes == "\\") {
            shown += "\\\\";
        } else if (letter.columns > 0) {
            shown += bytes;
        } else {
            appendEscape(shown, bytes);
        }
        at += letter.bytes;
    }
    return shown;
}

std::size_t columnsOf(std::string_view shown) {
    return prefixOf(shown, shown.size()).columns;
}

std::string cutToColumns(const std::string& shown, std::size_t columns) {
    if (columnsOf(shown) <= columns) {
        return shown;
    }
    const char* mark = showsUnicode() ? "\u2026" : "~";
    return shown.substr(0, prefixOf(shown, columns - 1).bytes) + mark;
}

std::string wrapped(const std::string& shown, std::size_t columns, std::size_t indentation) {
    const std::string margin(indentation, ' ');
    const std::size_t room = columns == 0 ? shown.size() : columns - indentation;
    std::string lines;
    std::string_view rest = shown;
    while (columnsOf(rest) > room) {
        const std::string_view line = rest.substr(0, prefixOf(rest, room).bytes);
        // A line may end right before a blank.
        std::size_t end = rest[line.size()] == ' ' ? line.size() : line.rfind(' ');
        if (end == 0 || end == std::string_view::npos) {
            end = line.size();
        }
        lines += margin + std::string(rest.substr(0, end)) + '\n';
        rest.remove_prefix(end);
        rest.remove_prefix(std::min(rest.find_first_not_of(' '), rest.size()));
    }
    return lines + margin + std::string(rest) + '\n';
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
            widths[i] = std::max(widths[i], columnsOf(cells[i]));
        }
    }
    std::string text;
    for (const Row& cells : shown) {
        std::string line;
        for (std::size_t i = 0; i < cells.size(); ++i) {
            line += cells[i];
            if (i + 1 < cells.size()) {
                line.append(widths[i] - columnsOf(cells[i]) + 2, ' ');
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

void sayOutputFailed(int error) {
    std::fprintf(stderr, "sessionctl: The output cannot be written: %s.\n", std::strerror(error));
}

bool print(const std::string& text) {
    const int error = writeOutput(text);
    if (error != 0 && error != EPIPE) {
        sayOutputFailed(error);
    }
    return error == 0;
}

}  // namespace session_service::console
