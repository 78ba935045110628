// The configuration file that several subsystems read a setting of.
#pragma once

#include <cstddef>

namespace session_service {

inline constexpr const char* configurationFile = "/usr/local/etc/nginx/SessionService.conf";
// For one value, its terminating zero included.
inline constexpr std::size_t settingBufferSize = 128;

}  // namespace session_service
