#include "base/number.h"

#include <exception>
#include <stdexcept>

#include "frame/logger.h"

namespace session_service {
namespace {

void logFault(const char* sentence, const std::exception& failure, FaultLevel level) {
    if (level == FaultLevel::error) {
        logger->error("%s %s", sentence, failure.what());
    } else {
        logger->debug("%s %s", sentence, failure.what());
    }
}

}  // namespace

std::optional<std::int32_t> parseNumber(const std::string& text, const NumberFaults& faults,
                                        FaultLevel level) {
    try {
        return std::stoi(text);
    } catch (const std::invalid_argument& failure) {
        logFault(faults.noDigits, failure, level);
    } catch (const std::out_of_range& failure) {
        logFault(faults.outOfRange, failure, level);
    }
    return std::nullopt;
}

}  // namespace session_service
