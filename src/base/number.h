// Decimal numbers of 32 bits in text from outside.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace session_service {

// What is logged when a text is no such number: a sentence for each reason, to which the
// conversion's own error text is appended.
struct NumberFaults {
    const char* noDigits;
    const char* outOfRange;
};

enum class FaultLevel { error, debug };

// Reads the number at the start of the text: leading blanks and a sign are allowed, what
// follows the digits is ignored. Empty, with the fault logged, when there are no digits or
// the number needs more than 32 bits.
std::optional<std::int32_t> parseNumber(const std::string& text, const NumberFaults& faults,
                                        FaultLevel level);

}  // namespace session_service
