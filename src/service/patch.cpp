#include "service/patch.h"

#include <exception>

#include "events/event_group.h"
#include "events/life_cycle.h"
#include "frame/logger.h"
#include "frame/resource_names.h"
#include "protocol/body_conversion.h"
#include "protocol/replies.h"
#include "protocol/request_channels.h"
#include "service/persistent_properties.h"
#include "sessions/collection.h"

namespace session_service {
namespace {

const std::string timeoutProperty = sessionTimeoutField;

// Tells the front end which of the properties that it waits for have been handled.
void removeFromChecklist(redisContext* store, const std::string& requestKey,
                         const FieldMap& properties) {
    const std::string checklist = requestKey + "/Checklist";
    if (!store::exists(store, checklist)) {
        return;
    }
    for (const auto& property : properties) {
        store::hdel(store, checklist, '/' + property.first);
    }
}

void writeStatus(redisContext* store, const std::string& replyKey, const std::string& list,
                 const char* status) {
    ReplyFields fields{
        {replyKeyItem, replyKey}, {extendedInfoField, list}, {returnStatusField, status}};
    writeReply(store, fields, {});
}

// Applies the request's body and writes the reply. Returns whether the resource changed.
bool applyBody(redisContext* store, const Notice& notice, const std::string& targetUri,
               const std::string& list) {
    const std::string bodyKey = store::hget(store, notice.requestKey, requestDataField);
    bool changed = false;
    FieldMap properties;
    if (validateBody(store, targetUri, bodyKey, changed, properties) != BodyStatus::valid) {
        writeStatus(store, notice.replyKey, list, "FAILURE");
        return false;
    }
    removeFromChecklist(store, notice.requestKey, properties);
    if (changed) {
        const bool written = store::hsetFields(store, serviceUri, properties);
        updateEtag(store, serviceUri);
        if (!written) {
            logger->error("OperationFailed: Failed to SetMultipleFields.");
            writeExceptionReply(store, notice.replyKey, list, "Base.1.12.OperationFailed");
            return false;
        }
    }
    writeStatus(store, notice.replyKey, list, "OK");
    if (changed) {
        savePersistentProperties(properties);
    }
    return changed;
}

void handlePatchRequest(const Notice& notice) {
    const ConnectionPtr connection = store::connect();
    if (!connection) {
        logger->error("Failed to connect to Redis.");
        return;
    }
    redisContext* store = connection.get();
    const std::string list = notice.requestKey + "/ExtendedInfo";
    const std::string method = store::hget(store, notice.requestKey, requestMethodField);
    const std::string targetUri = store::hget(store, notice.requestKey, targetUriField);
    const std::string returnChannel = store::hget(store, notice.requestKey, returnChannelField);

    const bool changed =
        method == "PATCH" && !targetUri.empty() && applyBody(store, notice, targetUri, list);
    if (!store::publishAny(store, returnChannel, notice.replyKey)) {
        logger->error("DatabaseOperationError: Failed to publish data.");
        writeExceptionReply(store, notice.replyKey, list, databaseOperationError);
    }
    if (changed) {
        EventList events;
        appendEvent(events, "change", serviceUri, "SessionService",
                    std::to_string(nextEventGroupId(store)));
        generateLifeCycleEvents(store, events);
    }
}

void handleAnnouncements(redisContext* store) {
    constexpr std::size_t messageElements = 3;
    while (const auto announcement = store::readAnnouncement(store)) {
        if (announcement->elements != messageElements || !announcement->text) {
            continue;
        }
        if (announcement->text->find(' ') == std::string::npos) {
            logger->debug("Request data format is incorrect.");
            continue;
        }
        handlePatchRequest(splitNotice(*announcement->text));
    }
}

}  // namespace

BodyStatus validateBody(redisContext* store, const std::string& targetUri,
                        const std::string& bodyKey, bool& changed, FieldMap& properties) {
    FieldMap body;
    if (!store::hgetall(store, bodyKey, body)) {
        logger->error("Fail to get hash %s values.", bodyKey.c_str());
        return BodyStatus::unreadable;
    }
    if (body.empty()) {
        logger->debug("Empty request data.");
        return BodyStatus::empty;
    }
    convertBody(store, body);
    const std::string timeout = fieldOf(body, timeoutProperty);
    if (!timeout.empty()) {
        if (store::hget(store, targetUri, timeoutProperty) != timeout) {
            changed = true;
        }
        properties[timeoutProperty] = timeout;
    }
    return BodyStatus::valid;
}

void* patchThread(void* /*unused*/) {
    const ConnectionPtr store = store::connect();
    if (!store) {
        logger->error("Failed to connect to Redis.");
        return nullptr;
    }
    if (!store::subscribe(store.get(), patchChannel)) {
        logger->error("Failed to subscribe channel %s.", patchChannel.c_str());
        return nullptr;
    }
    try {
        handleAnnouncements(store.get());
    } catch (const std::exception& failure) {
        logger->error("The thread of %s ends: %s", patchChannel.c_str(), failure.what());
    }
    return nullptr;
}

}  // namespace session_service
