#include "store/entity_tag.h"

#include <sys/time.h>

#include <cstdint>

#include "store/commands.h"

namespace session_service {

void updateEtag(redisContext* connection, const std::string& resourceKey) {
    timeval now{};
    gettimeofday(&now, nullptr);
    const std::uint64_t milliseconds = static_cast<std::uint64_t>(now.tv_sec) * 1000 +
                                       static_cast<std::uint64_t>(now.tv_usec) / 1000;
    store::send(connection,
                {"HSET", resourceKey, "@odata.etag", '"' + std::to_string(milliseconds) + '"'});
}

}  // namespace session_service
