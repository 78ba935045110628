// A connection to the store for loops that do nothing but send commands and take replies.
#pragma once

#include <memory>
#include <string>

#include "testbed/store_client.h"

struct redisReply;

namespace bench {

struct FreeReply {
    void operator()(redisReply* reply) const noexcept;
};
using ReplyPtr = std::unique_ptr<redisReply, FreeReply>;

// A command in the form in which it is sent.
std::string encode(const testbed::Words& words);

// Its functions block, and throw Failure when the store is lost.
class BareConnection {
  public:
    explicit BareConnection(const std::string& socketPath);

    // Keeps an encoded command until receive() is called.
    void append(const std::string& command);
    // Sends what has been appended and returns the next reply.
    ReplyPtr receive();
    ReplyPtr send(const std::string& command);

  private:
    struct Close {
        void operator()(redisContext* opened) const noexcept;
    };
    std::unique_ptr<redisContext, Close> context;
};

}  // namespace bench
