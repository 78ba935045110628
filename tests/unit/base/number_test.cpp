#include "base/number.h"

#include <gtest/gtest.h>

#include "support/captured_output.h"

namespace session_service {
namespace {

constexpr NumberFaults faults{"No digits:", "Too large:"};

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
        EXPECT_EQ(standardErrorOf([&, &given = text, &expected = value] {
                      EXPECT_EQ(parseNumber(given, faults, FaultLevel::error), expected) << given;
                  }),
                  "");
    }
}

TEST(Number, IsNoneWithoutDigits) {
    for (const char* text : {"", " ", "-", "+", "abc", "- 1", "--1", "\"5\"", ".5"}) {
        EXPECT_EQ(standardErrorOf([&] {
                      EXPECT_EQ(parseNumber(text, faults, FaultLevel::error), std::nullopt) << text;
                  }),
                  "[Error]: No digits: stoi\n");
    }
}

TEST(Number, IsNoneBeyond32Bits) {
    for (const char* text : {"2147483648", "-2147483649", "99999999999999999999"}) {
        EXPECT_EQ(standardErrorOf([&] {
                      EXPECT_EQ(parseNumber(text, faults, FaultLevel::error), std::nullopt) << text;
                  }),
                  "[Error]: Too large: stoi\n");
    }
}

TEST(Number, FaultsAreLoggedAtTheGivenLevel) {
    EXPECT_EQ(standardErrorOf([] { parseNumber("", faults, FaultLevel::debug); }),
              "[Debug]: No digits: stoi\n");
    EXPECT_EQ(standardErrorOf([] { parseNumber("2147483648", faults, FaultLevel::debug); }),
              "[Debug]: Too large: stoi\n");
}

}  // namespace
}  // namespace session_service
