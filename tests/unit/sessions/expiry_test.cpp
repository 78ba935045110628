#include "sessions/expiry.h"

#include <gtest/gtest.h>

namespace session_service {
namespace {

std::string without(std::string text, const std::string& part) {
    removeSubstring(text, part);
    return text;
}

TEST(RemoveSubstring, TakesTheFirstOccurrenceOut) {
    EXPECT_EQ(without("/a/b/c", "/a/"), "b/c");
    EXPECT_EQ(without("one two one", "one"), " two one");
    EXPECT_EQ(without("middle", "dd"), "mile");
    EXPECT_EQ(without("at the end", " end"), "at the");
    EXPECT_EQ(without("whole", "whole"), "");
    EXPECT_EQ(without("aaa", "aa"), "a");
}

TEST(RemoveSubstring, LeavesATextWithoutThePartAlone) {
    EXPECT_EQ(without("text", "x y"), "text");
    EXPECT_EQ(without("tex", "text"), "tex");
    EXPECT_EQ(without("", "x"), "");
}

}  // namespace
}  // namespace session_service
