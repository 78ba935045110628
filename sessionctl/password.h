// Asking for a password.
#pragma once

#include <string>

#include "base/secret.h"

namespace session_service::console {

// Reads one line: from the terminal, after the prompt and without an echo, where standard
// input is one; else from standard input, without a prompt. The line feed is left out.
// Throws Problem at the end of the input, and when the echo cannot be switched off or the
// line is longer than what a login may have.
SecretText readPassword(const std::string& prompt);

}  // namespace session_service::console
