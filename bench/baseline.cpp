#include "bench/baseline.h"

#include <hiredis/hiredis.h>

#include <iostream>
#include <string_view>
#include <utility>

#include "bench/bare_connection.h"

namespace bench {

using testbed::Controller;
using testbed::Failure;
using testbed::MonitoredCommand;
using testbed::Words;

namespace {

constexpr std::string_view endNotice = "end";

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
    BareConnection connection(socketPath);
    for (const std::string& command : recording) {
        connection.send(command);
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
        BareConnection subscription(socketPath);
        subscription.send(authentication(password));
        subscription.send(encode({"SUBSCRIBE", channel}));
        for (;;) {
            const ReplyPtr message = subscription.receive();
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
