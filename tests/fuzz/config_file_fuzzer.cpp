// Configuration files: lines are read whole, and a key's value is that of its first line.
#include "platform/config_file.h"

#include <algorithm>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/text_file.h"
#include "support/input.h"
#include "support/memory_file.h"
#include "support/require.h"

namespace session_service {
namespace {

std::vector<std::string> linesOf(const MemoryFile& file) {
    std::vector<std::string> lines;
    const ReadOutcome outcome = readLines(file.path(), [&](const std::string& line) {
        lines.push_back(line);
        return true;
    });
    require(outcome.status == ReadStatus::complete, "a file is read to its end");
    return lines;
}

void checkLines(const std::string& text, const std::vector<std::string>& lines) {
    std::string joined;
    for (const std::string& line : lines) {
        require(line.find('\n') == std::string::npos, "a line ends at its line feed");
        joined += line + '\n';
    }
    require(joined == (text.empty() || text.ends_with('\n') ? text : text + '\n'),
            "the lines are the text");
}

bool isBlank(char character) {
    return character == ' ' || character == '\t' || character == '\r';
}

std::string withoutBlanksAround(std::string text) {
    while (!text.empty() && isBlank(text.back())) {
        text.pop_back();
    }
    text.erase(text.begin(), std::find_if_not(text.begin(), text.end(), isBlank));
    return text;
}

std::optional<std::string> expectedValue(const std::vector<std::string>& lines,
                                         const std::string& separator, const std::string& key) {
    for (const std::string& line : lines) {
        const auto found =
            std::search(line.begin(), line.end(), separator.begin(), separator.end());
        const bool separated = found != line.end() || separator.empty();
        const bool comment = !line.empty() && line.front() == '#';
        if (separated && !comment && withoutBlanksAround({line.begin(), found}) == key) {
            return withoutBlanksAround(
                {found + static_cast<std::ptrdiff_t>(separator.size()), line.end()});
        }
    }
    return std::nullopt;
}

// A buffer of exactly this size, whose bounds a sanitizer guards.
void checkValue(const MemoryFile& file, const std::string& separator, const std::string& key,
                std::size_t bufferSize, const std::optional<std::string>& expected) {
    constexpr char before = '\xee';
    const auto buffer = std::make_unique<char[]>(bufferSize);
    std::fill_n(buffer.get(), bufferSize, before);
    const int status =
        getPropertyValue(file.path(), separator.c_str(), key.c_str(), buffer.get(), bufferSize);
    require((status == 0) == expected.has_value(), "a key that is given is found, and no other");
    std::string content(bufferSize, before);
    if (expected && bufferSize > 0) {
        const std::string cut = expected->substr(0, bufferSize - 1);
        content.replace(0, cut.size() + 1, cut.c_str(), cut.size() + 1);
    }
    require(std::string(buffer.get(), bufferSize) == content,
            "the buffer receives the value, cut to fit, its terminator and nothing else");
}

}  // namespace
}  // namespace session_service

// The sections: a byte that is the size of the buffer, the key, the separator, the file.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace session_service;
    static MemoryFile file;
    InputSections sections(data, size);
    const std::string sizes = sections.next();
    const std::size_t bufferSize = sizes.empty() ? 128 : static_cast<unsigned char>(sizes.front());
    const std::string key = sections.nextText();
    const std::string separator = sections.nextText();
    const std::string text = sections.next();
    file.write(text);

    const std::vector<std::string> lines = linesOf(file);
    checkLines(text, lines);
    checkValue(file, separator, key, bufferSize, expectedValue(lines, separator, key));
    const std::string value = expectedValue(lines, "=", key).value_or("");
    require(getConfigValue(file.path(), key.c_str(), bufferSize) ==
                value.substr(0, std::max<std::size_t>(bufferSize, 1) - 1).c_str(),
            "the value as text is the value");
    return 0;
}
