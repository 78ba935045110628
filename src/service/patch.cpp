#include "service/patch.h"

#include "events/event_group.h"
#include "events/life_cycle.h"
#include "frame/logger.h"
#include "frame/thread_body.h"
#include "protocol/body_conversion.h"
#include "protocol/replies.h"
#include "protocol/request_channels.h"
#include "service/persistent_properties.h"
#include "store/entity_tag.h"
#include "store/resource_names.h"

namespace session_service {
namespace {

// Tells the front end which of the properties that it waits for have been handled.
void removeFromChecklist(redisContext* connection, const std::string& requestKey,
                         const FieldMap& properties) {
    const std::string checklist = requestKey + "/Checklist";
    if (!store::exists(connection, checklist)) {
        return;
    }
    for (const auto& property : properties) {
        store::hdel(connection, checklist, '/' + property.first);
    }
}

// Applies the request's body and writes the reply. Returns whether the resource changed.
bool applyBody(redisContext* connection, const std::string& requestKey,
               const std::string& targetUri, Reply& reply) {
    const std::string bodyKey = store::hget(connection, requestKey, requestDataField);
    bool changed = false;
    FieldMap properties;
    if (validateBody(connection, targetUri, bodyKey, changed, properties) != BodyStatus::valid) {
        writeReply(connection, reply, {reply_status::failure});
        return false;
    }
    removeFromChecklist(connection, requestKey, properties);
    if (changed) {
        const bool written = store::hsetFields(connection, serviceUri, properties);
        updateEtag(connection, serviceUri);
        if (!written) {
            logger->error("OperationFailed: Failed to SetMultipleFields.");
            writeExceptionReply(connection, reply, message_id::operationFailed);
            return false;
        }
    }
    writeReply(connection, reply, {reply_status::ok});
    if (changed) {
        savePersistentProperties(properties);
    }
    return changed;
}

void handlePatchRequest(const Notice& notice) {
    const ConnectionPtr opened = store::connect();
    if (!opened) {
        logger->error("Failed to connect to Redis.");
        return;
    }
    redisContext* connection = opened.get();
    Reply reply{notice.replyKey, notice.requestKey + "/ExtendedInfo"};
    const std::string method = store::hget(connection, notice.requestKey, requestMethodField);
    const std::string targetUri = store::hget(connection, notice.requestKey, targetUriField);
    const std::string returnChannel =
        store::hget(connection, notice.requestKey, returnChannelField);

    const bool changed = method == "PATCH" && !targetUri.empty() &&
                         applyBody(connection, notice.requestKey, targetUri, reply);
    if (!store::publishAny(connection, returnChannel, notice.replyKey)) {
        logger->error("DatabaseOperationError: Failed to publish data.");
        writeExceptionReply(connection, reply, message_id::databaseOperationError);
    }
    if (changed) {
        EventList events;
        appendEvent(events, "change", serviceUri, "SessionService",
                    std::to_string(nextEventGroupId(connection)));
        generateLifeCycleEvents(connection, events);
    }
}

// Not serveRequests: this thread knows no exit notice, and logs a subscription that fails.
void serveNotices() {
    const ConnectionPtr connection = store::connect();
    if (!connection) {
        logger->error("Failed to connect to Redis.");
        return;
    }
    if (!store::subscribe(connection.get(), patchChannel)) {
        logger->error("Failed to subscribe channel %s.", patchChannel.c_str());
        return;
    }
    // A confirmation has three elements, too, but its last one is a number.
    constexpr std::size_t messageElements = 3;
    while (const auto notice = store::readNotice(connection.get())) {
        if (notice->elements != messageElements || !notice->text) {
            continue;
        }
        if (notice->text->find(' ') == std::string::npos) {
            logger->debug("Request data format is incorrect.");
            continue;
        }
        handlePatchRequest(splitNotice(*notice->text));
    }
}

}  // namespace

BodyStatus validateBody(redisContext* connection, const std::string& targetUri,
                        const std::string& bodyKey, bool& changed, FieldMap& properties) {
    FieldMap body;
    if (!store::hgetall(connection, bodyKey, body)) {
        logger->error("Fail to get hash %s values.", bodyKey.c_str());
        return BodyStatus::unreadable;
    }
    if (body.empty()) {
        logger->debug("Empty request data.");
        return BodyStatus::empty;
    }
    convertBody(connection, body);
    const std::string timeout = fieldOf(body, sessionTimeoutField);
    if (!timeout.empty()) {
        if (store::hget(connection, targetUri, sessionTimeoutField) != timeout) {
            changed = true;
        }
        properties[sessionTimeoutField] = timeout;
    }
    return BodyStatus::valid;
}

void* patchThread(void* /*unused*/) {
    runThreadBody(patchChannel.c_str(), serveNotices);
    return nullptr;
}

}  // namespace session_service
