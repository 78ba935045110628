// Keys and log lines of the daemon that tests of several kinds look for.
#pragma once

namespace testbed {

inline constexpr const char* createQueue = "&&/redfish/v1/SessionService/Sessions/POSTCREATEQ";
inline constexpr const char* deleteQueue = "&&/redfish/v1/SessionService/Sessions/DELETEQ";
inline constexpr const char* patchQueue = "&&/redfish/v1/SessionService/PATCHQ";
inline constexpr const char* defaults = "webDefaultValue";
inline constexpr const char* scriptDigests = "redisSHAScripts";

inline constexpr const char* starting = "SessionService log is starting ...";
inline constexpr const char* terminates = "SessionService terminates.";

}  // namespace testbed
