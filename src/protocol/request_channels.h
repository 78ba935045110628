// Requests as the front end passes them on, and the loop that takes them from a channel.
//
// A notice on the channel names two keys: the request key, one blank, the reply key. The
// request key is that of a hash that the front end has written; the reply key is that of the
// hash that gets the reply, and is published on the request's return channel when the
// reply is complete.
#pragma once

#include <functional>
#include <string>

namespace session_service {

// The channels, and the queues in which the front end finds their names.
inline const std::string createQueue = "&&/redfish/v1/SessionService/Sessions/POSTCREATEQ";
inline const std::string createChannel = "&&/redfish/v1/SessionService/Sessions/CreateNewSession";
inline const std::string deleteQueue = "&&/redfish/v1/SessionService/Sessions/DELETEQ";
inline const std::string deleteChannel = "&&/redfish/v1/SessionService/Sessions/DeleteSession";
inline const std::string patchQueue = "&&/redfish/v1/SessionService/PATCHQ";
inline const std::string patchChannel = "&&/redfish/v1/SessionService/CHANNEL";

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

// Subscribes a connection of its own to the channel and hands the notices to the handler, one
// after another. Returns on the notice "&&EXIT", and when the connection cannot be opened (logged)
// or is lost. Exceptions of the handler reach the caller.
void serveRequests(const std::string& channel, const std::function<void(const Notice&)>& handle);

}  // namespace session_service
