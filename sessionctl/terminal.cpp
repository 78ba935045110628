#include "sessionctl/terminal.h"

#include <langinfo.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <charconv>
#include <clocale>
#include <cstdlib>
#include <cstring>

namespace session_service::console {
namespace {

std::string_view variable(const char* name) {
    const char* value = std::getenv(name);
    return value ? value : "";
}

bool hasColors() {
    static const bool colors = isTerminal() && variable("NO_COLOR").empty() &&
                               variable("TERM") != "dumb" && !variable("TERM").empty();
    return colors;
}

const char* codeOf(Style style) {
    switch (style) {
        case Style::heading:
            return "1";
        case Style::good:
            return "32";
        case Style::notable:
            return "33";
        case Style::bad:
            return "31";
        case Style::faint:
            return "2";
        case Style::plain:
            break;
    }
    return nullptr;
}

}  // namespace

void useLocale() {
    if (std::setlocale(LC_CTYPE, "")) {
        return;
    }
    // A locale that the client's machine has and this one does not: its encoding counts.
    std::string_view name;
    for (const char* decisive : {"LC_ALL", "LC_CTYPE", "LANG"}) {
        name = variable(decisive);
        if (!name.empty()) {
            break;
        }
    }
    if (name.ends_with("UTF-8") || name.ends_with("utf8")) {
        std::setlocale(LC_CTYPE, "C.UTF-8");
    }
}

bool showsUnicode() {
    return std::strcmp(nl_langinfo(CODESET), "UTF-8") == 0;
}

bool isTerminal() {
    static const bool terminal = isatty(STDOUT_FILENO) == 1;
    return terminal;
}

std::size_t terminalWidth() {
    if (!isTerminal()) {
        return 0;
    }
    winsize size{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col != 0) {
        return size.ws_col;
    }
    // A serial line does not know its width.
    constexpr std::size_t usualWidth = 80;
    std::size_t columns = 0;
    const std::string_view given = variable("COLUMNS");
    std::from_chars(given.data(), given.data() + given.size(), columns);
    return columns != 0 ? columns : usualWidth;
}

std::string styled(Style style, std::string_view text) {
    const char* code = codeOf(style);
    if (!code || !hasColors()) {
        return std::string(text);
    }
    return std::string("\x1b[") + code + 'm' + std::string(text) + "\x1b[0m";
}

}  // namespace session_service::console
