// Decryption of any texts with any key files, and encryption followed by decryption.
#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>

#include "platform/data_decryption.h"
#include "support/input.h"
#include "support/memory_file.h"
#include "support/require.h"

namespace session_service {
namespace {

constexpr std::size_t addedBytes = 12 + 16;  // nonce and tag

bool isHex(std::string_view text) {
    return text.find_first_not_of("0123456789abcdefABCDEF") == std::string_view::npos;
}

bool isKey(std::string_view text) {
    if (text.ends_with('\n')) {
        text.remove_suffix(1);
    }
    return text.size() == 64 && isHex(text);
}

// The other hexadecimal digits' texts stay as they are.
std::string capitals(std::string text) {
    for (char& digit : text) {
        digit = digit >= 'a' && digit <= 'f' ? static_cast<char>(digit - 'a' + 'A') : digit;
    }
    return text;
}

// `place` chooses the digit that is changed.
void checkEncryption(const std::string& plain, const std::string& keyFile, bool usable,
                     std::size_t place) {
    std::string encrypted = encryptToHexString(plain, keyFile);
    if (!usable) {
        require(encrypted.empty(), "without a key nothing is encrypted");
        return;
    }
    require(encrypted.size() == 2 * (plain.size() + addedBytes) && isHex(encrypted),
            "the encrypted text has the text's length, nonce and tag in digits");
    require(decryptHexString(encrypted, keyFile) == plain, "the text comes back");
    require(decryptHexString(capitals(encrypted), keyFile) == plain,
            "the text comes back from capital digits");
    char& digit = encrypted[place % encrypted.size()];
    digit = digit == '0' ? '1' : '0';
    require(decryptHexString(encrypted, keyFile).empty(), "a changed digit is noticed");
}

}  // namespace
}  // namespace session_service

// The sections: the key file, a text that claims to be encrypted, a text to encrypt.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace session_service;
    static MemoryFile keyFile;
    InputSections sections(data, size);
    const std::string key = sections.next();
    keyFile.write(key);
    std::string encrypted = sections.next();
    if (encrypted.ends_with('\n')) {
        encrypted.pop_back();
    }
    const std::string decrypted = decryptHexString(encrypted, keyFile.path());
    require(decrypted.empty() || (isKey(key) && isHex(encrypted) &&
                                  encrypted.size() == 2 * (decrypted.size() + addedBytes)),
            "only digits under a key are decrypted");
    const std::string plain = sections.next();
    checkEncryption(plain, keyFile.path(), isKey(key), encrypted.size());
    return 0;
}
