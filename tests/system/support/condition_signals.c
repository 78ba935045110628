/*
 * Preloaded into the daemon: appends a byte to the file that the environment variable
 * CONDITION_SIGNALS names for each signal to a condition. No thread waits for one, so that none is
 * passed on.
 */
#include <fcntl.h>
#include <pthread.h>
#include <stdlib.h>
#include <unistd.h>

__attribute__((visibility("default"))) int pthread_cond_signal(pthread_cond_t* condition) {
    const char* file = getenv("CONDITION_SIGNALS");
    const int out = file == NULL ? -1 : open(file, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);

    (void)condition;
    if (out >= 0) {
        if (write(out, "s", 1) < 0) {
            abort();
        }
        (void)close(out);
    }
    return 0;
}
