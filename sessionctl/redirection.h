// Standard streams that lead elsewhere for a while.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

#include "base/file_descriptor.h"

namespace session_service::console {

// Where nothing comes from and everything may go.
inline FileDescriptor openNowhere() {
    return FileDescriptor(open("/dev/null", O_RDWR | O_CLOEXEC));
}

// As long as it lives, the standard stream `stream` leads where `target` does, for children too.
class Redirection {
  public:
    Redirection(int stream, int target)
        : redirected(stream), kept(fcntl(stream, F_DUPFD_CLOEXEC, 0)) {
        std::fflush(nullptr);
        dup2(target, redirected);
    }
    Redirection(const Redirection&) = delete;
    Redirection& operator=(const Redirection&) = delete;
    ~Redirection() {
        std::fflush(nullptr);
        dup2(kept.get(), redirected);
    }

  private:
    int redirected;
    FileDescriptor kept;
};

}  // namespace session_service::console
