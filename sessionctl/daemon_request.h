// Requests to the daemon, made as a front end makes them.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "sessionctl/commands.h"

struct redisContext;

namespace session_service::console {

struct DaemonRequest {
    const char* noun;        // for messages: "deletion"
    const char* pluralNoun;  // "deletions"
    const char* method;      // "DELETE"
    const std::string& channel;
    std::string target;  // the URI of the resource
    std::vector<std::pair<std::string, std::string>> body{};
};

struct DaemonReply {
    std::string status;
    std::vector<std::string> messages;  // identifiers, oldest first
};

// Sends the request and waits for the reply. Nothing of either stays in the store.
// Throws CommandError when nobody listens, and when there is no reply in time. A signal takes the
// request back, as far as possible, and then ends the process.
DaemonReply requestFromDaemon(const Options& options, redisContext* connection,
                              const DaemonRequest& request);

// The reply's status and messages as part of a sentence, with what a person can do about them.
std::string describe(const DaemonReply& reply);

}  // namespace session_service::console
