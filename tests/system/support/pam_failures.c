/*
 * Preloaded into the daemon: injects failures into PAM calls that never fail by themselves, namely
 * pam_set_item of the remote host and pam_end, where the environment variable PAM_FAILURES
 * names them. Writes each pam_end and its status to standard error.
 */
#include <security/pam_appl.h>

#include <dlfcn.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static bool fails(const char* call) {
    const char* names = getenv("PAM_FAILURES");
    return names != NULL && strstr(names, call) != NULL;
}

__attribute__((visibility("default"))) int pam_set_item(pam_handle_t* handle, int type,
                                                        const void* item) {
    int (*next)(pam_handle_t*, int, const void*);

    if (type == PAM_RHOST && fails("pam_set_item")) {
        return PAM_BUF_ERR;
    }
    *(void**)&next = dlsym(RTLD_NEXT, "pam_set_item");
    return next(handle, type, item);
}

__attribute__((visibility("default"))) int pam_end(pam_handle_t* handle, int status) {
    int (*next)(pam_handle_t*, int);
    int result;

    *(void**)&next = dlsym(RTLD_NEXT, "pam_end");
    result = next(handle, status);
    fprintf(stderr, "pam_end with status %d\n", status);
    return fails("pam_end") ? PAM_SYSTEM_ERR : result;
}
