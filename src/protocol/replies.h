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

// The fields of a reply hash. While a reply is being made it also holds the item
// replyKeyItem, which says where the reply goes and is not written.
using ReplyFields = FieldMap;
// The message of a reply: the items messageListItem and messageIdItem.
using MessageInfo = FieldMap;
using MessageArguments = std::vector<std::string>;

inline const std::string replyKeyItem = "RetStatusHashKey";
inline const std::string messageListItem = "ExtendInfoHashKey";
inline const std::string messageIdItem = "MessageId";

inline const std::string returnStatusField = "&&ReturnStatus";
inline const std::string extendedInfoField = "&&ExtendedInfo";
inline const std::string responseDataField = "&&ResponseData";

// The status of a deletion that was carried out.
inline constexpr const char* deletedStatus = "OK_EMPTY";

// The fields of a message entry.
inline constexpr const char* messageIdField = "&&MessageId";
inline constexpr const char* messageArgsField = "&&MessageArgs";

inline constexpr const char* databaseOperationError = "ExtendedError.1.2.DatabaseOperationError";
inline constexpr const char* serviceDisabledMessage = "ExtendedError.1.2.ServiceDisabled";
inline constexpr const char* unprocessableMessage = "ExtendedError.1.2.UnprocessableEntity";
inline constexpr const char* temporarilyUnavailableMessage =
    "Base.1.12.ServiceTemporarilyUnavailable";

// The text in double quotes, with a backslash before every double quote and backslash
// inside. It serves message arguments and the JSON strings of stored properties.
std::string quoteArg(const std::string& text);

// Sets where the reply and its messages go: the message list is the reply key up to its
// last "/" followed by "ExtendedInfo". Does nothing for an empty reply key.
void composeReplyKeys(const std::string& replyKey, ReplyFields& fields, MessageInfo& message);

// Writes the reply hash, then the message if `message` holds an identifier; removes
// replyKeyItem from `fields`. Does nothing without that item.
// Logs an error when the hash cannot be written, and goes on.
void writeReply(redisContext* store, ReplyFields& fields, const MessageInfo& message,
                const MessageArguments& arguments = {});

// Adds one message to the list. Logs an error and writes nothing when the list's length
// cannot be asked for; later failures are not reported. Entry keys are cut to 511 bytes.
// Throws std::logic_error for a null identifier.
void writeExtendedMessage(redisContext* store, const std::string& list, const char* messageId,
                          const MessageArguments& arguments);

// The same with one argument, or none where it is null.
void writeExtendedMessageOneArg(redisContext* store, const std::string& list, const char* messageId,
                                const char* argument);

// Writes the reply of a request that failed for the service's own reasons: the status
// EXCEPTION and one message without arguments.
void writeExceptionReply(redisContext* store, const std::string& replyKey, const std::string& list,
                         const char* messageId);

// The reply of a request that is refused before its reply keys are composed: status and
// message list straight into the reply hash, with a list of its own at REPLYKEY/ExtendedInfo.
void writeEarlyRefusal(redisContext* store, const std::string& replyKey, const char* status,
                       const char* messageId, const MessageArguments& arguments = {});

}  // namespace session_service
