// A fake store whose replies are in the socket before the first command: there is no thread, and
// a reply can be any bytes.
#pragma once

#include <array>
#include <deque>
#include <string>
#include <vector>

#include "base/file_descriptor.h"
#include "store/commands.h"
#include "support/scripted_store.h"

namespace session_service {

// What the server sends on one connection. The client reads one element at a time, as the reply
// to the command before when it is one.
using Replies = std::vector<std::string>;

// A connection to a server that sends the replies, 64 at most, and then nothing more.
class FakeConnection {
  public:
    explicit FakeConnection(const Replies& replies);

    // The client's end: borrowed, or for the caller to close.
    [[nodiscard]] redisContext* get() const { return client.get(); }
    redisContext* release() { return client.release(); }

    // The commands that have arrived since the last call; they must be whole.
    [[nodiscard]] Commands takeCommands() const;

  private:
    FakeConnection(const Replies& replies, const std::array<int, 2>& ends);

    FileDescriptor server;
    ConnectionPtr client;
};

// While it lives, store::connect connects to it: the n-th connection gets the n-th replies, and
// those after the last are refused.
class FakeStore {
  public:
    explicit FakeStore(std::vector<Replies> repliesOfConnections);
    FakeStore(const FakeStore&) = delete;
    FakeStore& operator=(const FakeStore&) = delete;
    ~FakeStore();

    // The next connection, for the caller to close, or null.
    redisContext* accept();

    // The connections so far, without their client's ends.
    [[nodiscard]] const std::deque<FakeConnection>& connections() const { return opened; }

  private:
    std::vector<Replies> replies;
    std::deque<FakeConnection> opened;
};

}  // namespace session_service
