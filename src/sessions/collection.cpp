#include "sessions/collection.h"

#include <algorithm>

#include "sessions/records.h"
#include "store/entity_tag.h"
#include "store/resource_names.h"

namespace session_service {

bool addSessionMember(redisContext* connection, const char* id) {
    if (!connection || !id) {
        return false;
    }
    if (!store::lpush(connection, membersKey, memberPrefix + sessionUriOf(id))) {
        return false;
    }
    updateEtag(connection, collectionUri);
    store::send(connection, {"HINCRBY", collectionUri, membersCountField, "1"});
    return true;
}

void removeSessionMember(redisContext* connection, const std::string& uri) {
    if (store::sendForInteger(connection, {"LREM", membersKey, "-1", memberPrefix + uri}) == 1) {
        store::send(connection, {"HINCRBY", collectionUri, membersCountField, "-1"});
        updateEtag(connection, collectionUri);
    }
}

bool canReadMembers(redisContext* connection) {
    return store::send(connection, {"LRANGE", membersKey, "0", "-1"});
}

bool hasMemberCount(redisContext* connection) {
    return !store::hget(connection, collectionUri, membersCountField).empty();
}

std::vector<std::string> memberUris(redisContext* connection) {
    std::vector<std::string> members;
    store::lrange(connection, membersKey, members);
    for (std::string& member : members) {
        // A shorter one becomes empty.
        member.erase(0, memberPrefix.size());
    }
    return members;
}

int countRedfishSessions(redisContext* connection) {
    const std::vector<std::string> uris = memberUris(connection);
    return static_cast<int>(std::count_if(
        uris.begin(), uris.end(),
        [connection](const std::string& uri) { return isRedfishSession(connection, uri); }));
}

}  // namespace session_service
