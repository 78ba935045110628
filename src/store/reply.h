// The owner of a reply, and the functions that send a command.
// Internal to this folder.
#pragma once

#include <hiredis/hiredis.h>

#include <array>
#include <cstring>
#include <memory>
#include <span>
#include <string>
#include <string_view>

namespace session_service::store {

struct FreeReply {
    void operator()(redisReply* reply) const noexcept { freeReplyObject(reply); }
};
// The elements of an array reply are borrowed from it: never free them.
using ReplyPtr = std::unique_ptr<redisReply, FreeReply>;

// Sends one command, given as its words and their lengths, and waits for its reply. Null: the
// connection is lost.
ReplyPtr sendCommand(redisContext* connection, std::span<const char*> words,
                     const std::size_t* lengths);

inline const char* startOf(const char* text) {
    return text;
}
inline const char* startOf(const std::string& text) {
    return text.c_str();
}

// The same for words that end at their first zero byte.
template <typename... Words>
ReplyPtr sendWords(redisContext* connection, const Words&... words) {
    std::array<const char*, sizeof...(words)> starts{startOf(words)...};
    const std::array<std::size_t, sizeof...(words)> lengths{std::strlen(startOf(words))...};
    return sendCommand(connection, starts, lengths.data());
}

// The same for words that may hold any bytes.
ReplyPtr sendArguments(redisContext* connection, std::span<const std::string_view> arguments);

inline bool isInteger(const ReplyPtr& reply) {
    return reply && reply->type == REDIS_REPLY_INTEGER;
}

// The reply's text up to its first zero byte; empty when it holds none.
inline std::string textOf(const redisReply* reply) {
    return reply->str ? std::string(reply->str) : std::string();
}

}  // namespace session_service::store
