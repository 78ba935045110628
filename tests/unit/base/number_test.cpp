#include "base/number.h"

#include <gtest/gtest.h>

#include <limits>

namespace session_service {
namespace {

TEST(Number, StandsAtTheStartOfTheText) {
    for (const auto& [text, value] :
         std::map<std::string, std::int32_t>{{"0", 0},
                                             {"511", 511},
                                             {" \t\n42", 42},
                                             {"+7", 7},
                                             {"-7", -7},
                                             {"007", 7},
                                             {"12abc", 12},
                                             {"1.9", 1},
                                             {"5 6", 5},
                                             {"0x10", 0},
                                             {"2147483647", 2147483647},
                                             {"-2147483648", -2147483647 - 1}}) {
        EXPECT_EQ(parseInt32(text).value, value) << text;
        EXPECT_EQ(parseInt32(text).error, NumberError::none) << text;
    }
}

TEST(Number, IsNoneWithoutDigits) {
    for (const char* text : {"", " ", "-", "+", "abc", "- 1", "--1", "\"5\"", ".5"}) {
        EXPECT_EQ(parseInt32(text).value, std::nullopt) << text;
        EXPECT_EQ(parseInt32(text).error, NumberError::noDigits) << text;
    }
}

TEST(Number, IsNoneBeyond32Bits) {
    for (const char* text : {"2147483648", "-2147483649", "99999999999999999999"}) {
        EXPECT_EQ(parseInt32(text).value, std::nullopt) << text;
        EXPECT_EQ(parseInt32(text).error, NumberError::outOfRange) << text;
    }
}

TEST(Number, ErrorsAreDescribedWithTheConversionsOwnText) {
    EXPECT_EQ(describeNumberError(NumberError::noDigits, "No digits:", "Too large:"),
              "No digits: stoi");
    EXPECT_EQ(describeNumberError(NumberError::outOfRange, "No digits:", "Too large:"),
              "Too large: stoi");
}

TEST(Integer, IsClampedTo64Bits) {
    EXPECT_EQ(parseInt64("-42 and more").value, -42);
    EXPECT_EQ(parseInt64("4294967296").value, 4294967296);
    EXPECT_FALSE(parseInt64("9223372036854775807").outOfRange);
    EXPECT_EQ(parseInt64("9223372036854775808").value, std::numeric_limits<std::int64_t>::max());
    EXPECT_TRUE(parseInt64("9223372036854775808").outOfRange);
    EXPECT_EQ(parseInt64("-9223372036854775809").value, std::numeric_limits<std::int64_t>::min());
    EXPECT_TRUE(parseInt64("-9223372036854775809").outOfRange);
}

TEST(Integer, IsZeroWithoutDigits) {
    EXPECT_EQ(parseInt64("x1").value, 0);
    EXPECT_FALSE(parseInt64("x1").hasDigits);
    EXPECT_TRUE(parseInt64("0").hasDigits);
}

TEST(Integer, TakesItsBaseFromItsPrefix) {
    for (const auto& [text, value] : std::map<std::string, std::int64_t>{{"121", 121},
                                                                         {"0x1F", 31},
                                                                         {"0X1f", 31},
                                                                         {"0777", 511},
                                                                         {"0", 0},
                                                                         {"-0x10", -16},
                                                                         {" \t+010", 8},
                                                                         {"08", 0},
                                                                         {"0x", 0},
                                                                         {"0b11", 0},
                                                                         {"0B11", 0},
                                                                         {"0o17", 0},
                                                                         {"abc", 0},
                                                                         {"", 0}}) {
        EXPECT_EQ(parsePrefixedInt64(text).value, value) << text;
    }
}

TEST(PlainNumber, HasNothingAroundIt) {
    EXPECT_TRUE(isPlainNumber("-7", -7));
    for (const char* text : {"+7", " 7", "7 ", "07", "7s", ""}) {
        EXPECT_FALSE(isPlainNumber(text, 7)) << text;
    }
}

}  // namespace
}  // namespace session_service
