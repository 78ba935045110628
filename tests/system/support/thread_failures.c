/*
 * Preloaded into the daemon: injects failures into calls that its threads depend on and that
 * never fail by themselves, where the environment variable THREAD_FAILURES names them:
 *
 *   lock:N      the Nth lock cannot be made, counted from 1
 *   join:N      the Nth wait for a thread fails, counted from 1, once the thread has ended
 *   connection  threads other than the first one get no connection to the store
 */
#include <dlfcn.h>
#include <errno.h>
#include <pthread.h>
#include <stdatomic.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static bool is_failing(const char* call, int number) {
    const char* given = getenv("THREAD_FAILURES");
    char text[32];

    (void)snprintf(text, sizeof text, "%s:%d", call, number);
    return given != NULL && strcmp(given, text) == 0;
}

__attribute__((visibility("default"))) int pthread_mutex_init(
    pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes) {
    static atomic_int count;
    int (*next)(pthread_mutex_t*, const pthread_mutexattr_t*);

    if (is_failing("lock", ++count)) {
        return ENOMEM;
    }
    *(void**)&next = dlsym(RTLD_NEXT, "pthread_mutex_init");
    return next(mutex, attributes);
}

__attribute__((visibility("default"))) int pthread_join(pthread_t thread, void** result) {
    static atomic_int count;
    int (*next)(pthread_t, void**);
    int status;

    *(void**)&next = dlsym(RTLD_NEXT, "pthread_join");
    status = next(thread, result);
    return is_failing("join", ++count) ? EINVAL : status;
}

__attribute__((visibility("default"))) void* redisConnectFd(int descriptor) {
    const char* given = getenv("THREAD_FAILURES");
    void* (*next)(int);

    if (given != NULL && strcmp(given, "connection") == 0 && gettid() != getpid()) {
        return NULL;
    }
    *(void**)&next = dlsym(RTLD_NEXT, "redisConnectFd");
    return next(descriptor);
}
