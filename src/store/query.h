// Commands whose reply is shown to a person as it came, of whatever kind. For sessionctl.
#pragma once

#include <chrono>
#include <initializer_list>
#include <map>
#include <string>
#include <string_view>
#include <vector>

struct redisContext;

namespace session_service::store {

// A reply of the store.
struct Answer {
    enum class Kind {
        lost,     // none: the connection has ended or the wait took too long
        refused,  // an error: `text` says which
        nil,
        text,  // also a status
        integer,
        list,
    };
    Kind kind = Kind::lost;
    std::string text{};  // any bytes
    long long integer = 0;
    std::vector<Answer> elements{};
};

// Sends one command, each argument as it is, and waits for the reply. Logs nothing.
Answer ask(redisContext* connection, std::initializer_list<std::string_view> arguments);

// The fields of a list of names and values; empty when the answer is no list.
std::map<std::string, std::string> fieldsOf(const Answer& answer);

// The connection's socket, for waiting on.
int descriptorOf(const redisContext* connection);

// From now on a wait for this connection ends after so long, and the connection with it.
// False when the limit cannot be set.
bool limitWaits(redisContext* connection, std::chrono::seconds limit);

}  // namespace session_service::store
