// Working on a controller whose root is a folder, such as that of the demo.
#pragma once

#include <string>

namespace session_service::console {

// From now on the folder is this process's root, and that of its children, with what it lacks of
// /usr, /proc, /dev and /etc/alternatives from this machine. Needs no privileges where user
// namespaces are allowed; the machine is left as it is.
// Throws CommandError when that fails.
void enterRoot(const std::string& folder);

}  // namespace session_service::console
