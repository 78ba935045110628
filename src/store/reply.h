// Owners of what hiredis hands out, and the one way of sending a command.
// Internal to this folder.
#pragma once

#include <hiredis/hiredis.h>

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

// Sends one command whose format holds the command word, and %s or %d for each
// argument, and waits for its reply. Null: the connection is lost.
ReplyPtr sendFormatted(redisContext* store, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

// The same for a command given as its arguments, which may hold any bytes.
ReplyPtr sendArguments(redisContext* store, std::span<const std::string_view> arguments);

inline bool isInteger(const ReplyPtr& reply) {
    return reply && reply->type == REDIS_REPLY_INTEGER;
}

// The reply's text up to its first zero byte; empty when it holds none.
inline std::string textOf(const redisReply* reply) {
    return reply->str ? std::string(reply->str) : std::string();
}

}  // namespace session_service::store
