// Session identifiers and tokens.
#pragma once

#include <string>

#include "store/commands.h"

namespace session_service {

inline constexpr unsigned sessionIdBytes = 4;
inline constexpr unsigned tokenBytes = 32;

// Two lower-case hexadecimal digits for each of `byteCount` bytes of the kernel's random
// device; empty when the device cannot be read. While it cannot be opened, tries again
// without end.
std::string generateRandomHex(unsigned byteCount);

// An identifier and a token that no session has yet. Both try again until the value is free; an
// unreadable random device gives an empty value.
std::string generateSessionId(redisContext* connection);
std::string generateToken(redisContext* connection);

}  // namespace session_service
