// The session collection: its list of members and its count.
#pragma once

#include <string>
#include <vector>

#include "store/commands.h"

namespace session_service {

// A list of "&&ObjectRef " + session URI, newest first.
inline const std::string membersKey = "&&/redfish/v1/SessionService/Sessions/Members";
inline const std::string memberPrefix = "&&ObjectRef ";
// Of the collection's own hash.
inline const std::string membersCountField = "Members@odata.count";

// Puts the session with the (bare) identifier at the head of the members list, stamps
// the collection's entity tag and increments its count.
// Returns whether the list took the member; the rest is not reported. A null connection
// or identifier gives false and touches nothing.
bool addSessionMember(redisContext* connection, const char* id);

// Takes the session at the URI out of the members list; when it was in it, decrements the
// collection's count and stamps its entity tag. Reports nothing.
void removeSessionMember(redisContext* connection, const std::string& uri);

// Whether the store answers a read of the members list: a deletion asks before it removes anything.
bool canReadMembers(redisContext* connection);

// Whether the collection has a count to be decremented.
bool hasMemberCount(redisContext* connection);

// The URIs of the members, newest first.
// Throws std::logic_error when a member has no text.
std::vector<std::string> memberUris(redisContext* connection);

// The number of members whose stored type is Redfish: one list read, one field read a
// member. What cannot be read does not count.
int countRedfishSessions(redisContext* connection);

}  // namespace session_service
