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
    // Held while the sessions are counted before a login, while one is deleted, and for each pass
    // of the expiry.
    Mutex dataMutex;
    // Signalled after each login; nothing here waits on it.
    pthread_cond_t dataReady;
};

// How long a request waits for the data mutex.
inline constexpr int dataMutexSeconds = 2;

// Initializes the mutexes and the condition. False when a mutex cannot be initialized.
bool initialize(WorkerContext& context);

}  // namespace session_service
