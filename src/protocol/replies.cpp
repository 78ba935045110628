#include "protocol/replies.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <optional>
#include <stdexcept>

#include "base/number.h"
#include "frame/logger.h"
#include "store/resource_names.h"

namespace session_service {
namespace {

constexpr std::size_t maxEntryKeyLength = 511;
constexpr int defaultLifetime = 6;

// How long messages are kept, in seconds.
int messageLifetime(redisContext* connection) {
    const std::string setting = store::hget(connection, defaultValuesKey, messageLifetimeField);
    if (setting.empty()) {
        return defaultLifetime;
    }
    constexpr std::int64_t maxSeconds = std::numeric_limits<int>::max() - 1;
    const std::int64_t seconds = parseInt64(setting).value / 1000;
    return static_cast<int>(std::clamp(seconds, std::int64_t{0}, maxSeconds)) + 1;
}

// The number of the entry after `count` others, cut to 32 bits. Added unsigned: the store may
// report any length.
std::int32_t entryNumber(long long count) {
    return static_cast<std::int32_t>(static_cast<std::uint64_t>(count) + 1);
}

}  // namespace

std::string quoteArg(const std::string& text) {
    std::string quoted;
    // Tokens are quoted here too: growing would leave copies of them behind.
    quoted.reserve(text.size() + 2);
    quoted += '"';
    for (const char character : text) {
        if (character == '"' || character == '\\') {
            quoted += '\\';
        }
        quoted += character;
    }
    quoted += '"';
    return quoted;
}

Reply composeReplyKeys(const std::string& replyKey) {
    if (replyKey.empty()) {
        return {};
    }
    // Without a slash nothing of the key is kept: npos + 1 is 0.
    return {replyKey, replyKey.substr(0, replyKey.rfind('/') + 1) + "ExtendedInfo"};
}

Reply composeEarlyReply(const std::string& replyKey) {
    return {replyKey, replyKey + "/ExtendedInfo"};
}

void writeReply(redisContext* connection, Reply& reply, const Outcome& outcome) {
    if (!isExpected(reply)) {
        return;
    }
    reply.fields[returnStatusField] = outcome.status;
    reply.fields[extendedInfoField] = reply.messageList;
    if (!store::hsetMany(connection, reply.key, reply.fields)) {
        logger->error("Failed to update Return Status.");
    }
    if (outcome.messageId) {
        writeExtendedMessage(connection, reply.messageList, outcome.messageId, outcome.arguments);
    }
}

void writeReplyFieldByField(redisContext* connection, const Reply& reply, const Outcome& outcome) {
    store::hset(connection, reply.key, returnStatusField, outcome.status);
    store::hset(connection, reply.key, extendedInfoField, reply.messageList);
    writeExtendedMessage(connection, reply.messageList, outcome.messageId, outcome.arguments);
}

void writeExceptionReply(redisContext* connection, const Reply& reply, const char* messageId) {
    writeReplyFieldByField(connection, reply, {reply_status::exception, messageId});
}

void writeExtendedMessage(redisContext* connection, const std::string& list, const char* messageId,
                          const MessageArguments& arguments) {
    const std::optional<long long> count = store::llenUnchecked(connection, list);
    if (!count) {
        logger->error("Failed to get length of extended info array.");
        return;
    }
    const int lifetime = messageLifetime(connection);
    const std::string entryKey =
        (list + '/' + std::to_string(entryNumber(*count))).substr(0, maxEntryKeyLength);
    if (!messageId) {
        throw std::logic_error(nullTextError);
    }
    store::hset(connection, entryKey, messageIdField, messageId);
    if (!arguments.empty()) {
        const std::string argumentsKey = entryKey + "/MessageArgs";
        for (const std::string& argument : arguments) {
            store::send(connection, {"RPUSH", argumentsKey, quoteArg(argument)});
        }
        store::hset(connection, entryKey, messageArgsField, argumentsKey);
        store::expire(connection, argumentsKey, lifetime);
    }
    store::send(connection, {"LPUSH", list, entryKey});
    store::expire(connection, list, lifetime);
    store::expire(connection, entryKey, lifetime);
}

}  // namespace session_service
