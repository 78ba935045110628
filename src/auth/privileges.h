// Privilege masks and the account behind a login name.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "store/commands.h"

namespace session_service {

// The masks of a comma-separated list, one for each piece between commas. A piece is read
// as a decimal number (leading blanks and a sign allowed, trailing text ignored); one that
// is none or leaves 32 bits is logged as an error and repeats the last good value, 0 if
// there was none.
std::vector<std::int32_t> parsePrivilegeList(const std::string& text);

// The user's own privilege value, read the same way; 0 (and an error line) on failure.
std::int32_t parseUserPrivilege(const std::string& text);

// True when the list is empty or at least one of its masks lies within `userPrivilege`.
bool hasRequiredPrivilege(std::int32_t userPrivilege, const std::vector<std::int32_t>& required);

// The key of the first account whose &&OwnerName is the user name; empty when there is
// none or the accounts cannot be listed. Logs nothing.
std::string findAccountByOwner(redisContext* connection, const std::string& userName);

}  // namespace session_service
