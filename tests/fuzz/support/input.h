// Reading the input of a fuzz target.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace session_service {

inline std::string_view textOf(const std::uint8_t* data, std::size_t size) {
    return {reinterpret_cast<const char*>(data), size};
}

// The text up to its first zero byte, which is all that a C string keeps.
inline std::string upToNull(const std::string& text) {
    return text.c_str();
}

// Takes an input apart into sections of any bytes, which a line of four dashes separates: so
// the inputs of the corpus stay readable.
class InputSections {
  public:
    InputSections(const std::uint8_t* bytes, std::size_t size)
        : rest(reinterpret_cast<const char*>(bytes), size) {}

    [[nodiscard]] bool hasMore() const { return !rest.empty(); }

    // The next section; empty when there is none.
    std::string next() {
        constexpr std::string_view separator = "----\n";
        const std::size_t end = rest.find(separator);
        const std::string section(rest.substr(0, end));
        rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + separator.size());
        return section;
    }

    // The same, up to its first zero byte and without a line feed at its end.
    std::string nextText() {
        std::string text = next().c_str();
        if (text.ends_with('\n')) {
            text.pop_back();
        }
        return text;
    }

  private:
    std::string_view rest;
};

// Takes the first line off the input and returns it without its line feed.
std::string takeLine(std::string_view& input);

// All lines of the input; none when it is empty.
std::vector<std::string> linesOf(std::string_view input);

// The replies in the input, byte for byte: an empty line ends each.
std::vector<std::string> rawReplies(std::string_view input);

// The lists in the input, as array replies: a line is an element, an empty line ends a list.
std::vector<std::string> listReplies(std::string_view input);

}  // namespace session_service
