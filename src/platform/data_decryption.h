// The data-decryption library: a platform interface. The default implementation here
// serves a controller that has no library of its own for it.
//
// Format of the default: AES-256-GCM without associated data; the hexadecimal text
// is the nonce (12 bytes), the ciphertext and the tag (16 bytes). The key file holds
// 64 hexadecimal digits and, optionally, one line feed. Digits of both cases are read.
#pragma once

#include <string>

// Returns the decrypted text, or an empty text when it cannot be decrypted: foreign
// or odd digits, too short, wrong tag, missing or malformed key file. The caller wipes
// the result; working copies are wiped here. Safe to call from several threads.
std::string decryptHexString(const std::string& hexText, const std::string& keyFilePath);

// The counterpart, for whoever stores requests: encrypts with a fresh random nonce.
// Returns lower-case hexadecimal digits, or an empty text when the key file cannot be
// used or random bytes are not available.
std::string encryptToHexString(const std::string& plainText, const std::string& keyFilePath);
