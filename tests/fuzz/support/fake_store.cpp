#include "support/fake_store.h"

#include <hiredis/hiredis.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <string_view>

#include "store/connection.h"
#include "support/require.h"

namespace session_service {
namespace {

FakeStore* currentServer = nullptr;

std::array<int, 2> openPair() {
    std::array<int, 2> ends{};
    // Of packets the client reads one at a time: hiredis does not send a command for which it
    // already has a reply.
    require(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) == 0,
            "a pair of sockets can be opened");
    return ends;
}

std::string receiveAll(int socket) {
    // What does not fit of a packet is lost; none is larger than the socket's own buffer.
    static std::array<char, 1 << 20> packet{};
    std::string bytes;
    for (;;) {
        const ssize_t length = recv(socket, packet.data(), packet.size(), MSG_DONTWAIT);
        if (length > 0) {
            bytes.append(packet.data(), static_cast<std::size_t>(length));
        } else if (length == 0 || errno != ECONNRESET) {
            return bytes;
        }
        // A client that left replies unread resets the connection: that is told once, first.
    }
}

void sendAll(int socket, std::string_view bytes) {
    constexpr std::size_t maxPacket = 4096;  // hiredis reads no more than 16 KiB of a packet
    while (!bytes.empty()) {
        const std::string_view packet = bytes.substr(0, maxPacket);
        require(send(socket, packet.data(), packet.size(), MSG_DONTWAIT) > 0,
                "the replies fit into the socket");
        bytes.remove_prefix(packet.size());
    }
}

// Takes "*12\r\n" or its like.
std::size_t takeNumber(std::string_view& bytes, char kind) {
    const std::size_t end = bytes.find("\r\n");
    require(end != std::string_view::npos && end >= 2 && bytes[0] == kind,
            "a command has the protocol's form");
    const std::size_t number = std::stoul(std::string(bytes.substr(1, end - 1)));
    bytes.remove_prefix(end + 2);
    return number;
}

Command takeCommand(std::string_view& bytes) {
    Command command(takeNumber(bytes, '*'));
    for (std::string& argument : command) {
        const std::size_t length = takeNumber(bytes, '$');
        require(bytes.size() >= length + 2 && bytes.substr(length, 2) == "\r\n",
                "an argument has the length that it declares");
        argument = bytes.substr(0, length);
        bytes.remove_prefix(length + 2);
    }
    return command;
}

}  // namespace

FakeConnection::FakeConnection(const Replies& replies) : FakeConnection(replies, openPair()) {}

FakeConnection::FakeConnection(const Replies& replies, const std::array<int, 2>& ends)
    : server(ends[0]), client(redisConnectFd(ends[1])) {
    constexpr std::size_t maxReplies = 64;
    for (std::size_t i = 0; i < std::min(replies.size(), maxReplies); ++i) {
        sendAll(server.get(), replies[i]);
    }
    shutdown(server.get(), SHUT_WR);
}

Commands FakeConnection::takeCommands() const {
    const std::string received = receiveAll(server.get());
    std::string_view bytes = received;
    Commands commands;
    while (!bytes.empty()) {
        commands.push_back(takeCommand(bytes));
    }
    return commands;
}

FakeStore::FakeStore(std::vector<Replies> repliesOfConnections)
    : replies(std::move(repliesOfConnections)) {
    currentServer = this;
}

FakeStore::~FakeStore() {
    currentServer = nullptr;
}

redisContext* FakeStore::accept() {
    if (opened.size() == replies.size()) {
        return nullptr;
    }
    return opened.emplace_back(replies[opened.size()]).release();
}

}  // namespace session_service

// The two functions of the daemon's store connection that a session needs.

redisContext* redisConnectContext() noexcept {
    return session_service::currentServer ? session_service::currentServer->accept() : nullptr;
}

int redisDisconnectContext(redisContext* context) noexcept {
    if (context) {
        redisFree(context);
    }
    return context ? 0 : 1;
}

// A reply may declare more elements than there is memory for: the connection is then lost.
extern "C" __attribute__((visibility("default"))) const char* __asan_default_options() {
    return "allocator_may_return_null=1:max_allocation_size_mb=64";
}
