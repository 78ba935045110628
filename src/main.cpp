// The entry point: prepares the store, runs the worker threads, and ends the process when they have
// ended.
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>
#include <typeinfo>

#include "frame/configuration.h"
#include "frame/logger.h"
#include "frame/process_setup.h"
#include "frame/workers.h"
#include "service/prepare_store.h"
#include "service/session_service.h"
#include "sessions/create_session.h"
#include "sessions/delete_session.h"
#include "sessions/expiry.h"

namespace session_service {
namespace {

constexpr int failureStatus = -1;

// Never destroyed: workers may still run. Volatile, so that the leak sanitizer finds it in reach.
SessionService* volatile service = nullptr;

// Runs until all workers have ended. Returns the exit status.
int serve() {
    if (!prepareStore()) {
        return failureStatus;
    }
    // Not on the stack: workers may still use it while a failed start ends the process.
    static WorkerContext context;
    if (!initialize(context)) {
        logger->error("Failed to init thread argument.");
        return failureStatus;
    }
    Worker creation{createSessionThread, "Failed to run the thread for POSTCREATE.",
                    "Failed to join the create thread."};
    Worker deletion{deleteSessionThread, "Failed to create the thread for DELETE.",
                    "Failed to join the delete thread."};
    Worker expiry{sessionTimeoutThread, "Failed to create the thread for Timeout detection.",
                  "Failed to join the timeout thread."};
    lock(context.stopMutex);
    for (Worker* worker : {&creation, &deletion, &expiry}) {
        if (!start(*worker, context)) {
            unlock(context.stopMutex);
            logger->error("%s", worker->startFailureText);
            return failureStatus;
        }
    }

    // Blocks for as long as PATCH requests are served.
    service = new SessionService;

    join(creation);
    join(deletion);
    // Unlocked only now: sessions must keep expiring while either request thread may still create
    // or delete one.
    unlock(context.stopMutex);
    join(expiry);
    logger->debug("SessionService terminates.");
    return EXIT_SUCCESS;
}

int reportInitializationError(const std::exception& failure) {
    logger->error("Error occurs while initialize data: %s", failure.what());
    return failureStatus;
}

// Other exceptions, such as a lack of memory, end the process.
int serveGuarded() {
    try {
        return serve();
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
    startLog(configurationFile);
    const int status = serveGuarded();
    if (workersExist()) {
        // Workers may be inside the log, the store or PAM: no destructor may run.
        _exit(status & 0xff);
    }
    endLog();
    return status;
}
