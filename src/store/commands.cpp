#include "store/commands.h"

#include <cstdio>
#include <stdexcept>
#include <utility>

#include "base/number.h"
#include "store/reply.h"

namespace session_service::store {
namespace {

// The element's text. Throws what building a text from null throws.
const char* requireText(const redisReply* element) {
    if (!element->str) {
        throw std::logic_error(nullTextError);
    }
    return element->str;
}

bool isOne(const ReplyPtr& reply) {
    return isInteger(reply) && reply->integer == 1;
}

std::optional<long long> integerOf(const ReplyPtr& reply) {
    return isInteger(reply) ? std::optional<long long>(reply->integer) : std::nullopt;
}

std::size_t elementCount(const ReplyPtr& reply) {
    return reply->type == REDIS_REPLY_ARRAY ? reply->elements : 0;
}

ReplyPtr setFields(redisContext* connection, const std::string& key, const FieldMap& fields) {
    std::vector<std::string_view> arguments;
    arguments.reserve(2 + 2 * fields.size());
    arguments.emplace_back("HSET");
    arguments.emplace_back(key);
    for (const auto& [field, value] : fields) {
        arguments.emplace_back(field);
        arguments.emplace_back(value);
    }
    return sendArguments(connection, arguments);
}

}  // namespace

ReplyPtr sendCommand(redisContext* connection, std::span<const char*> words,
                     const std::size_t* lengths) {
    // Commands sent after the loss would pile up in the output buffer.
    if (connection->err != 0) {
        return nullptr;
    }
    return ReplyPtr(static_cast<redisReply*>(
        redisCommandArgv(connection, static_cast<int>(words.size()), words.data(), lengths)));
}

ReplyPtr sendArguments(redisContext* connection, std::span<const std::string_view> arguments) {
    std::vector<const char*> starts;
    std::vector<std::size_t> lengths;
    starts.reserve(arguments.size());
    lengths.reserve(arguments.size());
    for (const std::string_view argument : arguments) {
        starts.push_back(argument.data());
        lengths.push_back(argument.size());
    }
    return sendCommand(connection, starts, lengths.data());
}

std::string hget(redisContext* connection, const std::string& key, const std::string& field) {
    FieldReply reply = hgetReply(connection, key, field);
    // Moved: a token must not stay behind in a copy.
    return reply.kind == FieldReply::Kind::text ? std::move(*reply.text) : std::string();
}

FieldReply hgetReply(redisContext* connection, const std::string& key, const std::string& field) {
    const ReplyPtr reply = sendWords(connection, "HGET", key, field);
    if (!reply) {
        return {};
    }
    FieldReply result;
    result.kind = FieldReply::Kind::other;
    if (reply->str) {
        result.text = textOf(reply.get());
        if (reply->type == REDIS_REPLY_STRING) {
            result.kind = FieldReply::Kind::text;
        }
    }
    return result;
}

bool hset(redisContext* connection, const std::string& key, const std::string& field,
          const std::string& value) {
    const ReplyPtr reply = sendWords(connection, "HSET", key, field, value);
    return isInteger(reply) && static_cast<unsigned long long>(reply->integer) <= 1;
}

bool lpush(redisContext* connection, const std::string& key, const std::string& value,
           std::int32_t& newLength) {
    const ReplyPtr reply = sendWords(connection, "LPUSH", key, value);
    if (!isInteger(reply)) {
        return false;
    }
    newLength = static_cast<std::int32_t>(reply->integer);
    return true;
}

bool lpush(redisContext* connection, const std::string& key, const std::string& value) {
    std::int32_t newLength = 0;
    return lpush(connection, key, value, newLength);
}

std::int32_t llen(redisContext* connection, const std::string& key) {
    const ReplyPtr reply = sendWords(connection, "LLEN", key);
    if (!reply) {
        std::printf(">>> Failed to get list length on %s.\n", key.c_str());
    }
    return isInteger(reply) ? static_cast<std::int32_t>(reply->integer) : -1;
}

bool publish(redisContext* connection, const std::string& channel, const std::string& message) {
    const ReplyPtr reply = sendWords(connection, "PUBLISH", channel, message);
    return isInteger(reply) && reply->integer > 0;
}

bool publishAny(redisContext* connection, const std::string& channel, const std::string& message) {
    return isInteger(sendWords(connection, "PUBLISH", channel, message));
}

bool del(redisContext* connection, const std::string& key) {
    return isOne(sendWords(connection, "DEL", key));
}

bool expire(redisContext* connection, const std::string& key, int seconds) {
    return isOne(sendWords(connection, "EXPIRE", key, std::to_string(seconds)));
}

std::int32_t lrem(redisContext* connection, const std::string& key, int count,
                  const std::string& value) {
    const ReplyPtr reply = sendWords(connection, "LREM", key, std::to_string(count), value);
    if (!reply) {
        std::printf(">>> Failed to remove %s element in %s.\n", value.c_str(), key.c_str());
    }
    return isInteger(reply) ? static_cast<std::int32_t>(reply->integer) : 0;
}

bool hexists(redisContext* connection, const std::string& key, const std::string& field) {
    return isOne(sendWords(connection, "HEXISTS", key, field));
}

bool hincrby(redisContext* connection, const std::string& key, const std::string& field, int step,
             std::int32_t& newValue) {
    const ReplyPtr reply = sendWords(connection, "HINCRBY", key, field, std::to_string(step));
    if (isInteger(reply)) {
        newValue = static_cast<std::int32_t>(reply->integer);
    }
    return reply != nullptr;
}

bool hdel(redisContext* connection, const std::string& key, const std::string& field) {
    return isOne(sendWords(connection, "HDEL", key, field));
}

bool exists(redisContext* connection, const std::string& key) {
    return isOne(sendWords(connection, "EXISTS", key));
}

bool hgetall(redisContext* connection, const std::string& key, FieldMap& fields) {
    const ReplyPtr reply = sendWords(connection, "HGETALL", key);
    if (!reply) {
        return false;
    }
    for (std::size_t i = 0; i + 1 < elementCount(reply); i += 2) {
        const char* field = requireText(reply->element[i]);
        fields[field] = requireText(reply->element[i + 1]);
    }
    return true;
}

bool lrange(redisContext* connection, const std::string& key, std::vector<std::string>& list) {
    const ReplyPtr reply = sendWords(connection, "LRANGE", key, "0", "-1");
    if (!reply) {
        return false;
    }
    for (std::size_t i = 0; i < elementCount(reply); ++i) {
        list.emplace_back(requireText(reply->element[i]));
    }
    return true;
}

bool hsetMany(redisContext* connection, const std::string& key, const FieldMap& fields) {
    const ReplyPtr reply = setFields(connection, key, fields);
    return reply && reply->type != REDIS_REPLY_ERROR;
}

bool hsetFields(redisContext* connection, const std::string& key, const FieldMap& fields) {
    const ReplyPtr reply = setFields(connection, key, fields);
    return isInteger(reply) && reply->integer >= 0;
}

bool send(redisContext* connection, std::initializer_list<std::string_view> arguments) {
    return sendArguments(connection, arguments) != nullptr;
}

std::optional<long long> sendForInteger(redisContext* connection,
                                        std::initializer_list<std::string_view> arguments) {
    return integerOf(sendArguments(connection, arguments));
}

std::optional<long long> sendForInteger(redisContext* connection,
                                        const std::vector<std::string>& arguments) {
    const std::vector<std::string_view> views(arguments.begin(), arguments.end());
    return integerOf(sendArguments(connection, views));
}

void appendWords(std::vector<std::string>& arguments, const std::string& text) {
    std::size_t start = text.find_first_not_of(' ');
    while (start != std::string::npos) {
        const std::size_t end = text.find(' ', start);
        arguments.push_back(text.substr(start, end - start));
        start = text.find_first_not_of(' ', end);
    }
}

std::optional<long long> llenUnchecked(redisContext* connection, const std::string& key) {
    const ReplyPtr reply = sendWords(connection, "LLEN", key);
    return reply ? std::optional<long long>(reply->integer) : std::nullopt;
}

std::optional<ScanPage> scan(redisContext* connection, std::int32_t cursor,
                             const std::string& pattern) {
    const ReplyPtr reply =
        sendWords(connection, "SCAN", std::to_string(cursor), "MATCH", pattern, "COUNT", "1000");
    if (!reply || elementCount(reply) < 2 || !reply->element[0]->str ||
        reply->element[1]->type != REDIS_REPLY_ARRAY) {
        return std::nullopt;
    }
    ScanPage page;
    page.nextCursor = static_cast<std::int32_t>(parseInt64(reply->element[0]->str).value);
    const redisReply* keys = reply->element[1];
    page.keys.reserve(keys->elements);
    for (std::size_t i = 0; i < keys->elements; ++i) {
        if (keys->element[i]->str) {
            page.keys.emplace_back(keys->element[i]->str);
        }
    }
    return page;
}

ScriptAnswer evalsha(redisContext* connection, const std::string& digest,
                     const std::vector<std::string>& pieces) {
    std::vector<std::string_view> arguments{"EVALSHA", digest};
    arguments.insert(arguments.end(), pieces.begin(), pieces.end());
    const ReplyPtr reply = sendArguments(connection, arguments);

    ScriptAnswer answer;
    if (!reply) {
        answer.kind = ScriptAnswer::Kind::lost;
    } else if (reply->type == REDIS_REPLY_ERROR) {
        answer.kind = ScriptAnswer::Kind::refused;
        answer.text = textOf(reply.get());
    } else if (reply->type == REDIS_REPLY_INTEGER) {
        answer.kind = ScriptAnswer::Kind::integer;
        answer.value = reply->integer;
    } else if (elementCount(reply) == 2) {
        answer.kind = ScriptAnswer::Kind::refused;
        answer.text = textOf(reply->element[1]);
    } else {
        answer.kind = ScriptAnswer::Kind::unknown;
    }
    return answer;
}

bool subscribe(redisContext* connection, const std::string& channel) {
    return sendWords(connection, "SUBSCRIBE", channel) != nullptr;
}

std::optional<ReceivedNotice> readNotice(redisContext* connection) {
    void* received = nullptr;
    const int status = redisGetReply(connection, &received);
    const ReplyPtr reply(static_cast<redisReply*>(received));
    if (status != REDIS_OK || !reply) {
        return std::nullopt;
    }
    ReceivedNotice notice;
    notice.elements = elementCount(reply);
    if (notice.elements > 0) {
        const redisReply* last = reply->element[notice.elements - 1];
        if (last->str) {
            notice.text = last->str;
        }
    }
    return notice;
}

}  // namespace session_service::store
