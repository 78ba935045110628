// The modules that a PAM service names.
#pragma once

#include <string>
#include <vector>

#include "sessionctl/report.h"

namespace session_service::console {

// A rule of a service's file.
struct PamRule {
    std::string type;       // such as "auth"; empty for an @include, which is for all types
    std::string control;    // such as "required", "include" or "[...]"
    std::string module;     // or the included file
    bool optional = false;  // the module may be missing

    bool operator==(const PamRule&) const = default;
};

// The rules in these lines; comments and lines that are no rules are skipped.
std::vector<PamRule> parsePamRules(const std::vector<std::string>& lines);

// Checks that the service exists, has rules for passwords and accounts, and that every module
// exists that it or a file that it includes names.
void checkPamService(Report& report, const std::string& service);

}  // namespace session_service::console
