// Calls the exported connection functions as the daemon does, inside the private root.
// Each argument is an operation, followed by its operands:
//
//   configuration KEY DIRECTORY   getRedisConfiguration; null for a missing operand
//   discover                      getRedisConnectionInfo; the others use its result
//   kind NUMBER                   changes the kind of connection
//   connect                       connectToRedis
//   authenticate PASSWORD         redisAuthentication; null for a missing operand
//   command WORD                  sends a command of one word
//   disconnect                    redisDisconnectContext
//   open                          redisConnectContext
//   remove FILE                   deletes a file
//
// Prints the result of each, a zero byte after each.
#include <hiredis/hiredis.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "store/connection.h"

namespace {

struct Free {
    void operator()(void* memory) const noexcept { std::free(memory); }
};
struct FreeReply {
    void operator()(void* reply) const noexcept { freeReplyObject(reply); }
};

const char* orNull(const char* operand) {
    return std::strcmp(operand, "null") == 0 ? nullptr : operand;
}

void print(const char* format, ...) __attribute__((format(printf, 1, 2)));

void print(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    std::vprintf(format, arguments);
    va_end(arguments);
    std::putchar('\0');
}

void printConfiguration(const char* key, const char* directory) {
    const std::unique_ptr<char, Free> text(getRedisConfiguration(key, directory));
    print("%s%s", text ? "text " : "null", text ? text.get() : "");
}

void printInfo(const ConnectionInfo* info) {
    if (!info) {
        print("null");
        return;
    }
    print("kind %d port %ld socket %s password %s host %s", info->connectionKind,
          static_cast<long>(info->port), info->socketPath, info->password,
          info->host ? info->host : "null");
}

void printCommand(redisContext* context, const char* word) {
    const std::unique_ptr<redisReply, FreeReply> reply(
        static_cast<redisReply*>(redisCommand(context, "%s", word)));
    print("%s", reply ? reply->str : "no reply");
}

}  // namespace

int main(int, char** argv) {
    std::unique_ptr<ConnectionInfo, Free> info;
    redisContext* context = nullptr;
    for (++argv; *argv; ++argv) {
        const std::string operation = *argv;
        if (operation == "configuration") {
            const char* key = orNull(*++argv);
            printConfiguration(key, orNull(*++argv));
        } else if (operation == "discover") {
            info.reset(getRedisConnectionInfo());
            printInfo(info.get());
        } else if (operation == "kind") {
            info->connectionKind = std::atoi(*++argv);
        } else if (operation == "connect") {
            context = connectToRedis(info.get());
            print("%s host %s", context ? "context" : "null",
                  info && info->host ? info->host : "null");
        } else if (operation == "authenticate") {
            print("%d", redisAuthentication(context, orNull(*++argv)));
        } else if (operation == "command") {
            printCommand(context, *++argv);
        } else if (operation == "disconnect") {
            print("%d", redisDisconnectContext(context));
            context = nullptr;
        } else if (operation == "open") {
            context = redisConnectContext();
            print("%s", context ? "context" : "null");
        } else if (operation == "remove") {
            unlink(*++argv);
        } else {
            std::fprintf(stderr, "unknown operation %s\n", operation.c_str());
            return EXIT_FAILURE;
        }
    }
    redisDisconnectContext(context);
    return EXIT_SUCCESS;
}
