#include "service/prepare_store.h"

#include <cstdint>

#include "frame/logger.h"
#include "protocol/request_channels.h"
#include "service/persistent_properties.h"
#include "store/commands.h"
#include "store/entity_tag.h"
#include "store/resource_names.h"

namespace session_service {
namespace {

// The create queue is also the mark that the initialization has been done.
bool registerChannels(redisContext* connection) {
    if (store::lpush(connection, createQueue, createChannel) &&
        store::lpush(connection, deleteQueue, deleteChannel)) {
        return true;
    }
    logger->error("Failed to add channels for POST and DELETE.");
    return false;
}

bool initializeResources(redisContext* connection) {
    loadPersistentProperties(connection);
    updateEtag(connection, serviceUri);
    updateEtag(connection, collectionUri);
    if (!registerChannels(connection)) {
        return false;
    }
    logger->debug("SessionService is ready for service.");
    return true;
}

}  // namespace

bool prepareStore() {
    const ConnectionPtr connection = store::connect();
    if (!connection) {
        logger->error("Failed to connect to Redis.");
        return false;
    }
    const std::int32_t queueLength = store::llen(connection.get(), createQueue);
    if (queueLength < 0) {
        logger->error("Failed to access Redis.");
        return false;
    }
    if (queueLength > 0) {
        logger->debug("SessionService resource has been initialized already.");
        return true;
    }
    return initializeResources(connection.get());
}

}  // namespace session_service
