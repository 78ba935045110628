#include "sessionctl/output.h"

#include <gtest/gtest.h>

#include <clocale>

namespace session_service::console {
namespace {

TEST(EscapedText, KeepsPrintableAsciiOnly) {
    EXPECT_EQ(escaped(""), "");
    EXPECT_EQ(escaped(" az~"), " az~");
    EXPECT_EQ(escaped("\x1b[2J\n\x7f"), R"(\x1b[2J\x0a\x7f)");
    EXPECT_EQ(escaped(std::string("a\0b", 3)), R"(a\x00b)");
    // A terminal with an 8-bit encoding takes the byte 9b for the start of a sequence, though
    // it be a part of a letter.
    EXPECT_EQ(escaped("\xc3\x9b"), R"(\xc3\x9b)");
}

TEST(EscapedText, TellsABackslashFromAnEscape) {
    EXPECT_EQ(escaped(R"(\x1b)"), R"(\\x1b)");
}

// What a terminal with UTF-8 gets.
class UnicodeText : public testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(std::setlocale(LC_CTYPE, "C.UTF-8")); }
    void TearDown() override { std::setlocale(LC_CTYPE, "C"); }
};

TEST_F(UnicodeText, KeepsLetters) {
    EXPECT_EQ(escaped("Jürgen Łukasz 日本"), "Jürgen Łukasz 日本");
    EXPECT_EQ(columnsOf("Jürgen"), 6U);
    EXPECT_EQ(columnsOf("日本"), 4U);
}

TEST_F(UnicodeText, ShowsBytesOfWhatHasNoWidthOrIsNoLetter) {
    for (const auto& [text, shown] :
         std::map<std::string, std::string>{{"\u202e", R"(\xe2\x80\xae)"},
                                            {"\u200b", R"(\xe2\x80\x8b)"},
                                            {"\u0301", R"(\xcc\x81)"},
                                            {"\u009b", R"(\xc2\x9b)"},
                                            {"\u00ad", R"(\xc2\xad)"},
                                            {"\u00a0", R"(\xc2\xa0)"},
                                            {"\u2028", R"(\xe2\x80\xa8)"},
                                            {"\ufeff", R"(\xef\xbb\xbf)"},
                                            {"\xff", R"(\xff)"},
                                            {"\xc3", R"(\xc3)"},
                                            {"\xc0\xaf", R"(\xc0\xaf)"},
                                            {"\xed\xa0\x80", R"(\xed\xa0\x80)"},
                                            {"\x1b[2J", R"(\x1b[2J)"}}) {
        EXPECT_EQ(escaped(text), shown);
        EXPECT_EQ(escaped("ü" + text + "ü"), "ü" + shown + "ü");
    }
}

TEST_F(UnicodeText, IsCutBetweenLetters) {
    EXPECT_EQ(cutToColumns("Jürgen", 6), "Jürgen");
    EXPECT_EQ(cutToColumns("Jürgen", 3), "Jü…");
    EXPECT_EQ(cutToColumns("日本", 3), "日…");
    EXPECT_EQ(cutToColumns("日本", 2), "…");
}

TEST_F(UnicodeText, AlignsByColumns) {
    EXPECT_EQ(formatTable({{"ü", "x"}, {"日", "x"}, {"abc", "x"}}),
              "ü    x\n"
              "日   x\n"
              "abc  x\n");
}

TEST(CutText, HasAMarkAtItsEnd) {
    EXPECT_EQ(cutToColumns("abcd", 4), "abcd");
    EXPECT_EQ(cutToColumns("abcd", 3), "ab~");
}

TEST(WrappedText, BreaksAtBlanks) {
    EXPECT_EQ(wrapped("one two three", 8, 0), "one two\nthree\n");
    EXPECT_EQ(wrapped("one two three", 7, 0), "one two\nthree\n");
    EXPECT_EQ(wrapped("one two three", 7, 2), "  one\n  two\n  three\n");
    EXPECT_EQ(wrapped("one two", 0, 2), "  one two\n");
    EXPECT_EQ(wrapped("", 10, 2), "  \n");
}

TEST(WrappedText, BreaksAWordThatIsTooLong) {
    EXPECT_EQ(wrapped("a abcdefgh", 4, 0), "a\nabcd\nefgh\n");
}

TEST(Duration, IsTheTwoLargestUnits) {
    for (const auto& [seconds, text] : std::map<long long, std::string>{{0, "0s"},
                                                                        {59, "59s"},
                                                                        {60, "1m00s"},
                                                                        {3599, "59m59s"},
                                                                        {3600, "1h00m"},
                                                                        {86399, "23h59m"},
                                                                        {86400, "1d00h"},
                                                                        {123456789, "1428d21h"},
                                                                        {-61, "-1m01s"}}) {
        EXPECT_EQ(formatDuration(seconds), text);
    }
}

TEST(Table, AlignsItsColumns) {
    EXPECT_EQ(formatTable({{"A", "B", "C"}, {"long", "x", ""}, {"", "", "end\n"}}),
              "A     B  C\n"
              "long  x\n"
              "-     -  end\\x0a\n");
}

TEST(Table, DoesNotAlignWithALastCell) {
    EXPECT_EQ(formatTable({{"a heading"}, {"a", "b"}}), "a heading\na  b\n");
}

TEST(JsonText, IsAsciiWhateverTheBytes) {
    EXPECT_EQ(formatJson("\x1b\xc3\xbc\xff\x7f", -1), "\"\\u001b\\u00fc\\ufffd\\u007f\"\n");
}

}  // namespace
}  // namespace session_service::console
