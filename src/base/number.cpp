#include "base/number.h"

#include <cerrno>
#include <cstdlib>
#include <limits>

namespace session_service {
namespace {

constexpr const char* blanks = " \t\n\v\f\r";

static_assert(sizeof(long long) == sizeof(std::int64_t));

ParsedInt64 readInteger(const std::string& text, int base) {
    char* end = nullptr;
    errno = 0;
    const std::int64_t value = std::strtoll(text.c_str(), &end, base);
    return {value, end != text.c_str(), errno == ERANGE};
}

int baseOf(const std::string& text) {
    std::size_t start = text.find_first_not_of(blanks);
    if (start == std::string::npos) {
        return 10;
    }
    if (text[start] == '+' || text[start] == '-') {
        ++start;
    }
    if (text.compare(start, 2, "0x") == 0 || text.compare(start, 2, "0X") == 0) {
        return 16;
    }
    return text.compare(start, 1, "0") == 0 ? 8 : 10;
}

}  // namespace

ParsedInt32 parseInt32(const std::string& text) {
    using Limits = std::numeric_limits<std::int32_t>;
    const ParsedInt64 integer = readInteger(text, 10);
    if (!integer.hasDigits) {
        return {std::nullopt, NumberError::noDigits};
    }
    if (integer.outOfRange || integer.value < Limits::min() || integer.value > Limits::max()) {
        return {std::nullopt, NumberError::outOfRange};
    }
    return {static_cast<std::int32_t>(integer.value)};
}

std::string describeNumberError(NumberError error, const char* noDigits, const char* outOfRange) {
    return std::string(error == NumberError::noDigits ? noDigits : outOfRange) + ' ' +
           numberErrorText;
}

ParsedInt64 parseInt64(const std::string& text) {
    return readInteger(text, 10);
}

ParsedInt64 parsePrefixedInt64(const std::string& text) {
    return readInteger(text, baseOf(text));
}

bool isPlainNumber(const std::string& text, std::int32_t number) {
    return text == std::to_string(number);
}

}  // namespace session_service
