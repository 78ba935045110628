// Waiting on conditions. The timeout only ends a run that has gone wrong: it is long enough
// for a sanitizer build, an emulator, or a daemon under valgrind, on a busy machine.
#pragma once

#include <chrono>
#include <functional>
#include <stdexcept>
#include <string>

namespace testbed {

// Something that the testbed needs did not happen; the text says what.
struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

using Deadline = std::chrono::steady_clock::time_point;

// Whether the environment asks, with TESTBED_VALGRIND, for the daemon to run under valgrind.
bool underValgrind();

// When a wait that begins now times out.
Deadline deadlineFromNow();

// Blocks until `condition` holds, asking every two milliseconds.
// Throws Failure with `what` in its text when it does not come to hold.
void waitUntil(const std::string& what, const std::function<bool()>& condition);

}  // namespace testbed
