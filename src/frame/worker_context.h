// What the worker threads share.
#pragma once

#include <pthread.h>

#include "frame/mutex.h"

namespace session_service {

// One record exists for the whole run; the create, delete and expiry threads get its
// address as their argument.
struct WorkerContext {
    // Held by start-up until the create and delete threads have ended; the expiry thread
    // ends as soon as it can take it.
    Mutex stopMutex;
    // Serializes the session work of the create, delete and expiry threads.
    Mutex dataMutex;
    // Signalled after a session was created.
    pthread_cond_t dataReady;
};

// How long a request waits for the data mutex.
inline constexpr int dataMutexSeconds = 2;

// Initializes the mutexes and the condition. False when a mutex cannot be initialized.
bool initialize(WorkerContext& context);

}  // namespace session_service
