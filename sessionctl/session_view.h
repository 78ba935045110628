// Sessions as they lie in the store, right or wrong, for a person to look at.
#pragma once

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
    std::optional<long long> expiresIn{};  // seconds; not positive: at the next occasion
    std::string fault{};                   // empty when nothing is wrong with it
    bool recorded = false;                 // there is a session resource
    bool counted = false;                  // it takes one of the places
    Fields resource{};
    Fields tokenRecord{};  // neither it nor anything else here holds the token
};

// The members of the collection as its list has them, newest first.
// All functions here throw Problem when the store does not answer; this one also when the
// list is none.
std::vector<std::string> readMembers(redisContext* connection);

// Faults of a member that can be mended.
inline constexpr const char* namesNoSession = "names no session";
inline constexpr const char* noSessionRecord = "no session record";

// The session that a member of the list names, or what is wrong with that member.
SessionView readMember(redisContext* connection, const std::string& member);

SessionView readSession(redisContext* connection, const std::string& id);

// The member of the list that names the session.
std::string memberOf(const std::string& id);

// A stored property as people read it: the text of a JSON string, even of one that is not quite
// JSON, else the value as it is.
std::string plainValue(const std::string& stored);
// The same as a JSON value; a structured value stays text.
nlohmann::json jsonValue(const std::string& stored);

}  // namespace session_service::console
