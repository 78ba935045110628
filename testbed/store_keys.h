// The keys and channels of the store that the testbed and its users look at.
#pragma once

#include <string>

namespace testbed {

inline constexpr const char* serviceUri = "/redfish/v1/SessionService";
inline constexpr const char* sessionsUri = "/redfish/v1/SessionService/Sessions";
inline constexpr const char* membersKey = "&&/redfish/v1/SessionService/Sessions/Members";
inline constexpr const char* eventServiceUri = "/redfish/v1/EventService";
inline constexpr const char* eventGroupCounter = "&&EVENT_GROUP_ID_COUNTER";
inline constexpr const char* eventStream = "&&EventStream";
inline constexpr const char* auditEntriesUri =
    "/redfish/v1/Managers/1/LogServices/AuditLog/Entries";
inline constexpr const char* auditMembersKey =
    "&&/redfish/v1/Managers/1/LogServices/AuditLog/Entries/Members";

// The channels of requests.
inline constexpr const char* createChannel =
    "&&/redfish/v1/SessionService/Sessions/CreateNewSession";
inline constexpr const char* deleteChannel = "&&/redfish/v1/SessionService/Sessions/DeleteSession";
inline constexpr const char* patchChannel = "&&/redfish/v1/SessionService/CHANNEL";

// The keys that belong to a session.
inline std::string tokenReferenceKey(const std::string& sessionUri) {
    return "&&" + sessionUri;
}
inline std::string tokenKey(const std::string& token) {
    return "&&X-AUTH-TOKEN-" + token;
}

}  // namespace testbed
