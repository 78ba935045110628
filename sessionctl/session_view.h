// Sessions as they are in the store, correct or not, for display.
#pragma once

#include <ctime>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

struct redisContext;

namespace session_service::console {

using Fields = std::map<std::string, std::string>;

struct SessionView {
    std::string id{};
    std::string user{};
    std::string client{};
    std::optional<long long> idle{};       // seconds since its last use
    std::optional<long long> timeout{};    // seconds without use after which it ends
    std::optional<long long> expiresIn{};  // seconds; if not positive, the next pass ends it
    std::optional<std::time_t> loginTime{};
    std::string fault{};  // what is wrong with it; empty if nothing is
    bool hasResource = false;
    bool countsTowardLimit = false;
    Fields resource{};
    Fields tokenRecord{};  // does not hold the token itself, nor does anything else here
};

// The members of the collection, newest first.
// All functions here throw CommandError when the store does not answer; this one also when the key
// is no list.
std::vector<std::string> readMembers(redisContext* connection);

// Faults for which sessionctl check has advice.
inline constexpr const char* namesNoSession = "names no session";
inline constexpr const char* noSessionRecord = "no session record";

// The session that the member of the list names, or what is wrong with the member.
SessionView readMember(redisContext* connection, const std::string& member);

SessionView readSession(redisContext* connection, const std::string& id);

// The member of the list that names the session.
std::string memberFor(const std::string& id);

// A stored property for display: the text of a JSON string, even of one that is not quite JSON;
// any other value as it is.
std::string plainValue(const std::string& stored);
// The same as a JSON value; a structured value stays text.
nlohmann::json jsonValue(const std::string& stored);

}  // namespace session_service::console
