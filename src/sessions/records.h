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

// Fields of the session resource.
inline constexpr const char* userNameField = "UserName";  // of the token record, too
inline constexpr const char* clientAddressField = "ClientOriginIPAddress";
inline constexpr const char* sessionTypeField = "SessionType";
// The field of the token reference: the token as a JSON string.
inline constexpr const char* tokenReferenceField = "XAUTH";
// Fields of the token record.
inline constexpr const char* privilegeField = "Privilege";
inline constexpr const char* lastAccessedField = "LastAccessed";
inline constexpr const char* timeoutField = "Timeout";
inline constexpr const char* passwordChangeField = "&&PasswordChangeRequired";

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

std::string sessionUriOf(const std::string& id);

// Drops one enclosing pair of double quotes from a text of at least two characters;
// escapes inside are left as they are.
std::string stripQuotes(const std::string& text);

// Writes the session resource with one command. False when the store refused it or is
// lost.
bool writeSessionRecord(redisContext* store, const NewSession& session);

// Writes the token reference, and the collection's prefix into the session resource.
void writeTokenReference(redisContext* store, const NewSession& session);

// Writes the token record with one command, last used now; `timeout` is stored as it is.
// False when the store refused it or is lost.
bool writeMetaSessionRecord(redisContext* store, const NewSession& session,
                            const std::string& timeout);

// The number of seconds that a field of the token record begins with, kept in 32 bits; 0 without
// digits.
std::int32_t parseSeconds(const std::string& text);

// Seconds since the kernel started: the clock of session activity and expiry.
long uptimeSeconds();

}  // namespace session_service
