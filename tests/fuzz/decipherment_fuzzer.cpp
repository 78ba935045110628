// The decipherment: texts and key files of every shape, and the way back.
#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>

#include "platform/data_decryption.h"
#include "support/memory_file.h"
#include "support/pieces.h"
#include "support/property.h"

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

// `place` chooses the byte that changes on the way.
void checkWayBack(const std::string& plain, const std::string& keyFile, bool usable,
                  std::size_t place) {
    std::string travelling = encryptToHexString(plain, keyFile);
    if (!usable) {
        require(travelling.empty(), "without a key nothing is enciphered");
        return;
    }
    require(travelling.size() == 2 * (plain.size() + addedBytes) && isHex(travelling),
            "what travels is the text's length, nonce and tag in digits");
    require(decryptHexString(travelling, keyFile) == plain, "the text comes back");
    require(decryptHexString(capitals(travelling), keyFile) == plain,
            "the text comes back from capital digits");
    char& digit = travelling[place % travelling.size()];
    digit = digit == '0' ? '1' : '0';
    require(decryptHexString(travelling, keyFile).empty(), "a changed digit is noticed");
}

}  // namespace
}  // namespace session_service

// The pieces: the key file, a text that claims to be enciphered, a text to encipher.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace session_service;
    static MemoryFile keyFile;
    Pieces pieces(data, size);
    const std::string key = pieces.next();
    keyFile.write(key);
    std::string enciphered = pieces.next();
    if (enciphered.ends_with('\n')) {
        enciphered.pop_back();
    }
    const std::string deciphered = decryptHexString(enciphered, keyFile.path());
    require(deciphered.empty() || (isKey(key) && isHex(enciphered) &&
                                   enciphered.size() == 2 * (deciphered.size() + addedBytes)),
            "only digits under a key are deciphered");
    const std::string plain = pieces.next();
    checkWayBack(plain, keyFile.path(), isKey(key), enciphered.size());
    return 0;
}
