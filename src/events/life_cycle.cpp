#include "events/life_cycle.h"

#include "frame/configuration.h"
#include "frame/logger.h"
#include "platform/config_file.h"
#include "store/resource_names.h"

namespace session_service {
namespace {

bool readEventSetting() {
    const bool generate =
        getConfigValue(configurationFile, eventSetting, settingBufferSize) != "false";
    logger->debug("SessionService will %sgenerate events when resource is created/updated/removed.",
                  generate ? "" : "not ");
    return generate;
}

bool areEventsEnabled() {
    static const bool generate = readEventSetting();
    return generate;
}

}  // namespace

void appendEvent(EventList& events, const char* action, const std::string& uri, const char* type,
                 const std::string& groupId) {
    events.insert(events.end(), {action, uri, type, "EventGroupId", groupId});
}

void generateLifeCycleEvents(redisContext* connection, const EventList& events) {
    if (!areEventsEnabled() || events.size() < 2) {
        return;
    }
    const std::string digest = store::hget(connection, scriptDigestsKey, eventScript);
    if (digest.empty()) {
        logger->error("Cannot get SHA script resourceChange.");
        return;
    }
    std::vector<std::string> arguments{std::to_string(events.size())};
    arguments.insert(arguments.end(), events.begin(), events.end());

    const store::ScriptAnswer answer = store::evalsha(connection, digest, arguments);
    switch (answer.kind) {
        case store::ScriptAnswer::Kind::refused:
            logger->error("Failed to generate life cycle event. %s", answer.text.c_str());
            break;
        case store::ScriptAnswer::Kind::unknown:
            logger->error("Failed to generate life cycle event. (Unknown error)");
            break;
        case store::ScriptAnswer::Kind::integer:
        case store::ScriptAnswer::Kind::lost:
            break;
    }
}

}  // namespace session_service
