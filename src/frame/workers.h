// The worker threads: started by start-up, one after another, and joined at the end.
#pragma once

#include <pthread.h>

#include "frame/worker_context.h"

namespace session_service {

struct Worker {
    void* (*body)(void*);          // gets the WorkerContext
    const char* startFailureText;  // logged when it cannot be started
    const char* joinFailureText;   // logged when it cannot be waited for
    pthread_t thread{};
};

// Starts the worker; false when there is no thread for it. Logs nothing.
bool start(Worker& worker, WorkerContext& context);

// Waits for the worker's end; a wait that fails is logged, and the worker counts as ended.
void join(const Worker& worker);

// Whether a started worker has not been joined yet. The PATCH worker is not counted: whoever starts
// it waits for it.
bool workersExist();

}  // namespace session_service
