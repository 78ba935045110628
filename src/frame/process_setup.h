// What the process is set to before anything else happens in it.
#pragma once

namespace session_service {

void prepareProcess();

}  // namespace session_service
