// Wiping texts that must not stay in memory.
#pragma once

#include <string.h>

#include <string>

namespace session_service {

// Overwrites the text's whole memory, unused capacity included, and empties it.
inline void wipe(std::string& text) noexcept {
    explicit_bzero(text.data(), text.capacity());
    text.clear();
}

// A text that is wiped before its memory is released. An aggregate, so that a function's
// result is built in place: moving a short text leaves its bytes behind.
struct SecretText {
    std::string text;

    ~SecretText() { wipe(text); }
};

}  // namespace session_service
