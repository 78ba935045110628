#include "base/secret.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <new>

namespace session_service {
namespace {

// Reads memory as it is, also where no object lives any more.
bool isZero(const volatile char* memory, std::size_t size) {
    return std::all_of(memory, memory + size, [](char byte) { return byte == '\0'; });
}

TEST(Wiping, OverwritesTheWholeMemoryOfALongText) {
    std::string text(100, 's');
    text.resize(10);  // The rest of the secret is still there.
    const char* memory = text.data();
    const std::size_t capacity = text.capacity();
    wipe(text);
    EXPECT_TRUE(text.empty());
    EXPECT_EQ(text.data(), memory);
    EXPECT_TRUE(isZero(memory, capacity));
}

TEST(Wiping, OverwritesAShortText) {
    std::string text = "short";
    wipe(text);
    EXPECT_TRUE(text.empty());
    EXPECT_TRUE(isZero(text.data(), text.capacity()));
}

TEST(Wiping, LeavesTheTextUsable) {
    std::string text = "secret";
    wipe(text);
    text = "another";
    EXPECT_EQ(text, "another");
}

TEST(SecretText, IsWipedWhenItsLifeEnds) {
    alignas(SecretText) char memory[sizeof(SecretText)];
    // Short enough to lie within the object.
    auto* secret = new (memory) SecretText{"secret"};
    const std::ptrdiff_t offset = secret->text.data() - memory;
    ASSERT_GE(offset, 0);
    ASSERT_LT(offset, static_cast<std::ptrdiff_t>(sizeof(SecretText)));
    secret->~SecretText();
    EXPECT_TRUE(isZero(memory + offset, 6));
}

}  // namespace
}  // namespace session_service
