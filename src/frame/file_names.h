// The files that this service shares with others, and the PAM service that it asks.
#pragma once

#include <cstddef>

namespace session_service {

inline constexpr const char* configurationFile = "/usr/local/etc/nginx/SessionService.conf";
inline constexpr std::size_t settingSize = 128;  // of its values, the ending zero included

inline constexpr const char* groupFile = "/etc/pam.d/q73.conf";
inline constexpr const char* privilegeFile = "/etc/pam.d/groups2privs.conf";
inline constexpr const char* propertyFile = "/var/nginx/SessionPersistentProp.conf";
inline constexpr const char* keyFile = "/var/nginx/pkey.tmp";

// Who may log in: a service of this name under /etc/pam.d.
inline constexpr const char* pamService = "q73";

}  // namespace session_service
