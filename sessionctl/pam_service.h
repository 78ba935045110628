// The modules that a PAM service names.
#pragma once

#include <string>
#include <vector>

#include "sessionctl/report.h"

namespace session_service::console {

// A rule of a service's file.
struct PamRule {
    std::string type;       // "auth" and so on; empty for an @include, which counts for all types
    std::string control;    // "required", "include", "[...]" and so on
    std::string module;     // or the file that is included
    bool optional = false;  // nobody minds when the module is not there

    bool operator==(const PamRule&) const = default;
};

// The rules in these lines; comments and what is no rule are left out.
std::vector<PamRule> parsePamRules(const std::vector<std::string>& lines);

// Checks that the service of this name is there, has rules for passwords and accounts, and
// that every module that it names, by other files too, exists.
void checkPamService(Report& report, const std::string& service);

}  // namespace session_service::console
