#include "events/life_cycle.h"

#include "frame/file_names.h"
#include "frame/logger.h"
#include "frame/resource_names.h"
#include "platform/config_file.h"

namespace session_service {
namespace {

bool readSetting() {
    const bool generate = getConfigValue(configurationFile, eventSetting, settingSize) != "false";
    logger->debug("SessionService will %sgenerate events when resource is created/updated/removed.",
                  generate ? "" : "not ");
    return generate;
}

bool eventsWanted() {
    static const bool generate = readSetting();
    return generate;
}

}  // namespace

void appendEvent(EventList& events, const char* action, const std::string& uri, const char* type,
                 const std::string& groupId) {
    events.insert(events.end(), {action, uri, type, "EventGroupId", groupId});
}

int generateLifeCycleEvents(redisContext* store, const EventList& events) {
    if (!eventsWanted()) {
        return 1;
    }
    if (events.size() < 2) {
        return 0;
    }
    const std::string digest = store::hget(store, scriptDigestsKey, eventScript);
    if (digest.empty()) {
        logger->error("Cannot get SHA script resourceChange.");
        return 0;
    }
    std::vector<std::string> pieces{std::to_string(events.size())};
    pieces.insert(pieces.end(), events.begin(), events.end());

    const store::ScriptAnswer answer = store::evalsha(store, digest, pieces);
    switch (answer.kind) {
        case store::ScriptAnswer::Kind::integer:
            return 1;
        case store::ScriptAnswer::Kind::refused:
            logger->error("Failed to generate life cycle event. %s", answer.text.c_str());
            break;
        case store::ScriptAnswer::Kind::unknown:
            logger->error("Failed to generate life cycle event. (Unknown error)");
            break;
        case store::ScriptAnswer::Kind::lost:
            break;
    }
    return 0;
}

}  // namespace session_service
