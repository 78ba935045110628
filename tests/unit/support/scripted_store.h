// A fake store that sends prepared replies, for those that a real server seldom gives, and
// records the bytes that it receives.
#pragma once

#include <array>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "base/file_descriptor.h"
#include "store/commands.h"

namespace session_service {

using Command = std::vector<std::string>;
using Commands = std::vector<Command>;

// A command in the form in which it is sent.
std::string encode(const Command& command);

// Replies in the form in which they are sent.
namespace resp {
std::string integer(long long value);
std::string status(const std::string& text);
std::string bulk(const std::string& text);
std::string nil();
std::string error(const std::string& text);
std::string array(const std::vector<std::string>& elements);
std::string bulkArray(const std::vector<std::string>& texts);
}  // namespace resp

// Answers every command with the next of the given replies. A command after the last of them is
// recorded, too, and answered by closing the connection.
class ScriptedStore {
  public:
    explicit ScriptedStore(std::vector<std::string> scriptedReplies = {});
    ScriptedStore(const ScriptedStore&) = delete;
    ScriptedStore& operator=(const ScriptedStore&) = delete;
    ~ScriptedStore();

    // The client's end, borrowed.
    [[nodiscard]] redisContext* connection() const { return client.get(); }

    // What has been received, as commands and byte for byte. Complete once the client's call has
    // returned.
    [[nodiscard]] Commands commands() const;
    [[nodiscard]] std::string bytes() const;

    // Ends the connection; what was sent before still reaches the client.
    void hangUp();

  private:
    ScriptedStore(std::vector<std::string> scriptedReplies, const std::array<int, 2>& ends);
    void serve();

    std::vector<std::string> replies;
    FileDescriptor server;
    ConnectionPtr client;
    mutable std::mutex mutex;  // guards the two below
    std::string receivedBytes;
    Commands receivedCommands;
    std::thread thread;
};

}  // namespace session_service
