// The request threads whose subscriptions go wrong.
#include <array>
#include <atomic>
#include <map>
#include <memory>
#include <optional>
#include <utility>

#include "support/store_proxy.h"
#include "support/system_test.h"

namespace testbed {
namespace {

constexpr std::array channels{createChannel, deleteChannel, patchChannel};

// Values as they go over the wire.
std::string text(const std::string& bytes) {
    return "$" + std::to_string(bytes.size()) + "\r\n" + bytes + "\r\n";
}
std::string array(const Words& values) {
    std::string bytes = "*" + std::to_string(values.size()) + "\r\n";
    for (const std::string& value : values) {
        bytes += value;
    }
    return bytes;
}
std::string message(const std::string& channel, const std::string& notice) {
    return array({text("message"), text(channel), text(notice)});
}
std::string confirmation(const std::string& channel) {
    return array({text("subscribe"), text(channel), ":1\r\n"});
}

struct Push {
    const char* name;
    std::string bytes;
};

// The proxy answers subscriptions in the store's place, which knows nothing of them then.
class FaultySubscription : public SystemTest {
  protected:
    void SetUp() override {
        startStore();
        // The quickest answer to logins and logouts is that the service is disabled.
        store().hset(serviceUri, {{"ServiceEnabled", "false"}});
    }

    // For daemons that have not been started yet. The PATCH channel's first subscription is
    // an attempt, which is as good as any with `attempt`.
    void answer(const std::map<std::string, StoreProxy::Verdict>& byChannel,
                const std::optional<StoreProxy::Verdict>& attempt = std::nullopt) {
        expiryRuns = false;
        storeProxy.setFilter(
            [=, this, attempts = std::make_shared<std::atomic<int>>(0)](const Words& command) {
                if (command[0] != "SUBSCRIBE") {
                    expiryRuns = expiryRuns || command[0] == "LRANGE";
                    return StoreProxy::Verdict::pass;
                }
                const bool isAttempt = command[1] == patchChannel && (*attempts)++ == 0;
                return isAttempt && attempt ? *attempt : byChannel.at(command[1]);
            });
    }

    Request prepareFor(const std::string& channel) {
        if (channel == createChannel) {
            return frontEnd().prepareLogin("anybody", "anything");
        }
        return channel == deleteChannel ? frontEnd().prepareRemove("/session")
                                        : frontEnd().preparePatch({{"SessionTimeout", "300"}});
    }
    static std::string noticeOf(const Request& request) {
        return request.requestKey() + " " + request.replyKey();
    }
    static void expectAnswer(Request& request) {
        EXPECT_EQ(request.published(), request.replyKey());
    }

    // The daemon ends by itself, in order, once its request threads have ended.
    void expectEnd() {
        EXPECT_EQ(toText(runDaemon()), toText(ExitStatus{}));
        EXPECT_EQ(logLines().back().message, "SessionService terminates.");
    }

    // The last thread to be waited for, since it subscribes nothing.
    void waitForTheExpiry() {
        waitUntil("the expiry runs", [this] { return expiryRuns.load(); });
    }

  private:
    std::atomic<bool> expiryRuns = false;
    StoreProxy storeProxy{controller};
};

const std::string nil = "$-1\r\n";

TEST_F(FaultySubscription, IsReadOnAfterAPushThatIsNoMessage) {
    const std::string any = text("any channel");
    const std::vector<Push> pushes{
        {"an error", "-ERR fault\r\n"},
        {"a status", "+OK\r\n"},
        {"an integer", ":1\r\n"},
        {"a text", text("fault")},
        {"nothing", nil},
        {"no array", "*-1\r\n"},
        {"an array of nothing", array({})},
        {"an array of nils", array({nil, nil, nil})},
        {"another confirmation", array({text("subscribe"), any, ":2\r\n"})},
        {"the end of a subscription", array({text("unsubscribe"), any, ":0\r\n"})},
        {"the end of all subscriptions", array({text("unsubscribe"), nil, ":0\r\n"})},
        {"an answer to a ping", array({text("pong"), text("")})},
        {"a message without text", array({text("message"), any, nil})},
        {"a message of nothing", array({text("message"), any, text("")})},
        {"a message of an array", array({text("message"), any, array({text("a b")})})},
        {"a message of an integer", array({text("message"), any, ":5\r\n"})},
    };
    std::map<std::string, StoreProxy::Verdict> streams;
    std::vector<std::pair<const char*, Request>> requests;
    for (const char* channel : channels) {
        std::string stream = confirmation(channel);
        for (const Push& push : pushes) {
            Request request = prepareFor(channel);
            stream += push.bytes + message(channel, noticeOf(request));
            requests.emplace_back(push.name, std::move(request));
        }
        streams[channel] = StoreProxy::Verdict::reply(stream);
    }
    answer(streams);
    controller.startDaemon();
    waitForTheExpiry();
    for (auto& [name, request] : requests) {
        SCOPED_TRACE(request.requestKey() + " comes after " + name);
        expectAnswer(request);
    }
}

// Only the PATCH worker looks at the number of elements, and nobody at the others.
TEST_F(FaultySubscription, TakesTheLastTextOfAnArrayForANotice) {
    std::map<std::string, StoreProxy::Verdict> streams;
    std::vector<Request> requests;
    std::vector<Request> passedOver;
    for (const char* channel : channels) {
        std::string stream = confirmation(channel);
        for (const Words& beginning :
             {Words{}, Words{text("message")}, Words{text("a kind"), nil},
              Words{text("pmessage"), text("*"), text("another channel")}}) {
            Request request = prepareFor(channel);
            Words elements = beginning;
            elements.push_back(text(noticeOf(request)));
            stream += array(elements);
            const bool isServed = channel != std::string(patchChannel) || elements.size() == 3;
            (isServed ? requests : passedOver).push_back(std::move(request));
        }
        Request last = prepareFor(channel);
        stream += message(channel, noticeOf(last));
        requests.push_back(std::move(last));
        streams[channel] = StoreProxy::Verdict::reply(stream);
    }
    answer(streams);
    controller.startDaemon();
    waitForTheExpiry();
    for (Request& request : requests) {
        SCOPED_TRACE(request.requestKey());
        expectAnswer(request);
    }
    EXPECT_EQ(passedOver.size(), 3U);
    for (Request& request : passedOver) {
        EXPECT_FALSE(request.publishedAlready()) << request.requestKey();
    }
}

TEST_F(FaultySubscription, CountsWhateverIsAnsweredAsASubscription) {
    for (const Push& reply :
         {Push{"an error", "-ERR fault\r\n"}, Push{"out of memory", "-OOM command not allowed\r\n"},
          Push{"a status", "+OK\r\n"}, Push{"an integer", ":1\r\n"}, Push{"a text", text("fault")},
          Push{"nothing", nil}, Push{"no array", "*-1\r\n"}, Push{"an array of nothing", array({})},
          Push{"a message", message("any channel", "/request /reply")}}) {
        SCOPED_TRACE(reply.name);
        std::map<std::string, StoreProxy::Verdict> streams;
        std::vector<Request> requests;
        for (const char* channel : channels) {
            requests.push_back(prepareFor(channel));
            streams[channel] = StoreProxy::Verdict::reply(
                reply.bytes + message(channel, noticeOf(requests.back())));
        }
        answer(streams);
        if (controller.daemonStarted()) {
            controller.daemon().kill();
        }
        controller.startDaemon();
        for (Request& request : requests) {
            expectAnswer(request);
        }
    }
    waitForTheExpiry();
}

TEST_F(FaultySubscription, EndsWithItsThreadAtWhatIsNoReply) {
    std::string nested = text("a b");
    for (int level = 0; level < 20; ++level) {
        nested = array({nested});
    }
    for (const Push& garbage :
         {Push{"another protocol", "HTTP/1.1 400 Bad Request\r\n"},
          Push{"zero bytes", std::string(8, '\0')}, Push{"a length without digits", "$x\r\n"},
          Push{"a negative length", "$-7\r\n"}, Push{"a negative number of elements", "*-7\r\n"},
          Push{"too many elements", "*9223372036854775807\r\n"},
          Push{"garbage in a message", "*3\r\n$7\r\nmessage\r\ngarbage\r\n"},
          Push{"too many levels", nested}}) {
        SCOPED_TRACE(garbage.name);
        std::map<std::string, StoreProxy::Verdict> streams;
        std::vector<Request> requests;
        for (const char* channel : channels) {
            requests.push_back(prepareFor(channel));
            streams[channel] =
                StoreProxy::Verdict::reply(confirmation(channel) + garbage.bytes +
                                           message(channel, noticeOf(requests.back())));
        }
        answer(streams);
        expectEnd();
        for (Request& request : requests) {
            EXPECT_FALSE(request.publishedAlready()) << request.requestKey();
        }
    }
}

TEST_F(FaultySubscription, EndsWithItsThreadWhereItsReplyIsNone) {
    const std::string refused = "Failed to subscribe channel " + std::string(patchChannel) + ".";
    expectErrorLine(refused);
    long ends = 0;
    for (const StoreProxy::Verdict& fault :
         {StoreProxy::Verdict::cut, StoreProxy::Verdict::cutAfter, StoreProxy::Verdict::truncate,
          StoreProxy::Verdict::reply("garbage\r\n")}) {
        SCOPED_TRACE("action " + std::to_string(static_cast<int>(fault.action)));
        answer({{createChannel, fault}, {deleteChannel, fault}, {patchChannel, fault}},
               StoreProxy::Verdict::pass);
        expectEnd();
        EXPECT_EQ(countLogged(refused), ++ends);
    }
}

TEST_F(FaultySubscription, ThatEndsInsideAMessageLeavesTheMessageAlone) {
    std::map<std::string, StoreProxy::Verdict> streams;
    std::vector<Request> requests;
    for (const char* channel : channels) {
        requests.push_back(prepareFor(channel));
        // All but the end of the line.
        std::string truncated = message(channel, noticeOf(requests.back()));
        truncated.pop_back();
        requests.push_back(prepareFor(channel));
        streams[channel] = StoreProxy::Verdict::reply(
            confirmation(channel) + message(channel, noticeOf(requests.back())) + truncated);
    }
    answer(streams);
    controller.startDaemon();
    waitForTheExpiry();
    for (std::size_t i = 1; i < requests.size(); i += 2) {
        expectAnswer(requests[i]);
    }
    // The connections that the proxy has to the store, and those of the daemon with them.
    controller.connect().run({"CLIENT", "KILL", "TYPE", "normal", "SKIPME", "yes"});
    EXPECT_EQ(toText(controller.daemon().wait()), toText(ExitStatus{}));
    for (std::size_t i = 0; i < requests.size(); i += 2) {
        EXPECT_FALSE(requests[i].publishedAlready()) << requests[i].requestKey();
    }
}

}  // namespace
}  // namespace testbed
