#include "protocol/request_channels.h"

#include <exception>

#include "frame/logger.h"
#include "store/commands.h"

namespace session_service {
namespace {

const std::string exitNotice = "&&EXIT";

void handleNotices(redisContext* store, WorkerContext& context, RequestHandler handle) {
    while (const auto announcement = store::readAnnouncement(store)) {
        if (!announcement->text || announcement->text->empty()) {
            continue;
        }
        if (*announcement->text == exitNotice) {
            return;
        }
        const Notice notice = splitNotice(*announcement->text);
        handle(notice.requestKey, notice.replyKey, context);
    }
}

}  // namespace

Notice splitNotice(const std::string& payload) {
    const std::size_t blank = payload.find(' ');
    if (blank == std::string::npos) {
        return {payload, payload};
    }
    return {payload.substr(0, blank), payload.substr(blank + 1)};
}

void serveRequests(const std::string& channel, WorkerContext& context, RequestHandler handle) {
    const ConnectionPtr store = store::connect();
    if (!store) {
        logger->error("Failed to connect to Redis.");
        return;
    }
    store::subscribe(store.get(), channel);
    try {
        handleNotices(store.get(), context, handle);
    } catch (const std::exception& failure) {
        logger->error("The thread of %s ends: %s", channel.c_str(), failure.what());
    }
}

}  // namespace session_service
