#include "platform/data_decryption.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <string.h>
#include <unistd.h>

#include <array>
#include <climits>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "base/file_descriptor.h"
#include "base/secret.h"

namespace {

using session_service::FileDescriptor;
using session_service::wipe;

constexpr std::size_t nonceSize = 12;
constexpr std::size_t tagSize = 16;
constexpr std::size_t keySize = 32;
constexpr std::size_t keyDigits = 2 * keySize;

using Bytes = std::vector<unsigned char>;

// A key that is wiped with its owner.
struct Key {
    std::array<unsigned char, keySize> bytes{};

    Key() = default;
    Key(const Key&) = delete;
    Key& operator=(const Key&) = delete;
    ~Key() { explicit_bzero(bytes.data(), bytes.size()); }
};

struct FreeCipher {
    void operator()(EVP_CIPHER_CTX* cipher) const noexcept { EVP_CIPHER_CTX_free(cipher); }
};
using CipherPtr = std::unique_ptr<EVP_CIPHER_CTX, FreeCipher>;

struct FreeAlgorithm {
    void operator()(EVP_CIPHER* algorithm) const noexcept { EVP_CIPHER_free(algorithm); }
};

// Looked up once: the search among the providers takes longer than a password's deciphering.
const EVP_CIPHER* algorithm() {
    static const std::unique_ptr<EVP_CIPHER, FreeAlgorithm> found = [] {
        // Nothing here tells errors apart, and their texts take half a megabyte.
        OPENSSL_init_crypto(OPENSSL_INIT_NO_LOAD_CRYPTO_STRINGS, nullptr);
        return std::unique_ptr<EVP_CIPHER, FreeAlgorithm>(
            EVP_CIPHER_fetch(nullptr, "AES-256-GCM", nullptr));
    }();
    // Without memory for it at the first password, later ones must still be deciphered.
    return found ? found.get() : EVP_aes_256_gcm();
}

int digitValue(char digit) {
    if (digit >= '0' && digit <= '9') {
        return digit - '0';
    }
    if (digit >= 'a' && digit <= 'f') {
        return digit - 'a' + 10;
    }
    if (digit >= 'A' && digit <= 'F') {
        return digit - 'A' + 10;
    }
    return -1;
}

// Writes half as many bytes as there are digits to `bytes`. False for odd or foreign digits.
bool parseHex(std::string_view digits, unsigned char* bytes) {
    if (digits.size() % 2 != 0) {
        return false;
    }
    for (std::size_t i = 0; i < digits.size(); i += 2) {
        const int high = digitValue(digits[i]);
        const int low = digitValue(digits[i + 1]);
        if (high < 0 || low < 0) {
            return false;
        }
        bytes[i / 2] = static_cast<unsigned char>(high * 16 + low);
    }
    return true;
}

std::string formatHex(const Bytes& bytes) {
    constexpr std::string_view digits = "0123456789abcdef";
    std::string text;
    text.reserve(bytes.size() * 2);
    for (const unsigned char byte : bytes) {
        text += digits[byte >> 4];
        text += digits[byte & 0xf];
    }
    return text;
}

bool readKey(const std::string& path, Key& key) {
    const FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file) {
        return false;
    }
    // One byte more than a key and its line feed: a longer file is no key file.
    std::array<char, keyDigits + 2> text{};
    std::size_t length = 0;
    ssize_t count = 0;
    while (length < text.size() &&
           (count = read(file.get(), text.data() + length, text.size() - length)) > 0) {
        length += static_cast<std::size_t>(count);
    }
    std::string_view digits(text.data(), length);
    if (digits.ends_with('\n')) {
        digits.remove_suffix(1);
    }
    const bool valid = digits.size() == keyDigits && parseHex(digits, key.bytes.data());
    explicit_bzero(text.data(), text.size());
    return valid;
}

// Deciphers into `plain`, which has the ciphertext's size. False for a wrong tag.
bool decipher(const Key& key, const unsigned char* nonce, const unsigned char* ciphertext,
              unsigned char* tag, std::string& plain) {
    const CipherPtr cipher(EVP_CIPHER_CTX_new());
    auto* output = reinterpret_cast<unsigned char*>(plain.data());
    int length = 0;
    return cipher &&
           EVP_DecryptInit_ex2(cipher.get(), algorithm(), key.bytes.data(), nonce, nullptr) == 1 &&
           EVP_DecryptUpdate(cipher.get(), output, &length, ciphertext,
                             static_cast<int>(plain.size())) == 1 &&
           EVP_CIPHER_CTX_ctrl(cipher.get(), EVP_CTRL_GCM_SET_TAG, tagSize, tag) == 1 &&
           EVP_DecryptFinal_ex(cipher.get(), output + length, &length) == 1;
}

// Enciphers `plain` to `message`, which holds the nonce and has room for the rest.
bool encipher(const Key& key, const std::string& plain, Bytes& message) {
    const CipherPtr cipher(EVP_CIPHER_CTX_new());
    unsigned char* output = message.data() + nonceSize;
    int length = 0;
    return cipher &&
           EVP_EncryptInit_ex2(cipher.get(), algorithm(), key.bytes.data(), message.data(),
                               nullptr) == 1 &&
           EVP_EncryptUpdate(cipher.get(), output, &length,
                             reinterpret_cast<const unsigned char*>(plain.data()),
                             static_cast<int>(plain.size())) == 1 &&
           EVP_EncryptFinal_ex(cipher.get(), output + length, &length) == 1 &&
           EVP_CIPHER_CTX_ctrl(cipher.get(), EVP_CTRL_GCM_GET_TAG, tagSize,
                               output + plain.size()) == 1;
}

}  // namespace

std::string decryptHexString(const std::string& hexText, const std::string& keyFilePath) {
    std::string plain;
    Bytes message(hexText.size() / 2);
    if (message.size() < nonceSize + tagSize || message.size() > INT_MAX ||
        !parseHex(hexText, message.data())) {
        return plain;
    }
    Key key;
    if (!readKey(keyFilePath, key)) {
        return plain;
    }
    plain.resize(message.size() - nonceSize - tagSize);
    unsigned char* ciphertext = message.data() + nonceSize;
    if (!decipher(key, message.data(), ciphertext, ciphertext + plain.size(), plain)) {
        wipe(plain);
    }
    return plain;
}

std::string encryptToHexString(const std::string& plainText, const std::string& keyFilePath) {
    Key key;
    Bytes message(nonceSize + plainText.size() + tagSize);
    if (message.size() > INT_MAX || !readKey(keyFilePath, key) ||
        RAND_bytes(message.data(), nonceSize) != 1 || !encipher(key, plainText, message)) {
        return {};
    }
    return formatHex(message);
}
