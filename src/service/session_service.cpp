#include "service/session_service.h"

#include <pthread.h>

#include <stdexcept>
#include <string>

#include "base/number.h"
#include "frame/logger.h"
#include "protocol/request_channels.h"
#include "service/patch.h"
#include "store/resource_names.h"

namespace session_service {
namespace {

// Logs the failure and throws it. The exception's text goes without the full stop.
[[noreturn]] void fail(const std::string& sentence) {
    logger->error("%s.", sentence.c_str());
    throw std::runtime_error(sentence);
}

// Puts the PATCH channel into the queue where the front end finds it.
void registerPatchChannel(redisContext* connection) {
    const std::int32_t length = store::llen(connection, patchQueue);
    if (length < 0) {
        logger->error("Failed to get %s queue length.", patchQueue.c_str());
        throw std::runtime_error("Failed to get queue length");
    }
    if (length == 0 && !store::lpush(connection, patchQueue, patchChannel)) {
        fail("Failed to push queue");
    }
}

// Checks that the store takes the subscription; the worker subscribes on its own.
void checkSubscription() {
    const ConnectionPtr connection = store::connect();
    if (!connection) {
        fail("Failed to connect to redis");
    }
    if (!store::subscribe(connection.get(), patchChannel)) {
        fail("Failed to subscribe channel");
    }
}

void runPatchThread() {
    pthread_t thread{};
    if (pthread_create(&thread, nullptr, patchThread, nullptr) != 0) {
        logger->error("Failed to create the thread for PATCH.");
        throw std::runtime_error("Create thread for subscribe failed");
    }
    if (pthread_join(thread, nullptr) != 0) {
        logger->error("Failed to join the SessionService thread.");
        throw std::runtime_error("Failed to join a thread");
    }
}

}  // namespace

SessionService::SessionService() {
    {
        const ConnectionPtr connection = store::connect();
        if (!connection) {
            fail("Failed to connect to Redis");
        }
        registerPatchChannel(connection.get());
        readSettings(connection.get());
    }
    checkSubscription();
    runPatchThread();
}

SessionService::~SessionService() = default;

bool SessionService::isEnabled() const noexcept {
    return enabled;
}

std::int32_t SessionService::sessionTimeout() const noexcept {
    return timeout;
}

void SessionService::readSettings(redisContext* connection) {
    const std::string stored = store::hget(connection, serviceUri, sessionTimeoutField);
    const ParsedInt32 seconds = parseInt32(stored);
    if (!seconds.value) {
        logger->debug("%s", describeNumberError(seconds.error, "SessionTimeout value type error",
                                                "SessionTimeout value out of range")
                                .c_str());
    }
    timeout = seconds.value.value_or(timeout);
    enabled = store::hget(connection, serviceUri, serviceEnabledField) == "true";
}

}  // namespace session_service
