#include "store/connection.h"

#include <hiredis/hiredis.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>

#include "base/number.h"
#include "base/shell.h"
#include "base/text_file.h"
#include "store/reply.h"
#include "store/socket.h"

namespace {

using session_service::FilePtr;
using session_service::readCommand;

constexpr std::size_t lineSize = 1024;
constexpr std::int64_t standardPort = 6379;
constexpr const char* socketDirectoryCommand =
    "dirname $(grep -m 1 '^unixsocket ' /etc/redis/redis.conf |                 awk '{print $2}') "
    "| tr -d '\\n'";

// A line that was read and the connection's parameters: both may hold the store's password.
struct WipeAndFree {
    void operator()(char* text) const noexcept {
        explicit_bzero(text, std::strlen(text));
        std::free(text);
    }
    void operator()(ConnectionInfo* info) const noexcept {
        explicit_bzero(info, sizeof(*info));
        std::free(info);
    }
};
using TextPtr = std::unique_ptr<char, WipeAndFree>;
using InfoPtr = std::unique_ptr<ConnectionInfo, WipeAndFree>;

// The outcome of the first successful discovery. The lock also keeps two first callers
// from running the discovery twice.
std::mutex cacheMutex;
bool cached = false;
ConnectionInfo cache{};

InfoPtr allocateInfo() noexcept {
    return InfoPtr(static_cast<ConnectionInfo*>(std::calloc(1, sizeof(ConnectionInfo))));
}

// The directory of the server's socket; false when the command could not be started.
bool findSocketDirectory(char (&directory)[lineSize]) {
    std::size_t length = 0;
    return readCommand(socketDirectoryCommand, [&](std::string_view chunk) {
        const std::size_t taken = std::min(chunk.size(), lineSize - 1 - length);
        std::memcpy(directory + length, chunk.data(), taken);
        length += taken;
        return length < lineSize - 1;
    });
}

// False when the text is no port number: only digits and line feeds are allowed.
bool parsePort(const char* text, std::int64_t& port) {
    if (*text == '\0' || text[std::strspn(text, "0123456789\n")] != '\0') {
        return false;
    }
    const session_service::ParsedInt64 number = session_service::parseInt64(text);
    if (number.outOfRange) {
        std::fprintf(stderr, "strtol: %s\n", std::strerror(ERANGE));
        return false;
    }
    port = number.value;
    return true;
}

InfoPtr discover() {
    char directory[lineSize] = {};
    if (!findSocketDirectory(directory)) {
        return nullptr;
    }
    const TextPtr portText(getRedisConfiguration("port", directory));
    std::int64_t port = 0;
    if (!portText || !parsePort(portText.get(), port)) {
        return nullptr;
    }
    InfoPtr info = allocateInfo();
    if (!info) {
        return nullptr;
    }

    const TextPtr socketPath(getRedisConfiguration("unixsocket", directory));
    if (socketPath || port == 0) {
        info->connectionKind = CONNECTION_KIND_UNIX;
        // Neither a socket nor a port: a path that no server listens on.
        std::snprintf(info->socketPath, sizeof(info->socketPath), "%s",
                      socketPath ? socketPath.get() : "(null)");
    } else if (port == standardPort) {
        info->connectionKind = CONNECTION_KIND_TCP;
        info->port = port;
    } else {
        return nullptr;
    }

    const TextPtr password(getRedisConfiguration("requirepass", directory));
    if (password) {
        std::snprintf(info->password, sizeof(info->password), "%s", password.get());
    }
    return info;
}

// A context that was given its socket knows no address; redisReconnect needs one.
void rememberAddress(redisContext& context, const ConnectionInfo& info) noexcept {
    if (info.connectionKind == CONNECTION_KIND_UNIX) {
        context.connection_type = REDIS_CONN_UNIX;
        context.unix_sock.path = strdup(info.socketPath);
    } else {
        context.connection_type = REDIS_CONN_TCP;
        context.tcp.host = strdup(info.host);
        context.tcp.port = static_cast<int>(info.port);
    }
}

}  // namespace

char* getRedisConfiguration(const char* key, const char* directory) noexcept {
    if (!key || !directory || std::strlen(key) + std::strlen(directory) > lineSize - 1) {
        return nullptr;
    }
    char path[2 * lineSize + sizeof("/redis.")];
    std::snprintf(path, sizeof(path), "%s/%s%s", directory, "redis.", key);
    const FilePtr file(std::fopen(path, "re"));
    if (!file) {
        perror("fopen");
        return nullptr;
    }
    TextPtr line(static_cast<char*>(std::calloc(1, lineSize)));
    if (!line || !std::fgets(line.get(), lineSize, file.get())) {
        return nullptr;
    }
    return line.release();
}

ConnectionInfo* getRedisConnectionInfo(void) noexcept {
    const std::lock_guard<std::mutex> lock(cacheMutex);
    if (cached) {
        InfoPtr info = allocateInfo();
        if (info) {
            *info = cache;
        }
        return info.release();
    }
    InfoPtr info = discover();
    if (info) {
        cache = *info;
        cached = true;
    }
    return info.release();
}

redisContext* connectToRedis(ConnectionInfo* info) noexcept {
    if (!info) {
        return nullptr;
    }
    int socket = -1;
    if (info->connectionKind == CONNECTION_KIND_UNIX) {
        socket = session_service::store::connectUnixSocket(info->socketPath);
    } else if (info->connectionKind == CONNECTION_KIND_TCP) {
        if (!info->host) {
            info->host = "127.0.0.1";
        }
        socket = session_service::store::connectTcpSocket(info->host, static_cast<int>(info->port));
    }
    if (socket < 0) {
        return nullptr;
    }
    redisContext* context = redisConnectFd(socket);
    if (context) {
        rememberAddress(*context, *info);
    } else {
        close(socket);
    }
    return context;
}

int redisAuthentication(redisContext* context, const char* password) noexcept {
    if (!context || !password) {
        return 1;
    }
    const auto reply = session_service::store::sendWords(context, "AUTH", password);
    const bool accepted =
        reply && reply->type == REDIS_REPLY_STATUS && std::strcmp(reply->str, "OK") == 0;
    return accepted ? 0 : 1;
}

redisContext* redisConnectContext(void) noexcept {
    const InfoPtr info(getRedisConnectionInfo());
    if (!info) {
        return nullptr;
    }
    redisContext* context = connectToRedis(info.get());
    if (context && info->password[0] != '\0' && redisAuthentication(context, info->password) != 0) {
        redisFree(context);
        context = nullptr;
    }
    return context;
}

int redisDisconnectContext(redisContext* context) noexcept {
    if (!context) {
        return 1;
    }
    redisFree(context);
    return 0;
}
