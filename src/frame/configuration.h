// The configuration file that several subsystems read a setting of.
#pragma once

#include <cstddef>

namespace session_service {

inline constexpr const char* configurationFile = "/usr/local/etc/nginx/SessionService.conf";
inline constexpr std::size_t maxSettingSize = 128;  // of a value, its ending zero included

}  // namespace session_service
