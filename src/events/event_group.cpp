#include "events/event_group.h"

#include <atomic>
#include <limits>
#include <string>

#include "base/number.h"
#include "frame/logger.h"
#include "store/resource_names.h"

namespace session_service {
namespace {

const std::string counterKey = "/redfish/v1/EventService";
const std::string counterField = "&&EVENT_GROUP_ID_COUNTER";

// Also the mark that no valid maximum has been read yet.
constexpr std::int32_t defaultMaxId = std::numeric_limits<std::int32_t>::max();
std::atomic<std::int32_t> cachedMaxId{defaultMaxId};

void setCounter(redisContext* connection, const char* value) {
    if (!store::sendForInteger(connection, {"HSET", counterKey, counterField, value})) {
        logger->debug("Failed to reset the EventGroupId counter.");
    }
}

}  // namespace

std::int32_t maxEventGroupId(redisContext* connection) {
    const std::int32_t cached = cachedMaxId;
    if (cached != defaultMaxId) {
        return cached;
    }
    const std::string setting = store::hget(connection, defaultValuesKey, maxEventGroupField);
    if (setting.find('.') != std::string::npos) {
        return defaultMaxId;
    }
    const ParsedInt32 number = parseInt32(setting);
    if (!number.value) {
        logger->debug("%s", describeNumberError(number.error, "Max EventGroupId value type error",
                                                "Max EventGroupId value out of range")
                                .c_str());
    }
    const std::int32_t maxId = number.value.value_or(0);
    if (maxId <= 0) {
        logger->debug("The default max value was set to invalid value.");
        return defaultMaxId;
    }
    cachedMaxId = maxId;
    return maxId;
}

std::uint32_t nextEventGroupId(redisContext* connection) {
    std::uint32_t id = 1;
    if (const auto counter =
            store::sendForInteger(connection, {"HINCRBY", counterKey, counterField, "1"})) {
        id = static_cast<std::uint32_t>(*counter);
    } else {
        logger->debug("Failed to increase the counter %s", counterField.c_str());
        setCounter(connection, "1");
    }
    const auto maxId = static_cast<std::uint32_t>(maxEventGroupId(connection));
    if (id > 0 && id < maxId) {
        return id;
    }
    setCounter(connection, "0");
    return maxId;
}

}  // namespace session_service
