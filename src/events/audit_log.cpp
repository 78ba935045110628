#include "events/audit_log.h"

#include <array>
#include <ctime>
#include <vector>

#include "base/local_time.h"
#include "frame/configuration.h"
#include "frame/logger.h"
#include "platform/config_file.h"
#include "store/resource_names.h"

namespace session_service {
namespace {

const std::string& logEntryCollection() {
    static const std::string collection =
        getConfigValue(configurationFile, auditSetting, settingBufferSize);
    return collection;
}

void logAnswer(const store::ScriptAnswer& answer) {
    switch (answer.kind) {
        case store::ScriptAnswer::Kind::integer:
            if (answer.value == 0) {
                logger->debug(
                    "The LogEntry cannot be generated since logs already reached the max count.");
            } else if (answer.value == 2) {
                logger->debug(
                    "The LogEntry is not generated since the severity of the message is not "
                    "desired.");
            }
            break;
        case store::ScriptAnswer::Kind::refused:
            logger->error("Failed to generate LogEntry. %s", answer.text.c_str());
            break;
        case store::ScriptAnswer::Kind::unknown:
            logger->error("Failed to generate LogEntry(unknown error).");
            break;
        case store::ScriptAnswer::Kind::lost:
            break;
    }
}

}  // namespace

std::string currentTimestamp() {
    // Not the C++ library's clock: on a 32-bit machine that may end in 2038.
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    std::tm local{};
    toLocalTime(now.tv_sec, local);
    std::array<char, 64> formatted{};
    std::string text(formatted.data(),
                     std::strftime(formatted.data(), formatted.size(), "%FT%T%z", &local));
    if (text.size() >= 2) {
        text.insert(text.end() - 2, ':');
    }
    return text;
}

void generateAuditLogEntry(redisContext* connection, const std::string& messageArg,
                           const std::string& messageId, const std::string& origin) {
    const std::string& collection = logEntryCollection();
    if (collection.empty() || !store::exists(connection, collection)) {
        logger->debug(
            "LogEntry collection doesn't exist, Session Service will not generate audit log.");
        return;
    }
    const std::string digest = store::hget(connection, scriptDigestsKey, auditScript);
    if (digest.empty()) {
        logger->error("Cannot get SHA script logGeneratorHelper.");
        return;
    }
    std::vector<std::string> pieces{"7",       "CREATE", collection, currentTimestamp(),
                                    messageId, origin,   "1"};
    // The argument may well be empty or of several words: the declared number of keys is
    // then wrong, and the store's refusal is logged.
    store::appendWords(pieces, messageArg);
    logAnswer(store::evalsha(connection, digest, pieces));
}

}  // namespace session_service
