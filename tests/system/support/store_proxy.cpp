#include "support/store_proxy.h"

#include <hiredis/hiredis.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <memory>
#include <utility>

namespace testbed {

namespace {

constexpr const char* proxySocket = "/run/session-service-store/proxy.sock";

struct FreeReader {
    void operator()(redisReader* reader) const noexcept { redisReaderFree(reader); }
};
struct FreeReply {
    void operator()(void* reply) const noexcept { freeReplyObject(reply); }
};

class Socket {
  public:
    explicit Socket(int opened) : socket(opened) {}
    ~Socket() { close(socket); }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    int descriptor() const { return socket; }
    // Hands over what has arrived; false when there will be no more.
    bool read(std::string& bytes) const {
        std::array<char, 65536> chunk{};
        const ssize_t count = ::read(socket, chunk.data(), chunk.size());
        bytes.assign(chunk.data(), count > 0 ? static_cast<std::size_t>(count) : 0);
        return count > 0;
    }
    bool write(const std::string& bytes) const {
        for (std::size_t sent = 0; sent < bytes.size();) {
            const ssize_t count =
                send(socket, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
            if (count <= 0) {
                return false;
            }
            sent += static_cast<std::size_t>(count);
        }
        return true;
    }

  private:
    int socket;
};

int newSocket() {
    return ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
}

sockaddr_un addressOf(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) {
        throw Failure("The path " + path + " is too long for a socket.");
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return address;
}

bool connects(int descriptor, const std::string& path) {
    const sockaddr_un address = addressOf(path);
    return connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
}

// The command among the bytes that the reader was fed; empty while a part of it is missing.
// The daemon sends one only after the reply to the one before.
Words nextCommand(redisReader& reader) {
    void* raw = nullptr;
    redisReaderGetReply(&reader, &raw);
    const std::unique_ptr<redisReply, FreeReply> command(static_cast<redisReply*>(raw));
    Words words;
    for (std::size_t i = 0; command && i < command->elements; ++i) {
        words.emplace_back(command->element[i]->str, command->element[i]->len);
    }
    return words;
}

}  // namespace

StoreProxy::StoreProxy(Controller& controller)
    : storePath(controller.socketPath()), listener(newSocket()), stop(eventfd(0, EFD_CLOEXEC)) {
    const sockaddr_un address = addressOf(controller.path(proxySocket));
    if (bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
        listen(listener, SOMAXCONN) != 0) {
        throw Failure("The proxy cannot listen: " + std::string(std::strerror(errno)));
    }
    controller.writeFile("/run/session-service-store/redis.unixsocket", proxySocket);
    acceptor = std::thread([this] { accept(); });
}

StoreProxy::~StoreProxy() {
    eventfd_write(stop, 1);
    acceptor.join();
    for (std::thread& server : servers) {
        server.join();
    }
    close(stop);
    close(listener);
}

void StoreProxy::setFilter(Filter newFilter) {
    const std::lock_guard lock(mutex);
    filter = std::move(newFilter);
}

StoreProxy::Verdict StoreProxy::verdictOn(const Words& command) {
    Filter current;
    {
        const std::lock_guard lock(mutex);
        current = filter;
    }
    return current ? current(command) : Verdict::pass;
}

void StoreProxy::accept() {
    for (;;) {
        std::array<pollfd, 2> ready{{{stop, POLLIN, 0}, {listener, POLLIN, 0}}};
        poll(ready.data(), ready.size(), -1);
        if (ready[0].revents != 0) {
            return;
        }
        const int client = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (client < 0) {
            continue;
        }
        // In this order: whoever sees a connection counted can refuse later ones only.
        const bool refused = refusing;
        ++connectionCount;
        if (refused) {
            close(client);
            continue;
        }
        servers.emplace_back([this, client] { serve(client); });
    }
}

void StoreProxy::serve(int client) {
    const Socket daemon(client);
    const Socket store(newSocket());
    if (!connects(store.descriptor(), storePath)) {
        return;
    }
    const std::unique_ptr<redisReader, FreeReader> reader(redisReaderCreate());
    Verdict verdict;
    std::string command;  // what has arrived of it
    for (std::string bytes;;) {
        std::array<pollfd, 3> ready{
            {{stop, POLLIN, 0}, {daemon.descriptor(), POLLIN, 0}, {store.descriptor(), POLLIN, 0}}};
        poll(ready.data(), ready.size(), -1);
        if (ready[0].revents != 0) {
            return;
        }
        if (ready[1].revents != 0) {
            if (!daemon.read(bytes)) {
                return;
            }
            command += bytes;
            redisReaderFeed(reader.get(), bytes.data(), bytes.size());
            const Words words = nextCommand(*reader);
            if (words.empty()) {
                continue;
            }
            verdict = verdictOn(words);
            if (verdict.action == Verdict::Action::cut ||
                !(verdict.action == Verdict::Action::reply ? daemon.write(verdict.bytes)
                                                           : store.write(command))) {
                return;
            }
            command.clear();
        }
        if (ready[2].revents != 0) {
            if (!store.read(bytes) || verdict.action == Verdict::Action::cutAfter) {
                return;
            }
            if (verdict.action == Verdict::Action::truncate) {
                daemon.write(bytes.substr(0, bytes.size() / 2));
                return;
            }
            if (!daemon.write(bytes)) {
                return;
            }
        }
    }
}

}  // namespace testbed
