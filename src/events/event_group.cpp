#include "events/event_group.h"

#include <atomic>
#include <limits>
#include <string>

#include "base/number.h"
#include "frame/logger.h"
#include "frame/resource_names.h"

namespace session_service {
namespace {

const std::string counterKey = "/redfish/v1/EventService";
const std::string counterField = "&&EVENT_GROUP_ID_COUNTER";

// Also the mark that no valid maximum has been read yet.
constexpr std::int32_t noMaximum = std::numeric_limits<std::int32_t>::max();
std::atomic<std::int32_t> cachedMaximum{noMaximum};

void setCounter(redisContext* store, const char* value) {
    if (!store::sendForInteger(store, {"HSET", counterKey, counterField, value})) {
        logger->debug("Failed to reset the EventGroupId counter.");
    }
}

}  // namespace

std::int32_t maxEventGroupId(redisContext* store) {
    const std::int32_t kept = cachedMaximum;
    if (kept != noMaximum) {
        return kept;
    }
    const std::string setting = store::hget(store, defaultValuesKey, maxEventGroupField);
    if (setting.find('.') != std::string::npos) {
        return noMaximum;
    }
    constexpr NumberFaults faults{"Max EventGroupId value type error",
                                  "Max EventGroupId value out of range"};
    const std::int32_t maximum = parseNumber(setting, faults, FaultLevel::debug).value_or(0);
    if (maximum <= 0) {
        logger->debug("The default max value was set to invalid value.");
        return noMaximum;
    }
    cachedMaximum = maximum;
    return maximum;
}

std::uint32_t nextEventGroupId(redisContext* store) {
    std::uint32_t drawn = 1;
    if (const auto counter =
            store::sendForInteger(store, {"HINCRBY", counterKey, counterField, "1"})) {
        drawn = static_cast<std::uint32_t>(*counter);
    } else {
        logger->debug("Failed to increase the counter %s", counterField.c_str());
        setCounter(store, "1");
    }
    const auto maximum = static_cast<std::uint32_t>(maxEventGroupId(store));
    if (drawn > 0 && drawn < maximum) {
        return drawn;
    }
    setCounter(store, "0");
    return maximum;
}

}  // namespace session_service
