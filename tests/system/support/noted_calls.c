/*
 * Preloaded into the daemon: appends a line to the file that the environment variable NOTED_CALLS
 * names for each fsync ("fsync PATH"), for each stream socket ("socket private", or "socket open"
 * when the programs that the daemon starts would inherit it), for each sleep ("usleep
 * MICROSECONDS") and for each limited wait for a mutex ("wait"), and passes the call on.
 */
#include <dlfcn.h>
#include <fcntl.h>
#include <limits.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

static void note(const char* line) {
    const char* file = getenv("NOTED_CALLS");
    const int out = file == NULL ? -1 : open(file, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);

    if (out >= 0) {
        if (write(out, line, strlen(line)) < 0) {
            abort();
        }
        (void)close(out);
    }
}

__attribute__((visibility("default"))) int fsync(int descriptor) {
    char link[32];
    char path[PATH_MAX] = "";
    char line[PATH_MAX + sizeof "fsync \n"];
    int (*next)(int);

    (void)snprintf(link, sizeof link, "/proc/self/fd/%d", descriptor);
    if (readlink(link, path, sizeof path - 1) < 0) {
        abort();
    }
    (void)snprintf(line, sizeof line, "fsync %s\n", path);
    note(line);
    *(void**)&next = dlsym(RTLD_NEXT, "fsync");
    return next(descriptor);
}

__attribute__((visibility("default"))) int socket(int domain, int type, int protocol) {
    int (*next)(int, int, int);

    if ((type & SOCK_STREAM) != 0) {
        note((type & SOCK_CLOEXEC) != 0 ? "socket private\n" : "socket open\n");
    }
    *(void**)&next = dlsym(RTLD_NEXT, "socket");
    return next(domain, type, protocol);
}

__attribute__((visibility("default"))) int usleep(useconds_t duration) {
    char line[sizeof "usleep 4294967295\n"];
    int (*next)(useconds_t);

    (void)snprintf(line, sizeof line, "usleep %u\n", duration);
    note(line);
    *(void**)&next = dlsym(RTLD_NEXT, "usleep");
    return next(duration);
}

__attribute__((visibility("default"))) int pthread_mutex_clocklock(pthread_mutex_t* mutex,
                                                                   clockid_t clock,
                                                                   const struct timespec* end) {
    int (*next)(pthread_mutex_t*, clockid_t, const struct timespec*);

    note("wait\n");
    *(void**)&next = dlsym(RTLD_NEXT, "pthread_mutex_clocklock");
    return next(mutex, clock, end);
}
