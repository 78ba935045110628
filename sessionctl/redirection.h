// Standard streams that are redirected for a while.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

#include "base/file_descriptor.h"

namespace session_service::console {

inline FileDescriptor openNullDevice() {
    return FileDescriptor(open("/dev/null", O_RDWR | O_CLOEXEC));
}

// While an instance exists, the standard stream `stream` leads where `target` does, also for child
// processes.
class Redirection {
  public:
    Redirection(int stream, int target)
        : redirected(stream), saved(fcntl(stream, F_DUPFD_CLOEXEC, 0)) {
        std::fflush(nullptr);
        dup2(target, redirected);
    }
    Redirection(const Redirection&) = delete;
    Redirection& operator=(const Redirection&) = delete;
    ~Redirection() {
        std::fflush(nullptr);
        dup2(saved.get(), redirected);
    }

  private:
    int redirected;
    FileDescriptor saved;
};

}  // namespace session_service::console
