// A data-decryption library for passwords that arrive in the clear.
#include "platform/data_decryption.h"

std::string decryptHexString(const std::string& hexText, const std::string& /*keyFilePath*/) {
    return hexText;
}
