// Keys and fields of the store that belong to more than one subsystem. Keys and fields that are
// internal and no Redfish resources begin with "&&".
#pragma once

#include <string>

namespace session_service {

// The service resource.
inline const std::string serviceUri = "/redfish/v1/SessionService";
inline constexpr const char* serviceEnabledField = "ServiceEnabled";
inline constexpr const char* sessionTimeoutField = "SessionTimeout";

// The session collection.
inline const std::string collectionUri = "/redfish/v1/SessionService/Sessions";

// Hashes shared with other services: default values, and the digests of loaded scripts.
inline const std::string defaultValuesKey = "webDefaultValue";
inline const std::string scriptDigestsKey = "redisSHAScripts";

}  // namespace session_service
