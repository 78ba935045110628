// What the process is set to before anything else happens in it.
#pragma once

namespace session_service {

// Ignores SIGPIPE, opens missing standard streams, marks inherited descriptors close-on-exec,
// switches core dumps off, keeps to one heap, and saves what PAM modules may change. To be called
// first, on the only thread.
void prepareProcess();

}  // namespace session_service
