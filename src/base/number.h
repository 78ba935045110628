// Numbers at the start of texts from outside: leading blanks and a sign are allowed, what
// follows the digits is ignored. Nothing here logs or throws.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace session_service {

enum class NumberError { none, noDigits, outOfRange };

// A decimal number of 32 bits, or why there is none.
struct ParsedNumber {
    std::optional<std::int32_t> value;
    NumberError error = NumberError::none;
};
ParsedNumber parseNumber(const std::string& text);

// What the log tells of such an error: the sentence for it, and the conversion's own text.
std::string describe(NumberError error, const char* noDigits, const char* outOfRange);

// The conversion's own text.
inline constexpr const char* numberErrorText = "stoi";

// A decimal number of 64 bits; 0 without digits, the nearest limit beyond them.
struct ParsedInteger {
    std::int64_t value = 0;
    bool hasDigits = false;
    bool outOfRange = false;
};
ParsedInteger parseInteger(const std::string& text);

// The same with the base taken from the text: 16 after "0x", 8 after "0", otherwise 10. There
// is no prefix for base 2, whatever the C library knows of one.
ParsedInteger parsePrefixedInteger(const std::string& text);

// Whether the text is the number and nothing else.
bool isPlainNumber(const std::string& text, std::int32_t number);

}  // namespace session_service
