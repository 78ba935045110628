#include "support/scripted_store.h"

#include <hiredis/hiredis.h>
#include <sys/socket.h>

#include <optional>
#include <system_error>

namespace session_service {
namespace {

std::array<int, 2> openPair() {
    std::array<int, 2> ends{};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
        throw std::system_error(errno, std::generic_category(), "socketpair");
    }
    return ends;
}

// The number in a line such as "*3" or "$12"; `position` moves past the line. Empty when
// the line is not complete.
std::optional<std::size_t> takeNumber(const std::string& bytes, std::size_t& position) {
    const std::size_t end = bytes.find("\r\n", position);
    if (end == std::string::npos) {
        return std::nullopt;
    }
    const std::size_t number = std::stoul(bytes.substr(position + 1, end - position - 1));
    position = end + 2;
    return number;
}

// Takes the first command from the front of the bytes once it is complete.
std::optional<Command> takeCommand(std::string& bytes) {
    std::size_t position = 0;
    const auto count = takeNumber(bytes, position);
    if (!count) {
        return std::nullopt;
    }
    Command command;
    while (command.size() < *count) {
        const auto length = takeNumber(bytes, position);
        if (!length || bytes.size() < position + *length + 2) {
            return std::nullopt;
        }
        command.push_back(bytes.substr(position, *length));
        position += *length + 2;
    }
    bytes.erase(0, position);
    return command;
}

void sendAll(int socket, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t sent = ::send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent < 0) {
            return;
        }
        bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
}

}  // namespace

std::string encode(const Command& command) {
    return resp::bulkArray(command);
}

namespace resp {

std::string integer(long long value) {
    return ':' + std::to_string(value) + "\r\n";
}

std::string status(const std::string& text) {
    return '+' + text + "\r\n";
}

std::string bulk(const std::string& text) {
    return '$' + std::to_string(text.size()) + "\r\n" + text + "\r\n";
}

std::string nil() {
    return "$-1\r\n";
}

std::string error(const std::string& text) {
    return '-' + text + "\r\n";
}

std::string array(const std::vector<std::string>& elements) {
    std::string bytes = '*' + std::to_string(elements.size()) + "\r\n";
    for (const std::string& element : elements) {
        bytes += element;
    }
    return bytes;
}

std::string bulkArray(const std::vector<std::string>& texts) {
    std::vector<std::string> elements;
    for (const std::string& text : texts) {
        elements.push_back(bulk(text));
    }
    return array(elements);
}

}  // namespace resp

ScriptedStore::ScriptedStore(std::vector<std::string> scriptedReplies)
    : ScriptedStore(std::move(scriptedReplies), openPair()) {}

ScriptedStore::ScriptedStore(std::vector<std::string> scriptedReplies,
                             const std::array<int, 2>& ends)
    : replies(std::move(scriptedReplies)),
      server(ends[0]),
      client(redisConnectFd(ends[1])),
      thread([this] { serve(); }) {}

ScriptedStore::~ScriptedStore() {
    client.reset();
    thread.join();
}

Commands ScriptedStore::commands() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return receivedCommands;
}

std::string ScriptedStore::bytes() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return receivedBytes;
}

void ScriptedStore::hangUp() {
    shutdown(server.get(), SHUT_RDWR);
}

void ScriptedStore::serve() {
    std::string pending;
    std::size_t answered = 0;
    std::array<char, 4096> chunk{};
    ssize_t length = 0;
    while ((length = recv(server.get(), chunk.data(), chunk.size(), 0)) > 0) {
        const std::string_view arrived(chunk.data(), static_cast<std::size_t>(length));
        pending += arrived;
        {
            const std::lock_guard<std::mutex> lock(mutex);
            receivedBytes += arrived;
        }
        while (auto command = takeCommand(pending)) {
            {
                const std::lock_guard<std::mutex> lock(mutex);
                receivedCommands.push_back(std::move(*command));
            }
            if (answered == replies.size()) {
                hangUp();
                return;
            }
            sendAll(server.get(), replies[answered++]);
        }
    }
}

}  // namespace session_service
