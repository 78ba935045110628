// The worker threads: started by start-up, one after another, and joined at the end.
#pragma once

#include <pthread.h>

#include "frame/worker_context.h"

namespace session_service {

struct Worker {
    void* (*body)(void*);      // gets the WorkerContext
    const char* startFailure;  // logged when it cannot be started
    const char* joinFailure;   // logged when it cannot be waited for
    pthread_t thread{};
};

// Starts the worker; false when there is no thread for it. Logs nothing.
bool start(Worker& worker, WorkerContext& context);

// Waits for the worker's end; a wait that fails is logged, and the worker counts as ended.
void join(const Worker& worker);

// Whether workers have been started and not been joined: they may be inside the log, the store or
// PAM.
bool workersExist();

}  // namespace session_service
