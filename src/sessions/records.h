// A session as it lies in the store: the session resource at its URI, the token
// reference at "&&" + URI, and the token record at "&&X-AUTH-TOKEN-" + token.
//
// Public properties are stored as the text of their JSON value; fields that begin with
// "&&" and the fields of the token record hold bare text.
#pragma once

#include <cstdint>
#include <string>

#include "base/secret.h"
#include "store/commands.h"

namespace session_service {

inline const std::string sessionUriPrefix = "/redfish/v1/SessionService/Sessions/";

// Fields of the session resource.
inline constexpr const char* ownerNameField = "&&OwnerName";  // of an account, too
inline constexpr const char* userNameField = "UserName";      // of the token record, too
inline constexpr const char* clientAddressField = "ClientOriginIPAddress";
inline constexpr const char* sessionTypeField = "SessionType";
// The type of the sessions that this service owns, as stored.
inline const std::string redfishSessionType = "\"Redfish\"";
// Fields of the token record.
inline constexpr const char* privilegeField = "Privilege";
inline constexpr const char* lastAccessedField = "LastAccessed";
inline constexpr const char* timeoutField = "Timeout";
inline constexpr const char* passwordChangeField = "&&PasswordChangeRequired";
// The field of the token reference: the token as a JSON string.
inline constexpr const char* tokenReferenceField = "XAUTH";

std::string sessionUriOf(const std::string& id);
std::string tokenReferenceKeyOf(const std::string& uri);
SecretText tokenRecordKeyOf(const std::string& token);

// Drops one enclosing pair of double quotes from a text of at least two characters;
// escapes inside are left as they are.
std::string stripQuotes(const std::string& text);

// Removes the first occurrence of `part`, if there is one.
void removeSubstring(std::string& text, const std::string& part);

// What session creation knows of a login.
struct NewSession {
    std::string id;    // 8 hexadecimal digits
    SecretText token;  // 64 hexadecimal digits
    std::string userName;
    std::string remoteIp;
    std::string origin;     // empty: the records hold no origin
    std::string privilege;  // decimal text, as authentication gave it
    bool mustChangePassword = false;
};

// Writes the session resource with one command. False when the store refused it or is
// lost.
bool writeSessionRecord(redisContext* connection, const NewSession& session);

// Writes the token reference, and the collection's prefix into the session resource.
void writeTokenReference(redisContext* connection, const NewSession& session);

// Writes the token record with one command, last used now; `timeout` is stored as it is.
// False when the store refused it or is lost.
bool writeMetaSessionRecord(redisContext* connection, const NewSession& session,
                            const std::string& timeout);

// Whether a session has that identifier or that token. What cannot be read is free.
bool isSessionIdTaken(redisContext* connection, const std::string& id);
bool isTokenTaken(redisContext* connection, const std::string& token);

// Whether the session is of the type that this service owns.
bool isRedfishSession(redisContext* connection, const std::string& uri);

// The key of the session's token record, which is "&&X-AUTH-TOKEN-" and what the token reference
// holds, in two forms: expiry takes one enclosing pair of quotes off the stored token, a deletion
// takes the first two quotes out of the key. They differ only for a reference that somebody else
// wrote with other quotes; both are kept.
SecretText tokenRecordKeyForExpiry(redisContext* connection, const std::string& uri);

// False when there is no reply. A reply without text gives a key that nothing has.
bool tokenRecordKeyForDeletion(redisContext* connection, const std::string& uri, SecretText& key);

// When a session was used last, and how long it may stay idle, in seconds of the uptime. What is
// missing or no number is 0.
struct Activity {
    std::int32_t lastAccessed = 0;
    std::int32_t timeout = 0;
};
Activity readActivity(redisContext* connection, const std::string& tokenRecordKey);

// The number of seconds that a field of the token record begins with, kept in 32 bits; 0 without
// digits.
std::int32_t parseSeconds(const std::string& text);

// Seconds since the kernel started: the clock of session activity and expiry.
long uptimeSeconds();

// Removes the three keys of a session with one command. Where "&&" + URI is one of the service's
// own lists, that list stays.
void removeSessionKeys(redisContext* connection, const std::string& tokenRecordKey,
                       const std::string& uri);

}  // namespace session_service
