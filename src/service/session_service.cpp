#include "service/session_service.h"

#include <pthread.h>

#include <stdexcept>
#include <string>

#include "base/number.h"
#include "frame/logger.h"
#include "frame/resource_names.h"
#include "service/patch.h"

namespace session_service {
namespace {

// Logs the failure and throws it. The exception's text goes without the full stop.
[[noreturn]] void fail(const std::string& sentence) {
    logger->error("%s.", sentence.c_str());
    throw std::runtime_error(sentence);
}

// Puts the PATCH channel into the queue where the front end finds it.
void registerPatchChannel(redisContext* store) {
    const std::int32_t length = store::llen(store, patchQueue);
    if (length < 0) {
        logger->error("Failed to get %s queue length.", patchQueue.c_str());
        throw std::runtime_error("Failed to get queue length");
    }
    if (length == 0 && !store::lpush(store, patchQueue, patchChannel)) {
        fail("Failed to push queue");
    }
}

// Checks that the store takes the subscription; the worker subscribes on its own.
void checkSubscription() {
    const ConnectionPtr store = store::connect();
    if (!store) {
        fail("Failed to connect to redis");
    }
    if (!store::subscribe(store.get(), patchChannel)) {
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
        const ConnectionPtr store = store::connect();
        if (!store) {
            fail("Failed to connect to Redis");
        }
        registerPatchChannel(store.get());
        readSettings(store.get());
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

void SessionService::readSettings(redisContext* store) {
    const std::string stored = store::hget(store, serviceUri, sessionTimeoutField);
    constexpr NumberFaults faults{"SessionTimeout value type error",
                                  "SessionTimeout value out of range"};
    timeout = parseNumber(stored, faults, FaultLevel::debug).value_or(timeout);
    enabled = store::hget(store, serviceUri, serviceEnabledField) == "true";
}

}  // namespace session_service
