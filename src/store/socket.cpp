#include "store/socket.h"

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <memory>

namespace session_service::store {
namespace {

struct FreeAddresses {
    void operator()(addrinfo* addresses) const noexcept { freeaddrinfo(addresses); }
};
using AddressesPtr = std::unique_ptr<addrinfo, FreeAddresses>;

// Waits for a connection that a signal has interrupted; it goes on being made meanwhile.
bool finishConnecting(int socket) noexcept {
    pollfd ready{.fd = socket, .events = POLLOUT, .revents = 0};
    while (poll(&ready, 1, -1) < 0) {
        if (errno != EINTR) {
            return false;
        }
    }
    int failure = 0;
    socklen_t size = sizeof(failure);
    return getsockopt(socket, SOL_SOCKET, SO_ERROR, &failure, &size) == 0 && failure == 0;
}

int connectTo(int family, const sockaddr* address, socklen_t size) noexcept {
    const int connection = socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (connection < 0) {
        return -1;
    }
    if (connect(connection, address, size) == 0 ||
        (errno == EINTR && finishConnecting(connection))) {
        return connection;
    }
    close(connection);
    return -1;
}

int connectToAnyOf(const char* host, const char* port, int family) noexcept {
    addrinfo hints{};
    hints.ai_family = family;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(host, port, &hints, &found) != 0) {
        return -1;
    }
    const AddressesPtr addresses(found);
    for (const addrinfo* address = found; address; address = address->ai_next) {
        const int connection = connectTo(family, address->ai_addr, address->ai_addrlen);
        if (connection >= 0) {
            // Commands are short, and each waits for its reply.
            const int enabled = 1;
            setsockopt(connection, IPPROTO_TCP, TCP_NODELAY, &enabled, sizeof(enabled));
            return connection;
        }
    }
    return -1;
}

}  // namespace

int connectUnixSocket(const char* path) noexcept {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof(address.sun_path), "%s", path);
    return connectTo(AF_UNIX, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
}

int connectTcpSocket(const char* host, int port) noexcept {
    std::array<char, sizeof("-2147483648")> portText{};
    std::snprintf(portText.data(), portText.size(), "%d", port);
    const int connection = connectToAnyOf(host, portText.data(), AF_INET);
    return connection >= 0 ? connection : connectToAnyOf(host, portText.data(), AF_INET6);
}

}  // namespace session_service::store
