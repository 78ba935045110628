// Numbers as the daemon reads them: a setting counts although more than its number stands there.
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>

namespace session_service::console {

// The number that the text begins with, behind blanks and a sign. Nothing when there are no digits
// or the number needs more than 32 bits.
inline std::optional<std::int32_t> leadingNumber(const std::string& text) {
    try {
        return std::stoi(text);
    } catch (const std::logic_error&) {
        return std::nullopt;
    }
}

// Whether the text is the number, with nothing around it.
inline bool isPlain(const std::string& text, std::int32_t number) {
    return text == std::to_string(number);
}

}  // namespace session_service::console
