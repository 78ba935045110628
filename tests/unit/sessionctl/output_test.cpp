#include "sessionctl/output.h"

#include <gtest/gtest.h>

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
