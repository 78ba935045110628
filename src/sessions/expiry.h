// The expiry of idle sessions.
#pragma once

namespace session_service {

// The thread's body; the argument is the WorkerContext. Once a second it deletes, under the
// data mutex, every session of the Redfish type whose idle time has reached its timeout,
// both in seconds of uptime. Returns null within about a second of the stop mutex's
// release, or at once (logged) when its connection cannot be opened.
void* sessionTimeoutThread(void* workerContext);

}  // namespace session_service
