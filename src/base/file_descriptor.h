// The owner of a file descriptor.
#pragma once

#include <unistd.h>

#include <utility>

namespace session_service {

// Closes the descriptor when it goes out of scope; a negative one means none.
class FileDescriptor {
  public:
    explicit FileDescriptor(int opened = -1) noexcept : descriptor(opened) {}
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    ~FileDescriptor() { reset(); }

    [[nodiscard]] int get() const noexcept { return descriptor; }
    explicit operator bool() const noexcept { return descriptor >= 0; }

    void reset() noexcept {
        if (descriptor >= 0) {
            close(std::exchange(descriptor, -1));
        }
    }

  private:
    int descriptor;
};

}  // namespace session_service
