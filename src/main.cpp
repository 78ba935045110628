// The daemon: the store is brought up, then the worker threads serve until their connections
// end.
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>
#include <typeinfo>

#include "frame/configuration.h"
#include "frame/logger.h"
#include "frame/process_setup.h"
#include "frame/workers.h"
#include "service/first_start.h"
#include "service/session_service.h"
#include "sessions/create_session.h"
#include "sessions/delete_session.h"
#include "sessions/expiry.h"

namespace session_service {
namespace {

constexpr int startFailure = -1;

// Never destroyed, but kept in reach: volatile, or an optimizer drops the pointer that nobody reads
// and leaves a leak to be found.
SessionService* volatile service = nullptr;

// Runs until all workers have ended.
int serve() {
    if (!prepareStore()) {
        return startFailure;
    }
    // Not on the stack: workers may still use it while a failed start ends the process.
    static WorkerContext context;
    if (!initialize(context)) {
        logger->error("Failed to init thread argument.");
        return startFailure;
    }
    Worker creation{createSessionThread, "Failed to run the thread for POSTCREATE.",
                    "Failed to join the create thread."};
    Worker deletion{deleteSessionThread, "Failed to create the thread for DELETE.",
                    "Failed to join the delete thread."};
    Worker expiry{sessionTimeoutThread, "Failed to create the thread for Timeout detection.",
                  "Failed to join the timeout thread."};
    MutexGuard running(context.stopMutex);
    for (Worker* worker : {&creation, &deletion, &expiry}) {
        if (!start(*worker, context)) {
            running.unlock();
            logger->error("%s", worker->startFailure);
            return startFailure;
        }
    }

    service = new SessionService;

    join(creation);
    join(deletion);
    // Unlocked only now: sessions must keep expiring while either request thread may still create
    // or delete one.
    running.unlock();
    join(expiry);
    logger->debug("SessionService terminates.");
    return EXIT_SUCCESS;
}

int reportInitializationError(const std::exception& failure) {
    logger->error("Error occurs while initialize data: %s", failure.what());
    return startFailure;
}

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
        // Nothing is destroyed under the workers.
        _exit(status & 0xff);
    }
    endLog();
    return status;
}
