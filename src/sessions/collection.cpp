#include "sessions/collection.h"

#include <sys/time.h>

#include <cstdint>
#include <vector>

#include "frame/resource_names.h"
#include "sessions/records.h"

namespace session_service {

bool addSessionMember(redisContext* store, const char* id) {
    if (!store || !id) {
        return false;
    }
    if (!store::lpush(store, membersKey, memberPrefix + sessionUriPrefix + id)) {
        return false;
    }
    updateEtag(store, collectionUri);
    store::send(store, {"HINCRBY", collectionUri, membersCountField, "1"});
    return true;
}

int countRedfishSessions(redisContext* store) {
    std::vector<std::string> members;
    store::lrange(store, membersKey, members);
    int count = 0;
    for (const std::string& member : members) {
        if (store::hget(store, memberUri(member), sessionTypeField) == redfishSessionType) {
            ++count;
        }
    }
    return count;
}

std::string memberUri(const std::string& member) {
    return member.size() < memberPrefix.size() ? std::string() : member.substr(memberPrefix.size());
}

void updateEtag(redisContext* store, const std::string& resourceKey) {
    timeval now{};
    gettimeofday(&now, nullptr);
    const std::uint64_t milliseconds = static_cast<std::uint64_t>(now.tv_sec) * 1000 +
                                       static_cast<std::uint64_t>(now.tv_usec) / 1000;
    store::send(store,
                {"HSET", resourceKey, "@odata.etag", '"' + std::to_string(milliseconds) + '"'});
}

}  // namespace session_service
