// What a process has only one of, and what others leave changed in it: PAM modules run
// inside this one.
#pragma once

namespace session_service {

// Puts /dev/null in the place of each standard stream that is closed: what is opened next
// must not become what diagnostics are printed on.
void openStandardStreams();

// From now on the descriptors beyond the standard streams that the process was started with are
// not for the programs that it starts: a supervisor's lock must not outlive it in one of them.
void closeDescriptorsOnExec();

// From now on the process leaves no core image behind, and other users cannot look into it:
// passwords pass through.
void disableCoreDumps();

// Notes what restoreProcessState brings back. To be called once, while there is one thread.
void saveProcessState();

// Brings back, on the thread that calls the modules, what was noted: what signals do and
// which of them are blocked, the mask of new files, the working folder and the variables of
// the process; and the standard streams. The system's log no longer knows a name that a
// module gave it. Does nothing when nothing was noted. Logs nothing.
void restoreProcessState();

// Waits for the children that have ended; for none that still runs. To be called on the only
// thread that starts any, when it waits for none.
void reapChildren();

}  // namespace session_service
