#include "protocol/replies.h"

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <optional>
#include <stdexcept>

#include "frame/logger.h"
#include "frame/resource_names.h"

namespace session_service {
namespace {

constexpr std::size_t entryKeySize = 511;
constexpr int defaultLifetime = 6;

// The seconds that messages are kept.
int messageLifetime(redisContext* store) {
    const std::string setting = store::hget(store, defaultValuesKey, messageLifetimeField);
    if (setting.empty()) {
        return defaultLifetime;
    }
    constexpr long long most = std::numeric_limits<int>::max() - 1;
    const long long seconds = std::strtoll(setting.c_str(), nullptr, 10) / 1000;
    return static_cast<int>(std::clamp(seconds, 0LL, most)) + 1;
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

void composeReplyKeys(const std::string& replyKey, ReplyFields& fields, MessageInfo& message) {
    if (replyKey.empty()) {
        return;
    }
    // Without a slash nothing of the key is kept: npos + 1 is 0.
    const std::string list = replyKey.substr(0, replyKey.rfind('/') + 1) + "ExtendedInfo";
    message[messageListItem] = list;
    fields[extendedInfoField] = list;
    fields[replyKeyItem] = replyKey;
}

void writeReply(redisContext* store, ReplyFields& fields, const MessageInfo& message,
                const MessageArguments& arguments) {
    const std::string replyKey = fieldOf(fields, replyKeyItem);
    if (replyKey.empty()) {
        return;
    }
    fields.erase(replyKeyItem);
    if (!store::hsetMany(store, replyKey, fields)) {
        logger->error("Failed to update Return Status.");
    }
    const auto messageId = message.find(messageIdItem);
    if (messageId != message.end()) {
        writeExtendedMessage(store, fieldOf(message, messageListItem), messageId->second.c_str(),
                             arguments);
    }
}

void writeExtendedMessage(redisContext* store, const std::string& list, const char* messageId,
                          const MessageArguments& arguments) {
    const std::optional<long long> count = store::llenReply(store, list);
    if (!count) {
        logger->error("Failed to get length of extended info array.");
        return;
    }
    const int lifetime = messageLifetime(store);
    const std::string entryKey =
        (list + '/' + std::to_string(static_cast<int>(*count + 1))).substr(0, entryKeySize);
    if (!messageId) {
        throw std::logic_error("basic_string::_M_construct null not valid");
    }
    store::hset(store, entryKey, messageIdField, messageId);
    if (!arguments.empty()) {
        const std::string argumentsKey = entryKey + "/MessageArgs";
        for (const std::string& argument : arguments) {
            store::send(store, {"RPUSH", argumentsKey, quoteArg(argument)});
        }
        store::hset(store, entryKey, messageArgsField, argumentsKey);
        store::expire(store, argumentsKey, lifetime);
    }
    store::send(store, {"LPUSH", list, entryKey});
    store::expire(store, list, lifetime);
    store::expire(store, entryKey, lifetime);
}

void writeExtendedMessageOneArg(redisContext* store, const std::string& list, const char* messageId,
                                const char* argument) {
    MessageArguments arguments;
    if (argument) {
        arguments.emplace_back(argument);
    }
    writeExtendedMessage(store, list, messageId, arguments);
}

void writeExceptionReply(redisContext* store, const std::string& replyKey, const std::string& list,
                         const char* messageId) {
    store::hset(store, replyKey, returnStatusField, "EXCEPTION");
    store::hset(store, replyKey, extendedInfoField, list);
    writeExtendedMessageOneArg(store, list, messageId, nullptr);
}

void writeEarlyRefusal(redisContext* store, const std::string& replyKey, const char* status,
                       const char* messageId, const MessageArguments& arguments) {
    const std::string list = replyKey + "/ExtendedInfo";
    store::hset(store, replyKey, returnStatusField, status);
    store::hset(store, replyKey, extendedInfoField, list);
    writeExtendedMessage(store, list, messageId, arguments);
}

}  // namespace session_service
