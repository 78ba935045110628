#include "protocol/request_channels.h"

#include "frame/logger.h"
#include "store/commands.h"

namespace session_service {
namespace {

const std::string exitNotice = "&&EXIT";

}  // namespace

Notice splitNotice(const std::string& payload) {
    const std::size_t blank = payload.find(' ');
    if (blank == std::string::npos) {
        return {payload, payload};
    }
    return {payload.substr(0, blank), payload.substr(blank + 1)};
}

void serveRequests(const std::string& channel, const std::function<void(const Notice&)>& handle) {
    const ConnectionPtr connection = store::connect();
    if (!connection) {
        logger->error("Failed to connect to Redis.");
        return;
    }
    store::subscribe(connection.get(), channel);
    while (const auto notice = store::readNotice(connection.get())) {
        if (!notice->text || notice->text->empty()) {
            continue;
        }
        if (*notice->text == exitNotice) {
            return;
        }
        handle(splitNotice(*notice->text));
    }
}

}  // namespace session_service
