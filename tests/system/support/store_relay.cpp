#include "support/store_relay.h"

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

constexpr char relaySocket[] = "/run/redis/relay.sock";

struct FreeReader {
    void operator()(redisReader* reader) const noexcept { redisReaderFree(reader); }
};
struct FreeReply {
    void operator()(void* reply) const noexcept { freeReplyObject(reply); }
};

class Socket {
  public:
    explicit Socket(int descriptor) : descriptor_(descriptor) {}
    ~Socket() { close(descriptor_); }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    int descriptor() const { return descriptor_; }
    // Hands over what has arrived; false when there will be no more.
    bool read(std::string& bytes) const {
        std::array<char, 65536> chunk{};
        const ssize_t count = ::read(descriptor_, chunk.data(), chunk.size());
        bytes.assign(chunk.data(), count > 0 ? static_cast<std::size_t>(count) : 0);
        return count > 0;
    }
    bool write(const std::string& bytes) const {
        for (std::size_t sent = 0; sent < bytes.size();) {
            const ssize_t count =
                send(descriptor_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
            if (count <= 0) {
                return false;
            }
            sent += static_cast<std::size_t>(count);
        }
        return true;
    }

  private:
    int descriptor_;
};

int newSocket() {
    return socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
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

StoreRelay::StoreRelay(Controller& controller)
    : storePath_(controller.socketPath()), listener_(newSocket()), stop_(eventfd(0, EFD_CLOEXEC)) {
    const sockaddr_un address = addressOf(controller.path(relaySocket));
    if (bind(listener_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
        listen(listener_, SOMAXCONN) != 0) {
        throw Failure("The relay cannot listen: " + std::string(std::strerror(errno)));
    }
    controller.writeFile("/run/redis/redis.unixsocket", relaySocket);
    acceptor_ = std::thread([this] { accept(); });
}

StoreRelay::~StoreRelay() {
    eventfd_write(stop_, 1);
    acceptor_.join();
    for (std::thread& server : servers_) {
        server.join();
    }
    close(stop_);
    close(listener_);
}

void StoreRelay::judge(Judge judge) {
    const std::lock_guard lock(mutex_);
    judge_ = std::move(judge);
}

StoreRelay::Verdict StoreRelay::ask(const Words& command) {
    Judge judge;
    {
        const std::lock_guard lock(mutex_);
        judge = judge_;
    }
    return judge ? judge(command) : Verdict::pass;
}

void StoreRelay::accept() {
    for (;;) {
        std::array<pollfd, 2> ready{{{stop_, POLLIN, 0}, {listener_, POLLIN, 0}}};
        poll(ready.data(), ready.size(), -1);
        if (ready[0].revents != 0) {
            return;
        }
        const int client = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (client < 0) {
            continue;
        }
        // In this order: whoever sees a connection counted can refuse later ones only.
        const bool refused = refusing_;
        ++connections_;
        if (refused) {
            close(client);
            continue;
        }
        servers_.emplace_back([this, client] { serve(client); });
    }
}

void StoreRelay::serve(int client) {
    const Socket daemon(client);
    const Socket store(newSocket());
    if (!connects(store.descriptor(), storePath_)) {
        return;
    }
    const std::unique_ptr<redisReader, FreeReader> reader(redisReaderCreate());
    Verdict verdict;
    std::string command;  // what has arrived of it
    for (std::string bytes;;) {
        std::array<pollfd, 3> ready{{{stop_, POLLIN, 0},
                                     {daemon.descriptor(), POLLIN, 0},
                                     {store.descriptor(), POLLIN, 0}}};
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
            verdict = ask(words);
            if (verdict.fate == Verdict::Fate::cut ||
                !(verdict.fate == Verdict::Fate::answered ? daemon.write(verdict.reply)
                                                          : store.write(command))) {
                return;
            }
            command.clear();
        }
        if (ready[2].revents != 0) {
            if (!store.read(bytes) || verdict.fate == Verdict::Fate::cutAfter) {
                return;
            }
            if (verdict.fate == Verdict::Fate::truncated) {
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
