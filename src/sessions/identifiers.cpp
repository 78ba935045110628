#include "sessions/identifiers.h"

#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <cstdio>

#include "base/file_descriptor.h"
#include "base/secret.h"
#include "sessions/records.h"

namespace session_service {

// A chunk of fewer than four bytes must fill the low end of its number.
static_assert(std::endian::native == std::endian::little);

std::string generateRandomHex(unsigned byteCount) {
    std::string digits;
    // Tokens are made here: the text must not leave copies behind by growing.
    digits.reserve(std::size_t{byteCount} * 2);
    while (byteCount != 0) {
        // Opened for every chunk: nothing random stays in a buffer.
        const FileDescriptor device(open("/dev/urandom", O_RDONLY | O_CLOEXEC));
        if (!device) {
            continue;
        }
        const unsigned chunkSize = std::min<unsigned>(byteCount, sizeof(std::uint32_t));
        std::uint32_t chunk = 0;
        if (read(device.get(), &chunk, chunkSize) < 1) {
            wipe(digits);
            return digits;
        }
        std::array<char, 2 * sizeof(chunk) + 1> formatted{};
        std::snprintf(formatted.data(), formatted.size(), "%0*x", static_cast<int>(chunkSize * 2),
                      chunk);
        digits += formatted.data();
        explicit_bzero(&chunk, sizeof(chunk));
        explicit_bzero(formatted.data(), formatted.size());
        byteCount -= chunkSize;
    }
    return digits;
}

std::string generateSessionId(redisContext* connection) {
    for (;;) {
        std::string id = generateRandomHex(sessionIdBytes);
        if (!isSessionIdTaken(connection, id)) {
            return id;
        }
    }
}

std::string generateToken(redisContext* connection) {
    for (;;) {
        std::string token = generateRandomHex(tokenBytes);
        if (!isTokenTaken(connection, token)) {
            return token;
        }
        wipe(token);
    }
}

}  // namespace session_service
