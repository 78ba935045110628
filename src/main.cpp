// Start-up of the daemon: the store is brought up, then the worker threads serve until
// their connections end.
#include <malloc.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <typeinfo>

#include "base/process_state.h"
#include "frame/file_names.h"
#include "frame/logger.h"
#include "frame/resource_names.h"
#include "frame/worker_context.h"
#include "service/persistent_properties.h"
#include "service/session_service.h"
#include "sessions/collection.h"
#include "sessions/create_session.h"
#include "sessions/delete_session.h"
#include "sessions/expiry.h"
#include "store/commands.h"

namespace session_service {
namespace {

constexpr int startFailure = -1;

pthread_t createThread;
pthread_t deleteThread;
pthread_t timeoutThread;

// Whether threads are running that share what this file owns.
bool workersExist = false;

// The object of the PATCH machinery. It is never destroyed, but kept in reach: volatile,
// or an optimizer drops the pointer that nobody reads and leaves a leak to be found.
SessionService* volatile service = nullptr;

void prepareProcess() {
    // hiredis sends without MSG_NOSIGNAL: a lost store must be seen as "no reply".
    signal(SIGPIPE, SIG_IGN);
    // A store connection must not become what diagnostics are printed on.
    openStandardStreams();
    closeDescriptorsOnExec();
    disableCoreDumps();
    // The threads seldom work at the same time: one heap for all is smaller than one for each.
    mallopt(M_ARENA_MAX, 1);
    // A log collector sees each diagnostic as it is made.
    setvbuf(stdout, nullptr, _IOLBF, 0);
    saveProcessState();
}

void destroyLogger() {
    delete logger;
    logger = nullptr;
}

// Registers the two channels in their queues. The create queue is also the mark that
// the initialisation has been done.
bool registerChannels(redisContext* store) {
    if (store::lpush(store, createQueue, createChannel) &&
        store::lpush(store, deleteQueue, deleteChannel)) {
        return true;
    }
    logger->error("Failed to add channels for POST and DELETE.");
    return false;
}

// Brings the resources up when the store was started empty.
bool initializeResources(redisContext* store) {
    const std::int32_t queueLength = store::llen(store, createQueue);
    if (queueLength < 0) {
        logger->error("Failed to access Redis.");
        return false;
    }
    if (queueLength > 0) {
        logger->debug("SessionService resource has been initialized already.");
        return true;
    }
    loadPersistentProperties(store);
    updateEtag(store, serviceUri);
    updateEtag(store, collectionUri);
    if (!registerChannels(store)) {
        return false;
    }
    logger->debug("SessionService is ready for service.");
    return true;
}

bool initializeContext(WorkerContext& context) {
    if (pthread_mutex_init(&context.stopMutex, nullptr) != 0 ||
        pthread_mutex_init(&context.dataMutex, nullptr) != 0) {
        logger->error("Failed to init thread argument.");
        return false;
    }
    pthread_cond_init(&context.dataReady, nullptr);
    return true;
}

// Starts one worker. On failure the stop mutex is released and the reason logged.
bool startWorker(pthread_t& thread, void* (*body)(void*), WorkerContext& context,
                 const char* failure) {
    if (pthread_create(&thread, nullptr, body, &context) == 0) {
        return true;
    }
    pthread_mutex_unlock(&context.stopMutex);
    logger->error("%s", failure);
    return false;
}

void joinWorker(pthread_t thread, const char* failure) {
    if (pthread_join(thread, nullptr) != 0) {
        logger->error("%s", failure);
    }
}

// Ends the process while workers may be inside the log, the store or PAM: nothing is
// destroyed under them.
[[noreturn]] void endUnderWorkers() {
    _exit(startFailure & 0xff);
}

// Everything between the logger's birth and its death.
int run() {
    {
        const ConnectionPtr store = store::connect();
        if (!store) {
            logger->error("Failed to connect to Redis.");
            return startFailure;
        }
        if (!initializeResources(store.get())) {
            return startFailure;
        }
    }

    // Not on the stack: workers may still use it while a failed start ends the process.
    static WorkerContext context;
    if (!initializeContext(context)) {
        return startFailure;
    }
    pthread_mutex_lock(&context.stopMutex);
    if (!startWorker(createThread, createSessionThread, context,
                     "Failed to run the thread for POSTCREATE.")) {
        return startFailure;
    }
    workersExist = true;
    if (!startWorker(deleteThread, deleteSessionThread, context,
                     "Failed to create the thread for DELETE.") ||
        !startWorker(timeoutThread, sessionTimeoutThread, context,
                     "Failed to create the thread for Timeout detection.")) {
        return startFailure;
    }

    service = new SessionService;

    joinWorker(createThread, "Failed to join the create thread.");
    joinWorker(deleteThread, "Failed to join the delete thread.");
    // Released only now: sessions must keep expiring while either request thread may
    // still create or delete one.
    pthread_mutex_unlock(&context.stopMutex);
    joinWorker(timeoutThread, "Failed to join the timeout thread.");
    workersExist = false;
    logger->debug("SessionService terminates.");
    return EXIT_SUCCESS;
}

int reportInitializationError(const std::exception& failure) {
    logger->error("Error occurs while initialize data: %s", failure.what());
    return startFailure;
}

int runGuarded() {
    try {
        return run();
    } catch (const std::logic_error& failure) {
        return reportInitializationError(failure);
    } catch (const std::runtime_error& failure) {
        return reportInitializationError(failure);
    } catch (const std::bad_cast& failure) {
        return reportInitializationError(failure);
    }
}

}  // namespace
}  // namespace session_service

int main() {
    using namespace session_service;

    prepareProcess();
    logger = new Logger;
    logger->init(configurationFile);
    if (logger->isFileEnabled()) {
        logger->debug("SessionService log is starting ...");
    }
    const int status = runGuarded();
    if (workersExist) {
        endUnderWorkers();
    }
    destroyLogger();
    return status;
}
