// The state that a process has once, and how to restore it: PAM modules run inside this process
// and change it.
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

// Saves what restoreProcessState restores. To be called once, while there is one thread.
void saveProcessState();

// Restores, on the thread that calls the modules, what was saved: what signals do and which of
// them are blocked, the mask of new files, the working directory and the environment; and opens
// the standard streams. The system's log forgets a name that a module gave it. Does nothing when
// nothing was saved. Logs nothing.
void restoreProcessState();

// Reaps children that have ended, without blocking. To be called on the only thread that starts
// any, while it waits for none.
void reapChildren();

}  // namespace session_service
