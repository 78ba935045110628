#include "bench/baseline.h"

#include <hiredis/hiredis.h>

#include <cstdlib>
#include <iostream>
#include <memory>
#include <string_view>
#include <utility>

namespace bench {

using testbed::Controller;
using testbed::Failure;
using testbed::MonitoredCommand;
using testbed::Words;

namespace {

constexpr std::string_view endNotice = "end";

struct Close {
    void operator()(redisContext* context) const noexcept { redisFree(context); }
    void operator()(redisReply* reply) const noexcept { freeReplyObject(reply); }
};
using ConnectionPtr = std::unique_ptr<redisContext, Close>;
using ReplyPtr = std::unique_ptr<redisReply, Close>;

std::string encode(const Words& words) {
    std::string text = "*" + std::to_string(words.size()) + "\r\n";
    for (const std::string& word : words) {
        text += "$" + std::to_string(word.size()) + "\r\n" + word + "\r\n";
    }
    return text;
}

ConnectionPtr open(const std::string& socketPath) {
    ConnectionPtr connection(redisConnectUnix(socketPath.c_str()));
    if (!connection || connection->err != 0) {
        throw Failure("No connection to the store at " + socketPath + ".");
    }
    return connection;
}

ReplyPtr nextReply(redisContext* connection) {
    void* reply = nullptr;
    if (redisGetReply(connection, &reply) != REDIS_OK) {
        throw Failure("The connection to the store was lost.");
    }
    return ReplyPtr(static_cast<redisReply*>(reply));
}

ReplyPtr send(redisContext* connection, const std::string& command) {
    redisAppendFormattedCommand(connection, command.data(), command.size());
    return nextReply(connection);
}

}  // namespace

Recording record(const std::vector<MonitoredCommand>& commands, const std::string& password) {
    Recording recording;
    for (const MonitoredCommand& command : commands) {
        if (command.client != "lua") {
            recording.push_back(
                encode(command.words.front() == "AUTH" ? Words{"AUTH", password} : command.words));
        }
    }
    return recording;
}

std::string authentication(const std::string& password) {
    return encode({"AUTH", password});
}

void replay(const std::string& socketPath, const Recording& recording) {
    const ConnectionPtr connection = open(socketPath);
    for (const std::string& command : recording) {
        send(connection.get(), command);
    }
}

Baseline::Baseline(const Controller& controller, std::string noticeChannel, Recording commands)
    : socketPath(controller.socketPath()),
      channel(std::move(noticeChannel)),
      recording(std::move(commands)),
      store(controller.connect()),
      thread([this, password = controller.storePassword()] { serve(password); }) {
    testbed::waitUntil("the baseline listens", [this] { return store.subscribers(channel) == 1; });
}

Baseline::~Baseline() {
    try {
        store.publish(channel, std::string(endNotice));
    } catch (const Failure&) {
        // Without the store the thread has ended already.
    }
    thread.join();
}

void Baseline::serve(const std::string& password) {
    try {
        const ConnectionPtr subscription = open(socketPath);
        send(subscription.get(), authentication(password));
        send(subscription.get(), encode({"SUBSCRIBE", channel}));
        for (;;) {
            const ReplyPtr message = nextReply(subscription.get());
            if (message->elements == 3 && message->element[2]->str == endNotice) {
                return;
            }
            replay(socketPath, recording);
        }
    } catch (const Failure& failure) {
        std::cerr << failure.what() << "\n";
    }
}

}  // namespace bench
