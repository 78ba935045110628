#include "frame/thread_body.h"

#include <cstdio>
#include <exception>

#include "frame/logger.h"

namespace session_service {
namespace {

void logCurrentException(const char* name) {
    try {
        throw;
    } catch (const std::exception& failure) {
        logger->error("The thread of %s ends: %s", name, failure.what());
    } catch (...) {
        logger->error("The thread of %s ends: unknown exception", name);
    }
}

}  // namespace

void logThreadEnd(const char* name) noexcept {
    try {
        logCurrentException(name);
    } catch (...) {
        // There is not even memory for a line of the log.
        std::fprintf(stderr, "[Error]: The thread of %s ends.\n", name);
    }
}

}  // namespace session_service
