// Commands run through the shell.
//
// They differ from system(3) and popen(3) in what the child inherits: standard input,
// output and error and nothing else, and the default disposition of SIGPIPE, which
// this process ignores. Safe to call from several threads.
#pragma once

#include <functional>
#include <string_view>

namespace session_service {

// Runs the command and waits for its end.
// Returns its wait status as system(3) does, or -1 when it could not be started.
int runCommand(const char* command);

// Runs the command and hands what it writes to standard output to `receive`, chunk by
// chunk (at most 1023 bytes each), until end of file or until `receive` returns false;
// then waits for the command's end, whose status is not looked at.
// Returns false when the command could not be started. Blocks.
bool readCommand(const char* command, const std::function<bool(std::string_view)>& receive);

}  // namespace session_service
