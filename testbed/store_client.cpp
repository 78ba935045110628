#include "testbed/store_client.h"

#include <hiredis/hiredis.h>
#include <poll.h>

#include <algorithm>

namespace testbed {

namespace {

struct FreeReply {
    void operator()(void* reply) const noexcept { freeReplyObject(reply); }
};
using ReplyPtr = std::unique_ptr<redisReply, FreeReply>;

Value toValue(const redisReply& reply) {
    Value value;
    switch (reply.type) {
        case REDIS_REPLY_STRING:
            value.kind = Value::Kind::text;
            break;
        case REDIS_REPLY_STATUS:
            value.kind = Value::Kind::status;
            break;
        case REDIS_REPLY_ERROR:
            value.kind = Value::Kind::error;
            break;
        case REDIS_REPLY_INTEGER:
            value.kind = Value::Kind::integer;
            value.integer = reply.integer;
            break;
        case REDIS_REPLY_ARRAY:
            value.kind = Value::Kind::list;
            for (size_t i = 0; i < reply.elements; ++i) {
                value.elements.push_back(toValue(*reply.element[i]));
            }
            break;
        default:
            break;
    }
    if (reply.str) {
        value.text.assign(reply.str, static_cast<std::size_t>(reply.len));
    }
    return value;
}

Words textsOf(const Value& value) {
    Words texts;
    for (const Value& element : value.elements) {
        texts.push_back(element.text);
    }
    return texts;
}

}  // namespace

void StoreClient::Close::operator()(redisContext* context) const noexcept {
    redisFree(context);
}

StoreClient::StoreClient(const std::string& socketPath, const std::string& password)
    : connection(redisConnectUnix(socketPath.c_str())) {
    if (!connection || connection->err != 0) {
        throw Failure("No connection to the store at " + socketPath + ".");
    }
    if (!password.empty()) {
        run({"AUTH", password});
    }
}

Value StoreClient::command(const Words& words) {
    std::vector<const char*> pointers;
    std::vector<std::size_t> lengths;
    for (const std::string& word : words) {
        pointers.push_back(word.data());
        lengths.push_back(word.size());
    }
    if (redisAppendCommandArgv(connection.get(), static_cast<int>(words.size()), pointers.data(),
                               lengths.data()) != REDIS_OK) {
        throw Failure("A command could not be composed.");
    }
    for (int written = 0; written == 0;) {
        if (redisBufferWrite(connection.get(), &written) != REDIS_OK) {
            throw Failure("The connection to the store was lost.");
        }
    }
    const std::optional<Value> value = next(deadlineFromNow());
    if (!value) {
        throw Failure("The store did not answer " + words.front() + ".");
    }
    return *value;
}

Value StoreClient::run(const Words& words) {
    Value value = command(words);
    if (value.kind == Value::Kind::error) {
        throw Failure("The store refused " + words.front() + ": " + value.text);
    }
    return value;
}

std::string StoreClient::hget(const std::string& key, const std::string& field) {
    return run({"HGET", key, field}).text;
}

bool StoreClient::hexists(const std::string& key, const std::string& field) {
    return run({"HEXISTS", key, field}).integer == 1;
}

Fields StoreClient::hgetall(const std::string& key) {
    const Words texts = textsOf(run({"HGETALL", key}));
    Fields fields;
    for (std::size_t i = 0; i + 1 < texts.size(); i += 2) {
        fields[texts[i]] = texts[i + 1];
    }
    return fields;
}

void StoreClient::hset(const std::string& key, const Fields& fields) {
    if (fields.empty()) {
        return;
    }
    Words words{"HSET", key};
    for (const auto& [field, value] : fields) {
        words.push_back(field);
        words.push_back(value);
    }
    run(words);
}

Words StoreClient::lrange(const std::string& key) {
    return textsOf(run({"LRANGE", key, "0", "-1"}));
}

long long StoreClient::llen(const std::string& key) {
    return run({"LLEN", key}).integer;
}

bool StoreClient::exists(const std::string& key) {
    return run({"EXISTS", key}).integer == 1;
}

void StoreClient::del(const std::string& key) {
    run({"DEL", key});
}

Words StoreClient::keys(const std::string& pattern) {
    Words found = textsOf(run({"KEYS", pattern}));
    std::sort(found.begin(), found.end());
    return found;
}

long long StoreClient::publish(const std::string& channel, const std::string& text) {
    return run({"PUBLISH", channel, text}).integer;
}

long long StoreClient::subscribers(const std::string& channel) {
    return run({"PUBSUB", "NUMSUB", channel}).elements.at(1).integer;
}

void StoreClient::subscribe(const std::string& channel) {
    run({"SUBSCRIBE", channel});
}

std::string StoreClient::nextMessage() {
    const std::optional<Value> message = next(deadlineFromNow());
    if (!message) {
        throw Failure("Timed out waiting for a message.");
    }
    return message->elements.at(2).text;
}

std::optional<std::string> StoreClient::pendingMessage() {
    const std::optional<Value> message = next(std::chrono::steady_clock::now());
    return message ? std::optional(message->elements.at(2).text) : std::nullopt;
}

std::optional<Value> StoreClient::next(Deadline end) {
    for (;;) {
        void* raw = nullptr;
        if (redisGetReplyFromReader(connection.get(), &raw) != REDIS_OK) {
            throw Failure("The store answered in an unknown form.");
        }
        if (raw) {
            const ReplyPtr reply(static_cast<redisReply*>(raw));
            return toValue(*reply);
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            end - std::chrono::steady_clock::now());
        pollfd readable{connection->fd, POLLIN, 0};
        if (poll(&readable, 1, static_cast<int>(std::max<std::int64_t>(left.count(), 0))) == 0) {
            return std::nullopt;
        }
        if (redisBufferRead(connection.get()) != REDIS_OK) {
            throw Failure("The connection to the store was lost.");
        }
    }
}

}  // namespace testbed
