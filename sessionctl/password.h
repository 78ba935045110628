// Asking for a password.
#pragma once

#include <string>

#include "base/secret.h"

namespace session_service::console {

// Reads one line from standard input, without its line feed. If that is a terminal, prompts and
// switches the echo off.
// Throws CommandError at the end of the input, when the echo cannot be switched off, and when the
// password is too long for a login.
SecretText readPassword(const std::string& prompt);

}  // namespace session_service::console
