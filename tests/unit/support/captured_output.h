// Captures what a piece of code writes to the standard streams.
#pragma once

#include <functional>
#include <string>

namespace session_service {

// Runs the action and returns what it, its threads and its children wrote.
std::string standardOutputOf(const std::function<void()>& action);
std::string standardErrorOf(const std::function<void()>& action);

}  // namespace session_service
