// Typed wrappers over the store's commands.
//
// Each takes an open connection, issues one command, waits for the reply and turns it
// into a plain result. The rule by which a wrapper judges success is its own, stated
// beside it; callers rely on exactly these. On a lost connection ("no reply") the
// result is false, empty or as told. Unless a comment says otherwise nothing is logged
// and nothing is thrown. Keys, fields and values end at their first zero byte.
// No wrapper holds state; a connection is used by one thread at a time.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "store/connection.h"

namespace session_service {

// Field names to values, in ascending order of the names.
using FieldMap = std::map<std::string, std::string>;

// The field's value; empty when the map lacks it.
inline std::string fieldOf(const FieldMap& fields, const std::string& name) {
    const auto found = fields.find(name);
    return found == fields.end() ? std::string() : found->second;
}

struct CloseConnection {
    void operator()(redisContext* connection) const noexcept { redisDisconnectContext(connection); }
};
using ConnectionPtr = std::unique_ptr<redisContext, CloseConnection>;

// What building a text from null throws.
inline constexpr const char* nullTextError = "basic_string::_M_construct null not valid";

namespace store {

// Discovers, connects and authenticates; null on failure.
inline ConnectionPtr connect() {
    return ConnectionPtr(redisConnectContext());
}

// The field's text; empty when the field or the key is missing, the key holds another
// kind of value, or there is no reply: callers treat these alike.
std::string hget(redisContext* connection, const std::string& key, const std::string& field);

// What came back for a field, where the cases that hget treats alike are told apart.
struct FieldReply {
    enum class Kind {
        lost,   // no reply
        text,   // the field's text
        other,  // a missing field or key, without text; a refusal, with the store's
    };
    Kind kind = Kind::lost;
    std::optional<std::string> text{};
};
FieldReply hgetReply(redisContext* connection, const std::string& key, const std::string& field);

// True for an integer reply of 0 (updated) or 1 (created).
bool hset(redisContext* connection, const std::string& key, const std::string& field,
          const std::string& value);

// True for an integer reply, whose value becomes `newLength`.
bool lpush(redisContext* connection, const std::string& key, const std::string& value,
           std::int32_t& newLength);
bool lpush(redisContext* connection, const std::string& key, const std::string& value);

// The length; -1 for any reply but an integer. No reply also prints a line on standard
// output.
std::int32_t llen(redisContext* connection, const std::string& key);

// True when at least one subscriber received the message.
bool publish(redisContext* connection, const std::string& channel, const std::string& message);

// True for an integer reply, no receivers included.
bool publishAny(redisContext* connection, const std::string& channel, const std::string& message);

// True when the key was removed.
bool del(redisContext* connection, const std::string& key);

// True when the key exists and now expires after `seconds`.
bool expire(redisContext* connection, const std::string& key, int seconds);

// The number of removed elements; 0 for any reply but an integer. No reply also prints
// a line on standard output.
std::int32_t lrem(redisContext* connection, const std::string& key, int count,
                  const std::string& value);

bool hexists(redisContext* connection, const std::string& key, const std::string& field);

// True for every reply, a refusal included; `newValue` is set by an integer reply only.
bool hincrby(redisContext* connection, const std::string& key, const std::string& field, int step,
             std::int32_t& newValue);

// True when the field was removed.
bool hdel(redisContext* connection, const std::string& key, const std::string& field);

bool exists(redisContext* connection, const std::string& key);

// Inserts the hash's fields into `fields`. True for every reply; one without elements
// (a missing hash, a refusal) leaves the map as it was.
// Throws std::logic_error when an element has no text.
bool hgetall(redisContext* connection, const std::string& key, FieldMap& fields);

// Appends the list's elements to `list`. True for every reply.
// Throws std::logic_error when an element has no text.
bool lrange(redisContext* connection, const std::string& key, std::vector<std::string>& list);

// Writes all fields with one command; values may hold any bytes.
// True for every reply but an error.
bool hsetMany(redisContext* connection, const std::string& key, const FieldMap& fields);

// The same; true only for an integer reply of at least 0.
bool hsetFields(redisContext* connection, const std::string& key, const FieldMap& fields);

// Commands that no wrapper covers. Each argument is one argument on the wire, whatever
// bytes it holds.

// True when there was a reply, of whatever kind.
bool send(redisContext* connection, std::initializer_list<std::string_view> arguments);

// The value of an integer reply; empty for any other reply and for none.
std::optional<long long> sendForInteger(redisContext* connection,
                                        std::initializer_list<std::string_view> arguments);

std::optional<long long> sendForInteger(redisContext* connection,
                                        const std::vector<std::string>& arguments);

// Appends the words of a text as the store's text form of a command has them: split at
// blanks, of which several count as one.
void appendWords(std::vector<std::string>& arguments, const std::string& text);

// LLEN without a test of the reply's kind: what is not an integer counts as 0.
// Empty only when there is no reply.
std::optional<long long> llenUnchecked(redisContext* connection, const std::string& key);

// One step of a SCAN over the keys that match `pattern`.
struct ScanPage {
    std::int32_t nextCursor = 0;  // 0: the scan is complete
    std::vector<std::string> keys;
};
// Empty when there is no reply or the reply is not a page.
std::optional<ScanPage> scan(redisContext* connection, std::int32_t cursor,
                             const std::string& pattern);

// What a server-side script answered.
struct ScriptAnswer {
    enum class Kind {
        lost,     // no reply
        integer,  // `value` holds it
        refused,  // an error or an array of two elements: `text` says why
        unknown,  // anything else
    };
    Kind kind = Kind::lost;
    long long value = 0;
    std::string text;
};
// Runs the script with the given digest. Every one of `pieces` is one argument after
// it, the count of keys included.
ScriptAnswer evalsha(redisContext* connection, const std::string& digest,
                     const std::vector<std::string>& pieces);

// Subscribes the connection, which then serves nothing but readNotice.
// False when there is no reply.
bool subscribe(redisContext* connection, const std::string& channel);

// What arrived on a subscribed connection: a notice, or a confirmation, whose last element has no
// text.
struct ReceivedNotice {
    std::size_t elements = 0;         // of the array reply; 0 for any other reply
    std::optional<std::string> text;  // of its last element, where that has one
};
// Blocks until something arrives. Empty when the connection is lost.
std::optional<ReceivedNotice> readNotice(redisContext* connection);

}  // namespace store
}  // namespace session_service
