#include "sessionctl/store_access.h"

#include <cstdlib>
#include <cstring>
#include <memory>

#include "sessionctl/output.h"
#include "sessionctl/redirection.h"

namespace session_service::console {
namespace {

using Kind = store::Answer::Kind;

struct WipeAndFree {
    void operator()(ConnectionInfo* info) const noexcept {
        explicit_bzero(info, sizeof(*info));
        std::free(info);
    }
};
using InfoPtr = std::unique_ptr<ConnectionInfo, WipeAndFree>;

// The look-up complains of missing files, even of those that may be missing.
InfoPtr findConnectionInfo() {
    const Redirection quiet(STDERR_FILENO, openNullDevice().get());
    return InfoPtr(getRedisConnectionInfo());
}

std::string addressOf(const ConnectionInfo& info) {
    return info.connectionKind == CONNECTION_KIND_UNIX
               ? escaped(info.socketPath)
               : "127.0.0.1, port " + std::to_string(info.port);
}

[[noreturn]] void fail(const std::string& sentence) {
    throw CommandError(exit_status::storeUnavailable, sentence);
}

// A refusal is shown up to the first character of `end`.
void requireAnswer(const store::Answer& answer, const std::string& address,
                   const std::string& advice, const char* end = "") {
    if (answer.kind == Kind::lost) {
        fail("The store at " + address + " does not answer.");
    }
    if (answer.kind == Kind::refused) {
        const std::string reason = answer.text.substr(0, answer.text.find_first_of(end));
        fail("The store at " + address + " refuses: " + escaped(reason) + ". " + advice);
    }
}

}  // namespace

OpenStore openStore(std::chrono::seconds timeout) {
    const InfoPtr info = findConnectionInfo();
    if (!info) {
        fail(
            "The store's address cannot be found. Needed: a line \"unixsocket PATH\" in "
            "/etc/redis/redis.conf, the file redis.port in the folder of PATH, and "
            "redis.unixsocket there unless the port is 6379.");
    }
    OpenStore opened{ConnectionPtr(connectToRedis(info.get())), addressOf(*info),
                     info->connectionKind == CONNECTION_KIND_UNIX ? info->socketPath : "",
                     info->password[0] != '\0'};
    redisContext* connection = opened.connection.get();
    if (!connection && info->socketPath == std::string_view("(null)")) {
        fail("redis.port is 0, and redis.unixsocket is missing or empty.");
    }
    if (!connection) {
        fail("Nobody listens at " + opened.address + ". Is the Redis server running?");
    }
    if (!store::limitWaits(connection, timeout)) {
        fail("The time limit of the store's connection cannot be set.");
    }
    if (info->password[0] != '\0') {
        requireAnswer(store::ask(connection, {"AUTH", info->password}), opened.address,
                      "Does redis.requirepass hold the server's password, without a line feed?",
                      // A server without the command repeats its argument, the password.
                      ",");
    }
    const store::Answer pong = store::ask(connection, {"PING"});
    requireAnswer(pong, opened.address,
                  pong.text.starts_with("NOAUTH") ? "Put its password into redis.requirepass."
                                                  : "Try again when it is ready.");
    return opened;
}

store::Answer ask(redisContext* connection, std::initializer_list<std::string_view> arguments) {
    store::Answer answer = store::ask(connection, arguments);
    if (answer.kind == Kind::lost) {
        fail("The store has stopped answering.");
    }
    return answer;
}

}  // namespace session_service::console
