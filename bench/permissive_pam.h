// PAM that lets everybody in, so that no password's hash is measured.
#pragma once

#include <string>

#include "testbed/controller.h"

namespace bench {

// Has PAM let every login in at once, with every privilege; `more` is added to the arguments of
// the PAM module. To be called before anything is started.
void permitAllLogins(testbed::Controller& controller, const std::string& more = {});

// Has the log collection take all audit entries.
void keepAllAuditEntries(testbed::StoreClient& store);

}  // namespace bench
