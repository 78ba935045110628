// What standard output leads to, and the looks that depend on it.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace session_service::console {

// Takes over the encoding of the environment's locale, in which names are then shown. Without a
// call, or without UTF-8, everything is shown in ASCII.
void useLocale();

// Whether letters beyond ASCII can be shown.
bool showsUnicode();

// Whether standard output is a terminal.
bool isTerminal();

// The columns of the terminal; 0, for no limit, when standard output is none.
std::size_t terminalWidth();

enum class Style { plain, heading, good, notable, bad, faint };

// The text in that style when standard output is a terminal that has colours, unless the variable
// NO_COLOR is set and not empty.
std::string styled(Style style, std::string_view text);

}  // namespace session_service::console
