// Requests as the front end announces them, and the loop that takes them from a channel.
//
// A request is announced by a notice: the request key, one blank, the reply key. The
// request key names a hash that the front end has written; the reply key names the
// hash that gets the reply, and is published on the request's return channel when the
// reply is complete.
#pragma once

#include <string>

#include "frame/worker_context.h"

namespace session_service {

// The fields of a request hash.
inline const std::string returnChannelField = "&&ReturnChannel";
inline const std::string requestDataField = "&&RequestData";  // the key of the body's hash
inline const std::string operationPrivilegesField = "&&OperationPrivileges";
inline const std::string remoteIpField = "&&RemoteIP";
inline const std::string originField = "&&Origin";
inline const std::string targetUriField = "&&TargetURI";
inline const std::string requestMethodField = "&&RequestMethod";

// The two keys of a notice.
struct Notice {
    std::string requestKey;
    std::string replyKey;
};

// Splits at the first blank; without one, both keys are the whole text.
Notice splitNotice(const std::string& payload);

// What handles one request; the result of a handler does not reach the loop.
using RequestHandler = void (*)(const std::string& requestKey, const std::string& replyKey,
                                WorkerContext& context);

// The body of a request thread: subscribes a connection of its own to the channel and
// hands the notices to the handler, one after another. Returns on the notice "&&EXIT",
// when the connection cannot be opened (logged) or is lost, and when the handler throws
// (logged).
void serveRequests(const std::string& channel, WorkerContext& context, RequestHandler handle);

}  // namespace session_service
