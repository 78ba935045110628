#include "platform/data_decryption.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>

#include "support/temporary_folder.h"

namespace session_service {
namespace {

// Made with an implementation of its own.
const std::string keyDigits = "a0a1a2a3a4a5a6a7a8a9aaabacadaeafb0b1b2b3b4b5b6b7b8b9babbbcbdbebf";
const std::string plainText = "correct horse";
const std::string encrypted =
    "101112131415161718191a1b"
    "f7d9077cbb24c192f2161e62fc"
    "fe932bf6ddf3c9104c9edd81df91e64d";
const std::string encryptedEmpty =
    "101112131415161718191a1b"
    "60e7489b042f0ae2769eed9ede95f6b0";

std::string capitals(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char digit) { return static_cast<char>(std::toupper(digit)); });
    return text;
}

class Decryption : public testing::Test {
  protected:
    std::string decrypt(const std::string& text) { return decryptHexString(text, keyFile); }

    TemporaryFolder folder;
    std::string keyFile = folder.write("key", keyDigits + '\n');
};

TEST_F(Decryption, DecryptsWhatAnotherImplementationEncrypted) {
    EXPECT_EQ(decrypt(encrypted), plainText);
}

TEST_F(Decryption, AgreesWithThePublishedVectorOfTheCipher) {
    folder.write("key", std::string(64, '0'));
    EXPECT_EQ(decrypt(std::string(24, '0') +
                      "cea7403d4d606b6e074ec5d3baf39d18d0d1c8a799996bf0265b98b5d48ab919"),
              std::string(16, '\0'));
}

TEST_F(Decryption, ReadsDigitsOfBothCases) {
    EXPECT_EQ(decrypt(capitals(encrypted)), plainText);
    folder.write("key", capitals(keyDigits));
    EXPECT_EQ(decrypt(encrypted), plainText);
}

TEST_F(Decryption, TakesAKeyFileWithoutALineFeed) {
    folder.write("key", keyDigits);
    EXPECT_EQ(decrypt(encrypted), plainText);
}

TEST_F(Decryption, FindsNothingInAnEmptyText) {
    EXPECT_EQ(decrypt(encryptedEmpty), "");
}

TEST_F(Decryption, ReversesTheEncryption) {
    const std::string bytes("zero\0high\xff", 10);
    for (const std::string& text : {std::string(), plainText, bytes, std::string(1 << 20, 'm')}) {
        const std::string travelling = encryptToHexString(text, keyFile);
        ASSERT_EQ(travelling.size(), 2 * (12 + text.size() + 16));
        EXPECT_TRUE(decrypt(travelling) == text) << text.size() << " bytes";
    }
}

TEST_F(Decryption, EncryptsTheSameTextDifferentlyEachTime) {
    EXPECT_NE(encryptToHexString(plainText, keyFile), encryptToHexString(plainText, keyFile));
}

TEST_F(Decryption, RefusesWhatIsNoText) {
    const std::string tooShort = encrypted.substr(0, 54);
    for (const std::string& text :
         {std::string(), std::string("0"), tooShort, encrypted.substr(1), encrypted + '0',
          'g' + encrypted.substr(1), ' ' + encrypted.substr(1), encrypted + '\n',
          "0x" + encrypted.substr(2)}) {
        EXPECT_EQ(decrypt(text), "") << text;
    }
}

TEST_F(Decryption, RefusesATextChangedAnywhere) {
    for (std::size_t i = 0; i < encrypted.size(); ++i) {
        std::string changed = encrypted;
        changed[i] = changed[i] == '0' ? '1' : '0';
        EXPECT_EQ(decrypt(changed), "") << "digit " << i;
    }
}

TEST_F(Decryption, RefusesATextCutOrLengthened) {
    EXPECT_EQ(decrypt(encrypted.substr(0, encrypted.size() - 2)), "");
    EXPECT_EQ(decrypt(encrypted + "00"), "");
}

TEST_F(Decryption, RefusesTheTextOfAnotherKey) {
    folder.write("key", std::string(64, '1'));
    EXPECT_EQ(decrypt(encrypted), "");
}

TEST_F(Decryption, RefusesAMalformedKeyFile) {
    for (const std::string& text :
         {std::string(), std::string("\n"), keyDigits.substr(1), keyDigits.substr(2),
          keyDigits + '0', keyDigits + "00", keyDigits + "\n\n", keyDigits + "\r\n",
          '\n' + keyDigits, "g" + keyDigits.substr(1), keyDigits + '\n' + keyDigits}) {
        folder.write("key", text);
        EXPECT_EQ(decrypt(encrypted), "") << '"' << text << '"';
        EXPECT_EQ(encryptToHexString(plainText, keyFile), "") << '"' << text << '"';
    }
}

TEST_F(Decryption, RefusesAMissingKeyFile) {
    for (const std::string& path : {folder.path("missing"), folder.path(), std::string()}) {
        EXPECT_EQ(decryptHexString(encrypted, path), "");
        EXPECT_EQ(encryptToHexString(plainText, path), "");
    }
}

}  // namespace
}  // namespace session_service
