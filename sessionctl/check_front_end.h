// Checks of the packaged web front end. Nothing is reported where it is not installed: a controller
// may have one of its own.
#pragma once

#include <chrono>

#include "sessionctl/report.h"

namespace session_service::console {

// Its certificate, and whether it answers over HTTPS on this machine. Each step of that takes no
// longer than `timeout`.
void checkFrontEnd(Report& report, const char* folder, std::chrono::seconds timeout);

// Whether the user that it runs as can read the file. True where there is no such user.
bool frontEndCanRead(const char* path);

// Whether the group has been given to that user.
bool isGroupOfFrontEnd(unsigned group);

}  // namespace session_service::console
