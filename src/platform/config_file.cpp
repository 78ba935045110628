#include "platform/config_file.h"

#include <algorithm>
#include <string_view>
#include <vector>

#include "base/text_file.h"

namespace {

std::string_view trim(std::string_view text) {
    constexpr std::string_view blanks = " \t\r";
    const std::size_t first = text.find_first_not_of(blanks);
    if (first == std::string_view::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

void copyCut(std::string_view value, char* buffer, std::size_t bufferSize) {
    if (bufferSize > 0) {
        buffer[value.copy(buffer, bufferSize - 1)] = '\0';
    }
}

}  // namespace

int getPropertyValue(const char* file, const char* separator, const char* key, char* buffer,
                     std::size_t bufferSize) {
    const std::string_view separatorText(separator);
    bool found = false;
    session_service::readLines(file, [&](const std::string& text) {
        const std::string_view line(text);
        const std::size_t position = line.find(separatorText);
        if (line.starts_with('#') || position == std::string_view::npos ||
            trim(line.substr(0, position)) != key) {
            return true;
        }
        copyCut(trim(line.substr(position + separatorText.size())), buffer, bufferSize);
        found = true;
        return false;
    });
    return found ? 0 : 1;
}

std::string getConfigValue(const char* file, const char* key, std::size_t bufferSize) {
    std::vector<char> value(std::max<std::size_t>(bufferSize, 1));
    return getPropertyValue(file, "=", key, value.data(), value.size()) == 0
               ? std::string(value.data())
               : std::string();
}
