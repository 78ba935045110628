#include "support/captured_output.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <system_error>

#include "base/file_descriptor.h"

namespace session_service {
namespace {

// Sends a stream to a file without a name while it lives.
class Redirection {
  public:
    explicit Redirection(std::FILE* redirected)
        : stream(redirected),
          original(dup(fileno(stream))),
          file(memfd_create("output", MFD_CLOEXEC)) {
        std::fflush(stream);
        if (!original || dup2(file.get(), fileno(stream)) < 0) {
            throw std::system_error(errno, std::generic_category(), "redirection");
        }
    }
    Redirection(const Redirection&) = delete;
    Redirection& operator=(const Redirection&) = delete;
    ~Redirection() {
        std::fflush(stream);
        dup2(original.get(), fileno(stream));
    }

    [[nodiscard]] std::string written() const {
        std::fflush(stream);
        std::string text;
        char chunk[4096];
        ssize_t length = 0;
        while ((length = pread(file.get(), chunk, sizeof(chunk), static_cast<off_t>(text.size()))) >
               0) {
            text.append(chunk, static_cast<std::size_t>(length));
        }
        return text;
    }

  private:
    std::FILE* stream;
    FileDescriptor original;
    FileDescriptor file;
};

std::string outputOf(std::FILE* stream, const std::function<void()>& action) {
    const Redirection redirection(stream);
    action();
    return redirection.written();
}

}  // namespace

std::string standardOutputOf(const std::function<void()>& action) {
    return outputOf(stdout, action);
}

std::string standardErrorOf(const std::function<void()>& action) {
    return outputOf(stderr, action);
}

}  // namespace session_service
