// A connection to the testbed's store, for whoever looks at it from outside the daemon.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "testbed/wait.h"

struct redisContext;

namespace testbed {

using Fields = std::map<std::string, std::string>;
using Words = std::vector<std::string>;

// A reply of the store.
struct Value {
    enum class Kind { nil, text, status, error, integer, list };

    Kind kind = Kind::nil;
    std::string text;  // of a text, a status or an error
    long long integer = 0;
    std::vector<Value> elements;
};

// Every function blocks until the server answers and throws Failure when the
// connection is lost or the wait times out. To be used by one thread at a time.
class StoreClient {
  public:
    // Connects over the Unix socket and authenticates unless the password is empty.
    StoreClient(const std::string& socketPath, const std::string& password);

    // Sends one command, one argument a word, and returns whatever the server answers.
    Value command(const Words& words);
    // The same, for commands that have to succeed: throws Failure on an error reply.
    Value run(const Words& words);

    std::string hget(const std::string& key, const std::string& field);  // empty: not there
    bool hexists(const std::string& key, const std::string& field);
    Fields hgetall(const std::string& key);
    void hset(const std::string& key, const Fields& fields);  // writes nothing for no fields
    Words lrange(const std::string& key);
    long long llen(const std::string& key);
    bool exists(const std::string& key);
    void del(const std::string& key);
    Words keys(const std::string& pattern);  // in ascending order
    // Returns the number of receivers.
    long long publish(const std::string& channel, const std::string& text);
    // How many connections have subscribed the channel.
    long long subscribers(const std::string& channel);

    // Turns the connection into a subscribed one: only nextMessage may follow.
    void subscribe(const std::string& channel);
    // The text of the next message; blocks until there is one.
    std::string nextMessage();
    // The text of a message that has arrived already.
    std::optional<std::string> pendingMessage();

    // The next reply that belongs to no command; none when `end` comes first.
    std::optional<Value> next(Deadline end);

  private:
    struct Close {
        void operator()(redisContext* context) const noexcept;
    };
    std::unique_ptr<redisContext, Close> connection;
};

}  // namespace testbed
