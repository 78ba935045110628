#include "frame/process_setup.h"

#include <malloc.h>
#include <signal.h>

#include <cstdio>

#include "base/process_state.h"

namespace session_service {

void prepareProcess() {
    // hiredis sends without MSG_NOSIGNAL: a lost store must be seen as "no reply".
    signal(SIGPIPE, SIG_IGN);
    // A store connection must not become what diagnostics are printed on.
    openStandardStreams();
    closeDescriptorsOnExec();
    disableCoreDumps();
    // The threads seldom work at the same time: one heap for all is smaller than one for each.
    mallopt(M_ARENA_MAX, 1);
    // A log collector sees each diagnostic as it is made.
    setvbuf(stdout, nullptr, _IOLBF, 0);
    saveProcessState();
}

}  // namespace session_service
