// What fuzz targets make of their input.
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

// The part of a text that travels as C text.
inline std::string cText(const std::string& text) {
    return text.c_str();
}

// Takes the first line off the input; it goes without its line feed.
std::string takeLine(std::string_view& input);

// All lines of the input; none when it is empty.
std::vector<std::string> linesOf(std::string_view input);

// The replies in the input, as bytes: an empty line ends each.
std::vector<std::string> rawReplies(std::string_view input);

// The lists that lines describe, as replies: a line is an element, an empty line ends a list.
std::vector<std::string> listReplies(std::string_view input);

}  // namespace session_service
