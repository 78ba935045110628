// The names that this service shares with the others: store keys and channels.
// Keys and fields that are internal and no Redfish resources begin with "&&".
#pragma once

#include <string>

namespace session_service {

// The resources.
inline const std::string serviceUri = "/redfish/v1/SessionService";
inline const std::string collectionUri = "/redfish/v1/SessionService/Sessions";
inline const std::string sessionUriPrefix = "/redfish/v1/SessionService/Sessions/";

inline constexpr const char* serviceEnabledField = "ServiceEnabled";
inline constexpr const char* sessionTimeoutField = "SessionTimeout";

// A list of "&&ObjectRef " + session URI, newest first.
inline const std::string membersKey = "&&/redfish/v1/SessionService/Sessions/Members";
inline const std::string membersCountField = "Members@odata.count";
inline const std::string memberPrefix = "&&ObjectRef ";

// In front of a session URI: the hash that names the session's token.
inline const std::string tokenReferencePrefix = "&&";
// In front of a token: the hash with the session's user, privilege and last use.
inline const std::string tokenRecordPrefix = "&&X-AUTH-TOKEN-";

// "SessionType" of the sessions that this service owns, as stored.
inline const std::string redfishSessionType = "\"Redfish\"";

// The channels on which requests are announced, and the queues that name them.
inline const std::string createQueue = "&&/redfish/v1/SessionService/Sessions/POSTCREATEQ";
inline const std::string createChannel = "&&/redfish/v1/SessionService/Sessions/CreateNewSession";
inline const std::string deleteQueue = "&&/redfish/v1/SessionService/Sessions/DELETEQ";
inline const std::string deleteChannel = "&&/redfish/v1/SessionService/Sessions/DeleteSession";
inline const std::string patchQueue = "&&/redfish/v1/SessionService/PATCHQ";
inline const std::string patchChannel = "&&/redfish/v1/SessionService/CHANNEL";

// Hashes shared with other services.
inline const std::string defaultValuesKey = "webDefaultValue";
inline const std::string scriptDigestsKey = "redisSHAScripts";
inline constexpr const char* messageLifetimeField = "REDIS_CONNECTION_DEFAULT_TIMEOUT";
inline constexpr const char* maxEventGroupField = "MAX_EVENT_GROUP_ID";

}  // namespace session_service
