// Replies to requests and the Redfish messages attached to them.
//
// A reply is a hash at the reply key. The message that explains the outcome is an entry
// in a list: the list holds entry keys, newest first; an entry is a hash at LIST/n with
// the identifier and, where there are arguments, the key of a list of them. Messages
// expire; the reply hash does not.
#pragma once

#include <string>
#include <vector>

#include "store/commands.h"

namespace session_service {

// The fields of a reply hash.
inline const std::string returnStatusField = "&&ReturnStatus";
inline const std::string extendedInfoField = "&&ExtendedInfo";
inline const std::string responseDataField = "&&ResponseData";

// The fields of a message entry.
inline constexpr const char* messageIdField = "&&MessageId";
inline constexpr const char* messageArgsField = "&&MessageArgs";

// In the hash of default values: the milliseconds that messages are kept.
inline constexpr const char* messageLifetimeField = "REDIS_CONNECTION_DEFAULT_TIMEOUT";

// The words of a reply's status.
namespace reply_status {
inline constexpr const char* ok = "OK";
inline constexpr const char* okEmpty = "OK_EMPTY";  // done, and there is nothing to show
inline constexpr const char* failure = "FAILURE";
inline constexpr const char* unavailable = "UNAVAILABLE";
inline constexpr const char* authFailed = "AUTH_FAILED";
inline constexpr const char* forbidden = "FORBIDDEN";
inline constexpr const char* exception = "EXCEPTION";
}  // namespace reply_status

namespace message_id {
inline constexpr const char* created = "Base.1.12.Created";
inline constexpr const char* insufficientPrivilege = "Base.1.12.InsufficientPrivilege";
inline constexpr const char* operationFailed = "Base.1.12.OperationFailed";
inline constexpr const char* passwordChangeRequired = "Base.1.12.PasswordChangeRequired";
inline constexpr const char* serviceTemporarilyUnavailable =
    "Base.1.12.ServiceTemporarilyUnavailable";
inline constexpr const char* sessionLimitExceeded = "Base.1.12.SessionLimitExceeded";
inline constexpr const char* stringValueTooLong = "Base.1.12.StringValueTooLong";
inline constexpr const char* databaseOperationError = "ExtendedError.1.2.DatabaseOperationError";
inline constexpr const char* invalidCredentials = "ExtendedError.1.2.InvalidCredentials";
inline constexpr const char* serviceDisabled = "ExtendedError.1.2.ServiceDisabled";
inline constexpr const char* unprocessableEntity = "ExtendedError.1.2.UnprocessableEntity";
}  // namespace message_id

using MessageArguments = std::vector<std::string>;

// The outcome of a request: its status word and, perhaps, a message.
struct Outcome {
    const char* status;
    const char* messageId = nullptr;  // null: no message
    MessageArguments arguments{};
};

// A reply in the making.
struct Reply {
    std::string key{};          // of the reply hash; empty: nobody waits for the reply
    std::string messageList{};  // the key of the list that gets its message
    FieldMap fields{};          // of the hash, beside status and message list
};

// The reply to a login or logout: its message list is the reply key up to the last "/" followed
// by "ExtendedInfo". An empty reply key gives an empty reply.
Reply composeReplyKeys(const std::string& replyKey);

// The reply to a request that is refused before anything is done for it: its message list is the
// reply key followed by "/ExtendedInfo", even for an empty reply key.
Reply composeEarlyReply(const std::string& replyKey);

// Whether somebody waits for the reply.
inline bool isExpected(const Reply& reply) {
    return !reply.key.empty();
}

// Adds status and message list to the reply's fields and writes them with one command, then the
// message if there is one. Does nothing for a reply that nobody waits for. Logs an error when the
// hash cannot be written, and goes on.
void writeReply(redisContext* connection, Reply& reply, const Outcome& outcome);

// Writes status and message list with a command each, then the message, even for an empty reply
// key. The reply's further fields are not written.
void writeReplyFieldByField(redisContext* connection, const Reply& reply, const Outcome& outcome);

// The same for a request that failed for the service's own reasons: the status EXCEPTION and a
// message without arguments.
void writeExceptionReply(redisContext* connection, const Reply& reply, const char* messageId);

// Adds one message to the list. Logs an error and writes nothing when the list's length
// cannot be asked for; later failures are not reported. Entry keys are cut to 511 bytes.
// Throws std::logic_error for a null identifier.
void writeExtendedMessage(redisContext* connection, const std::string& list, const char* messageId,
                          const MessageArguments& arguments = {});

// The text in double quotes, with a backslash before every double quote and backslash
// inside. It serves message arguments and the JSON strings of stored properties.
std::string quoteArg(const std::string& text);

}  // namespace session_service
