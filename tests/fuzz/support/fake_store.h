// Store connections whose replies lie ready before the first command: no server and no thread
// is needed, and any bytes may stand for a reply.
#pragma once

#include <array>
#include <deque>
#include <string>
#include <vector>

#include "base/file_descriptor.h"
#include "store/commands.h"
#include "support/scripted_store.h"

namespace session_service {

// What a server sends on one connection. The client reads one of them at a time: an answer to
// the command before, when it holds one reply.
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

// What store::connect reaches while it lives: the n-th connection gets the n-th replies, and
// those beyond are refused.
class FakeStore {
  public:
    explicit FakeStore(std::vector<Replies> repliesOfConnections);
    FakeStore(const FakeStore&) = delete;
    FakeStore& operator=(const FakeStore&) = delete;
    ~FakeStore();

    // The next connection, for the caller to close, or null.
    redisContext* accept();

    // What was opened so far. The client's ends are not there.
    [[nodiscard]] const std::deque<FakeConnection>& connections() const { return opened; }

  private:
    std::vector<Replies> replies;
    std::deque<FakeConnection> opened;
};

}  // namespace session_service
