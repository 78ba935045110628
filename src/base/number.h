// Numbers at the start of texts from outside: leading blanks and a sign are allowed, what
// follows the digits is ignored. Nothing here logs or throws.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace session_service {

enum class NumberError { none, noDigits, outOfRange };

// A decimal number of 32 bits, or why there is none.
struct ParsedInt32 {
    std::optional<std::int32_t> value;
    NumberError error = NumberError::none;
};
ParsedInt32 parseInt32(const std::string& text);

// The log's text for such an error: the sentence that fits it, a blank, and numberErrorText.
std::string describeNumberError(NumberError error, const char* noDigits, const char* outOfRange);

// What std::stoi says of every error; the log has always had it.
inline constexpr const char* numberErrorText = "stoi";

// A decimal number of 64 bits: 0 when there are no digits, the nearest limit when it is out of
// range.
struct ParsedInt64 {
    std::int64_t value = 0;
    bool hasDigits = false;
    bool outOfRange = false;
};
ParsedInt64 parseInt64(const std::string& text);

// The same with the base taken from the text: 16 after "0x", 8 after "0", otherwise 10. There
// is no prefix for base 2, whatever the C library knows of one.
ParsedInt64 parsePrefixedInt64(const std::string& text);

// Whether the text is exactly the number's decimal form.
bool isPlainNumber(const std::string& text, std::int32_t number);

}  // namespace session_service
