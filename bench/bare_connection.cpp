#include "bench/bare_connection.h"

#include <hiredis/hiredis.h>

namespace bench {

using testbed::Failure;

void FreeReply::operator()(redisReply* reply) const noexcept {
    freeReplyObject(reply);
}

void BareConnection::Close::operator()(redisContext* opened) const noexcept {
    redisFree(opened);
}

std::string encode(const testbed::Words& words) {
    std::string text = "*" + std::to_string(words.size()) + "\r\n";
    for (const std::string& word : words) {
        text += "$" + std::to_string(word.size()) + "\r\n" + word + "\r\n";
    }
    return text;
}

BareConnection::BareConnection(const std::string& socketPath)
    : context(redisConnectUnix(socketPath.c_str())) {
    if (!context || context->err != 0) {
        throw Failure("No connection to the store at " + socketPath + ".");
    }
}

void BareConnection::append(const std::string& command) {
    redisAppendFormattedCommand(context.get(), command.data(), command.size());
}

ReplyPtr BareConnection::receive() {
    void* reply = nullptr;
    if (redisGetReply(context.get(), &reply) != REDIS_OK) {
        throw Failure("The connection to the store was lost.");
    }
    return ReplyPtr(static_cast<redisReply*>(reply));
}

ReplyPtr BareConnection::send(const std::string& command) {
    append(command);
    return receive();
}

}  // namespace bench
