#include "bench/floor.h"

#include <hiredis/hiredis.h>

#include <cstdlib>
#include <iostream>
#include <memory>
#include <utility>

namespace testbed {

namespace {

constexpr char end[] = "end";

struct Close {
    void operator()(redisContext* context) const noexcept { redisFree(context); }
    void operator()(redisReply* reply) const noexcept { freeReplyObject(reply); }
};
using ContextPtr = std::unique_ptr<redisContext, Close>;
using ReplyPtr = std::unique_ptr<redisReply, Close>;

std::string encode(const Words& words) {
    std::string text = "*" + std::to_string(words.size()) + "\r\n";
    for (const std::string& word : words) {
        text += "$" + std::to_string(word.size()) + "\r\n" + word + "\r\n";
    }
    return text;
}

ContextPtr open(const std::string& socketPath) {
    ContextPtr context(redisConnectUnix(socketPath.c_str()));
    if (!context || context->err != 0) {
        throw Failure("No connection to the store at " + socketPath + ".");
    }
    return context;
}

ReplyPtr nextReply(redisContext* context) {
    void* reply = nullptr;
    if (redisGetReply(context, &reply) != REDIS_OK) {
        throw Failure("The connection to the store was lost.");
    }
    return ReplyPtr(static_cast<redisReply*>(reply));
}

ReplyPtr send(redisContext* context, const std::string& command) {
    redisAppendFormattedCommand(context, command.data(), command.size());
    return nextReply(context);
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
    const ContextPtr context = open(socketPath);
    for (const std::string& command : recording) {
        send(context.get(), command);
    }
}

Floor::Floor(const Controller& controller, std::string channel, Recording recording)
    : socketPath_(controller.socketPath()),
      channel_(std::move(channel)),
      recording_(std::move(recording)),
      store_(controller.connect()),
      thread_([this, password = controller.storePassword()] { serve(password); }) {
    waitUntil("the floor listens", [this] {
        return store_.run({"PUBSUB", "NUMSUB", channel_}).elements.at(1).integer == 1;
    });
}

Floor::~Floor() {
    try {
        store_.publish(channel_, end);
    } catch (const Failure&) {
        // Without the store the thread has ended already.
    }
    thread_.join();
}

void Floor::serve(const std::string& password) {
    try {
        const ContextPtr subscription = open(socketPath_);
        send(subscription.get(), authentication(password));
        send(subscription.get(), encode({"SUBSCRIBE", channel_}));
        for (;;) {
            const ReplyPtr message = nextReply(subscription.get());
            if (message->elements == 3 && message->element[2]->str == std::string_view(end)) {
                return;
            }
            replay(socketPath_, recording_);
        }
    } catch (const Failure& failure) {
        std::cerr << failure.what() << "\n";
    }
}

}  // namespace testbed
