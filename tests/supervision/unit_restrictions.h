// The restrictions of a systemd unit in terms of bubblewrap, prlimit and `confine`, so that the
// daemon can be tried under them where systemd does not run.
//
// What they cannot express is left out: limits of the control group (memory, tasks, addresses),
// and what is so in every private root (devices, kernel settings, the right to gain rights).
#pragma once

#include <string>
#include <vector>

namespace testbed {

struct UnitRestrictions {
    std::vector<std::string> sandboxOptions;  // options for bubblewrap
    std::vector<std::string> limits;          // options for prlimit
    std::string rules;                        // the file of rules for confine
};

// Reads them from a unit. `root` is the private root seen from outside; the folders in it that the
// unit speaks of are made. Asks systemd-analyze for the sets of system calls. Throws Failure when
// it finds something in these options that it does not understand.
UnitRestrictions readUnitRestrictions(const std::string& unitFile, const std::string& root);

}  // namespace testbed
