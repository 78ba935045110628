// The session collection: its list of members, its count, and the entity tags.
#pragma once

#include <string>

#include "store/commands.h"

namespace session_service {

// Puts the session with the (bare) identifier at the head of the members list, stamps
// the collection's entity tag and increments its count.
// Returns whether the list took the member; the rest is not reported. A null connection
// or identifier gives false and touches nothing.
bool addSessionMember(redisContext* store, const char* id);

// The number of members whose stored type is Redfish: one list read, one field read a
// member. What cannot be read does not count.
int countRedfishSessions(redisContext* store);

// The URI that a member of the collection's list names.
std::string memberUri(const std::string& member);

// Stamps the resource's entity tag with the wall clock's milliseconds. Reports nothing.
void updateEtag(redisContext* store, const std::string& resourceKey);

}  // namespace session_service
