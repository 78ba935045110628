// The request channels, with any bytes from the store and any payloads. Each worker handles
// exactly the notices that were published, and no key becomes more than one argument.
#include "protocol/request_channels.h"

#include <optional>

#include "service/patch.h"
#include "support/captured_stream.h"
#include "support/fake_store.h"
#include "support/input.h"
#include "support/log_lines.h"
#include "support/require.h"

namespace session_service {
namespace {

using ReceivedNotices = std::vector<store::ReceivedNotice>;

std::vector<Notice> handled;

void recordNotice(const Notice& notice) {
    handled.push_back(notice);
}

// What arrives after the confirmation of the subscription; empty when there is none.
std::optional<ReceivedNotices> noticesIn(const std::string& bytes) {
    const FakeConnection connection({bytes});
    if (!store::subscribe(connection.get(), "channel")) {
        return std::nullopt;
    }
    ReceivedNotices notices;
    while (const auto received = store::readNotice(connection.get())) {
        notices.push_back(*received);
    }
    return notices;
}

void trySplit(const std::string& payload) {
    const Notice notice = splitNotice(payload);
    if (payload.find(' ') == std::string::npos) {
        require(notice.requestKey == payload && notice.replyKey == payload,
                "without a blank both keys are the payload");
    } else {
        require(notice.requestKey.find(' ') == std::string::npos, "a request key has no blank");
        require(notice.requestKey + ' ' + notice.replyKey == payload, "the keys are the payload");
    }
}

void tryRequestThread(const std::string& bytes, const ReceivedNotices& notices) {
    std::vector<std::string> expected;
    for (const store::ReceivedNotice& received : notices) {
        const std::string payload = received.text.value_or("");
        if (payload == "&&EXIT") {
            break;
        }
        if (!payload.empty()) {
            expected.push_back(payload);
        }
    }

    handled.clear();
    FakeStore server({{bytes}});
    const CapturedStream log(stderr);
    serveRequests(createChannel, recordNotice);
    require(handled.size() == expected.size(), "every notice up to the exit notice is handled");
    for (std::size_t i = 0; i < expected.size(); ++i) {
        const Notice notice = splitNotice(expected[i]);
        require(
            handled[i].requestKey == notice.requestKey && handled[i].replyKey == notice.replyKey,
            "a handler gets the keys of its notice");
    }
    require(log.written().empty(), "notices log nothing");
    require(server.connections()[0].takeCommands() == Commands{{"SUBSCRIBE", createChannel}},
            "a subscribed connection only reads");
}

// Requests are not found here: each is answered without a reply.
void tryPatchThread(const std::string& bytes, const ReceivedNotices& notices,
                    std::string expectedLog) {
    std::vector<std::string> expected;
    for (const store::ReceivedNotice& received : notices) {
        if (received.elements != 3 || !received.text) {
            continue;
        }
        if (received.text->find(' ') == std::string::npos) {
            expectedLog += debugLine("Request data format is incorrect.");
        } else {
            expected.push_back(*received.text);
        }
    }

    std::vector<Replies> connections(expected.size() + 2, Replies(4, resp::integer(1)));
    connections[0] = {bytes};
    FakeStore server(connections);
    const CapturedStream log(stderr);
    patchThread(nullptr);
    require(log.written() == expectedLog, "only a payload without a blank is logged");
    require(server.connections().size() == expected.size() + 1,
            "every request has a connection of its own");
    for (std::size_t i = 0; i < expected.size(); ++i) {
        const auto [requestKey, replyKey] = splitNotice(expected[i]);
        require(server.connections()[i + 1].takeCommands() ==
                    Commands{{"HGET", requestKey, requestMethodField},
                             {"HGET", requestKey, targetUriField},
                             {"HGET", requestKey, returnChannelField},
                             {"PUBLISH", "", replyKey}},
                "the keys of a notice are one argument each");
    }
}

void tryChannel(const std::string& bytes) {
    const std::optional<ReceivedNotices> notices = noticesIn(bytes);
    tryRequestThread(bytes, notices.value_or(ReceivedNotices()));
    tryPatchThread(
        bytes, notices.value_or(ReceivedNotices()),
        notices ? std::string() : errorLine("Failed to subscribe channel " + patchChannel + '.'));
}

}  // namespace
}  // namespace session_service

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace session_service;
    openLog();
    const std::string input(textOf(data, size));
    tryChannel(input);

    std::string messages = resp::array({resp::bulk("subscribe"), resp::bulk(""), resp::integer(1)});
    for (const std::string& payload : linesOf(input)) {
        trySplit(payload);
        messages += resp::bulkArray({"message", "channel", payload});
    }
    tryChannel(messages);
    return 0;
}
