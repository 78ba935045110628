#include "sessions/expiry.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>

namespace session_service {
namespace {

// What removal leaves of the buffer; the result is checked.
std::string withoutText(const std::string& buffer, const std::string& text, int expected) {
    std::array<char, 64> bytes{};
    std::memcpy(bytes.data(), buffer.data(), buffer.size());
    EXPECT_EQ(removeSubstring(bytes.data(), text.c_str()), expected) << buffer << " - " << text;
    return bytes.data();
}

TEST(RemoveSubstring, TakesTheFirstOccurrenceOut) {
    EXPECT_EQ(withoutText("/a/b/c", "/a/", 1), "b/c");
    EXPECT_EQ(withoutText("one two one", "one", 1), " two one");
    EXPECT_EQ(withoutText("middle", "dd", 1), "mile");
    EXPECT_EQ(withoutText("at the end", " end", 1), "at the");
    EXPECT_EQ(withoutText("whole", "whole", 1), "");
    EXPECT_EQ(withoutText("aaa", "aa", 1), "a");
}

TEST(RemoveSubstring, LeavesABufferWithoutTheTextAlone) {
    EXPECT_EQ(withoutText("buffer", "x", 0), "buffer");
    EXPECT_EQ(withoutText("buf", "buffer", 0), "buf");
    EXPECT_EQ(withoutText("", "x", 0), "");
}

TEST(RemoveSubstring, MovesTheTerminatorToo) {
    std::array<char, 8> bytes{'a', 'b', 'c', '\0', 'x', 'x', 'x', 'x'};
    EXPECT_EQ(removeSubstring(bytes.data(), "a"), 1);
    EXPECT_STREQ(bytes.data(), "bc");
    EXPECT_EQ(bytes[4], 'x');
}

TEST(RemoveSubstring, NeedsBothTexts) {
    std::array<char, 8> bytes{"buffer"};
    EXPECT_EQ(removeSubstring(nullptr, "x"), 0);
    EXPECT_EQ(removeSubstring(bytes.data(), nullptr), 0);
    EXPECT_STREQ(bytes.data(), "buffer");
}

}  // namespace
}  // namespace session_service
