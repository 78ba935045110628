// The user's group as the Kerberos administration tool knows it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace session_service {

// Has the tool list the user's attributes and returns the privilege value of the first role,
// from administrator down to user, whose group stands as "ATTRIBUTE: GROUP" anywhere among them.
// Empty when none does; a tool that cannot be started is logged as an error. Blocks until the
// tool's end.
std::optional<std::int32_t> privilegeFromKerberos(const std::string& userName,
                                                  const std::string& password);

// Its steps, declared for tests.

// The tool's command line. Quotes inside the name and the password are escaped for the shell:
// each stays one argument, whatever it holds. The caller wipes the result.
std::string composeKadminCommand(const std::string& userName, const std::string& password);

// Runs the command through the shell and returns everything that it wrote to its standard
// output. Empty, with an error line, when it could not be started.
std::string executeCommand(const std::string& commandLine);

// The privilege value of the first role whose group stands as "ATTRIBUTE: GROUP" in the text.
std::optional<std::int32_t> privilegeAmongAttributes(const std::string& attributes);

}  // namespace session_service
