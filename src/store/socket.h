// Stream sockets to the store. They are close-on-exec from the moment they exist: a PAM module on
// another thread may start a program at any time.
// Internal to this folder.
#pragma once

namespace session_service::store {

// Both return a connected, blocking socket that the caller closes, or -1.

// A path that is too long for a socket's address is cut.
int connectUnixSocket(const char* path) noexcept;

// Tries the host's addresses in turn: those of IPv4 or, when it has none, of IPv6.
int connectTcpSocket(const char* host, int port) noexcept;

}  // namespace session_service::store
