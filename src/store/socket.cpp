#include "store/socket.h"

#include <fcntl.h>
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

// Waits for a connection that is being made.
bool finishConnecting(int descriptor) noexcept {
    pollfd ready{.fd = descriptor, .events = POLLOUT, .revents = 0};
    while (poll(&ready, 1, -1) < 0) {
        if (errno != EINTR) {
            return false;
        }
    }
    int failure = 0;
    socklen_t size = sizeof(failure);
    return getsockopt(descriptor, SOL_SOCKET, SO_ERROR, &failure, &size) == 0 && failure == 0;
}

bool makeBlocking(int descriptor) noexcept {
    const int flags = fcntl(descriptor, F_GETFL);
    return flags >= 0 && fcntl(descriptor, F_SETFL, flags & ~O_NONBLOCK) == 0;
}

// Connects without blocking: a server whose queue is full must be seen as one that cannot be
// reached.
int connectTo(int family, const sockaddr* address, socklen_t size) noexcept {
    const int descriptor = socket(family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (descriptor < 0) {
        return -1;
    }
    const bool connected = connect(descriptor, address, size) == 0 ||
                           (errno == EINPROGRESS && finishConnecting(descriptor));
    if (connected && makeBlocking(descriptor)) {
        return descriptor;
    }
    close(descriptor);
    return -1;
}

// The host's addresses of one family; null without any.
AddressesPtr addressesOf(const char* host, const char* port, int family) noexcept {
    addrinfo hints{};
    hints.ai_family = family;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    return AddressesPtr(getaddrinfo(host, port, &hints, &found) == 0 ? found : nullptr);
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
    AddressesPtr addresses = addressesOf(host, portText.data(), AF_INET);
    if (!addresses) {
        addresses = addressesOf(host, portText.data(), AF_INET6);
    }
    for (const addrinfo* address = addresses.get(); address; address = address->ai_next) {
        const int descriptor = connectTo(address->ai_family, address->ai_addr, address->ai_addrlen);
        if (descriptor >= 0) {
            // Commands are short, and each waits for its reply.
            const int enabled = 1;
            setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &enabled, sizeof(enabled));
            return descriptor;
        }
    }
    return -1;
}

}  // namespace session_service::store
