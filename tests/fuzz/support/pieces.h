// The input of a fuzz target, taken apart into texts.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace session_service {

// Pieces of any bytes, with a line of four dashes between them: inputs that are kept stay
// readable.
class Pieces {
  public:
    Pieces(const std::uint8_t* bytes, std::size_t size)
        : rest(reinterpret_cast<const char*>(bytes), size) {}

    [[nodiscard]] bool hasMore() const { return !rest.empty(); }

    // The next piece; empty when there is none.
    std::string next() {
        constexpr std::string_view separator = "----\n";
        const std::size_t end = rest.find(separator);
        const std::string piece(rest.substr(0, end));
        rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + separator.size());
        return piece;
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

}  // namespace session_service
