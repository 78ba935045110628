// The user's group as the Kerberos administration tool knows it.
#pragma once

#include <string>

namespace session_service {

// Runs the command through the shell and returns everything that it wrote to its standard
// output. Empty, with an error line, when it could not be started. Blocks until its end.
std::string executeCommand(const std::string& commandLine);

// The tool's command line that lists the user's attributes. Quotes inside the name and
// the password are written for the shell: each stays one argument, whatever it holds. The
// caller wipes the result.
std::string composeKadminCommand(const char* userName, const char* password);

}  // namespace session_service
