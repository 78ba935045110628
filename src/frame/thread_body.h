// The outermost frame of a thread: no exception leaves it.
#pragma once

#include <cxxabi.h>

namespace session_service {

// To be called inside a catch block: logs that the thread of that name ends, and the exception.
void logThreadEnd(const char* name) noexcept;

// Runs the body. An exception ends it as a lost connection does, after the error line "The thread
// of NAME ends: ...".
// A forced unwind has no exception object, which the undefined-behaviour sanitizer takes for a null
// reference; inlined, the function would be checked as its caller is.
template <typename Body>
__attribute__((noinline, no_sanitize("null"))) void runThreadBody(const char* name,
                                                                  const Body& body) {
    try {
        body();
    } catch (const abi::__forced_unwind&) {
        // Not an exception but pthread_exit, called by a PAM module: to swallow it would end the
        // process.
        throw;
    } catch (...) {
        logThreadEnd(name);
    }
}

}  // namespace session_service
