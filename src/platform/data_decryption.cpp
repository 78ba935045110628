#include "platform/data_decryption.h"

#include <fcntl.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <climits>
#include <memory>
#include <vector>

#include "base/file_descriptor.h"
#include "base/secret.h"

namespace {

using session_service::FileDescriptor;
using session_service::SecretText;
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

// Looked up once: the search among the providers takes longer than the decryption of a password.
const EVP_CIPHER* algorithm() {
    static const std::unique_ptr<EVP_CIPHER, FreeAlgorithm> found = [] {
        // Nothing here tells errors apart, and their texts take half a megabyte.
        OPENSSL_init_crypto(OPENSSL_INIT_NO_LOAD_CRYPTO_STRINGS, nullptr);
        return std::unique_ptr<EVP_CIPHER, FreeAlgorithm>(
            EVP_CIPHER_fetch(nullptr, "AES-256-GCM", nullptr));
    }();
    // Without memory for it at the first password, later ones must still be decrypted.
    return found ? found.get() : EVP_aes_256_gcm();
}

// Writes half as many bytes as there are digits to `bytes`. False for an odd number of digits or an
// invalid one.
bool parseHex(const std::string& digits, unsigned char* bytes) {
    std::size_t length = 0;
    // The library takes a text to its first zero byte, which is no digit here.
    return digits.find('\0') == std::string::npos &&
           OPENSSL_hexstr2buf_ex(bytes, digits.size() / 2, &length, digits.c_str(), '\0') == 1;
}

// In lower case.
std::string formatHex(const Bytes& bytes) {
    std::vector<char> digits(2 * bytes.size() + 1);
    OPENSSL_buf2hexstr_ex(digits.data(), digits.size(), nullptr, bytes.data(), bytes.size(), '\0');
    std::string text(digits.data());
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char digit) { return static_cast<char>(std::tolower(digit)); });
    return text;
}

bool readKey(const std::string& path, Key& key) {
    const FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file) {
        return false;
    }
    // One byte more than a key and its line feed: a longer file is no key file.
    SecretText digits{std::string(keyDigits + 2, '\0')};
    std::size_t length = 0;
    ssize_t count = 0;
    while (length < digits.text.size() && (count = read(file.get(), digits.text.data() + length,
                                                        digits.text.size() - length)) > 0) {
        length += static_cast<std::size_t>(count);
    }
    if (length > 0 && digits.text[length - 1] == '\n') {
        --length;
    }
    digits.text.resize(length);
    return length == keyDigits && parseHex(digits.text, key.bytes.data());
}

// Decrypts into `plain`, which has the ciphertext's size. False for a wrong tag.
bool decrypt(const Key& key, const unsigned char* nonce, const unsigned char* ciphertext,
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

// Encrypts `plain` to `message`, which holds the nonce and has room for the rest.
bool encrypt(const Key& key, const std::string& plain, Bytes& message) {
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
    if (!decrypt(key, message.data(), ciphertext, ciphertext + plain.size(), plain)) {
        wipe(plain);
    }
    return plain;
}

std::string encryptToHexString(const std::string& plainText, const std::string& keyFilePath) {
    Key key;
    Bytes message(nonceSize + plainText.size() + tagSize);
    if (message.size() > INT_MAX || !readKey(keyFilePath, key) ||
        RAND_bytes(message.data(), nonceSize) != 1 || !encrypt(key, plainText, message)) {
        return {};
    }
    return formatHex(message);
}
