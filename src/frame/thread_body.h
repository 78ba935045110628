// The top of a thread's body, beyond which no exception gets.
#pragma once

#include <cxxabi.h>

namespace session_service {

// Logs why the thread of that name ends, from within a handler of the exception.
void logThreadEnd(const char* name) noexcept;

// Runs the body. An exception ends it as a lost connection does, after an error line.
template <typename Body>
void runThreadBody(const char* name, const Body& body) {
    try {
        body();
    } catch (const abi::__forced_unwind&) {
        // No exception: a PAM module has ended its thread, which must go on ending.
        throw;
    } catch (...) {
        logThreadEnd(name);
    }
}

}  // namespace session_service
