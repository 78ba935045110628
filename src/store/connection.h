// Opening and closing connections to the local store.
//
// These six functions are the binary's exported interface and keep plain C
// conventions: null or 0/1 results, memory from the C heap, no exceptions, nothing
// written to the log. All are safe to call from several threads at once; a
// connection belongs to the thread that opened it.
//
// The parameters of a connection are not configured here. They are discovered from
// the server's own /etc/redis/redis.conf and from the one-value files that stand
// beside its Unix socket: redis.port, redis.unixsocket and redis.requirepass. They
// are read once; a change of them needs a restart of the process.
#pragma once

#include <stdint.h>

struct redisContext;

#define SESSION_SERVICE_EXPORT __attribute__((visibility("default")))

enum {
    CONNECTION_KIND_UNIX = 1,
    CONNECTION_KIND_TCP = 2,
};

// What is needed to reach the store. Allocated with calloc; release it with free.
struct ConnectionInfo {
    int32_t connectionKind;  // CONNECTION_KIND_UNIX or CONNECTION_KIND_TCP
    int64_t port;            // 0 for a Unix socket
    char socketPath[1024];
    char password[1024];  // empty: no AUTH is sent
    const char* host;     // borrowed; null means 127.0.0.1
};

extern "C" {

// Discovers, connects and authenticates.
// Returns a context to be closed with redisDisconnectContext, or null. The context's
// socket is close-on-exec; no timeouts are set, so commands on it block.
SESSION_SERVICE_EXPORT redisContext* redisConnectContext(void) noexcept;

// Returns 1 for a null context, otherwise closes it and returns 0.
SESSION_SERVICE_EXPORT int redisDisconnectContext(redisContext* context) noexcept;

// Connects to what `info` names, without AUTH; sets info->host where it is null and
// the kind is TCP. Returns null for a null `info`, for an unknown kind, and when the
// server cannot be reached.
SESSION_SERVICE_EXPORT redisContext* connectToRedis(ConnectionInfo* info) noexcept;

// Returns the parameters, to be released with free, or null when they cannot be
// found: the look-up cannot be started, no memory, no port file, a port that is no plain number, or
// neither a socket file nor the standard port (the port 0 gives a path that nobody listens on). The
// first success fills a cache that later calls copy.
SESSION_SERVICE_EXPORT ConnectionInfo* getRedisConnectionInfo(void) noexcept;

// Reads the first line of DIRECTORY/redis.KEY, its line feed included. Returns a
// buffer of 1024 bytes to be released with free, or null when the file cannot be
// opened (reported on standard error) or is empty, or when the names are too long.
SESSION_SERVICE_EXPORT char* getRedisConfiguration(const char* key, const char* directory) noexcept;

// Sends AUTH with the password as one argument. Returns 0 when the server answered
// with the status OK, 1 otherwise.
SESSION_SERVICE_EXPORT int redisAuthentication(redisContext* context,
                                               const char* password) noexcept;
}
